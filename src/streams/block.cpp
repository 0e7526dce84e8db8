// The transfers between a stream's block and its file.
//
// Owns nothing; takes no lock: a block is used by one thread at a time.
#include "streams/block.h"

#include <cstring>

#include "core/lifecycle.h"

namespace psp::streams {

namespace {

// Moves the handle to the block's start unless it stands there.
bool move_handle_to_start(Block *block) {
  if (block->handle_position == block->start || !block->movable) return true;
  const auto start = static_cast<int64_t>(block->start);
  if (psp_fileSeek(block->file, start, PSP_SEEK_START) != PSP_OKAY) {
    // The in-memory store has no places past the end of a file: the gap comes first.
    if (block->dirty == 0 || psp_fileLength(block->file) >= start) return false;
    if (psp_fileSetSize(block->file, start) != 0) return false;
    if (psp_fileSeek(block->file, start, PSP_SEEK_START) != PSP_OKAY) return false;
  }
  block->handle_position = block->start;
  return true;
}

// Lets the block begin behind its first count bytes, which the file has taken.
void drop_front(Block *block, uint32_t count) {
  const uint32_t known = std::max(block->valid, block->dirty);
  std::memmove(block->data, block->data + count, known - count);
  block->start += count;
  block->valid -= std::min(block->valid, count);
  block->dirty -= count;
}

}  // namespace

bool write_dirty(Block *block) {
  if (!move_handle_to_start(block)) return false;
  const int32_t result = psp_fileWrite(block->file, block->data, block->dirty);
  const uint32_t written = result > 0 ? static_cast<uint32_t>(result) : 0;
  block->handle_position += written;
  // In read-only mode the file layer writes nothing, which counts as done.
  if (written == block->dirty || (result == 0 && core::read_only() && !block->is_stored)) {
    block->dirty = 0;
    return true;
  }
  // A standard channel cannot be moved back: what it has taken must not be written again.
  drop_front(block, written);
  return false;
}

bool refill(Block *block) {
  if (block->dirty != 0 && !write_dirty(block)) return false;
  block->start = block->position;
  block->valid = 0;
  if (!block->readable || past_known_length(*block, block->start)) return true;
  const bool moved = move_handle_to_start(block);
  const int32_t count = moved ? psp_fileRead(block->file, block->data, kBlockBytes) : -1;
  if (count < 0) block->read_failed = true;
  if (count <= 0) return true;
  block->valid = static_cast<uint32_t>(count);
  block->handle_position += block->valid;
  return true;
}

bool load_front(Block *block, uint32_t count) {
  // A pipe may deliver less than is wanted at once, and cannot be moved back: what it has delivered
  // must stay in the block.
  while (block->valid < count) {
    if (past_known_length(*block, block->valid)) return false;
    const int32_t more =
        psp_fileRead(block->file, block->data + block->valid, kBlockBytes - block->valid);
    if (more < 0) block->read_failed = true;
    if (more <= 0) return false;
    block->valid += static_cast<uint32_t>(more);
    block->handle_position = block->valid;
  }
  return true;
}

bool write_bytes(Block *block, const char *bytes, size_t count) {
  while (count != 0) {
    if (!has_room(*block, 1) && !refill(block)) return false;
    const auto offset = static_cast<uint32_t>(block->offset());
    const auto part = static_cast<uint32_t>(std::min<size_t>(count, kBlockBytes - offset));
    std::memcpy(block->data + offset, bytes, part);
    advance_written(block, part);
    bytes += part;
    count -= part;
  }
  return true;
}

}  // namespace psp::streams
