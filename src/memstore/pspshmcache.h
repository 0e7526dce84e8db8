// Pages: the segments of open heaps, counted, pinned, and mapped within a budget.
//
// A page is one block of a heap. Its record stands in front of its bytes in the same block, so that
// reaching a page which exists allocates nothing and cannot fail. A page is referenced while
// somebody holds it, pinned while its bytes are used, and mapped from its first pin until it is
// evicted or its last reference goes. At most kMappedLimit pages are mapped at once, unless more
// than that are pinned; beyond it the page that became idle last (mapped, not pinned) is unmapped.
// A block's mapping is its own address: mapping and unmapping count, and cost nothing else.
//
// Pinning and unpinning a mapped page take no lock: pins and the mark of the mapping are one atomic
// word. Everything else happens under the cache lock, which comes after the heaps' locks and before
// that of the heap table.
//
// Included by the modules of memstore/.
#pragma once

#include <atomic>
#include <cstdint>

#include "memstore/pspshmheap.h"

namespace psp::memstore {

inline constexpr uint32_t kMappedLimit = 400;

struct alignas(16) Page {
  static constexpr uint32_t kMapped = 0x80000000u;

  std::atomic<uint32_t> pins;      // how often it is pinned, and kMapped
  uint32_t references;             // guarded by the cache lock, as all that is not atomic
  std::atomic<size_t> idle_since;  // the tick of the last unpin; see shmcache_unpin
  Page *older;                     // the list of mapped pages
  Page *newer;
  uint32_t number;
  uint32_t byte_count;
  // The block goes with the last reference, unless it is made anew before. Set under the lock.
  std::atomic<bool> is_discarded;

  unsigned char *bytes() { return reinterpret_cast<unsigned char *>(this + 1); }
};

psp_status shmcache_start();
void shmcache_stop();

// ---- Heaps --------------------------------------------------------------------------------------

// Opens the heap (shmheap_open); null when it has no root and none is made, or when memory is
// short. Whoever opens knows that the heap lives: from a directory entry, under that directory's
// lock, or because it is the default heap.
Heap *shmcache_attach(HeapId id, uint32_t flags, size_t root_bytes);

// Ends one opening. The last one destroys a deleted heap.
void shmcache_detach(Heap *heap);

// The heap goes when nobody has it open (any more). No directory entry names it now.
void shmcache_delete(HeapId id);

// ---- Pages --------------------------------------------------------------------------------------

// The page of the number, whose block is there, with one reference more.
Page *shmcache_get_page(Heap *heap, uint32_t number);

// The same, with the block made if there is none; null when memory is short. A page that was
// discarded while somebody held it comes back zeroed.
Page *shmcache_create_page(Heap *heap, uint32_t number, uint32_t byte_count);

void shmcache_release(Heap *heap, Page *page);

// The block goes at once, or with its page's last reference.
void shmcache_discard(Heap *heap, uint32_t number);

// Zeroes the page's bytes from `first` up to, not including, `end`, if there is such a block.
void shmcache_clear(Heap *heap, uint32_t number, uint32_t first, uint32_t end);

void shmcache_pin_unmapped(Page *page);
void shmcache_note_idle(Page *page);

// How many pages are mapped. Written under the lock.
extern constinit std::atomic<uint32_t> shmcache_mapped_count;

// The caller holds a reference.
inline unsigned char *shmcache_pin(Page *page) {
  uint32_t word = page->pins.load(std::memory_order_relaxed);
  do {
    if ((word & Page::kMapped) == 0) [[unlikely]] {
      shmcache_pin_unmapped(page);
      break;
    }
  } while (!page->pins.compare_exchange_weak(word, word + 1, std::memory_order_acquire,
                                             std::memory_order_relaxed));
  return page->bytes();
}

// The note comes first: a page that is seen idle has been noted. While the budget is far from used
// up, no page will be chosen for a while, and nothing is noted: all threads would write one place.
inline void shmcache_unpin(Page *page) {
  if (shmcache_mapped_count.load(std::memory_order_relaxed) > kMappedLimit / 2) [[unlikely]]
    shmcache_note_idle(page);
  page->pins.fetch_sub(1, std::memory_order_release);
}

}  // namespace psp::memstore
