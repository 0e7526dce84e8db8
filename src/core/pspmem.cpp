// Module pspmem: tagged memory.
//
// Owns the tags: the default tag, which exists from start to stop, and those of clients, in a list
// in the order of their creation. Each tag owns its blocks, which come from the C runtime:
//
//     | older | newer |  the caller's bytes, aligned for any type  |
//     ^ header        ^ the caller's pointer
//
// The blocks of a tag form a ring through the tag's own anchor. A ring has no ends, so a block is
// unlinked without a look at its tag, and a release that names the wrong tag cannot tear one.
//
// Locks: a thread-safe tag's lock guards its ring and its jump; the tag list lock guards the list
// of tags. Order: a tag's lock, then the tag list lock; two tags' locks are never held together. No
// lock is held while a message is logged or a jump is made. Blocks are obtained and released
// outside the locks.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "core/checked.h"
#include "core/exported_call.h"
#include "core/lifecycle.h"
#include "core/live_blocks.h"
#include "core/modules.h"
#include "core/sync.h"
#include "os/os.h"

namespace {

constexpr char kSource[] = "pspmem.cpp";

// The header of a block; the caller's bytes stand behind it, aligned for any type.
struct alignas(max_align_t) Block {
  Block *older;
  Block *newer;

  void *content() { return this + 1; }
  static Block *of(void *content) { return static_cast<Block *>(content) - 1; }

  void link_as_newest(Block *anchor) {
    older = anchor->older;
    newer = anchor;
    older->newer = this;
    anchor->older = this;
  }
  void unlink() const {
    older->newer = newer;
    newer->older = older;
  }
};

}  // namespace

struct psp_tag {
  psp_tag *older;  // the list of tags
  psp_tag *newer;
  psp_sync lock;                      // PSP_SYNC_NONE for a tag of one thread
  Block anchor PSP_GUARDED_BY(lock);  // of the ring of blocks; anchor.older is the newest block
  bool armed PSP_GUARDED_BY(lock);    // a failed allocation jumps
  jmp_buf jump PSP_GUARDED_BY(lock);  // where to, while armed
};

namespace psp::core {

constinit thread_local CallState call_state;

namespace {

struct State {
  psp_tag *default_tag = nullptr;

  psp_sync list_lock = nullptr;
  psp_tag *oldest PSP_GUARDED_BY(list_lock) = nullptr;
  psp_tag *newest PSP_GUARDED_BY(list_lock) = nullptr;

