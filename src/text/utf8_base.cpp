// Kernels for any processor, with SSE2 for runs of ASCII where the compiler may use it, and the
// choice of the fastest set.
//
// Both kernels look at a block of ASCII at a time and otherwise go character by character.
//
// State: the chosen set, found at the first use. Any thread may find it; all find the same.
#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <limits>

#include "text/utf8.h"
#include "text/utf8_engine.h"
#include "text/utf8_kernels.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#if defined(PSP_UTF8_AVX2)
#include <cpuid.h>
#endif

namespace psp::text {
namespace {

constexpr size_t kNoLimit = std::numeric_limits<size_t>::max();

// ---- Blocks of ASCII ----------------------------------------------------------------------------

constexpr size_t kBlock = 16;  // bytes or units

#if defined(__SSE2__)

bool is_ascii_block(const char *bytes) {
  const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i *>(bytes));
  return _mm_movemask_epi8(block) == 0;
}

void widen_block(const char *bytes, psp_wchar *units) {
  const __m128i zero = _mm_setzero_si128();
  const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i *>(bytes));
  auto *out = reinterpret_cast<__m128i *>(units);
  _mm_storeu_si128(out, _mm_unpacklo_epi8(block, zero));
  _mm_storeu_si128(out + 1, _mm_unpackhi_epi8(block, zero));
}

bool is_ascii_block(const psp_wchar *units) {
  const auto *in = reinterpret_cast<const __m128i *>(units);
  const __m128i either = _mm_or_si128(_mm_loadu_si128(in), _mm_loadu_si128(in + 1));
  const __m128i above = _mm_and_si128(either, _mm_set1_epi16(static_cast<int16_t>(0xFF80)));
  return _mm_movemask_epi8(_mm_cmpeq_epi8(above, _mm_setzero_si128())) == 0xFFFF;
}

void narrow_block(const psp_wchar *units, char *bytes) {
  const auto *in = reinterpret_cast<const __m128i *>(units);
  const __m128i packed = _mm_packus_epi16(_mm_loadu_si128(in), _mm_loadu_si128(in + 1));
  _mm_storeu_si128(reinterpret_cast<__m128i *>(bytes), packed);
}

#else

bool is_ascii_block(const char *bytes) {
  uint64_t words[kBlock / sizeof(uint64_t)];
  std::memcpy(words, bytes, sizeof words);
  return ((words[0] | words[1]) & 0x8080808080808080) == 0;
}

void widen_block(const char *bytes, psp_wchar *units) {
  for (size_t i = 0; i < kBlock; ++i) units[i] = static_cast<uint8_t>(bytes[i]);
}

bool is_ascii_block(const psp_wchar *units) {
  uint64_t words[kBlock * sizeof(psp_wchar) / sizeof(uint64_t)];
  std::memcpy(words, units, sizeof words);
  return ((words[0] | words[1] | words[2] | words[3]) & 0xFF80FF80FF80FF80) == 0;
}

void narrow_block(const psp_wchar *units, char *bytes) {
  for (size_t i = 0; i < kBlock; ++i) bytes[i] = static_cast<char>(units[i]);
}

#endif

// ---- UTF-8 to wide ------------------------------------------------------------------------------

