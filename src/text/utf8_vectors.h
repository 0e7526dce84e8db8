// What the vector kernels share: what can be wrong with two neighbouring bytes of UTF-8, and how
// constants are kept.
//
// Each fault is told by the nibbles of the first byte and the upper nibble of the second, so three
// table shuffles and two ANDs find the faults of all pairs of a vector at once (Keiser and Lemire,
// "Validating UTF-8 in less than one instruction per byte", 2020).
//
// Included by utf8_avx2.cpp and utf8_avx512.cpp.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace psp::text {

// A set of nibbles: bit n stands for nibble n.
constexpr uint32_t nibbles(uint32_t from, uint32_t to) { return (2u << to) - (1u << from); }

struct Fault {
  uint8_t bit;
  uint32_t first_upper;
  uint32_t first_lower;
  uint32_t second_upper;
};

// Two continuations in a row are no fault where a lead of 3 or 4 bytes stands before them: the bit
// must be there exactly then. Faults that share a bit share no first byte.
inline constexpr uint8_t kTwoContinuations = 0x80;

inline constexpr uint32_t kAnyNibble = nibbles(0x0, 0xF);
inline constexpr uint32_t kContinuations = nibbles(0x8, 0xB);

inline constexpr Fault kFaults[] = {
    {0x01, nibbles(0xC, 0xF), kAnyNibble, kAnyNibble & ~kContinuations},  // a lead alone
    {0x02, nibbles(0x0, 0x7), kAnyNibble, kContinuations},                // no lead
    {0x04, nibbles(0xC, 0xC), nibbles(0x0, 0x1), kContinuations},         // below U+0080
    {0x08, nibbles(0xE, 0xE), nibbles(0x0, 0x0), nibbles(0x8, 0x9)},      // below U+0800
    {0x10, nibbles(0xE, 0xE), nibbles(0xD, 0xD), nibbles(0xA, 0xB)},      // a surrogate
    {0x20, nibbles(0xF, 0xF), nibbles(0x4, 0xF), nibbles(0x9, 0xB)},      // above U+10FFFF
    {0x40, nibbles(0xF, 0xF), nibbles(0x5, 0xF), nibbles(0x8, 0x8)},      // above U+10FFFF
    {0x40, nibbles(0xF, 0xF), nibbles(0x0, 0x0), nibbles(0x8, 0x8)},      // below U+10000
    {kTwoContinuations, kContinuations, kAnyNibble, kContinuations},
};

using NibbleTable = std::array<uint8_t, 16>;

// For each nibble the faults that it can have a part in.
constexpr NibbleTable make_fault_table(uint32_t Fault::*part) {
  NibbleTable table{};
  for (const Fault &fault : kFaults) {
    for (size_t nibble = 0; nibble < table.size(); ++nibble) {
      if ((fault.*part >> nibble & 1) != 0) table[nibble] |= fault.bit;
    }
  }
  return table;
}

inline constexpr NibbleTable kFirstUpper = make_fault_table(&Fault::first_upper);
inline constexpr NibbleTable kFirstLower = make_fault_table(&Fault::first_lower);
inline constexpr NibbleTable kSecondUpper = make_fault_table(&Fault::second_upper);

// A byte, less with saturation one of these, has its upper bit set exactly where it leads at least
// three or four bytes.
inline constexpr uint8_t kBelowLead3 = 0xE0 - 0x80;
inline constexpr uint8_t kBelowLead4 = 0xF0 - 0x80;

// GCC 12 makes vectors of equal lanes from a general register, anew in every turn of a loop. Behind
// a reference that it cannot see through, constants are plain operands in memory.
template <class Constants>
inline const Constants &hidden(const Constants &constants) {
  const Constants *pointer = &constants;
  __asm__("" : "+r"(pointer));
  return *pointer;
}

}  // namespace psp::text