  LiveBlocks live;
};

constinit State state;

psp_tag *tag_or_default(psp_tag *tag) { return tag != nullptr ? tag : state.default_tag; }

void arm(psp_tag *tag, const jmp_buf *jump) PSP_REQUIRES(tag->lock) {
  tag->armed = jump != nullptr;
  if (jump != nullptr) std::memcpy(&tag->jump, jump, sizeof(jmp_buf));
}

// A tag with an empty ring and no lock, in no list; null when memory is short.
psp_tag *make_tag(const jmp_buf *jump) PSP_UNCHECKED {
  auto *tag = static_cast<psp_tag *>(std::calloc(1, sizeof(psp_tag)));
  if (tag == nullptr) return nullptr;
  tag->lock = PSP_SYNC_NONE;
  tag->anchor.older = tag->anchor.newer = &tag->anchor;
  arm(tag, jump);
  return tag;
}

bool is_armed(psp_tag *tag) {
  BriefSyncGuard guard(tag->lock);
  return tag->armed;
}

void append_to_list(psp_tag *tag) {
  BriefSyncGuard guard(state.list_lock);
  tag->older = state.newest;
  (state.newest != nullptr ? state.newest->newer : state.oldest) = tag;
  state.newest = tag;
}

void remove_from_list(psp_tag *tag) {
  BriefSyncGuard guard(state.list_lock);
  (tag->older != nullptr ? tag->older->newer : state.oldest) = tag->newer;
  (tag->newer != nullptr ? tag->newer->older : state.newest) = tag->older;
}

// Releases every block of the ring, newest first. The next header is fetched while the C runtime
// works on the present one.
void release_blocks(psp_tag *tag) PSP_REQUIRES(tag->lock) {
  Block *block = tag->anchor.older;
  while (block != &tag->anchor) {
    Block *older = block->older;
    __builtin_prefetch(older);
    state.live.clear(block);
    std::free(block);
    block = older;
  }
  tag->anchor.older = tag->anchor.newer = &tag->anchor;
}

void destroy_tag(psp_tag *tag) {
  {
    BriefSyncGuard guard(tag->lock);
    release_blocks(tag);
  }
  remove_from_list(tag);
  psp_syncDelete(tag->lock);
  if (call_state.jump_wanted == tag) call_state.jump_wanted = nullptr;
  std::free(tag);
}

// The log takes no tagged memory: a report brings about no other one.
void report(const char *file, uint32_t line) {
  CallState &call = call_state;
  ++call.depth;
  psp_log("Out of memory. Called from %s:%u\n", file, line);
  --call.depth;
}

// Logs the failure, with nothing of the library held, or puts that off, and sees to the jump.
// Returns null where the caller goes on without the memory.
[[gnu::cold, gnu::noinline]] void *fail_allocation(psp_tag *tag, const char *file, uint32_t line) {
  CallState &call = call_state;
  if (call.put_offs == 0) {
    report(file, line);
  } else if (call.unreported_file == nullptr) {
    call.unreported_file = file;
    call.unreported_line = line;
  }
  if (call.jump_wanted == nullptr && is_armed(tag)) call.jump_wanted = tag;
  if (call.jump_wanted != nullptr && call.depth == 0) take_wanted_jump();
  return nullptr;
}

// Makes the fresh block one of the tag's; null goes the way of a failed allocation.
inline void *adopt(Block *block, psp_tag *tag, const char *file, uint32_t line) {
  if (block == nullptr) [[unlikely]]
    return fail_allocation(tag, file, line);
  state.live.mark(block);
  BriefSyncGuard guard(tag->lock);
  block->link_as_newest(&tag->anchor);
  return block->content();
}

// Takes a live block out of its ring; false for a pointer that is no live block.
inline bool detach(Block *block, psp_tag *tag) {
  BriefSyncGuard guard(tag->lock);
  if (!state.live.take(block)) return false;
  block->unlink();
  return true;
}

[[gnu::cold, gnu::noinline]] void refuse_release() {
  std::printf("Attempting to free previously freed memory\n");
}

// The bytes that a copying mode takes from its source; 0 for a request that is none.
size_t bytes_to_copy(size_t size, uint32_t mode, const void *source) {
  if (source == nullptr) return 0;
  switch (mode) {
    case PSP_MEM_COPY:
      return size;
    case PSP_MEM_STRDUP:
      return std::strlen(static_cast<const char *>(source)) + 1;
    case PSP_MEM_WSTRDUP: {
      const auto *text = static_cast<const psp_wchar *>(source);
      const psp_wchar *end = text;
      while (*end != 0) ++end;
      return static_cast<size_t>(end - text + 1) * sizeof(psp_wchar);
    }
    default:
      return 0;
  }
}

[[gnu::noinline]] void *get_copy(size_t size, psp_tag *tag, uint32_t mode, const void *source,
                                 const char *file, uint32_t line) {
  const size_t content = bytes_to_copy(size, mode, source);
  if (content == 0) return nullptr;
  size_t bytes = 0;
  Block *block = nullptr;
  if (checked_add(content, sizeof(Block), &bytes)) block = static_cast<Block *>(std::malloc(bytes));
  if (block != nullptr) std::memcpy(block->content(), source, content);
  return adopt(block, tag, file, line);
}

}  // namespace

void report_put_off_failure() {
  report(std::exchange(call_state.unreported_file, nullptr), call_state.unreported_line);
}

void take_wanted_jump() {
  psp_tag *tag = std::exchange(call_state.jump_wanted, nullptr);
  jmp_buf jump;
  {
    BriefSyncGuard guard(tag->lock);
    if (!tag->armed) return;
    std::memcpy(&jump, &tag->jump, sizeof jump);
  }
  longjmp(jump, 1);
}

psp_status memory_start() {
  state.default_tag = make_tag(nullptr);
  if (state.default_tag == nullptr) {
    psp_log("Out of memory initializing PSP memory module\n");
    return PSP_FAILED;
  }
  append_to_list(state.default_tag);
  // The table of sync objects takes its first block from the default tag, which has no lock yet;
  // nobody else is inside the library. If there is a block, it has room for the second lock too.
  state.default_tag->lock = sync_create(PSP_SYNC_EXCL, LockRank::kTag, kSource, __LINE__);
  state.list_lock = sync_create(PSP_SYNC_EXCL, LockRank::kTagList, kSource, __LINE__);
  if (is_sync_object(state.default_tag->lock)) return PSP_OKAY;
  memory_stop();
  return PSP_FAILED;
}

void memory_stop() PSP_UNCHECKED {
  // The locks live in blocks of the default tag. They end first, and nobody is left to lock out.
  state.list_lock = nullptr;
  for (psp_tag *tag = state.oldest; tag != nullptr; tag = tag->newer) tag->lock = PSP_SYNC_NONE;
  sync_close_all();
  while (state.oldest != nullptr) destroy_tag(state.oldest);
  state.default_tag = nullptr;
  state.live.release();
}

}  // namespace psp::core