// Each length of a character has its own exit, so that the next character's place hangs on the
// prediction of a branch and not on this character's value.
template <bool kStore>
Progress to_wide(const char *source, size_t length, psp_wchar *destination, size_t room) {
  const auto byte_at = [source](size_t i) { return uint32_t{static_cast<uint8_t>(source[i])}; };
  // The payload of a continuation; 0x40 and more for any other byte.
  const auto six_bits_at = [&byte_at](size_t i) { return byte_at(i) ^ 0x80; };
  size_t in = 0;
  size_t out = 0;
  while (in < length) {
    if (length - in >= kBlock && room - out >= kBlock && is_ascii_block(source + in)) {
      if constexpr (kStore) widen_block(source + in, destination + out);
      in += kBlock;
      out += kBlock;
      continue;
    }
    for (const size_t block_end = in + std::min(kBlock, length - in); in < block_end;) {
      if (room - out < 2) return {in, out};
      const uint32_t first = byte_at(in);
      if (first < 0x80) {
        if constexpr (kStore) destination[out] = static_cast<psp_wchar>(first);
        in += 1;
        out += 1;
      } else if (first < 0xE0) {
        if (first < 0xC2 || length - in < 2) return {in, out};
        const uint32_t second = six_bits_at(in + 1);
        if (second >= 0x40) return {in, out};
        if constexpr (kStore) {
          destination[out] = static_cast<psp_wchar>((first & 0x1F) << 6 | second);
        }
        in += 2;
        out += 1;
      } else if (first < 0xF0) {
        if (length - in < 3) return {in, out};
        const uint32_t second = six_bits_at(in + 1);
        const uint32_t third = six_bits_at(in + 2);
        const uint32_t value = (first & 0x0F) << 12 | second << 6 | third;
        if ((second | third) >= 0x40 || value < 0x800 || (value & 0xF800) == 0xD800 ||
            value >= 0xFFFE) {
          return {in, out};
        }
        if constexpr (kStore) destination[out] = static_cast<psp_wchar>(value);
        in += 3;
        out += 1;
      } else {
        if (length - in < 4) return {in, out};
        const uint32_t second = six_bits_at(in + 1);
        const uint32_t third = six_bits_at(in + 2);
        const uint32_t fourth = six_bits_at(in + 3);
        const uint32_t value = (first - 0xF0) << 18 | second << 12 | third << 6 | fourth;
        if ((second | third | fourth) >= 0x40 || value < 0x10000 || value >= kCodePointEnd) {
          return {in, out};
        }
        if constexpr (kStore) {
          destination[out] = static_cast<psp_wchar>(0xD7C0 + (value >> 10));
          destination[out + 1] = static_cast<psp_wchar>(0xDC00 | (value & 0x3FF));
        }
        in += 4;
        out += 2;
      }
    }
  }
  return {in, out};
}

Progress measure_wide(const char *source, size_t length) {
  return to_wide<false>(source, length, nullptr, kNoLimit);
}

// ---- Wide to UTF-8 ------------------------------------------------------------------------------

template <bool kStore, uint32_t kBytes>
void encode(uint32_t code_point, char *bytes) {
  if constexpr (kStore) {
    constexpr uint32_t kMarks[] = {0, 0, 0xC0, 0xE0, 0xF0};
    bytes[0] = static_cast<char>(kMarks[kBytes] | code_point >> (6 * (kBytes - 1)));
    for (uint32_t i = 1; i < kBytes; ++i) {
      bytes[i] = static_cast<char>(0x80 | (code_point >> (6 * (kBytes - 1 - i)) & 0x3F));
    }
  }
}

template <bool kStore>
Progress to_utf8(const psp_wchar *source, size_t length, char *destination, size_t room) {
  size_t in = 0;
  size_t out = 0;
  while (in < length) {
    if (length - in >= kBlock && room - out >= kBlock && is_ascii_block(source + in)) {
      if constexpr (kStore) narrow_block(source + in, destination + out);
      in += kBlock;
      out += kBlock;
      continue;
    }
    for (const size_t block_end = in + std::min(kBlock, length - in); in < block_end;) {
      if (room - out < 4) return {in, out};
      char *bytes = place<kStore>(destination, out);
      const uint32_t unit = source[in];
      if (unit < 0x80) {
        encode<kStore, 1>(unit, bytes);
        in += 1;
        out += 1;
      } else if (unit < 0x800) {
        encode<kStore, 2>(unit, bytes);
        in += 1;
        out += 2;
      } else if ((unit & 0xF800) != 0xD800) {
        encode<kStore, 3>(unit, bytes);
        in += 1;
        out += 3;
      } else {
        if (unit >= 0xDC00 || length - in < 2) return {in, out};
        const uint32_t low = source[in + 1];
        if ((low & 0xFC00) != 0xDC00) return {in, out};
        encode<kStore, 4>(((unit & 0x3FF) + 0x40) << 10 | (low & 0x3FF), bytes);
        in += 2;
        out += 4;
      }
    }
  }
  return {in, out};
}

