// Module pspshmcache: open heaps and their pages.
//
// Owns the list of mapped pages and the count of them. The cache lock guards both, every page's
// references, and what heaps say of their openers. It is taken after the locks of heaps, and before
// that of the heap table and those of memory tags.
//
// The page that became idle last is the usual answer to the question which one to unmap, so it is
// remembered; if it is pinned again or gone, the ticks of the last unpins decide among all.
#include "memstore/pspshmcache.h"

#include <cassert>
#include <cstring>

#include "core/exported_call.h"

namespace psp::memstore {

constinit std::atomic<uint32_t> shmcache_mapped_count{0};

namespace {

constexpr char kSource[] = "pspshmcache.cpp";

// Where a page's bytes begin: on a line of the processor's cache, in large ones on a page of the
// platform's, so that a copy of a few KiB touches as little as it can.
constexpr size_t kLineBytes = 64;
constexpr uint32_t kLargeBytes = 64 * 1024;

struct State {
  psp_sync lock = nullptr;
  Page *newest_mapped PSP_GUARDED_BY(lock) = nullptr;

  // Without the lock, on a line of their own: see shmcache_unpin.
  alignas(64) std::atomic<size_t> tick{0};
  std::atomic<Page *> last_idle{nullptr};  // followed under the lock only
};

constinit State state;

// ---- Mapping ------------------------------------------------------------------------------------

void change_mapped_count(int32_t change) PSP_REQUIRES(state.lock) {
  const uint32_t count = shmcache_mapped_count.load(std::memory_order_relaxed);
  shmcache_mapped_count.store(count + static_cast<uint32_t>(change), std::memory_order_relaxed);
}

void link_mapped(Page *page) PSP_REQUIRES(state.lock) {
  page->older = state.newest_mapped;
  page->newer = nullptr;
  if (page->older != nullptr) page->older->newer = page;
  state.newest_mapped = page;
  change_mapped_count(1);
}

void unlink_mapped(Page *page) PSP_REQUIRES(state.lock) {
  if (page->older != nullptr) page->older->newer = page->newer;
  (page->newer != nullptr ? page->newer->older : state.newest_mapped) = page->older;
  change_mapped_count(-1);
}

bool is_idle(const Page &page) {
  return page.pins.load(std::memory_order_acquire) == Page::kMapped;
}

// Null when every mapped page is pinned.
Page *most_recently_idle() PSP_REQUIRES(state.lock) {
  Page *last = state.last_idle.load(std::memory_order_relaxed);
  if (last != nullptr && is_idle(*last)) return last;
  Page *found = nullptr;
  size_t found_tick = 0;
  for (Page *page = state.newest_mapped; page != nullptr; page = page->older) {
    if (!is_idle(*page)) continue;
    const size_t tick = page->idle_since.load(std::memory_order_relaxed);
    if (found != nullptr && tick <= found_tick) continue;
    found = page;
    found_tick = tick;
  }
  return found;
}

// Fails when somebody pins the page at this moment.
bool unmap(Page *page) PSP_REQUIRES(state.lock) {
  uint32_t word = Page::kMapped;
  if (!page->pins.compare_exchange_strong(word, 0, std::memory_order_acquire)) return false;
  unlink_mapped(page);
  return true;
}

// With more pages pinned than may be mapped, the limit is exceeded for as long as they are.
void make_room() PSP_REQUIRES(state.lock) {
  while (shmcache_mapped_count.load(std::memory_order_relaxed) >= kMappedLimit) {
    Page *page = most_recently_idle();
    if (page == nullptr) return;
    unmap(page);
  }
}

// ---- References ---------------------------------------------------------------------------------

// The last reference of a page goes.
void let_go(Heap *heap, Page *page) PSP_REQUIRES(state.lock) {
  if (is_idle(*page)) unmap(page);
  // An unpin that another thread has made is over: that thread gave its reference back since.
  if (state.last_idle.load(std::memory_order_relaxed) == page) {
    state.last_idle.store(nullptr, std::memory_order_relaxed);
  }
  if (page->is_discarded.load(std::memory_order_relaxed)) shmheap_free(heap, page->number);
}

Page *page_of(const Heap *heap, uint32_t number) {
  return static_cast<Page *>(shmheap_get(heap, number));
}

}  // namespace

psp_status shmcache_start() {
  const psp_status status = shmheap_start();
  if (status != PSP_OKAY) return status;
  state.lock = core::sync_create(PSP_SYNC_EXCL, core::LockRank::kStoreCache, kSource, __LINE__);
  if (core::is_sync_object(state.lock)) return PSP_OKAY;
  shmcache_stop();
  return PSP_FAILED;
}

void shmcache_stop() PSP_UNCHECKED {
  psp_syncDelete(state.lock);
  state.lock = nullptr;
  // The pages go with their heaps.
  state.newest_mapped = nullptr;
  shmcache_mapped_count.store(0, std::memory_order_relaxed);
  state.last_idle.store(nullptr, std::memory_order_relaxed);
  shmheap_stop();
}

// ---- Heaps --------------------------------------------------------------------------------------

Heap *shmcache_attach(HeapId id, uint32_t flags, size_t root_bytes) {
  const core::PutOffReports put_off;
  const core::BriefSyncGuard guard(state.lock);
  Heap *heap = shmheap_open(id, flags, root_bytes);
  if (heap != nullptr) ++heap->openers;
  return heap;
}

void shmcache_detach(Heap *heap) {
  bool is_over = false;
  {
    const core::BriefSyncGuard guard(state.lock);
    is_over = --heap->openers == 0 && heap->is_deleted;
  }
  if (is_over) shmheap_destroy(heap);
}

void shmcache_delete(HeapId id) {
  Heap *heap = shmheap_find(id);
  bool is_over = false;
  {
    const core::BriefSyncGuard guard(state.lock);
    heap->is_deleted = true;
    is_over = heap->openers == 0;
  }
  if (is_over) shmheap_destroy(heap);
}

// ---- Pages --------------------------------------------------------------------------------------

Page *shmcache_get_page(Heap *heap, uint32_t number) {
  const core::BriefSyncGuard guard(state.lock);
  Page *page = page_of(heap, number);
  assert(page != nullptr);  // there is a block
  ++page->references;
  return page;
}

Page *shmcache_create_page(Heap *heap, uint32_t number, uint32_t byte_count) {
  const core::PutOffReports put_off;
  const core::BriefSyncGuard guard(state.lock);
  Page *page = page_of(heap, number);
  if (page == nullptr) {
    const size_t alignment = byte_count < kLargeBytes ? kLineBytes : kPageBytes;
    page = static_cast<Page *>(shmheap_alloc(heap, number, sizeof(Page), byte_count, alignment));
    if (page == nullptr) return nullptr;
    page->number = number;
    page->byte_count = byte_count;
  } else if (page->is_discarded.load(std::memory_order_relaxed)) {
    std::memset(page->bytes(), 0, page->byte_count);
    page->is_discarded.store(false, std::memory_order_relaxed);
  }
  ++page->references;
  return page;
}

void shmcache_release(Heap *heap, Page *page) {
  const core::BriefSyncGuard guard(state.lock);
  if (--page->references == 0) let_go(heap, page);
}

void shmcache_discard(Heap *heap, uint32_t number) {
  const core::BriefSyncGuard guard(state.lock);
  Page *page = page_of(heap, number);
  if (page == nullptr) return;
  if (page->references != 0) {
    page->is_discarded.store(true, std::memory_order_relaxed);
  } else {
    shmheap_free(heap, number);
  }
}

void shmcache_clear(Heap *heap, uint32_t number, uint32_t first, uint32_t end) {
  const core::BriefSyncGuard guard(state.lock);
  Page *page = page_of(heap, number);
  if (page != nullptr) std::memset(page->bytes() + first, 0, end - first);
}

void shmcache_pin_unmapped(Page *page) {
  const core::BriefSyncGuard guard(state.lock);
  // Another thread may have mapped it since; nobody unmaps it now.
  if ((page->pins.fetch_add(1, std::memory_order_acquire) & Page::kMapped) != 0) return;
  make_room();
  page->pins.fetch_or(Page::kMapped, std::memory_order_relaxed);
  link_mapped(page);
}

// Stores without an atomic addition: two threads may write the same tick, and then their pages
// became idle at the same time.
void shmcache_note_idle(Page *page) {
  const size_t tick = state.tick.load(std::memory_order_relaxed) + 1;
  state.tick.store(tick, std::memory_order_relaxed);
  page->idle_since.store(tick, std::memory_order_relaxed);
  state.last_idle.store(page, std::memory_order_relaxed);
}

}  // namespace psp::memstore
