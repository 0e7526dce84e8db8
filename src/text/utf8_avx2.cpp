// Kernels for x86 processors with AVX2.
//
// The source is taken in windows of one vector. Every element of a window gets its result computed
// in place, whether it has one or not, and table shuffles then close the gaps. The branches on the
// text are those for pure ASCII, for text below U+0800 and for text above U+FFFF.
#include "text/utf8_engine.h"
#include "text/utf8_kernels.h"

#if defined(PSP_UTF8_AVX2)

#include <immintrin.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <limits>

#include "text/utf8_vectors.h"

#define PSP_TARGET_AVX2 __attribute__((target("avx2,bmi,bmi2,popcnt")))
// For the parts of a kernel, whose results are to stay in registers.
#define PSP_PART_AVX2 PSP_TARGET_AVX2 __attribute__((always_inline)) inline

namespace psp::text {
namespace {

constexpr size_t kNoLimit = std::numeric_limits<size_t>::max();
constexpr size_t kVectorBytes = 32;
constexpr size_t kVectorUnits = 16;
constexpr size_t kLane = kVectorBytes / 2;  // most instructions work inside lanes of 128 bits

// ---- Parts of both directions -------------------------------------------------------------------

// Constants of vectors are made from lanes at compile time.
using Bytes = std::array<uint8_t, kVectorBytes>;

constexpr PSP_TARGET_AVX2 __m256i vector_of(const Bytes &bytes) {
  std::array<int64_t, 4> parts{};
  for (size_t i = 0; i < kVectorBytes; ++i) {
    parts[i / 8] |= static_cast<int64_t>(uint64_t{bytes[i]} << (i % 8 * 8));
  }
  return __m256i{parts[0], parts[1], parts[2], parts[3]};
}

constexpr PSP_TARGET_AVX2 __m256i all8(uint8_t value) {
  Bytes bytes{};
  bytes.fill(value);
  return vector_of(bytes);
}

constexpr PSP_TARGET_AVX2 __m256i all16(uint16_t value) {
  Bytes bytes{};
  for (size_t i = 0; i < kVectorBytes; ++i) {
    bytes[i] = static_cast<uint8_t>(i % 2 == 0 ? value & 0xFF : value >> 8);
  }
  return vector_of(bytes);
}

constexpr PSP_TARGET_AVX2 __m256i in_each_lane(const NibbleTable &table) {
  Bytes bytes{};
  for (size_t i = 0; i < kVectorBytes; ++i) bytes[i] = table[i % table.size()];
  return vector_of(bytes);
}

PSP_PART_AVX2 __m256i load(const void *from) {
  return _mm256_loadu_si256(static_cast<const __m256i *>(from));
}

PSP_PART_AVX2 __m128i load_lane(const void *from) {
  return _mm_loadu_si128(static_cast<const __m128i *>(from));
}

PSP_PART_AVX2 void store(void *to, __m256i value) {
  _mm256_storeu_si256(static_cast<__m256i *>(to), value);
}

constexpr uint8_t kUnused = 0x80;  // a shuffle index that gives zero

constexpr std::array<uint8_t, 2 * kLane> make_padding() {
  std::array<uint8_t, 2 * kLane> indices{};
  for (size_t i = 0; i < indices.size(); ++i) {
    indices[i] = i < kLane ? static_cast<uint8_t>(i) : kUnused;
  }
  return indices;
}

// 16 to 31 bytes with zeros behind them, from two loads that overlap.
PSP_PART_AVX2 __m256i load_padded(const void *from, size_t bytes) {
  static constexpr std::array<uint8_t, 2 *kLane> kPadding = make_padding();
  const char *start = static_cast<const char *>(from);
  const __m128i end = load_lane(start + bytes - kLane);
  const __m128i upper = _mm_shuffle_epi8(end, load_lane(kPadding.data() + kVectorBytes - bytes));
  return _mm256_inserti128_si256(_mm256_castsi128_si256(load_lane(start)), upper, 1);
}

// The lower lane as upper lane, above zeros: what stands before each lane.
PSP_PART_AVX2 __m256i lanes_before(__m256i value) {
  return _mm256_permute2x128_si256(value, value, 0x08);
}

PSP_PART_AVX2 uint32_t top_bits(__m256i bytes) {
  return static_cast<uint32_t>(_mm256_movemask_epi8(bytes));
}

PSP_PART_AVX2 size_t count_of(uint32_t mask) { return static_cast<size_t>(std::popcount(mask)); }

PSP_PART_AVX2 __m256i at_least8(__m256i bytes, __m256i least) {
  return _mm256_cmpeq_epi8(_mm256_max_epu8(bytes, least), bytes);
}

PSP_PART_AVX2 __m256i at_least16(__m256i units, __m256i least) {
  return _mm256_cmpeq_epi16(_mm256_max_epu16(units, least), units);
}

// One shuffle of a lane for each of 256 patterns.
struct alignas(64) ShuffleTable {
  std::array<std::array<uint8_t, kLane>, 256> rows;
};

PSP_PART_AVX2 void store_shuffled(void *to, __m128i value, const ShuffleTable &table,
                                  uint32_t row) {
  const auto *shuffle = reinterpret_cast<const __m128i *>(table.rows[row].data());
  _mm_storeu_si128(static_cast<__m128i *>(to), _mm_shuffle_epi8(value, _mm_load_si128(shuffle)));
}

// ---- UTF-8 to wide ------------------------------------------------------------------------------

// A window gives the characters that start in its first 29 bytes: a character has at most 3 more.
// So the place of the next window does not depend on the text, and the processor can work on
// several windows at once.
constexpr size_t kStride = kVectorBytes - 3;
constexpr uint32_t kAllStarts = (1u << kStride) - 1;

// Row p moves the units i with bit i of p set to the front.
constexpr ShuffleTable make_unit_table() {
  ShuffleTable table{};
  for (uint32_t pattern = 0; pattern < 256; ++pattern) {
    auto &row = table.rows[pattern];
    row.fill(kUnused);
    size_t next = 0;
    for (uint8_t unit = 0; unit < 8; ++unit) {
      if ((pattern >> unit & 1) == 0) continue;
      row[next++] = static_cast<uint8_t>(2 * unit);
      row[next++] = static_cast<uint8_t>(2 * unit + 1);
    }
  }
  return table;
}

constexpr ShuffleTable kUnitTable = make_unit_table();

// Unit rules: which 16 bits the unit of a byte is, by the byte's upper nibble. The byte and 12 bits
// of the two continuations after it stand side by side; they are moved left by multiplying with a
// power of two, and a sum is added to the upper 16 bits. A lead of four bytes gives the high
// surrogate, its second byte gives the lower 10 bits of the low one.
constexpr uint32_t factor_of(uint32_t nibble) {
  if (nibble < 0x8) return 1;
  if (nibble == 0xC || nibble == 0xD) return 1 << 6;
  return nibble == 0xF ? 1 << 8 : 1 << 12;
}

constexpr uint32_t sum_of(uint32_t nibble) {
  if (nibble == 0xC || nibble == 0xD) return 0x10000 - 0xC0 * 64;
  return nibble == 0xF ? 0x10000 - 0xF000 + 0xD800 - (0x10000 >> 10) : 0;
}

constexpr NibbleTable make_rule_table(uint32_t (*number_of)(uint32_t), uint32_t shift) {
  NibbleTable table{};
  for (uint32_t nibble = 0; nibble < table.size(); ++nibble) {
    table[nibble] = static_cast<uint8_t>(number_of(nibble) >> shift & 0xFF);
  }
  return table;
}

struct WideConstants {
  __m256i lower_nibble = all8(0x0F);
  __m256i first_upper = in_each_lane(kFirstUpper);
  __m256i first_lower = in_each_lane(kFirstLower);
  __m256i second_upper = in_each_lane(kSecondUpper);
  __m256i below_lead3 = all8(kBelowLead3), below_lead4 = all8(kBelowLead4);
  __m256i top_bit = all8(kTwoContinuations);
  __m256i ef = all8(0xEF), bf = all8(0xBF), be = all8(0xBE);
  __m256i leads = all8(0xC0), lead3 = all8(0xE0), lead4 = all8(0xF0);
  __m256i six_bits = all8(0x3F);
  __m256i weights = all16(0x0140);  // 64 and 1
  __m256i marks2 = all16(0xC0 * 64 + 0x80);
  __m256i factor_lower = in_each_lane(make_rule_table(factor_of, 0));
  __m256i factor_upper = in_each_lane(make_rule_table(factor_of, 8));
  __m256i sum_lower = in_each_lane(make_rule_table(sum_of, 0));
  __m256i sum_upper = in_each_lane(make_rule_table(sum_of, 8));
  __m256i ten_bits = all16(0x3FF), low_surrogates = all16(0xDC00);
};

constexpr WideConstants kWideConstants{};

// For each byte those 1, 2 and 3 places before it.
struct Before {
  __m256i one, two, three;
};

PSP_PART_AVX2 Before nothing_before(__m256i bytes) {
  const __m256i before = lanes_before(bytes);
  return {_mm256_alignr_epi8(bytes, before, 15), _mm256_alignr_epi8(bytes, before, 14),
          _mm256_alignr_epi8(bytes, before, 13)};
}

PSP_PART_AVX2 Before loaded_before(const char *at) {
  return {load(at - 1), load(at - 2), load(at - 3)};
}

PSP_PART_AVX2 __m256i upper_nibbles(__m256i bytes, const WideConstants &c) {
  return _mm256_and_si256(_mm256_srli_epi16(bytes, 4), c.lower_nibble);
}

// Whether some bytes cannot stand behind the three before them. Besides the faults of pairs:
// continuations that are the third or fourth byte of nothing, or are not where they should be, and
// the noncharacters EF BF BE and EF BF BF.
PSP_PART_AVX2 bool has_faults(__m256i bytes, const Before &before, const WideConstants &c) {
  const __m256i first_upper = _mm256_shuffle_epi8(c.first_upper, upper_nibbles(before.one, c));
  const __m256i first_lower =
      _mm256_shuffle_epi8(c.first_lower, _mm256_and_si256(before.one, c.lower_nibble));
  const __m256i second_upper = _mm256_shuffle_epi8(c.second_upper, upper_nibbles(bytes, c));
  const __m256i pairs = _mm256_and_si256(_mm256_and_si256(first_upper, first_lower), second_upper);
  const __m256i two_continuations =
      _mm256_and_si256(_mm256_or_si256(_mm256_subs_epu8(before.two, c.below_lead3),
                                       _mm256_subs_epu8(before.three, c.below_lead4)),
                       c.top_bit);
  const __m256i noncharacter = _mm256_and_si256(
      _mm256_and_si256(_mm256_cmpeq_epi8(before.two, c.ef), _mm256_cmpeq_epi8(before.one, c.bf)),
      at_least8(bytes, c.be));
  const __m256i faults = _mm256_or_si256(_mm256_xor_si256(pairs, two_continuations), noncharacter);
  return _mm256_testz_si256(faults, faults) == 0;
}

// A window and what its bytes are in their characters.
struct Window {
  __m256i bytes;
  __m256i after;          // for each byte the next one
  __m256i after_after;    // and the one behind that
  __m256i leads;          // all bits set in each lead of a character of 2 bytes or more
  __m256i continuations;  // and in each continuation
};

PSP_PART_AVX2 Window window_of(__m256i bytes, const WideConstants &c) {
  const __m256i behind = _mm256_permute2x128_si256(bytes, bytes, 0x81);
  return {bytes, _mm256_alignr_epi8(behind, bytes, 1), _mm256_alignr_epi8(behind, bytes, 2),
          at_least8(bytes, c.leads), _mm256_cmpgt_epi8(c.leads, bytes)};
}

// 16 bits for each of the bytes 0 to 7 and 16 to 23 of a window, or of the others.
template <int kOdd>
PSP_PART_AVX2 __m256i interleaved(__m256i lower, __m256i upper) {
  return kOdd == 0 ? _mm256_unpacklo_epi8(lower, upper) : _mm256_unpackhi_epi8(lower, upper);
}

// The units of characters below U+0800, from each byte with the next one.
template <int kOdd>
PSP_PART_AVX2 __m256i units_to_7ff(const Window &w, const WideConstants &c) {
  const __m256i ascii = interleaved<kOdd>(w.bytes, _mm256_setzero_si256());
  const __m256i pairs = interleaved<kOdd>(w.bytes, w.after);
  const __m256i of2 = _mm256_sub_epi16(_mm256_maddubs_epi16(pairs, c.weights), c.marks2);
  return _mm256_blendv_epi8(ascii, of2, interleaved<kOdd>(w.leads, w.leads));
}

// What the unit rules say of each byte.
struct Rules {
  __m256i factor_lower, factor_upper, sum_lower, sum_upper;
};

PSP_PART_AVX2 Rules rules_of(__m256i bytes, const WideConstants &c) {
  const __m256i nibbles = upper_nibbles(bytes, c);
  return {_mm256_shuffle_epi8(c.factor_lower, nibbles),
          _mm256_shuffle_epi8(c.factor_upper, nibbles), _mm256_shuffle_epi8(c.sum_lower, nibbles),
          _mm256_shuffle_epi8(c.sum_upper, nibbles)};
}

// The units of all characters; kFours: up to U+10FFFF.
template <int kOdd, bool kFours>
PSP_PART_AVX2 __m256i units_by(const Rules &rules, const Window &w, const WideConstants &c) {
  const __m256i first = interleaved<kOdd>(w.bytes, _mm256_setzero_si256());
  const __m256i next_two = interleaved<kOdd>(_mm256_and_si256(w.after, c.six_bits),
                                             _mm256_and_si256(w.after_after, c.six_bits));
  const __m256i twelve_bits = _mm256_slli_epi16(_mm256_maddubs_epi16(next_two, c.weights), 4);
  const __m256i factor = interleaved<kOdd>(rules.factor_lower, rules.factor_upper);
  const __m256i sum = interleaved<kOdd>(rules.sum_lower, rules.sum_upper);
  const __m256i moved =
      _mm256_add_epi16(_mm256_mullo_epi16(first, factor), _mm256_mulhi_epu16(twelve_bits, factor));
  const __m256i units = _mm256_add_epi16(moved, sum);
  if constexpr (!kFours) return units;
  const __m256i low = _mm256_or_si256(_mm256_and_si256(units, c.ten_bits), c.low_surrogates);
  return _mm256_blendv_epi8(units, low, interleaved<kOdd>(w.continuations, w.continuations));
}

// Stores the units of the bytes in given without gaps, and up to 8 units more.
PSP_PART_AVX2 void store_given(__m256i even, __m256i odd, uint32_t given, psp_wchar *to) {
  store_shuffled(to, _mm256_castsi256_si128(even), kUnitTable, given & 0xFF);
  to += std::popcount(given & 0xFF);
  store_shuffled(to, _mm256_castsi256_si128(odd), kUnitTable, given >> 8 & 0xFF);
  to += std::popcount(given & 0xFF00);
  store_shuffled(to, _mm256_extracti128_si256(even, 1), kUnitTable, given >> 16 & 0xFF);
  to += std::popcount(given & 0xFF0000);
  store_shuffled(to, _mm256_extracti128_si256(odd, 1), kUnitTable, given >> 24);
}

// Gives the characters that start at starts, which are known to be right. There is room for 32
// units. Returns how many they are.
template <bool kStore>
PSP_PART_AVX2 size_t give_units(__m256i bytes, uint32_t starts, psp_wchar *to,
                                const WideConstants &c) {
  const Window w = window_of(bytes, c);
  const uint32_t no_continuations = ~top_bits(w.continuations) & starts;
  if (top_bits(at_least8(bytes, c.lead3)) == 0) {
    if constexpr (kStore) {
      store_given(units_to_7ff<0>(w, c), units_to_7ff<1>(w, c), no_continuations, to);
    }
    return count_of(no_continuations);
  }
  const uint32_t leads_of_four = top_bits(at_least8(bytes, c.lead4)) & starts;
  const uint32_t given = no_continuations | leads_of_four << 1;
  if constexpr (kStore) {
    const Rules rules = rules_of(bytes, c);
    if (leads_of_four == 0) {
      store_given(units_by<0, false>(rules, w, c), units_by<1, false>(rules, w, c), given, to);
    } else {
      store_given(units_by<0, true>(rules, w, c), units_by<1, true>(rules, w, c), given, to);
    }
  }
  return count_of(given);
}

// The same with nothing stored beyond what is given. False when that does not fit.
template <bool kStore>
PSP_PART_AVX2 bool give_exactly(__m256i bytes, uint32_t starts, psp_wchar *destination, size_t room,
                                size_t *count, const WideConstants &c) {
  psp_wchar spare[kVectorBytes];
  *count = give_units<kStore>(bytes, starts, spare, c);
  if (kStore && room < *count) return false;
  if constexpr (kStore) std::memcpy(destination, spare, *count * sizeof *spare);
  return true;
}

PSP_PART_AVX2 void store_ascii(__m256i bytes, psp_wchar *to) {
  store(to, _mm256_cvtepu8_epi16(_mm256_castsi256_si128(bytes)));
  store(to + kVectorUnits, _mm256_cvtepu8_epi16(_mm256_extracti128_si256(bytes, 1)));
}

// Windows, as long as they are full, right and have room. A window may store up to 8 units beyond
// what it gives; the next one, which gives at least that many, overwrites them. So each window is
// judged before the one in front of it is given, and the last one gives exactly.
template <bool kStore>
PSP_TARGET_AVX2 Progress to_wide_windows(const char *source, size_t length, psp_wchar *destination,
                                         size_t room) {
  const WideConstants &c = hidden(kWideConstants);
  size_t in = 0;
  size_t out = 0;
  size_t given_beyond = 0;  // bytes from here on that may belong to a character given already
  bool judged = false;      // the window at in is right
  while (length - in >= kVectorBytes) {
    const char *at = source + in;
    const __m256i bytes = load(at);
    // ASCII behind a window that was right is right.
    if (top_bits(bytes) == 0) {
      if (room - out < kVectorBytes) break;
      if constexpr (kStore) store_ascii(bytes, destination + out);
      in += kVectorBytes;
      out += kVectorBytes;
      given_beyond = 0;
      judged = false;
      continue;
    }
    if (!judged) {
      const Before before = given_beyond == 0 ? nothing_before(bytes) : loaded_before(at);
      if (has_faults(bytes, before, c)) break;
    }
    judged = length - in >= kStride + kVectorBytes &&
             !has_faults(load(at + kStride), loaded_before(at + kStride), c);
    size_t count;
    if (judged && room - out >= 2 * kVectorBytes) {
      count = give_units<kStore>(bytes, kAllStarts, place<kStore>(destination, out), c);
    } else if (!give_exactly<kStore>(bytes, kAllStarts, place<kStore>(destination, out), room - out,
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

// A whole text of 16 to 31 bytes, or nothing. The zeros behind it show a character cut off at its
// end as a fault.
template <bool kStore>
PSP_TARGET_AVX2 Progress to_wide_short(const char *source, size_t length, psp_wchar *destination,
                                       size_t room) {
  const WideConstants &c = hidden(kWideConstants);
  const __m256i bytes = load_padded(source, length);
  size_t count;
  if (has_faults(bytes, nothing_before(bytes), c) ||
      !give_exactly<kStore>(bytes, (1u << length) - 1, destination, room, &count, c)) {
    return {0, 0};
  }
  return {length, count};
}

template <bool kStore>
PSP_TARGET_AVX2 Progress to_wide(const char *source, size_t length, psp_wchar *destination,
                                 size_t room) {
  Progress done = {0, 0};
  const auto add = [&done](Progress more) {
    done = {done.consumed + more.consumed, done.produced + more.produced};
    return more.consumed != 0;
  };
  if (length >= kVectorBytes) add(to_wide_windows<kStore>(source, length, destination, room));
  for (size_t left; (left = length - done.consumed) >= kLane;) {
    const char *at = source + done.consumed;
    size_t next = std::min(left, kVectorBytes - 1);
    if (next < left) {
      while (next > kLane && (at[next] & 0xC0) == 0x80) --next;
    }
    if (!add(to_wide_short<kStore>(at, next, place<kStore>(destination, done.produced),
                                   room - done.produced))) {
      break;
    }
  }
  if (done.consumed == length) return done;
  add(kStore ? kBaseKernels.to_wide(source + done.consumed, length - done.consumed,
                                    place<kStore>(destination, done.produced), room - done.produced)
             : kBaseKernels.measure_wide(source + done.consumed, length - done.consumed));
  return done;
}

PSP_TARGET_AVX2 Progress measure_wide(const char *source, size_t length) {
  return to_wide<false>(source, length, nullptr, kNoLimit);
}

// ---- Wide to UTF-8 ------------------------------------------------------------------------------

// A window of 16 units gives at most 48 bytes, in four stores of 16 that are each 4 longer than
// they need be.
constexpr size_t kWindowRoom = 52;

// Row p closes the gaps in four groups of bytes, {lead, middle, last, ASCII}. Bits 2i and 2i+1 of p
// describe group i: 00 the ASCII byte; 01 middle and last; 11 lead, middle and last.
constexpr ShuffleTable make_group_table() {
  ShuffleTable table{};
  for (uint32_t pattern = 0; pattern < 256; ++pattern) {
    auto &row = table.rows[pattern];
    row.fill(kUnused);
    size_t next = 0;
    for (uint8_t group = 0; group < 4; ++group) {
      const uint32_t kind = pattern >> (2 * group) & 3;
      const uint8_t lead = static_cast<uint8_t>(4 * group);
      if (kind == 3) row[next++] = lead;
      if (kind == 0) {
        row[next++] = static_cast<uint8_t>(lead + 3);
      } else {
        row[next++] = static_cast<uint8_t>(lead + 1);
        row[next++] = static_cast<uint8_t>(lead + 2);
      }
    }
  }
  return table;
}

// Row p closes the gaps in eight pairs {first, second}: pair i has its second if bit i of p is set.
constexpr ShuffleTable make_pair_table() {
  ShuffleTable table{};
  for (uint32_t pattern = 0; pattern < 256; ++pattern) {
    auto &row = table.rows[pattern];
    row.fill(kUnused);
    size_t next = 0;
    for (uint8_t pair = 0; pair < 8; ++pair) {
      row[next++] = static_cast<uint8_t>(2 * pair);
      if ((pattern >> pair & 1) != 0) row[next++] = static_cast<uint8_t>(2 * pair + 1);
    }
  }
  return table;
}

constexpr ShuffleTable kGroupTable = make_group_table();
constexpr ShuffleTable kPairTable = make_pair_table();

struct Utf8Constants {
  __m256i above_ascii = all16(0xFF80), above_7ff = all16(0xF800);
  __m256i two = all16(0x80), three = all16(0x800);
  __m256i six_bits = all16(0xFC00), high = all16(0xD800), low = all16(0xDC00);
  __m256i high_base = all16(0xD800 - (0x10000 >> 10));
  __m256i two_bits = all16(3), ten_bits = all16(0x3FF), upper_byte = all16(0xFF00);
  __m256i middle = all16(0x3F00), last = all16(0x3F);
  __m256i marks2 = all16(0xC000), marks3 = all16(0x80E0), marks_high = all16(0xF000);
  __m256i marks_low = all16(0x8000), mark_last = all16(0x80), marks_pair = all16(0x80C0);
};

constexpr Utf8Constants kUtf8Constants{};

// Units of a window made ready: each is worth one to three bytes, half of a surrogate pair two.
struct Prepared {
  __m256i value;  // 16 bits that go into lead (4), middle (6) and last (6)
  __m256i marks;  // of lead (low byte) and middle (high byte)
  __m256i kinds;  // top bit of the low byte: 2 bytes or more; of the high byte: 3 bytes
};

PSP_PART_AVX2 Prepared prepared(__m256i units, const Utf8Constants &c) {
  const __m256i three = at_least16(units, c.three);
  return {units, _mm256_blendv_epi8(c.marks2, c.marks3, three),
          _mm256_blendv_epi8(at_least16(units, c.two), three, c.upper_byte)};
}

// The same with surrogates among the units. A high surrogate's two bytes are 11110xxx 10xxxxxx of
// the code point's upper 9 bits; a low one's are two continuations of its own 10 bits after the 2
// that its partner has left.
PSP_PART_AVX2 Prepared prepared_surrogates(__m256i units, __m256i high, __m256i low,
                                           const Utf8Constants &c) {
  const __m256i before = _mm256_alignr_epi8(units, lanes_before(units), 14);
  const __m256i two_bits = _mm256_slli_epi16(_mm256_and_si256(before, c.two_bits), 10);
  const __m256i of_low = _mm256_or_si256(two_bits, _mm256_and_si256(units, c.ten_bits));
  const __m256i of_high = _mm256_srli_epi16(_mm256_sub_epi16(units, c.high_base), 2);
  Prepared p = prepared(units, c);
  p.value = _mm256_blendv_epi8(_mm256_blendv_epi8(p.value, of_high, high), of_low, low);
  p.marks = _mm256_blendv_epi8(_mm256_blendv_epi8(p.marks, c.marks_high, high), c.marks_low, low);
  const __m256i halves = _mm256_or_si256(high, low);
  p.kinds = _mm256_andnot_si256(_mm256_and_si256(halves, c.upper_byte), p.kinds);
  return p;
}

// Stores the bytes of a window without gaps.
PSP_PART_AVX2 void store_prepared(const Prepared &p, uint32_t kinds, char *to,
                                  const Utf8Constants &c) {
  const __m256i lead = _mm256_srli_epi16(p.value, 12);
  const __m256i middle = _mm256_and_si256(_mm256_slli_epi16(p.value, 2), c.middle);
  const __m256i lead_middle = _mm256_or_si256(_mm256_or_si256(lead, middle), p.marks);
  const __m256i last = _mm256_or_si256(_mm256_and_si256(p.value, c.last), c.mark_last);
  const __m256i last_ascii = _mm256_or_si256(last, _mm256_slli_epi16(p.value, 8));
  const __m256i even = _mm256_unpacklo_epi16(lead_middle, last_ascii);  // 0 to 3 and 8 to 11
  const __m256i odd = _mm256_unpackhi_epi16(lead_middle, last_ascii);   // the others
  store_shuffled(to, _mm256_castsi256_si128(even), kGroupTable, kinds & 0xFF);
  to += 4 + std::popcount(kinds & 0xFF);
  store_shuffled(to, _mm256_castsi256_si128(odd), kGroupTable, kinds >> 8 & 0xFF);
  to += 4 + std::popcount(kinds & 0xFF00);
  store_shuffled(to, _mm256_extracti128_si256(even, 1), kGroupTable, kinds >> 16 & 0xFF);
  to += 4 + std::popcount(kinds & 0xFF0000);
  store_shuffled(to, _mm256_extracti128_si256(odd, 1), kGroupTable, kinds >> 24);
}

// The same for units below U+0800; bits 2i and 2i+1 of two are set when unit i has two bytes.
PSP_PART_AVX2 void store_to_7ff(__m256i units, __m256i two_bytes, uint32_t two, char *to,
                                const Utf8Constants &c) {
  const __m256i last = _mm256_slli_epi16(_mm256_and_si256(units, c.last), 8);
  const __m256i both =
      _mm256_or_si256(_mm256_or_si256(_mm256_srli_epi16(units, 6), last), c.marks_pair);
  const __m256i pairs = _mm256_blendv_epi8(units, both, two_bytes);
  const uint32_t rows = _pext_u32(two, 0x55555555);
  store_shuffled(to, _mm256_castsi256_si128(pairs), kPairTable, rows & 0xFF);
  to += 8 + std::popcount(rows & 0xFF);
  store_shuffled(to, _mm256_extracti128_si256(pairs, 1), kPairTable, rows >> 8);
}

// Surrogates of a window, two bits for each unit.
struct Surrogates {
  __m256i high, low;
  uint32_t high_bits, low_bits;
  // Whether each has its partner, but for a high one at the end.
  bool are_right() const { return high_bits << 2 == low_bits; }
};

PSP_PART_AVX2 Surrogates surrogates_of(__m256i units, const Utf8Constants &c) {
  const __m256i high6 = _mm256_and_si256(units, c.six_bits);
  const __m256i high = _mm256_cmpeq_epi16(high6, c.high);
  const __m256i low = _mm256_cmpeq_epi16(high6, c.low);
  return {high, low, top_bits(high), top_bits(low)};
}

PSP_PART_AVX2 bool is_right(__m256i units, const Utf8Constants &c) {
  return _mm256_testz_si256(units, c.above_7ff) != 0 || surrogates_of(units, c).are_right();
}

// Takes a window, with room for kWindowRoom bytes: none of it when a surrogate has no partner, all
// but the last unit when that is a high surrogate. May store up to 12 bytes more than it gives.
template <bool kStore>
PSP_PART_AVX2 Progress take_units(__m256i units, char *to, const Utf8Constants &c) {
  const __m256i two_bytes = at_least16(units, c.two);
  const uint32_t two = top_bits(two_bytes);
  if (_mm256_testz_si256(units, c.above_7ff) != 0) {
    if constexpr (kStore) store_to_7ff(units, two_bytes, two, to, c);
    return {kVectorUnits, kVectorUnits + count_of(two) / 2};
  }
  const Surrogates surrogates = surrogates_of(units, c);
  if ((surrogates.high_bits | surrogates.low_bits) == 0) {
    const Prepared p = prepared(units, c);
    const uint32_t kinds = top_bits(p.kinds);
    if constexpr (kStore) store_prepared(p, kinds, to, c);
    return {kVectorUnits, kVectorUnits + count_of(kinds)};
  }
  if (!surrogates.are_right()) return {0, 0};
  const Prepared p = prepared_surrogates(units, surrogates.high, surrogates.low, c);
  const uint32_t kinds = top_bits(p.kinds);
  if constexpr (kStore) store_prepared(p, kinds, to, c);
  const size_t count = kVectorUnits + count_of(kinds);
  if (surrogates.high_bits >> 31 != 0) return {kVectorUnits - 1, count - 2};
  return {kVectorUnits, count};
}

// The same for the first here units, the others being zero, with nothing stored beyond what is
// given. None when that does not fit.
template <bool kStore>
PSP_PART_AVX2 Progress take_exactly(__m256i units, size_t here, char *destination, size_t room,
                                    const Utf8Constants &c) {
  char spare[kWindowRoom];
  Progress done = take_units<kStore>(units, spare, c);
  if (done.consumed == 0) return done;
  done.consumed -= kVectorUnits - here;
  done.produced -= kVectorUnits - here;
  if (kStore && room < done.produced) return {0, 0};
  if constexpr (kStore) std::memcpy(destination, spare, done.produced);
  return done;
}

// Windows, as long as they are full, right and have room. What a window stores beyond its bytes is
// overwritten by the next one, if that is sure to be taken; else the window is taken exactly.
template <bool kStore>
PSP_TARGET_AVX2 Progress to_utf8_windows(const psp_wchar *source, size_t length, char *destination,
                                         size_t room) {
  const Utf8Constants &c = hidden(kUtf8Constants);
  size_t in = 0;
  size_t out = 0;
  while (length - in >= kVectorUnits && room - out >= kVectorUnits) {
    const __m256i units = load(source + in);
    if (_mm256_testz_si256(units, c.above_ascii) != 0) {
      if constexpr (kStore) {
        const __m128i bytes =
            _mm_packus_epi16(_mm256_castsi256_si128(units), _mm256_extracti128_si256(units, 1));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(destination + out), bytes);
      }
      in += kVectorUnits;
      out += kVectorUnits;
      continue;
    }
    const size_t next = in + kVectorUnits;
    const bool is_cut = (source[next - 1] & 0xFC00) == 0xD800;
    if (!is_cut && length - next >= kVectorUnits && room - out >= 2 * kWindowRoom &&
        is_right(load(source + next), c)) {
      const Progress done = take_units<kStore>(units, place<kStore>(destination, out), c);
      if (done.consumed == 0) break;
      in = next;
      out += done.produced;
    } else {
      const Progress done =
          take_exactly<kStore>(units, kVectorUnits, place<kStore>(destination, out), room - out, c);
      if (done.consumed == 0) break;
      in += done.consumed;
      out += done.produced;
    }
  }
  return {in, out};
}

template <bool kStore>
PSP_TARGET_AVX2 Progress to_utf8(const psp_wchar *source, size_t length, char *destination,
                                 size_t room) {
  Progress done = {0, 0};
  const auto add = [&done](Progress more) {
    done = {done.consumed + more.consumed, done.produced + more.produced};
    return more.consumed != 0;
  };
  constexpr size_t kShortest = kLane / sizeof *source;
  if (length >= kVectorUnits) add(to_utf8_windows<kStore>(source, length, destination, room));
  for (size_t left; (left = length - done.consumed) >= kShortest;) {
    const psp_wchar *at = source + done.consumed;
    size_t next = std::min(left, kVectorUnits - 1);
    if (next < left && (at[next] & 0xFC00) == 0xDC00) --next;
    const __m256i units = load_padded(at, next * sizeof *at);
    if (!add(take_exactly<kStore>(units, next, place<kStore>(destination, done.produced),
                                  room - done.produced, hidden(kUtf8Constants)))) {
      break;
    }
  }
  if (done.consumed == length) return done;
  add(kStore ? kBaseKernels.to_utf8(source + done.consumed, length - done.consumed,
                                    place<kStore>(destination, done.produced), room - done.produced)
             : kBaseKernels.measure_utf8(source + done.consumed, length - done.consumed));
  return done;
}

PSP_TARGET_AVX2 Progress measure_utf8(const psp_wchar *source, size_t length) {
  return to_utf8<false>(source, length, nullptr, kNoLimit);
}

// ---- Whole conversions --------------------------------------------------------------------------

int32_t whole_to_wide(psp_wchar *destination, uint32_t size, const char *source, uint32_t count,
                      uint32_t mode) {
  return convert(kAvx2Kernels, destination, size, source, count, mode);
}

int32_t whole_to_utf8(char *destination, uint32_t size, const psp_wchar *source, uint32_t count,
                      uint32_t mode) {
  return convert(kAvx2Kernels, destination, size, source, count, mode);
}

}  // namespace

constinit const Kernels kAvx2Kernels = {"avx2",       to_wide<true>, measure_wide, to_utf8<true>,
                                        measure_utf8, whole_to_wide, whole_to_utf8};

}  // namespace psp::text

#endif