using namespace psp::core;

psp_tag *psp_createTagEx(jmp_buf *jump, uint32_t flags, const char *file, uint32_t line) {
  static_cast<void>(file);
  static_cast<void>(line);
  if (!started()) return PSP_TAG_FAILED;
  return exported_call([&] {
    psp_tag *tag = make_tag(jump);
    if (tag == nullptr) return PSP_TAG_FAILED;
    if ((flags & PSP_TAG_THREADSAFE) != 0) {
      tag->lock = sync_create(PSP_SYNC_EXCL, LockRank::kTag, kSource, __LINE__);
    }
    append_to_list(tag);
    if (!result_is_lost()) return tag;
    destroy_tag(tag);
    return PSP_TAG_FAILED;
  });
}

void psp_resetTag(jmp_buf *jump, psp_tag *tag) {
  if (!started() || tag == PSP_TAG_FAILED) return;
  tag = tag_or_default(tag);
  BriefSyncGuard guard(tag->lock);
  arm(tag, jump);
}

void psp_freeTagMemory(psp_tag *tag, int16_t release) {
  if (!started() || tag == nullptr || tag == PSP_TAG_FAILED) return;
  if (release != 0) {
    destroy_tag(tag);
    return;
  }
  BriefSyncGuard guard(tag->lock);
  release_blocks(tag);
}

void *psp_getMem(size_t size, psp_tag *tag, uint32_t mode, const void *source, const char *file,
                 uint32_t line) {
  if (!started() || tag == PSP_TAG_FAILED) [[unlikely]]
    return nullptr;
  tag = tag_or_default(tag);
  if (mode != PSP_MEM_ALLOC && mode != PSP_MEM_ZERO) {
    return get_copy(size, tag, mode, source, file, line);
  }
  if (size == 0) return nullptr;
  size_t bytes = 0;
  if (!psp::checked_add(size, sizeof(Block), &bytes)) return fail_allocation(tag, file, line);
  void *memory = mode == PSP_MEM_ALLOC ? std::malloc(bytes) : std::calloc(1, bytes);
  return adopt(static_cast<Block *>(memory), tag, file, line);
}

void *psp_extendMem(void *pointer, size_t size, psp_tag *tag, int32_t zero, size_t zero_count,
                    const char *file, uint32_t line) {
  if (pointer == nullptr) {
    return psp_getMem(size, tag, zero != 0 ? PSP_MEM_ZERO : PSP_MEM_ALLOC, nullptr, file, line);
  }
  if (!started() || tag == PSP_TAG_FAILED) return nullptr;
  tag = tag_or_default(tag);
  size_t bytes = 0;
  Block *moved = nullptr;
  {
    // The block's neighbours must hold still while it moves.
    BriefSyncGuard guard(tag->lock);
    Block *block = Block::of(pointer);
    if (!state.live.is_live(block)) return nullptr;
    // Cleared before realloc: afterwards the old address may be another thread's new block.
    if (psp::checked_add(size, sizeof(Block), &bytes)) {
      state.live.clear(block);
      moved = static_cast<Block *>(std::realloc(block, bytes));
      state.live.mark(moved != nullptr ? moved : block);
    }
    if (moved != nullptr) {
      moved->older->newer = moved;
      moved->newer->older = moved;
    }
  }
  if (moved == nullptr) return fail_allocation(tag, file, line);
  auto *content = static_cast<unsigned char *>(moved->content());
  if (zero != 0) {
    const size_t cleared = std::min(zero_count, size);
    std::memset(content + (size - cleared), 0, cleared);
  }
  return content;
}

void psp_freeMem(void *pointer, psp_tag *tag) {
  if (pointer == nullptr || !started() || tag == PSP_TAG_FAILED) [[unlikely]]
    return;
  Block *block = Block::of(pointer);
  if (!detach(block, tag_or_default(tag))) [[unlikely]]
    return refuse_release();
  std::free(block);
}

void psp_moveMemTag(void *pointer, psp_tag *destination, psp_tag *source) {
  if (!started() || pointer == nullptr || destination == source) return;
  if (destination == PSP_TAG_FAILED || source == PSP_TAG_FAILED) return;
  destination = tag_or_default(destination);
  source = tag_or_default(source);
  Block *block = Block::of(pointer);
  {
    BriefSyncGuard guard(source->lock);
    if (!state.live.is_live(block)) return;
    block->unlink();
  }
  BriefSyncGuard guard(destination->lock);
  block->link_as_newest(&destination->anchor);
}

int32_t psp_memCmp(const void *first, const void *second, size_t length) {
  if (length == 0) return 0;
  const int order = std::memcmp(first, second, length);
  return (order > 0) - (order < 0);
}
