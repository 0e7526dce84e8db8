// Heaps: private regions of memory, one for each file and directory of the in-memory file store.
//
// A heap has a memory tag of its own, numbered blocks, a root block that its user lays out, and an
// exclusive lock for its user. Root and lock appear together, when the heap is first opened with
// kCreateRoot. A heap is known by a 32-bit identifier, because a directory entry has 32 bits for
// it. Identifiers are used again: a heap is destroyed only when no directory entry names it any
// more and nobody has it open, and whoever keeps an identifier holds that directory's lock or has
// the heap open.
//
// A heap's memory tag has no lock. Opening, allocating and freeing happen under the lock of the
// pages (pspshmcache.h), or while nobody else knows the heap yet.
//
// Included by the modules of memstore/.
#pragma once

#include <atomic>
#include <cstdint>

#include "core/sync.h"
#include "psp.h"

namespace psp::memstore {

using HeapId = uint32_t;

inline constexpr HeapId kNoHeap = 0;
inline constexpr uint32_t kPageBytes = 4096;      // of a directory's pages; the least segment
inline constexpr uint32_t kCreateRoot = 0x0100u;  // PSP_OPEN_CREATE, as the layers above pass it on

struct Heap {
  psp_syncObject lock;  // of the heap's user; once there is a root
  psp_tag *tag;         // null while the record is free
  void *root;
  void **blocks;  // by number; null where there is no block
  uint32_t block_count;
  uint32_t block_capacity;
  HeapId id;
  HeapId next_free;  // of a free record

  // For the heap's user, changed under `lock`.
  std::atomic<uint32_t> changes;  // an iteration sees by it that a directory changed
  uint32_t lock_turns;            // how often a client's thread has taken the lock anew

  // What pspshmcache knows of the heap, under its lock.
  uint32_t openers;  // how often the heap is open
  bool is_deleted;   // to be destroyed by the last opener
};

// Starts the heaps with the default heap, which has no root yet.
psp_status shmheap_start();

// Destroys every heap, whoever uses it.
void shmheap_stop();

// kNoHeap when memory is short.
HeapId shmheap_create();

// The heap that is there from start to stop; kNoHeap outside.
HeapId shmheap_default();

// Takes no lock. The identifier is that of a living heap.
Heap *shmheap_find(HeapId id);

// The heap, with a root of that many zeroed bytes made first if it has none and kCreateRoot is
// given; else, or when memory is short, null.
Heap *shmheap_open(HeapId id, uint32_t flags, size_t root_bytes);

// Ends the heap with all its memory. Nobody has it open; its lock may be held by the caller.
void shmheap_destroy(Heap *heap);

// A new zeroed block under the number, of two parts: `front` bytes, a multiple of 16, and behind
// them `bytes` that begin at a multiple of `alignment`, a power of two from 16 on. Null when memory
// is short, and then nothing has changed. A block that had the number stays in the heap's memory,
// out of reach.
void *shmheap_alloc(Heap *heap, uint32_t number, size_t front, size_t bytes, size_t alignment);

// Null when there is no block of the number.
inline void *shmheap_get(const Heap *heap, uint32_t number) {
  return number < heap->block_count ? heap->blocks[number] : nullptr;
}

// Gives back the block of the number, which is there.
void shmheap_free(Heap *heap, uint32_t number);

inline void shmheap_lock(Heap *heap) PSP_ACQUIRES(&heap->lock) PSP_UNCHECKED {
  core::sync_enter(&heap->lock);
}
inline void shmheap_unlock(Heap *heap) PSP_RELEASES(&heap->lock) PSP_UNCHECKED {
  core::sync_exit(&heap->lock);
}

}  // namespace psp::memstore
