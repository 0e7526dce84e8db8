// Kernels for x86 processors with AVX2.
//
// Both work the same way: every element of a block gets its result computed in place, whether it
// has one or not, and a table shuffle then closes the gaps. No branch depends on the text but the
// tests for pure ASCII and for characters above U+FFFF.
#include "text/utf8_kernels.h"

#if defined(PSP_UTF8_AVX2)

#include <immintrin.h>

#include <array>
#include <bit>
#include <limits>

#define PSP_TARGET_AVX2 __attribute__((target("avx2,bmi,bmi2,popcnt")))

namespace psp::text {
namespace {

constexpr size_t kNoLimit = std::numeric_limits<size_t>::max();

// One byte shuffle for each of 256 patterns.
struct alignas(64) ShuffleTable {
  std::array<std::array<uint8_t, 16>, 256> rows;
};

constexpr uint8_t kUnused = 0x80;  // a shuffle index that gives zero

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

// Row p closes the gaps in four groups of bytes, {lead, middle, last, ASCII}. Bits 2i and 2i+1 of p
// describe group i: 00 the ASCII byte; 01 middle and last; 11 lead, middle and last.
constexpr ShuffleTable make_byte_table() {
  ShuffleTable table{};
  for (uint32_t pattern = 0; pattern < 256; ++pattern) {
    auto &row = table.rows[pattern];
    row.fill(kUnused);
    size_t next = 0;
    for (uint8_t group = 0; group < 4; ++group) {
      const uint32_t kind = pattern >> (2 * group) & 3;
      const uint8_t lead = static_cast<uint8_t>(4 * group);
      if (kind == 3) row[next++] = lead;
      if (kind != 0) {
        row[next++] = static_cast<uint8_t>(lead + 1);
        row[next++] = static_cast<uint8_t>(lead + 2);
      } else {
        row[next++] = static_cast<uint8_t>(lead + 3);
      }
    }
  }
  return table;
}

constexpr ShuffleTable kUnitTable = make_unit_table();
constexpr ShuffleTable kByteTable = make_byte_table();

PSP_TARGET_AVX2 inline __m256i all16(uint32_t value) {
  return _mm256_set1_epi16(static_cast<int16_t>(value));
}

PSP_TARGET_AVX2 inline __m128i all8(uint32_t value) {
  return _mm_set1_epi8(static_cast<char>(value));
}

PSP_TARGET_AVX2 inline __m128i load16(const void *from) {
  return _mm_loadu_si128(static_cast<const __m128i *>(from));
}

PSP_TARGET_AVX2 inline __m256i load32(const void *from) {
  return _mm256_loadu_si256(static_cast<const __m256i *>(from));
}

PSP_TARGET_AVX2 inline __m256i load16_widened(const char *from) {
  return _mm256_cvtepu8_epi16(load16(from));
}

PSP_TARGET_AVX2 inline void store16(void *to, __m128i value) {
  _mm_storeu_si128(static_cast<__m128i *>(to), value);
}

PSP_TARGET_AVX2 inline void store32(void *to, __m256i value) {
  _mm256_storeu_si256(static_cast<__m256i *>(to), value);
}

// Lanes with first >= second, unsigned.
PSP_TARGET_AVX2 inline __m256i at_least16(__m256i first, __m256i second) {
  return _mm256_cmpeq_epi16(_mm256_max_epu16(first, second), first);
}

PSP_TARGET_AVX2 inline uint32_t at_least8(__m128i first, __m128i second) {
  const __m128i lanes = _mm_cmpeq_epi8(_mm_max_epu8(first, second), first);
  return static_cast<uint32_t>(_mm_movemask_epi8(lanes));
}

PSP_TARGET_AVX2 inline __m128i shuffled(__m128i value, const ShuffleTable &table, uint32_t row) {
  return _mm_shuffle_epi8(value, load16(table.rows[row].data()));
}

// ---- UTF-8 to wide ------------------------------------------------------------------------------

constexpr size_t kByteBlock = 16;
constexpr size_t kLookAhead = 2;  // bytes read beyond a block

// The bytes of a block by their part in a character; bit i is byte i.
struct Structure {
  uint32_t continuation;
  uint32_t lead4;  // of a character of four bytes
  uint32_t whole;  // bytes of characters that end inside the block, from bit 0 up
  bool valid;      // among these, each lead is followed by its continuations and no others
};

PSP_TARGET_AVX2 inline Structure structure_of(__m128i block, uint32_t not_ascii) {
  Structure result;
  const __m128i below_leads = _mm_cmpgt_epi8(all8(0xC0), block);  // signed: ASCII is above
  result.continuation = static_cast<uint32_t>(_mm_movemask_epi8(below_leads));
  const uint32_t lead = not_ascii & ~result.continuation;
  const uint32_t lead3 = at_least8(block, all8(0xE0));
  result.lead4 = at_least8(block, all8(0xF0));
  const uint32_t cut = (lead & 0x8000) | (lead3 & 0xC000) | (result.lead4 & 0xE000);
  result.whole = ~cut & (cut - 1) & 0xFFFF;
  // What the leads among them want, beyond the last of them too: a lead whose continuations are cut
  // off by another lead must not pass.
  const uint32_t wanted =
      (lead & result.whole) << 1 | (lead3 & result.whole) << 2 | (result.lead4 & result.whole) << 3;
  result.valid = wanted == (result.continuation & result.whole);
  return result;
}

struct Units {
  __m256i units;
  __m256i bad;  // not zero where a lead starts no valid character
};

// For each byte the unit of the character that starts there. Only leads and ASCII mean something.
PSP_TARGET_AVX2 inline Units units_to_ffff(__m256i first, __m256i second, __m256i third) {
  const __m256i below = _mm256_or_si256(_mm256_slli_epi16(second, 6), third);  // low 12 bits
  const __m256i of2 =
      _mm256_and_si256(_mm256_or_si256(_mm256_slli_epi16(first, 6), second), all16(0x7FF));
  const __m256i of3 = _mm256_or_si256(_mm256_slli_epi16(first, 12), below);
  const __m256i is3 = _mm256_cmpgt_epi16(first, all16(0xDF));
  __m256i units = _mm256_blendv_epi8(first, of2, _mm256_cmpgt_epi16(first, all16(0x7F)));
  units = _mm256_blendv_epi8(units, of3, is3);

  const __m256i high5 = _mm256_and_si256(units, all16(0xF800));
  const __m256i overlong3 = _mm256_cmpeq_epi16(high5, all16(0));
  const __m256i surrogate = _mm256_cmpeq_epi16(high5, all16(0xD800));
  const __m256i noncharacter = at_least16(units, all16(0xFFFE));
  const __m256i bad3 = _mm256_or_si256(_mm256_or_si256(overlong3, surrogate), noncharacter);
  const __m256i bad2 =
      _mm256_cmpeq_epi16(_mm256_and_si256(first, all16(0xFE)), all16(0xC0));  // C0 and C1
  return {units, _mm256_or_si256(_mm256_and_si256(bad3, is3), bad2)};
}

// The same with characters of four bytes. Their lead gives the high surrogate, and every
// continuation the low surrogate that it would give as the second byte of such a character.
PSP_TARGET_AVX2 inline Units units_to_10ffff(__m256i first, __m256i second, __m256i third) {
  const Units small = units_to_ffff(first, second, third);
  const __m256i below = _mm256_or_si256(_mm256_slli_epi16(second, 6), third);
  const __m256i is4 = _mm256_cmpgt_epi16(first, all16(0xEF));
  const __m256i is_continuation = _mm256_andnot_si256(_mm256_cmpgt_epi16(first, all16(0xBF)),
                                                      _mm256_cmpgt_epi16(first, all16(0x7F)));
  // 0xD7C0 + code point / 1024, where the lead's 0xF0 falls out of the 16 bits.
  constexpr uint32_t kHighSurrogateBase = 0x1D7C0 - 0xF000;
  const __m256i high =
      _mm256_add_epi16(_mm256_add_epi16(_mm256_slli_epi16(first, 8), _mm256_srli_epi16(below, 4)),
                       all16(kHighSurrogateBase));
  const __m256i low = _mm256_or_si256(_mm256_and_si256(below, all16(0x3FF)), all16(0xDC00));
  const __m256i good4 = _mm256_cmpeq_epi16(_mm256_and_si256(high, all16(0xFC00)), all16(0xD800));
  __m256i units = _mm256_blendv_epi8(small.units, high, is4);
  units = _mm256_blendv_epi8(units, low, is_continuation);
  return {units,
          _mm256_or_si256(_mm256_andnot_si256(is4, small.bad), _mm256_andnot_si256(good4, is4))};
}

// Stores the units of the lanes in emitted, without gaps. Room for 16 is certain.
PSP_TARGET_AVX2 inline void store_emitted(__m256i units, uint32_t emitted, psp_wchar *to) {
  const uint32_t low = emitted & 0xFF;
  const uint32_t high = emitted >> 8;
  store16(to, shuffled(_mm256_castsi256_si128(units), kUnitTable, low));
  store16(to + std::popcount(low), shuffled(_mm256_extracti128_si256(units, 1), kUnitTable, high));
}

template <bool kStore>
PSP_TARGET_AVX2 Progress to_wide(const char *source, size_t length, psp_wchar *destination,
                                 size_t room) {
  size_t in = 0;
  size_t out = 0;
  while (length - in >= kByteBlock && room - out >= kByteBlock) {
    const __m128i block = load16(source + in);
    const uint32_t not_ascii = static_cast<uint32_t>(_mm_movemask_epi8(block));
    if (not_ascii == 0) {
      if constexpr (kStore) store32(destination + out, _mm256_cvtepu8_epi16(block));
      in += kByteBlock;
      out += kByteBlock;
      continue;
    }
    if (length - in < kByteBlock + kLookAhead) break;
    const Structure structure = structure_of(block, not_ascii);
    if (!structure.valid) break;
    const __m256i first = _mm256_cvtepu8_epi16(block);
    const __m256i second = _mm256_and_si256(load16_widened(source + in + 1), all16(0x3F));
    const __m256i third = _mm256_and_si256(load16_widened(source + in + 2), all16(0x3F));
    const Units found = structure.lead4 == 0 ? units_to_ffff(first, second, third)
                                             : units_to_10ffff(first, second, third);
    if (_mm256_testz_si256(found.bad, found.bad) == 0) break;
    const uint32_t emitted = (~structure.continuation | structure.lead4 << 1) & structure.whole;
    if constexpr (kStore) store_emitted(found.units, emitted, destination + out);
    in += static_cast<size_t>(std::popcount(structure.whole));
    out += static_cast<size_t>(std::popcount(emitted));
  }
  const Progress rest =
      kStore ? kBaseKernels.to_wide(source + in, length - in, destination + out, room - out)
             : kBaseKernels.measure_wide(source + in, length - in);
  return {in + rest.consumed, out + rest.produced};
}

PSP_TARGET_AVX2 Progress measure_wide(const char *source, size_t length) {
  return to_wide<false>(source, length, nullptr, kNoLimit);
}

// ---- Wide to UTF-8 ------------------------------------------------------------------------------

constexpr size_t kUnitBlock = 16;
constexpr size_t kBlockRoom = 52;  // bytes: 16 units of 3, and a last store that is 4 bytes longer

// Units of a block made ready: each is worth one to three bytes, a surrogate two.
struct Prepared {
  __m256i value;  // 16 bits that go into lead (4), middle (6) and last (6)
  __m256i tags;   // marks of lead (low byte) and middle (high byte)
  __m256i kinds;  // high bit of the low byte: 2 bytes or more; of the high byte: 3 bytes
  size_t cut;     // 1 when the last unit is a high surrogate without its partner, else 0
  bool valid;     // every surrogate before the cut has its partner
};

PSP_TARGET_AVX2 inline Prepared prepare(__m256i units) {
  const __m256i two = at_least16(units, all16(0x80));
  const __m256i three = at_least16(units, all16(0x800));
  const __m256i tags = _mm256_blendv_epi8(all16(0xC000), all16(0x80E0), three);
  return {units, tags, _mm256_blendv_epi8(two, three, all16(0xFF00)), 0, true};
}

// The same for units with surrogates among them. A high surrogate's two bytes are 11110xxx 10xxxxxx
// of the code point's upper 9 bits; a low one's are two continuations, which begin with the 2 bits
// that its partner has left over.
PSP_TARGET_AVX2 inline Prepared prepare_surrogates(__m256i units) {
  const __m256i high6 = _mm256_and_si256(units, all16(0xFC00));
  const __m256i high = _mm256_cmpeq_epi16(high6, all16(0xD800));
  const __m256i low = _mm256_cmpeq_epi16(high6, all16(0xDC00));
  const uint32_t high_bits = static_cast<uint32_t>(_mm256_movemask_epi8(high));
  const uint32_t low_bits = static_cast<uint32_t>(_mm256_movemask_epi8(low));

  const __m256i carried = _mm256_permute2x128_si256(units, units, 0x08);  // lower half, one up
  const __m256i before = _mm256_alignr_epi8(units, carried, 14);
  const __m256i ten_bits = _mm256_and_si256(units, all16(0x3FF));
  const __m256i of_high = _mm256_srli_epi16(_mm256_add_epi16(ten_bits, all16(0x40)), 2);
  const __m256i of_low =
      _mm256_or_si256(_mm256_slli_epi16(_mm256_and_si256(before, all16(3)), 10), ten_bits);

  Prepared result = prepare(units);
  result.value = _mm256_blendv_epi8(result.value, of_high, high);
  result.value = _mm256_blendv_epi8(result.value, of_low, low);
  result.tags = _mm256_blendv_epi8(result.tags, all16(0xF000), high);
  result.tags = _mm256_blendv_epi8(result.tags, all16(0x8000), low);
  const __m256i of_three = _mm256_and_si256(_mm256_or_si256(high, low), all16(0xFF00));
  result.kinds = _mm256_andnot_si256(of_three, result.kinds);
  result.cut = high_bits >> 31;
  result.valid = (high_bits << 2) == low_bits;
  return result;
}

// Stores the bytes of the block without gaps. Room for kBlockRoom is certain.
PSP_TARGET_AVX2 inline void store_bytes(const Prepared &block, uint32_t kinds, char *to) {
  const __m256i lead = _mm256_srli_epi16(block.value, 12);
  const __m256i middle = _mm256_and_si256(_mm256_slli_epi16(block.value, 2), all16(0x3F00));
  const __m256i lead_middle = _mm256_or_si256(_mm256_or_si256(lead, middle), block.tags);
  const __m256i last = _mm256_or_si256(_mm256_and_si256(block.value, all16(0x3F)), all16(0x80));
  const __m256i last_ascii = _mm256_or_si256(last, _mm256_slli_epi16(block.value, 8));
  // Groups 0 to 3 and 8 to 11; 4 to 7 and 12 to 15.
  const __m256i even = _mm256_unpacklo_epi16(lead_middle, last_ascii);
  const __m256i odd = _mm256_unpackhi_epi16(lead_middle, last_ascii);

  const auto put = [&to](__m128i groups, uint32_t row) PSP_TARGET_AVX2 {
    store16(to, shuffled(groups, kByteTable, row));
    to += 4 + std::popcount(row);
  };
  put(_mm256_castsi256_si128(even), kinds & 0xFF);
  put(_mm256_castsi256_si128(odd), kinds >> 8 & 0xFF);
  put(_mm256_extracti128_si256(even, 1), kinds >> 16 & 0xFF);
  put(_mm256_extracti128_si256(odd, 1), kinds >> 24);
}

template <bool kStore>
PSP_TARGET_AVX2 Progress to_utf8(const psp_wchar *source, size_t length, char *destination,
                                 size_t room) {
  size_t in = 0;
  size_t out = 0;
  while (length - in >= kUnitBlock && room - out >= kUnitBlock) {
    const __m256i units = load32(source + in);
    if (_mm256_testz_si256(units, all16(0xFF80)) != 0) {
      const __m128i packed =
          _mm_packus_epi16(_mm256_castsi256_si128(units), _mm256_extracti128_si256(units, 1));
      if constexpr (kStore) store16(destination + out, packed);
      in += kUnitBlock;
      out += kUnitBlock;
      continue;
    }
    if (room - out < kBlockRoom) break;
    const __m256i surrogates =
        _mm256_cmpeq_epi16(_mm256_and_si256(units, all16(0xF800)), all16(0xD800));
    const Prepared block = _mm256_testz_si256(surrogates, surrogates) != 0
                               ? prepare(units)
                               : prepare_surrogates(units);
    if (!block.valid) break;
    const uint32_t kinds = static_cast<uint32_t>(_mm256_movemask_epi8(block.kinds));
    if constexpr (kStore) store_bytes(block, kinds, destination + out);
    in += kUnitBlock - block.cut;
    out += kUnitBlock + static_cast<size_t>(std::popcount(kinds)) - 2 * block.cut;
  }
  const Progress rest =
      kStore ? kBaseKernels.to_utf8(source + in, length - in, destination + out, room - out)
             : kBaseKernels.measure_utf8(source + in, length - in);
  return {in + rest.consumed, out + rest.produced};
}

PSP_TARGET_AVX2 Progress measure_utf8(const psp_wchar *source, size_t length) {
  return to_utf8<false>(source, length, nullptr, kNoLimit);
}

}  // namespace

constinit const Kernels kAvx2Kernels = {"avx2", to_wide<true>, measure_wide, to_utf8<true>,
                                        measure_utf8};

}  // namespace psp::text

#endif
