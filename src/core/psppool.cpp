// Module psppool: pools that recycle memory chunks of one purpose.
//
// A pool owns the chunks that wait on its free list, up to a limit; those handed out belong to
// their holders. The pool record and all its chunks are blocks of the pool's tag, and go with it:
//
//     | link or tag | capacity | pool | mark |  the caller's bytes, aligned for any type  |
//     ^ chunk                                ^ the caller's pointer
//
// Lock: that of a thread-safe pool guards its free list. Chunks are obtained and released outside
// it, and nothing is reported under it.
#include <atomic>
#include <cstring>

#include "core/checked.h"
#include "core/exported_call.h"
#include "core/lifecycle.h"
#include "core/sync.h"

namespace psp::core {
namespace {

constexpr char kSource[] = "psppool.cpp";

constexpr uint32_t kMostFreeChunks = 1000;

// What a chunk is, told by its mark; any other mark: no chunk.
constexpr uint32_t kHandedOut = 0x43484e4b;
constexpr uint32_t kFree = 0x46524545;

struct alignas(max_align_t) Chunk {
  union {
    Chunk *next;   // on the free list
    psp_tag *tag;  // while handed out: the tag that the block belongs to
  };
  size_t capacity;  // bytes asked for when the chunk was allocated
  psp_pool *pool;   // that handed it out last
  uint32_t mark;

  void *content() { return this + 1; }
  bool is_of(const psp_pool *asked) const { return pool == asked && mark == kHandedOut; }
  static Chunk *of(void *content) { return static_cast<Chunk *>(content) - 1; }
};

}  // namespace
}  // namespace psp::core

struct psp_pool {
  psp_sync lock;               // PSP_SYNC_NONE for a pool of one thread
  psp_tag *tag;                // of the record and the chunks; null is the default tag
  std::atomic<bool> is_fixed;  // all requests are of one size, and no chunk is smaller
  uint32_t free_count PSP_GUARDED_BY(lock);
  psp::core::Chunk *free_list PSP_GUARDED_BY(lock);
};

