// The block of a stream: a piece of the file, at most kBlockBytes long, and the place in the file
// where the next byte is read or written.
//
// Every transfer goes to the file at the block's start, through the sequential calls of the file
// layer. The handle stands there already as long as the file is used in sequence; else it is moved.
//
// Invariants. KNOWN: data[0, max(valid, dirty)) is what the file holds or is to hold from the start
// on; nothing is said about the rest of data. PREFIX: what waits to be written is data[0, dirty),
// wherever the position has moved since.
//
// Included by the parts of module pspstream.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "psp.h"

namespace psp::streams {

inline constexpr uint32_t kBlockBytes = 1024;
inline constexpr uint32_t kVectorBytes = 16;
inline constexpr int32_t kEnd = -1;

struct Block {
  uint64_t start;            // file offset of data[0]
  uint64_t position;         // file offset of the next byte; may lie outside the block
  uint64_t known_length;     // the file's length at open, raised by writes past it; 0: not taken
  uint64_t handle_position;  // where the file handle stands
  PSP_FH file;
  uint32_t valid;    // bytes of data that may be read
  uint32_t dirty;    // bytes of data that wait to be written
  bool readable;     // false: opened for writing only, reads would be refused
  bool movable;      // false: a standard channel, whose handle is used in sequence only
  bool is_stored;    // a file of the in-memory store, which read-only mode leaves alone
  bool read_failed;  // once; the functions that read characters take it for the end
  unsigned char data[kBlockBytes + kVectorBytes];  // a vector may be loaded at every byte

  // The position's place in data; beyond every size when it lies before the start.
  uint64_t offset() const { return position - start; }
};

// Writes the dirty bytes. False when the file did not take them all; the others stay dirty.
bool write_dirty(Block *block);

// Makes the block begin at the position, with room for kBlockBytes from there on. False when dirty
// bytes could not be written, and then the block is kept. A read that fails, or finds the end,
// leaves nothing valid.
bool refill(Block *block);

// Reads on until a block at the start of the file holds count bytes; false at the end.
bool load_front(Block *block, uint32_t count);

// Whether nothing of the file lies at the place. A length that is not known tells nothing.
inline bool past_known_length(const Block &block, uint64_t place) {
  return block.known_length != 0 && place >= block.known_length;
}

// The next byte, or kEnd.
inline int32_t read_byte(Block *block) {
  if (block->offset() >= block->valid && (!refill(block) || block->valid == 0)) return kEnd;
  return block->data[block->position++ - block->start];
}

// Whether count bytes may be stored at the position. Those before it must be known: the file may
// hold something in a gap, which must not be overwritten unread.
inline bool has_room(const Block &block, uint32_t count) {
  const uint64_t offset = block.offset();
  return offset + count <= kBlockBytes && (offset <= block.dirty || offset <= block.valid);
}

// Counts bytes just stored at the position, all of them within the block.
inline void advance_written(Block *block, uint32_t count) {
  block->position += count;
  block->dirty = std::max(block->dirty, static_cast<uint32_t>(block->offset()));
  block->known_length = std::max(block->known_length, block->position);
}

// Writes count bytes, at most a block, all of them or none.
inline bool write_whole(Block *block, const unsigned char *bytes, uint32_t count) {
  if (!has_room(*block, count) && !refill(block)) [[unlikely]]
    return false;
  std::memcpy(block->data + block->offset(), bytes, count);
  advance_written(block, count);
  return true;
}

// Writes count bytes up to the first that could not be stored, and then returns false.
bool write_bytes(Block *block, const char *bytes, size_t count);

}  // namespace psp::streams