Progress measure_utf8(const psp_wchar *source, size_t length) {
  return to_utf8<false>(source, length, nullptr, kNoLimit);
}

// ---- Whole conversions --------------------------------------------------------------------------

int32_t whole_to_wide(psp_wchar *destination, uint32_t size, const char *source, uint32_t count,
                      uint32_t mode) {
  return convert(kBaseKernels, destination, size, source, count, mode);
}

int32_t whole_to_utf8(char *destination, uint32_t size, const psp_wchar *source, uint32_t count,
                      uint32_t mode) {
  return convert(kBaseKernels, destination, size, source, count, mode);
}

// ---- Choice -------------------------------------------------------------------------------------

constexpr const Kernels *kSets[] = {
    &kBaseKernels,
#if defined(PSP_UTF8_AVX2)
    &kAvx2Kernels,
#endif
#if defined(PSP_UTF8_AVX512)
    &kAvx512Kernels,
#endif
};

#if defined(PSP_UTF8_AVX2)

// What the operating system saves at a switch of threads, as XGETBV tells: XMM and YMM registers;
// with AVX-512 also the mask registers and the halves and the upper sixteen of ZMM.
constexpr uint32_t kSavesYmm = 0x06;
constexpr uint32_t kSavesZmm = 0xE6;

uint32_t saved_registers() {
  uint32_t low, high;
  __asm__ volatile("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
  return low;
}

constexpr uint32_t kXgetbv = 1u << 27;

// A leaf that the processor does not know leaves its registers 0.
Processor this_processor() {
  uint32_t eax = 0, ebx = 0, edx = 0;
  Processor processor = {};
  __get_cpuid(1, &eax, &ebx, &processor.leaf1_ecx, &edx);
  if ((processor.leaf1_ecx & kXgetbv) != 0) processor.saved = saved_registers();
  __get_cpuid_count(7, 0, &eax, &processor.leaf7_ebx, &processor.leaf7_ecx, &edx);
  return processor;
}

bool has(uint32_t features, uint32_t wanted) { return (features & wanted) == wanted; }

#else

Processor this_processor() { return {}; }

#endif

}  // namespace

// The features are those of the kernels' target attributes.
size_t count_usable([[maybe_unused]] const Processor &processor) {
#if defined(PSP_UTF8_AVX2)
  constexpr uint32_t kPopcntAvx = 1u << 23 | 1u << 28;
  constexpr uint32_t kBmi1Avx2Bmi2 = 1u << 3 | 1u << 5 | 1u << 8;
  if (!has(processor.leaf1_ecx, kXgetbv | kPopcntAvx) || !has(processor.saved, kSavesYmm) ||
      !has(processor.leaf7_ebx, kBmi1Avx2Bmi2)) {
    return 1;
  }
#endif
#if defined(PSP_UTF8_AVX512)
  constexpr uint32_t kAvx512FoundationBytesLengths = 1u << 16 | 1u << 30 | 1u << 31;
  constexpr uint32_t kVbmiVbmi2 = 1u << 1 | 1u << 6;
  if (has(processor.leaf7_ebx, kAvx512FoundationBytesLengths) &&
      has(processor.leaf7_ecx, kVbmiVbmi2) && has(processor.saved, kSavesZmm)) {
    return 3;
  }
#endif
  return std::min<size_t>(std::size(kSets), 2);
}

constinit const Kernels kBaseKernels = {"base",       to_wide<true>, measure_wide, to_utf8<true>,
                                        measure_utf8, whole_to_wide, whole_to_utf8};

std::span<const Kernels *const> usable_kernels() { return {kSets, count_usable(this_processor())}; }

constinit std::atomic<const Kernels *> chosen_kernels{nullptr};

const Kernels &find_fastest_kernels() {
  const Kernels *kernels = usable_kernels().back();
  chosen_kernels.store(kernels, std::memory_order_relaxed);
  return *kernels;
}

}  // namespace psp::text
