// Kernels for x86-64 processors with AVX-512 and its byte instructions VBMI and VBMI2.
//
// The source is taken in windows of one vector. What is known of a window is kept in masks of one
// bit for each element; the compress instructions close the gaps between results. In long texts,
// branches depend on the text only where it is pure ASCII or stays below U+0800, so that mixed
// scripts cost little more than one. Masked loads and stores take the ends of source and
// destination in the same way, so a short text is one window and nothing else.
#include "text/utf8_engine.h"
#include "text/utf8_kernels.h"

#if defined(PSP_UTF8_AVX512)

// GCC 12 takes the undefined operands inside its own intrinsics for mistakes of their caller.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <immintrin.h>

#include <algorithm>
#include <array>
#include <bit>
#include <limits>

#include "text/utf8_vectors.h"

#define PSP_TARGET_AVX512 \
  __attribute__((target("avx512f,avx512bw,avx512vl,avx512vbmi,avx512vbmi2,avx2,bmi,bmi2,popcnt")))
// For the parts of a kernel, whose results are to stay in registers.
#define PSP_PART_AVX512 PSP_TARGET_AVX512 __attribute__((always_inline)) inline
// For what a short text does not need.
#define PSP_LONG_AVX512 PSP_TARGET_AVX512 __attribute__((noinline))

