// Digits of unsigned numbers and short runs of bytes, written in place without a library call.
//
// Included by the parts of the formatting engine. Pure functions.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace psp::text {

enum class Base : uint8_t { kOctal, kDecimal, kHexadecimal, kUpperHexadecimal };

inline constexpr size_t kDigitsMax = 22;  // of a 64-bit number: octal needs most

// 10^0 to 10^19, all that 64 bits hold.
inline constexpr std::array<uint64_t, 20> kPowersOfTen = [] {
  std::array<uint64_t, 20> powers{1};
  for (size_t i = 1; i < powers.size(); ++i) powers[i] = powers[i - 1] * 10;
  return powers;
}();

// "00" to "99".
inline constexpr std::array<char, 200> kDigitPairs = [] {
  std::array<char, 200> pairs{};
  for (size_t i = 0; i < 100; ++i) {
    pairs[2 * i] = static_cast<char>('0' + i / 10);
    pairs[2 * i + 1] = static_cast<char>('0' + i % 10);
  }
  return pairs;
}();

// Digits that the value needs, at least 1.
inline size_t count_digits(Base base, uint64_t value) {
  value |= 1;  // 0 has a digit too, and no power of ten above 1 is odd
  const uint32_t bits = static_cast<uint32_t>(std::bit_width(value));
  if (base == Base::kOctal) return (bits + 2) / 3;
  if (base != Base::kDecimal) return (bits + 3) / 4;
  const uint32_t at_least = bits * 1233 >> 12;  // bits * log10(2), never above the digits
  return at_least + (value >= kPowersOfTen[at_least] ? 1u : 0u);
}

namespace detail {

inline void store(char *place, uint64_t bytes) { std::memcpy(place, &bytes, sizeof bytes); }

// The last eight decimal digits of a value below 10^8, as text in memory order. All digits are
// computed at once, in lanes of one word: halves of four, then pairs, then single digits.
inline uint64_t eight_decimals(uint32_t value) {
  const uint64_t halves = value / 10000 | uint64_t{value % 10000} << 32;
  const uint64_t hundreds = (halves * 10486 >> 20) & 0x0000007F0000007F;  // each half / 100
  const uint64_t pairs = hundreds + ((halves - hundreds * 100) << 16);
  const uint64_t tens = (pairs * 103 >> 10) & 0x000F000F000F000F;  // each pair / 10
  const uint64_t digits = (tens + ((pairs - tens * 10) << 8)) | 0x3030303030303030;
  if constexpr (std::endian::native == std::endian::big) return __builtin_bswap64(digits);
  return digits;
}

inline void write_decimals(char *place, uint64_t value, size_t count) {
  char *end = place + count;
  while (end - place >= 8) {
    const uint64_t higher = value / 100000000;
    end -= 8;
    store(end, eight_decimals(static_cast<uint32_t>(value - higher * 100000000)));
    value = higher;
  }
  uint32_t rest = static_cast<uint32_t>(value);
  while (end - place >= 2) {
    end -= 2;
    std::memcpy(end, &kDigitPairs[2 * (rest % 100)], 2);
    rest /= 100;
  }
  if (end != place) *place = static_cast<char>('0' + rest % 10);
}

}  // namespace detail

// Writes exactly count digits, the last ones of the value, with leading zeros if it has fewer.
inline void write_digits(char *place, Base base, uint64_t value, size_t count) {
  if (base == Base::kDecimal) return detail::write_decimals(place, value, count);
  const char *characters =
      base == Base::kUpperHexadecimal ? "0123456789ABCDEF" : "0123456789abcdef";
  const uint32_t bits = base == Base::kOctal ? 3 : 4;
  for (char *end = place + count; end != place; value >>= bits) {
    *--end = characters[value & ((1u << bits) - 1)];
  }
}

// memcpy and memset for runs that are mostly short: the two halves of a short run overlap, so that
// no loop and no call is needed.
inline void copy_bytes(char *to, const char *from, size_t count) {
  if (count > 16) {
    std::memcpy(to, from, count);
  } else if (count >= 8) {
    std::array<char, 8> first, last;
    std::memcpy(&first, from, 8);
    std::memcpy(&last, from + count - 8, 8);
    std::memcpy(to, &first, 8);
    std::memcpy(to + count - 8, &last, 8);
  } else if (count >= 4) {
    std::array<char, 4> first, last;
    std::memcpy(&first, from, 4);
    std::memcpy(&last, from + count - 4, 4);
    std::memcpy(to, &first, 4);
    std::memcpy(to + count - 4, &last, 4);
  } else if (count != 0) {
    to[0] = from[0];
    to[count / 2] = from[count / 2];
    to[count - 1] = from[count - 1];
  }
}

inline void fill_bytes(char *to, char character, size_t count) {
  const uint64_t run = static_cast<uint8_t>(character) * 0x0101010101010101u;
  if (count > 16) {
    std::memset(to, character, count);
  } else if (count >= 8) {
    detail::store(to, run);
    detail::store(to + count - 8, run);
  } else if (count >= 4) {
    std::memcpy(to, &run, 4);
    std::memcpy(to + count - 4, &run, 4);
  } else if (count != 0) {
    to[0] = character;
    to[count / 2] = character;
    to[count - 1] = character;
  }
}

}  // namespace psp::text
