// Which addresses are live blocks of tagged memory, known without reading them, so that a second
// release or a foreign pointer is recognised from the pointer alone.
//
// A map over the address space, two levels, filled as it is touched:
//
//     address:  | leaf number | byte in the leaf | 4 bits |
//     leaf:     one byte for each 16 bytes of address space
//                 0           no block starts there
//                 0x80 | low  a block starts there; low is the last 4 bits of its address
//
// Two live blocks never share a byte: each begins with a header of 16 bytes. So the byte of a block
// is written only by the thread that obtains or releases that block, which the block's tag lock
// makes one at a time; plain relaxed stores are enough, since no other thread's answer about its
// own block depends on them. The map takes memory only where blocks are, 1/16 of what they span,
// and costs no atomic read-modify-write.
//
// The guard is never a reason to fail an allocation: a region whose leaf cannot be reserved, or
// that lies beyond the map, is trusted until the library stops.
//
// Included by pspmem.cpp and its test.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace psp::core {

class LiveBlocks {
 public:
  // Call before anybody else knows the block.
  void mark(const void *block) {
    if (uint8_t *leaf = leaf_or_reserve(block)) set(leaf, block, mark_of(block));
  }

  // Call before the block's memory can become another block.
  void clear(const void *block) {
    if (uint8_t *leaf = leaf_of(block)) set(leaf, block, 0);
  }

  // Whether the block is live; it is no longer so afterwards.
  bool take(const void *block) {
    uint8_t *leaf = leaf_of(block);
    if (leaf == nullptr) [[unlikely]]
      return is_trusted(block);
    std::atomic_ref<uint8_t> byte(leaf[byte_index(block)]);
    if (byte.load(std::memory_order_relaxed) != mark_of(block)) return false;
    byte.store(0, std::memory_order_relaxed);
    return true;
  }

  bool is_live(const void *block) const {
    uint8_t *leaf = leaf_of(block);
    if (leaf == nullptr) [[unlikely]]
      return is_trusted(block);
    return std::atomic_ref<uint8_t>(leaf[byte_index(block)]).load(std::memory_order_relaxed) ==
           mark_of(block);
  }

  // Forgets every block. No other thread is inside.
  void release();

 private:
  static constexpr bool k64Bit = sizeof(void *) == 8;
  static constexpr unsigned kGranuleBits = 4;
  static constexpr unsigned kAddressBits = k64Bit ? 48 : 32;  // what user programs are given
  static constexpr unsigned kLeafBits = k64Bit ? 26 : 20;     // 64 MiB for 1 GiB; 1 MiB for 16 MiB
  static constexpr size_t kLeafBytes = size_t{1} << kLeafBits;
  static constexpr size_t kLeaves = size_t{1} << (kAddressBits - kGranuleBits - kLeafBits);

  static size_t leaf_number(const void *block) {
    return reinterpret_cast<uintptr_t>(block) >> (kGranuleBits + kLeafBits);
  }
  static size_t byte_index(const void *block) {
    return (reinterpret_cast<uintptr_t>(block) >> kGranuleBits) & (kLeafBytes - 1);
  }
  static uint8_t mark_of(const void *block) {
    return static_cast<uint8_t>(0x80 | (reinterpret_cast<uintptr_t>(block) & 15));
  }
  static void set(uint8_t *leaf, const void *block, uint8_t mark) {
    std::atomic_ref<uint8_t>(leaf[byte_index(block)]).store(mark, std::memory_order_relaxed);
  }
  // The leaf of a region that could not be reserved. Never read or written.
  static uint8_t *trusted() { return reinterpret_cast<uint8_t *>(UINTPTR_MAX); }

  // The leaf of the block's region; null where there is none to read or write.
  uint8_t *leaf_of(const void *block) const {
    const size_t number = leaf_number(block);
    if (number >= kLeaves) [[unlikely]]
      return nullptr;
    uint8_t *leaf = leaves_[number].load(std::memory_order_acquire);
    return leaf == trusted() ? nullptr : leaf;
  }
  uint8_t *leaf_or_reserve(const void *block) {
    uint8_t *leaf = leaf_of(block);
    return leaf != nullptr || is_trusted(block) ? leaf : reserve(leaf_number(block));
  }
  // Whether the block lies where the map has no say.
  bool is_trusted(const void *block) const {
    const size_t number = leaf_number(block);
    return number >= kLeaves || leaves_[number].load(std::memory_order_relaxed) == trusted();
  }
  // The new leaf, or null if the region is trusted from now on.
  uint8_t *reserve(size_t number);
  static void release_leaf(uint8_t *leaf);

  std::atomic<uint8_t *> leaves_[kLeaves] = {};
};

}  // namespace psp::core