namespace psp::text {
namespace {

constexpr size_t kNoLimit = std::numeric_limits<size_t>::max();
constexpr size_t kVectorBytes = 64;
constexpr size_t kVectorUnits = 32;

// Constants of vectors are made from lanes at compile time.
using Bytes = std::array<uint8_t, kVectorBytes>;
using Words = std::array<uint16_t, kVectorUnits>;

constexpr PSP_TARGET_AVX512 __m512i vector_of(const Bytes &bytes) {
  std::array<int64_t, 8> parts{};
  for (size_t i = 0; i < kVectorBytes; ++i) {
    parts[i / 8] |= static_cast<int64_t>(uint64_t{bytes[i]} << (i % 8 * 8));
  }
  return __m512i{parts[0], parts[1], parts[2], parts[3], parts[4], parts[5], parts[6], parts[7]};
}

constexpr PSP_TARGET_AVX512 __m512i vector_of(const Words &words) {
  Bytes bytes{};
  for (size_t i = 0; i < kVectorUnits; ++i) {
    bytes[2 * i] = static_cast<uint8_t>(words[i] & 0xFF);
    bytes[2 * i + 1] = static_cast<uint8_t>(words[i] >> 8);
  }
  return vector_of(bytes);
}

constexpr PSP_TARGET_AVX512 __m512i all8(uint8_t value) {
  Bytes bytes{};
  bytes.fill(value);
  return vector_of(bytes);
}

constexpr PSP_TARGET_AVX512 __m512i all16(uint16_t value) {
  Words words{};
  words.fill(value);
  return vector_of(words);
}

// Masks of the first count elements, up to all of a vector.
PSP_PART_AVX512 uint64_t first64(size_t count) {
  return _bzhi_u64(~uint64_t{0}, static_cast<uint32_t>(count));
}

PSP_PART_AVX512 uint32_t first32(size_t count) {
  return _bzhi_u32(~uint32_t{0}, static_cast<uint32_t>(count));
}

template <class Mask>
PSP_PART_AVX512 size_t count_of(Mask mask) {
  return static_cast<size_t>(std::popcount(mask));
}

PSP_PART_AVX512 __m256i lower(__m512i value) { return _mm512_castsi512_si256(value); }

PSP_PART_AVX512 __m256i upper(__m512i value) { return _mm512_extracti64x4_epi64(value, 1); }

// Store the first count elements of a vector, and nothing else.
PSP_PART_AVX512 void store_units(psp_wchar *to, __m512i units, size_t count) {
  _mm512_mask_storeu_epi16(to, first32(count), units);
}

PSP_PART_AVX512 void store_bytes(char *to, __m512i bytes, size_t count) {
  _mm512_mask_storeu_epi8(to, first64(count), bytes);
}

// ---- UTF-8 to wide ------------------------------------------------------------------------------

// A window gives the characters that start in its first 61 bytes: a character has at most 3 more.
// So the place of the next window does not depend on the text, and the processor can work on
// several windows at once.
constexpr size_t kStride = kVectorBytes - 3;
constexpr uint64_t kAllStarts = (uint64_t{1} << kStride) - 1;

// Unit rules: which 16 bits the unit of a byte is, by the byte's upper nibble. The byte and 12 bits
// of the two continuations after it stand side by side; they are moved left by a shift, and a sum
// is added to the upper 16 bits. A lead of four bytes gives the high surrogate, its second byte
// gives the lower 10 bits of the low one.
struct WideConstants {
  __m512i lower_nibble = all8(0x0F);
  __m512i first_upper, first_lower, second_upper;  // by nibble, in each lane of 16 bytes
  __m512i below_lead3 = all8(kBelowLead3), below_lead4 = all8(kBelowLead4);
  __m512i top_bit = all8(kTwoContinuations);
  __m512i ef = all8(0xEF), bf = all8(0xBF), be = all8(0xBE);
  __m512i leads = all8(0xC0), lead3 = all8(0xE0), lead4 = all8(0xF0);
  __m512i pairs[2], next_two[2];
  __m512i weights, six_bits = all8(0x3F);
  __m512i byte = all16(0xFF), marks2 = all16(0xC0 * 64 + 0x80);
  __m512i shift, sum;  // by nibble
  __m512i ten_bits = all16(0x3FF), low_surrogates = all16(0xDC00);
};

constexpr PSP_TARGET_AVX512 __m512i in_each_lane(const NibbleTable &table) {
  Bytes bytes{};
  for (size_t i = 0; i < kVectorBytes; ++i) bytes[i] = table[i % table.size()];
  return vector_of(bytes);
}

// Each 16 bits take the byte that has their number, plus start, and the byte after it.
constexpr PSP_TARGET_AVX512 __m512i pairs_from(uint32_t start) {
  Bytes bytes{};
  for (uint32_t i = 0; i < kVectorBytes; ++i) {
    bytes[i] = static_cast<uint8_t>((start + i / 2 + i % 2) % kVectorBytes);
  }
  return vector_of(bytes);
}

constexpr PSP_TARGET_AVX512 WideConstants make_wide_constants() {
  Bytes weights{};
  for (size_t i = 0; i < kVectorBytes; ++i) weights[i] = i % 2 == 0 ? 64 : 1;
  Words shift{}, sum{};
  for (size_t nibble = 0x8; nibble <= 0xB; ++nibble) shift[nibble] = 12;
  shift[0xC] = shift[0xD] = 6;
  sum[0xC] = sum[0xD] = 0x10000 - 0xC0 * 64;
  shift[0xE] = 12;
  shift[0xF] = 8;
  sum[0xF] = 0x10000 - 0xF000 + 0xD800 - (0x10000 >> 10);
  return {.first_upper = in_each_lane(kFirstUpper),
          .first_lower = in_each_lane(kFirstLower),
          .second_upper = in_each_lane(kSecondUpper),
          .pairs = {pairs_from(0), pairs_from(kVectorUnits)},
          .next_two = {pairs_from(1), pairs_from(kVectorUnits + 1)},
          .weights = vector_of(weights),
          .shift = vector_of(shift),
          .sum = vector_of(sum)};
}

constexpr WideConstants kWideConstants = make_wide_constants();

// For each byte those 1, 2 and 3 places before it.
struct Before {
  __m512i one, two, three;
};

PSP_PART_AVX512 Before nothing_before(__m512i bytes) {
  const __m512i lane_before = _mm512_alignr_epi64(bytes, _mm512_setzero_si512(), 6);
  return {_mm512_alignr_epi8(bytes, lane_before, 15), _mm512_alignr_epi8(bytes, lane_before, 14),
          _mm512_alignr_epi8(bytes, lane_before, 13)};
}

PSP_PART_AVX512 Before loaded_before(const char *at) {
  return {_mm512_loadu_si512(at - 1), _mm512_loadu_si512(at - 2), _mm512_loadu_si512(at - 3)};
}

PSP_PART_AVX512 __m512i upper_nibbles(__m512i bytes, const WideConstants &c) {
  return _mm512_and_si512(_mm512_srli_epi16(bytes, 4), c.lower_nibble);
}

// Whether some bytes cannot stand behind the three before them. Besides the faults of pairs:
// continuations that are the third or fourth byte of nothing, or are not where they should be, and
// the noncharacters EF BF BE and EF BF BF.
PSP_PART_AVX512 bool has_faults(__m512i bytes, const Before &before, const WideConstants &c) {
  constexpr int kAllThree = 0x80;
  constexpr int kFirstOrSecondAndThird = 0xA8;
  const __m512i pairs = _mm512_ternarylogic_epi64(
      _mm512_shuffle_epi8(c.first_upper, upper_nibbles(before.one, c)),
      _mm512_shuffle_epi8(c.first_lower, _mm512_and_si512(before.one, c.lower_nibble)),
      _mm512_shuffle_epi8(c.second_upper, upper_nibbles(bytes, c)), kAllThree);
  const __m512i two_continuations = _mm512_ternarylogic_epi64(
      _mm512_subs_epu8(before.two, c.below_lead3), _mm512_subs_epu8(before.three, c.below_lead4),
      c.top_bit, kFirstOrSecondAndThird);
  __mmask64 noncharacters = _mm512_cmpeq_epi8_mask(before.two, c.ef);
  noncharacters = _mm512_mask_cmpeq_epi8_mask(noncharacters, before.one, c.bf);
  noncharacters = _mm512_mask_cmpge_epu8_mask(noncharacters, bytes, c.be);
  const __mmask64 misplaced = _mm512_cmpneq_epi8_mask(pairs, two_continuations);
  return _kortestz_mask64_u8(misplaced, noncharacters) == 0;
}

// Characters below U+0800: in one half of the window, each byte with the next one.
template <int kHalf>
PSP_PART_AVX512 __m512i units_to_7ff(__m512i bytes, uint64_t leads, const WideConstants &c) {
  const __m512i pairs = _mm512_permutexvar_epi8(c.pairs[kHalf], bytes);
  const __m512i of2 = _mm512_maddubs_epi16(pairs, c.weights);
  return _mm512_mask_sub_epi16(_mm512_and_si512(pairs, c.byte),
                               static_cast<uint32_t>(leads >> (kHalf * kVectorUnits)), of2,
                               c.marks2);
}

// All characters, by the unit rules.
template <int kHalf>
PSP_PART_AVX512 __m512i units_to_10ffff(__m512i bytes, uint64_t continuations,
                                        const WideConstants &c) {
  const __m512i first = _mm512_cvtepu8_epi16(kHalf == 0 ? lower(bytes) : upper(bytes));
  const __m512i next_two =
      _mm512_and_si512(_mm512_permutexvar_epi8(c.next_two[kHalf], bytes), c.six_bits);
  const __m512i twelve_bits = _mm512_slli_epi16(_mm512_maddubs_epi16(next_two, c.weights), 4);
  const __m512i nibble = _mm512_srli_epi16(first, 4);
  const __m512i shift = _mm512_permutexvar_epi16(nibble, c.shift);
  const __m512i sum = _mm512_permutexvar_epi16(nibble, c.sum);
  const __m512i units = _mm512_add_epi16(_mm512_shldv_epi16(first, twelve_bits, shift), sum);
  constexpr int kFirstAndSecondOrThird = 0xEA;
  const __m512i low_surrogates =
      _mm512_ternarylogic_epi64(units, c.ten_bits, c.low_surrogates, kFirstAndSecondOrThird);
  return _mm512_mask_mov_epi16(
      units, static_cast<uint32_t>(continuations >> (kHalf * kVectorUnits)), low_surrogates);
}

// Stores the units of the bytes in given, a mask. For characters below U+0800 marked are the leads,
// for others the continuations.
template <bool kTo7ff>
PSP_PART_AVX512 void store_given(__m512i bytes, uint64_t marked, uint64_t given, size_t count,
                                 psp_wchar *destination, const WideConstants &c) {
  const uint32_t low = static_cast<uint32_t>(given);
  const uint32_t high = static_cast<uint32_t>(given >> kVectorUnits);
  const __m512i low_units =
      kTo7ff ? units_to_7ff<0>(bytes, marked, c) : units_to_10ffff<0>(bytes, marked, c);
  const __m512i low_given = _mm512_maskz_compress_epi16(low, low_units);
  if (high == 0) return store_units(destination, low_given, count);
  const size_t low_count = count_of(low);
  store_units(destination, low_given, low_count);
  const __m512i high_units =
      kTo7ff ? units_to_7ff<1>(bytes, marked, c) : units_to_10ffff<1>(bytes, marked, c);
  store_units(destination + low_count, _mm512_maskz_compress_epi16(high, high_units),
              count - low_count);
}

// Gives the characters that start at starts, which are known to be right, and tells how many units
// they are. False, with nothing stored, when they do not fit. With kMixed no branch is made between
// text with characters above U+FFFF and without.
template <bool kStore, bool kMixed>
PSP_PART_AVX512 bool give_units(__m512i bytes, uint64_t starts, psp_wchar *destination, size_t room,
                                size_t *count, const WideConstants &c) {
  const uint64_t no_continuations = _mm512_mask_cmpge_epi8_mask(starts, bytes, c.leads);
  if (_mm512_cmpge_epu8_mask(bytes, c.lead3) == 0) {
    *count = count_of(no_continuations);
    if (kStore && room < *count) return false;
    if constexpr (kStore) {
      const uint64_t leads = _mm512_cmpge_epu8_mask(bytes, c.leads);
      store_given<true>(bytes, leads, no_continuations, *count, destination, c);
    }
    return true;
  }
  if (!kMixed && _mm512_cmpge_epu8_mask(bytes, c.lead4) == 0) {
    *count = count_of(no_continuations);
    if (kStore && room < *count) return false;
    if constexpr (kStore) store_given<false>(bytes, 0, no_continuations, *count, destination, c);
    return true;
  }
  const __mmask64 leads_of_four = _mm512_mask_cmpge_epu8_mask(starts, bytes, c.lead4);
  const uint64_t given = _kor_mask64(no_continuations, _kshiftli_mask64(leads_of_four, 1));
  *count = count_of(given);
  if (kStore && room < *count) return false;
  if constexpr (kStore) {
    const uint64_t continuations = _mm512_cmplt_epi8_mask(bytes, c.leads);
    store_given<false>(bytes, continuations, given, *count, destination, c);
  }
  return true;
}

PSP_PART_AVX512 void store_ascii(__m512i bytes, size_t count, psp_wchar *destination) {
  store_units(destination, _mm512_cvtepu8_epi16(lower(bytes)), std::min(count, kVectorUnits));
  if (count <= kVectorUnits) return;
  store_units(destination + kVectorUnits, _mm512_cvtepu8_epi16(upper(bytes)), count - kVectorUnits);
}

// A whole text of less than 64 bytes, or nothing. The zeros behind it show a character cut off at
// its end as a fault.
template <bool kStore>
PSP_PART_AVX512 Progress to_wide_at_once(const char *source, size_t length, psp_wchar *destination,
                                         size_t room) {
  const WideConstants &c = hidden(kWideConstants);
  const uint64_t present = first64(length);
  const __m512i bytes = _mm512_maskz_loadu_epi8(present, source);
  if (_mm512_movepi8_mask(bytes) == 0) {
    if (kStore && room < length) return {0, 0};
    if constexpr (kStore) store_ascii(bytes, length, destination);
    return {length, length};
  }
  if (has_faults(bytes, nothing_before(bytes), c)) return {0, 0};
  size_t count;
  if (!give_units<kStore, false>(bytes, present, destination, room, &count, c)) return {0, 0};
  return {length, count};
}

// Windows, but for what to_wide_at_once can do; less, when the text is not right. Only the first
// window has nothing before it.
template <bool kStore>
PSP_LONG_AVX512 Progress to_wide_windows(const char *source, size_t length, psp_wchar *destination,
                                         size_t room) {
  WideConstants c = hidden(kWideConstants);
  size_t in = 0;
  size_t out = 0;
  size_t given_beyond = 0;  // bytes from here on that may belong to a character given already
  while (length - in >= kVectorBytes) {
    const char *at = source + in;
    const __m512i bytes = _mm512_loadu_si512(at);
    if (_mm512_movepi8_mask(bytes) == 0) {
      if (room - out < kVectorBytes) break;
      if constexpr (kStore) store_ascii(bytes, kVectorBytes, destination + out);
      in += kVectorBytes;
      out += kVectorBytes;
      given_beyond = 0;
      continue;
    }
    size_t count;
    const Before before = in == 0 ? nothing_before(bytes) : loaded_before(at);
    if (has_faults(bytes, before, c) ||
        !give_units<kStore, true>(bytes, kAllStarts, place<kStore>(destination, out), room - out,
                                  &count, c)) {
      break;
    }
    in += kStride;
    out += count;
    given_beyond = kVectorBytes - kStride;
  }
  for (; given_beyond != 0 && (source[in] & 0xC0) == 0x80; --given_beyond) ++in;
  return {in, out};
}

template <bool kStore>
PSP_TARGET_AVX512 Progress to_wide(const char *source, size_t length, psp_wchar *destination,
                                   size_t room) {
  Progress done = {0, 0};
  const auto add = [&done](Progress more) {
    done = {done.consumed + more.consumed, done.produced + more.produced};
  };
  if (length >= kVectorBytes) done = to_wide_windows<kStore>(source, length, destination, room);
  if (length - done.consumed < kVectorBytes) {
    add(to_wide_at_once<kStore>(source + done.consumed, length - done.consumed,
                                place<kStore>(destination, done.produced), room - done.produced));
  }
  if (done.consumed == length) return done;
  add(kStore ? kBaseKernels.to_wide(source + done.consumed, length - done.consumed,
                                    place<kStore>(destination, done.produced), room - done.produced)
             : kBaseKernels.measure_wide(source + done.consumed, length - done.consumed));
  return done;
}

PSP_TARGET_AVX512 Progress measure_wide(const char *source, size_t length) {
  return to_wide<false>(source, length, nullptr, kNoLimit);
}

// ---- Wide to UTF-8 ------------------------------------------------------------------------------

// A unit is worth one to three bytes; each half of a surrogate pair is worth two. So far as they
// have them, units give {lead, middle, last}: 4, 6 and 6 of 16 bits, with marks added to them. A
// high surrogate's bits are the upper 9 of its code point (11110xxx 10xxxxxx); a low one's are its
// own 10 after the 2 that its partner has left (10xxxxxx 10xxxxxx).
struct Utf8Constants {
  __m512i two = all16(0x80), three = all16(0x800);
  __m512i five_bits = all16(0xF800), six_bits = all16(0xFC00);
  __m512i high = all16(0xD800), low = all16(0xDC00);
  __m512i high_base = all16(0xD800 - (0x10000 >> 10));
  __m512i middle = all16(0x3F00), last = all16(0x3F);
  __m512i marks2 = all16(0xC000), marks3 = all16(0x80E0), marks_high = all16(0xF000);
  __m512i marks_low = all16(0x8000), mark_last = all16(0x80), marks_pair = all16(0x80C0);
  __m512i groups[2];  // {unit i of the first, unit i of the second vector}, 16 a half
};

constexpr PSP_TARGET_AVX512 __m512i groups_from(size_t start) {
  Words words{};
  for (size_t i = 0; i < kVectorUnits; ++i) {
    words[i] = static_cast<uint16_t>(start + i / 2 + kVectorUnits * (i % 2));
  }
  return vector_of(words);
}

constexpr Utf8Constants kUtf8Constants = {.groups = {groups_from(0), groups_from(16)}};

// The units of a window made ready; bit i is unit i.
struct Prepared {
  __m512i value;   // the bits for lead, middle and last
  __m512i marks;   // for lead and middle
  uint32_t two;    // units of 2 bytes or more
  uint32_t three;  // of 3 bytes
};

PSP_PART_AVX512 Prepared prepared(__m512i units, uint32_t two, uint32_t three,
                                  const Utf8Constants &c) {
  return {units, _mm512_mask_mov_epi16(c.marks2, three, c.marks3), two, three};
}

PSP_PART_AVX512 Prepared prepared_surrogates(__m512i units, uint32_t two, uint32_t three,
                                             uint32_t high, uint32_t low, const Utf8Constants &c) {
  const __m512i lane_before = _mm512_alignr_epi64(units, _mm512_setzero_si512(), 6);
  const __m512i before = _mm512_alignr_epi8(units, lane_before, 14);
  Prepared p = prepared(units, two, three, c);
  p.value = _mm512_mask_srli_epi16(units, high, _mm512_sub_epi16(units, c.high_base), 2);
  p.value = _mm512_mask_shldi_epi16(p.value, low, before, _mm512_slli_epi16(units, 6), 10);
  p.marks = _mm512_mask_mov_epi16(p.marks, high, c.marks_high);
  p.marks = _mm512_mask_mov_epi16(p.marks, low, c.marks_low);
  return p;
}

// The bytes of 16 groups of {lead, middle, last, nothing} that are used.
PSP_PART_AVX512 uint64_t kept(uint32_t two, uint32_t three) {
  constexpr uint64_t kLeads = 0x1111111111111111;
  constexpr uint64_t kMiddles = 0x2222222222222222;
  constexpr uint64_t kLasts = 0x4444444444444444;
  return _pdep_u64(three, kLeads) | _pdep_u64(two, kMiddles) | kLasts;
}

// Stores the bytes of the first here units, which are count.
PSP_PART_AVX512 void store_prepared(const Prepared &p, size_t here, size_t count, char *destination,
                                    const Utf8Constants &c) {
  constexpr int kFirstAndSecondOrThird = 0xEA;
  const __m512i lead_middle_bits =
      _mm512_ternarylogic_epi64(_mm512_slli_epi16(p.value, 2), c.middle,
                                _mm512_srli_epi16(p.value, 12), kFirstAndSecondOrThird);
  const __m512i lead_middle = _mm512_add_epi16(lead_middle_bits, p.marks);
  const __m512i last =
      _mm512_mask_add_epi16(p.value, p.two, _mm512_and_si512(p.value, c.last), c.mark_last);
  // Groups of {lead, middle, last, nothing}, 16 in each half.
  constexpr size_t kHalf = kVectorUnits / 2;
  const uint64_t kept0 = kept(p.two, p.three);
  const __m512i groups0 = _mm512_permutex2var_epi16(lead_middle, c.groups[0], last);
  const __m512i bytes0 = _mm512_maskz_compress_epi8(kept0, groups0);
  if (here <= kHalf) return store_bytes(destination, bytes0, count);
  const size_t count0 = std::min(count, count_of(kept0));
  store_bytes(destination, bytes0, count0);
  const __m512i groups1 = _mm512_permutex2var_epi16(lead_middle, c.groups[1], last);
  const __m512i bytes1 =
      _mm512_maskz_compress_epi8(kept(p.two >> kHalf, p.three >> kHalf), groups1);
  store_bytes(destination + count0, bytes1, count - count0);
}

// Units below 0x800 give {lead, last}, or themselves.
PSP_PART_AVX512 void store_to_7ff(__m512i units, uint32_t two, size_t count, char *destination,
                                  const Utf8Constants &c) {
  constexpr int kFirstAndSecondOrThird = 0xEA;
  const __m512i bits = _mm512_ternarylogic_epi64(
      _mm512_slli_epi16(units, 8), c.middle, _mm512_srli_epi16(units, 6), kFirstAndSecondOrThird);
  const __m512i pairs = _mm512_mask_add_epi16(units, two, bits, c.marks_pair);
  const uint64_t used = _pdep_u64(two, 0xAAAAAAAAAAAAAAAA) | 0x5555555555555555;
  store_bytes(destination, _mm512_maskz_compress_epi8(used, pairs), count);
}

// Takes the units of a window, of which here are present and the others zero. None when there is no
// room or a surrogate has no partner. With kMixed, all but the last when that is a high surrogate,
// and no branch is made between text with surrogates and without.
template <bool kStore, bool kMixed>
PSP_PART_AVX512 Progress take_units(__m512i units, size_t here, char *destination, size_t room,
                                    const Utf8Constants &c) {
  const uint32_t two = _mm512_cmpge_epu16_mask(units, c.two);
  if (two == 0) {
    if (kStore && room < here) return {0, 0};
    if constexpr (kStore) {
      store_bytes(destination, _mm512_zextsi256_si512(_mm512_cvtepi16_epi8(units)), here);
    }
    return {here, here};
  }
  const uint32_t three_or_half = _mm512_cmpge_epu16_mask(units, c.three);
  if (three_or_half == 0) {
    const size_t count = here + count_of(two);
    if (kStore && room < count) return {0, 0};
    if constexpr (kStore) store_to_7ff(units, two, count, destination, c);
    return {here, count};
  }
  const __m512i high5 = _mm512_and_si512(units, c.five_bits);
  if (!kMixed && _mm512_cmpeq_epi16_mask(high5, c.high) == 0) {
    const size_t count = here + count_of(two) + count_of(three_or_half);
    if (kStore && room < count) return {0, 0};
    if constexpr (kStore) {
      store_prepared(prepared(units, two, three_or_half, c), here, count, destination, c);
    }
    return {here, count};
  }
  const __m512i high6 = _mm512_and_si512(units, c.six_bits);
  const uint32_t high = _mm512_cmpeq_epi16_mask(high6, c.high);
  const uint32_t low = _mm512_cmpeq_epi16_mask(high6, c.low);
  const uint32_t three = three_or_half & ~(high | low);
  const uint32_t cut = kMixed ? high & (uint32_t{1} << (here - 1)) : 0;
  if (uint64_t{high ^ cut} << 1 != low) return {0, 0};
  const size_t bytes = here + count_of(two) + count_of(three);
  const Progress done = cut == 0 ? Progress{here, bytes} : Progress{here - 1, bytes - 2};
  if (kStore && room < done.produced) return {0, 0};
  if constexpr (kStore) {
    store_prepared(prepared_surrogates(units, two, three, high, low, c), here, done.produced,
                   destination, c);
  }
  return done;
}

// All windows but the last.
template <bool kStore>
PSP_LONG_AVX512 Progress to_utf8_windows(const psp_wchar *source, size_t length, char *destination,
                                         size_t room) {
  Utf8Constants c = hidden(kUtf8Constants);
  size_t in = 0;
  size_t out = 0;
  while (length - in > kVectorUnits) {
    const Progress done = take_units<kStore, true>(_mm512_loadu_si512(source + in), kVectorUnits,
                                                   place<kStore>(destination, out), room - out, c);
    if (done.consumed == 0) break;
    out += done.produced;
    in += kVectorUnits;
    if (done.consumed != kVectorUnits) [[unlikely]]
      --in;
  }
  return {in, out};
}

// A whole text of at most 32 units, or nothing.
template <bool kStore>
PSP_PART_AVX512 Progress to_utf8_at_once(const psp_wchar *source, size_t length, char *destination,
                                         size_t room) {
  const __m512i units = _mm512_maskz_loadu_epi16(first32(length), source);
  return take_units<kStore, false>(units, length, destination, room, hidden(kUtf8Constants));
}

template <bool kStore>
PSP_TARGET_AVX512 Progress to_utf8(const psp_wchar *source, size_t length, char *destination,
                                   size_t room) {
  Progress done = {0, 0};
  const auto add = [&done](Progress more) {
    done = {done.consumed + more.consumed, done.produced + more.produced};
  };
  if (length > kVectorUnits) done = to_utf8_windows<kStore>(source, length, destination, room);
  if (length - done.consumed <= kVectorUnits) {
    add(to_utf8_at_once<kStore>(source + done.consumed, length - done.consumed,
                                place<kStore>(destination, done.produced), room - done.produced));
  }
  if (done.consumed == length) return done;
  add(kStore ? kBaseKernels.to_utf8(source + done.consumed, length - done.consumed,
                                    place<kStore>(destination, done.produced), room - done.produced)
             : kBaseKernels.measure_utf8(source + done.consumed, length - done.consumed));
  return done;
}

PSP_TARGET_AVX512 Progress measure_utf8(const psp_wchar *source, size_t length) {
  return to_utf8<false>(source, length, nullptr, kNoLimit);
}

// ---- Whole conversions --------------------------------------------------------------------------

// Short texts at once, in functions that call nothing: half of their time would be spent on saving
// registers. What is out of the ordinary starts anew.

PSP_TARGET_AVX512 int32_t whole_to_wide(psp_wchar *destination, uint32_t size, const char *source,
                                        uint32_t count, uint32_t mode) {
  if (count < kVectorBytes && destination != nullptr && size != 0) {
    const Progress done = to_wide_at_once<true>(source, count, destination, size - 1);
    if (done.consumed == count) {
      destination[done.produced] = 0;
      return static_cast<int32_t>(done.produced + 1);
    }
  }
  return convert(kAvx512Kernels, destination, size, source, count, mode);
}

PSP_TARGET_AVX512 int32_t whole_to_utf8(char *destination, uint32_t size, const psp_wchar *source,
                                        uint32_t count, uint32_t mode) {
  if (count <= kVectorUnits && destination != nullptr && size != 0) {
    const Progress done = to_utf8_at_once<true>(source, count, destination, size - 1);
    if (done.consumed == count) {
      destination[done.produced] = 0;
      return static_cast<int32_t>(done.produced + 1);
    }
  }
  return convert(kAvx512Kernels, destination, size, source, count, mode);
}

}  // namespace

constinit const Kernels kAvx512Kernels = {"avx512",     to_wide<true>, measure_wide, to_utf8<true>,
                                          measure_utf8, whole_to_wide, whole_to_utf8};

}  // namespace psp::text

#endif
