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

struct Character {
  uint32_t code_point;
  uint32_t length;  // bytes; 0: none that is whole and well-formed
};

// The character that starts with a byte of 0x80 or more.
inline Character decode(const uint8_t *bytes, size_t available) {
  const uint32_t first = bytes[0];
  const auto is_continuation = [bytes](size_t i) { return (bytes[i] & 0xC0) == 0x80; };
  const auto bits = [bytes](size_t i) { return uint32_t{bytes[i]} & 0x3F; };
  if (first < 0xE0) {
    if (first < 0xC2 || available < 2 || !is_continuation(1)) return {0, 0};
    return {(first & 0x1F) << 6 | bits(1), 2};
  }
  if (first < 0xF0) {
    if (available < 3 || !is_continuation(1) || !is_continuation(2)) return {0, 0};
    const uint32_t value = (first & 0x0F) << 12 | bits(1) << 6 | bits(2);
    const bool valid = value >= 0x800 && (value & 0xF800) != 0xD800 && value < 0xFFFE;
    return {value, valid ? 3u : 0u};
  }
  if (available < 4 || !is_continuation(1) || !is_continuation(2) || !is_continuation(3)) {
    return {0, 0};
  }
  const uint32_t value = (first - 0xF0) << 18 | bits(1) << 12 | bits(2) << 6 | bits(3);
  return {value, value >= 0x10000 && value < kCodePointEnd ? 4u : 0u};
}

template <bool kStore>
Progress to_wide(const char *source, size_t length, psp_wchar *destination, size_t room) {
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
      const auto *bytes = reinterpret_cast<const uint8_t *>(source + in);
      Character character{bytes[0], 1};
      if (bytes[0] >= 0x80) character = decode(bytes, length - in);
      if (character.length == 0) return {in, out};
      in += character.length;
      const uint32_t value = character.code_point;
      if (value < 0x10000) {
        if constexpr (kStore) destination[out] = static_cast<psp_wchar>(value);
        out += 1;
      } else {
        if constexpr (kStore) {
          destination[out] = static_cast<psp_wchar>(0xD7C0 + (value >> 10));
          destination[out + 1] = static_cast<psp_wchar>(0xDC00 | (value & 0x3FF));
        }
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

// The character at units. Length is in units, 0 for a surrogate without its partner.
inline Character decode(const psp_wchar *units, size_t available) {
  const uint32_t first = units[0];
  if ((first & 0xF800) != 0xD800) return {first, 1};
  if (first >= 0xDC00 || available < 2) return {0, 0};
  const uint32_t second = units[1];
  if ((second & 0xFC00) != 0xDC00) return {0, 0};
  return {((first & 0x3FF) + 0x40) << 10 | (second & 0x3FF), 2};
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
      const Character character = decode(source + in, length - in);
      if (character.length == 0) return {in, out};
      in += character.length;
      if constexpr (kStore) {
        uint32_t bytes;
        utf8_encode_char(character.code_point, destination + out, &bytes);
        out += bytes;
      } else {
        out += utf8_length(character.code_point);
      }
    }
  }
  return {in, out};
}

Progress measure_utf8(const psp_wchar *source, size_t length) {
  return to_utf8<false>(source, length, nullptr, kNoLimit);
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

// How many of kSets can run here. The features are those of the kernels' target attributes.
size_t count_usable() {
  uint32_t eax, ebx, ecx, edx;
  if (__get_cpuid(1, &eax, &ebx, &ecx, &edx) == 0) return 1;
  constexpr uint32_t kXgetbvPopcntAvx = 1u << 27 | 1u << 23 | 1u << 28;
  if ((ecx & kXgetbvPopcntAvx) != kXgetbvPopcntAvx) return 1;
  const uint32_t saved = saved_registers();
  if ((saved & kSavesYmm) != kSavesYmm) return 1;
  if (__get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx) == 0) return 1;
  constexpr uint32_t kBmi1Avx2Bmi2 = 1u << 3 | 1u << 5 | 1u << 8;
  if ((ebx & kBmi1Avx2Bmi2) != kBmi1Avx2Bmi2) return 1;
#if defined(PSP_UTF8_AVX512)
  constexpr uint32_t kAvx512FoundationBytesLengths = 1u << 16 | 1u << 30 | 1u << 31;
  constexpr uint32_t kVbmiVbmi2 = 1u << 1 | 1u << 6;
  if ((ebx & kAvx512FoundationBytesLengths) == kAvx512FoundationBytesLengths &&
      (ecx & kVbmiVbmi2) == kVbmiVbmi2 && (saved & kSavesZmm) == kSavesZmm) {
    return 3;
  }
#endif
  return 2;
}

#else

size_t count_usable() { return 1; }

#endif

}  // namespace

constinit const Kernels kBaseKernels = {"base", to_wide<true>, measure_wide, to_utf8<true>,
                                        measure_utf8};

std::span<const Kernels *const> usable_kernels() { return {kSets, count_usable()}; }

constinit std::atomic<const Kernels *> chosen_kernels{nullptr};

const Kernels &find_fastest_kernels() {
  const Kernels *kernels = usable_kernels().back();
  chosen_kernels.store(kernels, std::memory_order_relaxed);
  return *kernels;
}

}  // namespace psp::text