namespace psp::core {
namespace {

psp_pool *make_pool(psp_tag *tag, bool is_fixed, bool thread_safe) PSP_UNCHECKED {
  auto *pool = static_cast<psp_pool *>(
      psp_getMem(sizeof(psp_pool), tag, PSP_MEM_ZERO, nullptr, kSource, __LINE__));
  if (pool == nullptr) return nullptr;
  pool->tag = tag;
  pool->is_fixed.store(is_fixed, std::memory_order_relaxed);
  pool->lock = PSP_SYNC_NONE;
  if (!thread_safe) return pool;
  pool->lock = sync_create(PSP_SYNC_EXCL, LockRank::kPool, kSource, __LINE__);
  if (!result_is_lost()) return pool;
  psp_syncDelete(pool->lock);
  psp_freeMem(pool, tag);
  return nullptr;
}

// Expected, so that the way of such a pool runs straight on: the others pay for a lock anyway.
inline bool is_of_one_thread(const psp_pool *pool) {
  return __builtin_expect(pool->lock == PSP_SYNC_NONE, 1);
}

inline bool is_aligned(const void *content) {
  return reinterpret_cast<uintptr_t>(content) % alignof(Chunk) == 0;
}

// The free chunk put back last, or null.
inline Chunk *take_free_chunk(psp_pool *pool) {
  const BriefSyncGuard guard(pool->lock);
  Chunk *chunk = pool->free_list;
  if (chunk == nullptr) return nullptr;
  pool->free_list = chunk->next;
  --pool->free_count;
  return chunk;
}

// Whoever calls holds the pool's lock, or is the only thread of a pool without one. False when
// enough chunks wait.
inline bool push_free_chunk(psp_pool *pool, Chunk *chunk) PSP_UNCHECKED {
  if (pool->free_count == kMostFreeChunks) return false;
  chunk->mark = kFree;
  chunk->next = pool->free_list;
  pool->free_list = chunk;
  ++pool->free_count;
  return true;
}

// False when enough chunks wait.
inline bool keep_chunk(psp_pool *pool, Chunk *chunk) {
  const BriefSyncGuard guard(pool->lock);
  return push_free_chunk(pool, chunk);
}

[[gnu::noinline]] Chunk *new_chunk(size_t size, psp_pool *pool, const char *file, uint32_t line) {
  return exported_call([&] {
    const size_t bytes = add_or_most(size, sizeof(Chunk));
    auto *chunk =
        static_cast<Chunk *>(psp_getMem(bytes, pool->tag, PSP_MEM_ALLOC, nullptr, file, line));
    if (chunk != nullptr) chunk->capacity = size;
    return chunk;
  });
}

inline bool fits(const psp_pool *pool, const Chunk *chunk, size_t size) {
  return pool->is_fixed.load(std::memory_order_relaxed) || chunk->capacity >= size;
}

// The pool's thread only: the free chunk put back last if it will do, else null.
inline Chunk *take_fitting_chunk(psp_pool *pool, size_t size) PSP_UNCHECKED {
  Chunk *chunk = pool->free_list;
  if (chunk == nullptr || !fits(pool, chunk, size)) return nullptr;
  pool->free_list = chunk->next;
  --pool->free_count;
  return chunk;
}

inline void *hand_out(Chunk *chunk, psp_pool *pool) {
  chunk->tag = pool->tag;
  chunk->pool = pool;
  chunk->mark = kHandedOut;
  return chunk->content();
}

[[gnu::noinline]] void *get_chunk(size_t size, psp_pool *pool, uint32_t mode, const void *source,
                                  const char *file, uint32_t line) {
  if (mode == PSP_MEM_COPY && source == nullptr) return nullptr;
  Chunk *chunk = take_free_chunk(pool);
  if (chunk != nullptr && !fits(pool, chunk, size)) {
    chunk->mark = 0;
    psp_freeMem(chunk, pool->tag);
    chunk = nullptr;
  }
  if (chunk == nullptr) {
    chunk = new_chunk(size, pool, file, line);
    if (chunk == nullptr) return nullptr;
  }
  void *content = hand_out(chunk, pool);
  if (mode == PSP_MEM_ZERO) std::memset(content, 0, size);
  if (mode == PSP_MEM_COPY) std::memcpy(content, source, size);
  return content;
}

[[gnu::cold, gnu::noinline]] void report_foreign_chunk() {
  psp_log("Attempting to put a memory chunk into a pool that didn't create it\n");
}

// Whether the chunk, which is not one handed out by this pool, may be taken in: it is another
// pool's. Its block moves to this pool's tag, so that it lives and is released with that. It is of
// any size, so that sizes are checked from now on: whoever takes it off the free list sees that,
// since this comes before the lock under which it is put there.
[[gnu::cold, gnu::noinline]] bool adopt_foreign_chunk(psp_pool *pool, Chunk *chunk) {
  report_foreign_chunk();
  if (chunk->mark != kHandedOut) return false;
  psp_moveMemTag(chunk, pool->tag, chunk->tag);
  pool->is_fixed.store(false, std::memory_order_relaxed);
  return true;
}

// Every return but the usual one.
[[gnu::noinline]] void put_chunk(void *content, psp_pool *pool) {
  if (!is_aligned(content)) return report_foreign_chunk();
  Chunk *chunk = Chunk::of(content);
  if (!chunk->is_of(pool) && !adopt_foreign_chunk(pool, chunk)) return;
  if (keep_chunk(pool, chunk)) return;
  chunk->mark = 0;
  psp_freeMem(chunk, pool->tag);
}

}  // namespace
}  // namespace psp::core

using namespace psp::core;

psp_pool *psp_allocPool(psp_tag *tag, uint16_t fixed_size, uint32_t thread_safe) {
  return exported_call([&] { return make_pool(tag, fixed_size != 0, thread_safe != 0); });
}

void *psp_getMemFromPool(size_t size, psp_pool *pool, uint32_t mode, const void *source,
                         const char *file, uint32_t line) {
  if (pool == nullptr || !started()) [[unlikely]]
    return nullptr;
  // The most frequent request, apart from the others so that it saves no registers.
  if (is_of_one_thread(pool) && mode != PSP_MEM_ZERO && mode != PSP_MEM_COPY) [[likely]] {
    Chunk *chunk = take_fitting_chunk(pool, size);
    if (chunk != nullptr) [[likely]]
      return hand_out(chunk, pool);
  }
  return get_chunk(size, pool, mode, source, file, line);
}

void psp_putInPool(void *pointer, psp_pool *pool) {
  if (pointer == nullptr || pool == nullptr || !started()) [[unlikely]]
    return;
  // The most frequent return, apart from the others so that it saves no registers.
  if (is_of_one_thread(pool) && is_aligned(pointer)) [[likely]] {
    Chunk *chunk = Chunk::of(pointer);
    if (chunk->is_of(pool) && push_free_chunk(pool, chunk)) [[likely]]
      return;
  }
  put_chunk(pointer, pool);
}

void psp_zFreePool(psp_pool **pool_variable) {
  if (pool_variable == nullptr || *pool_variable == nullptr) return;
  psp_pool *pool = *pool_variable;
  *pool_variable = nullptr;
  if (!started()) return;
  while (Chunk *chunk = take_free_chunk(pool)) {
    chunk->mark = 0;
    psp_freeMem(chunk, pool->tag);
  }
  psp_syncDelete(pool->lock);
  psp_freeMem(pool, pool->tag);
}
