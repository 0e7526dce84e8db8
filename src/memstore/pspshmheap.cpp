// Module pspshmheap: the heaps of the in-memory file store.
//
// Owns the table of heap records. A record's place in the table is its identifier; the table grows
// by chunks, each twice as large as the one before, and a chunk never moves, so that a record is
// found without a lock. The heap list lock guards the free records and the making of chunks; it
// comes last of the store's locks.
#include "memstore/pspshmheap.h"

#include <algorithm>
#include <bit>
#include <new>

#include "core/checked.h"
#include "core/exported_call.h"
#include "psp.h"

namespace psp::memstore {
namespace {

constexpr char kSource[] = "pspshmheap.cpp";
constexpr uint32_t kFirstChunkBits = 6;  // 64 records
constexpr uint32_t kChunks = 32 - kFirstChunkBits;

struct State {
  psp_sync list_lock = nullptr;
  std::atomic<Heap *> chunks[kChunks] = {};  // chunk n holds 64 << n records
  void *chunk_memory[kChunks] PSP_GUARDED_BY(list_lock) = {};
  HeapId next_new PSP_GUARDED_BY(list_lock) = 1;    // never given out, as all above it
  HeapId first_free PSP_GUARDED_BY(list_lock) = 0;  // given back; the last one first
  HeapId default_heap = kNoHeap;
};

constinit State state;

// Identifier n is record n, counted through all chunks; record 0 is nobody's.
struct Place {
  uint32_t chunk;
  uint32_t index;
};

Place place_of(HeapId id) {
  const uint32_t shifted = id + (1u << kFirstChunkBits);
  const auto chunk = static_cast<uint32_t>(std::bit_width(shifted >> kFirstChunkBits | 1)) - 1;
  return {chunk, shifted - (1u << (chunk + kFirstChunkBits))};
}

// The greatest identifier whose record has a chunk that can exist.
constexpr HeapId kLastId = UINT32_MAX - (1u << kFirstChunkBits);

bool make_chunk(uint32_t chunk) PSP_REQUIRES(state.list_lock) {
  const size_t records = size_t{1} << (chunk + kFirstChunkBits);
  const size_t bytes = add_or_most(multiply_or_most(records, sizeof(Heap)), alignof(Heap));
  void *memory = psp_getMem(bytes, nullptr, PSP_MEM_ZERO, nullptr, kSource, __LINE__);
  if (memory == nullptr) return false;
  const auto address =
      (reinterpret_cast<uintptr_t>(memory) + alignof(Heap) - 1) & ~uintptr_t{alignof(Heap) - 1};
  state.chunk_memory[chunk] = memory;
  state.chunks[chunk].store(reinterpret_cast<Heap *>(address), std::memory_order_release);
  return true;
}

// A free record, which is its caller's from now on.
HeapId take_record() {
  const core::PutOffReports put_off;
  const core::BriefSyncGuard guard(state.list_lock);
  HeapId id = state.first_free;
  if (id != kNoHeap) {
    state.first_free = shmheap_find(id)->next_free;
    return id;
  }
  id = state.next_new;
  if (id > kLastId) return kNoHeap;
  const Place place = place_of(id);
  if (state.chunks[place.chunk].load(std::memory_order_relaxed) == nullptr &&
      !make_chunk(place.chunk)) {
    return kNoHeap;
  }
  ++state.next_new;
  new (shmheap_find(id)) Heap{};
  return id;
}

void give_record_back(HeapId id) {
  Heap *heap = shmheap_find(id);
  const core::BriefSyncGuard guard(state.list_lock);
  heap->next_free = state.first_free;
  state.first_free = id;
}

// What a new heap begins with. The lock's object stays as it is: see core::sync_begin.
void reset(Heap *heap, HeapId id, psp_tag *tag) {
  heap->tag = tag;
  heap->root = nullptr;
  heap->blocks = nullptr;
  heap->block_count = 0;
  heap->block_capacity = 0;
  heap->id = id;
  heap->openers = 0;
  heap->is_deleted = false;
}

// The number is less than UINT32_MAX.
bool grow_blocks(Heap *heap, uint32_t number) {
  const uint32_t grown = heap->block_capacity + heap->block_capacity / 2;
  const uint32_t capacity = std::max(number + 1, grown);
  const size_t bytes = multiply_or_most(capacity, sizeof(void *));
  const size_t new_bytes = size_t{capacity - heap->block_capacity} * sizeof(void *);
  void *blocks = psp_extendMem(heap->blocks, bytes, heap->tag, 1, new_bytes, kSource, __LINE__);
  if (blocks == nullptr) return false;
  heap->blocks = static_cast<void **>(blocks);
  heap->block_capacity = capacity;
  return true;
}

// The chunks go with every heap that has a tag.
void release_chunks() PSP_UNCHECKED {
  for (uint32_t chunk = 0; chunk < kChunks; ++chunk) {
    Heap *heaps = state.chunks[chunk].load(std::memory_order_relaxed);
    if (heaps == nullptr) break;
    const uint32_t records = 1u << (chunk + kFirstChunkBits);
    for (uint32_t index = 0; index < records; ++index) {
      Heap &heap = heaps[index];
      if (heap.tag == nullptr) continue;
      // The calling thread may hold the lock of a file that it never closed. What other threads
      // hold is void when this life of the library is over.
      if (heap.root != nullptr) core::sync_end(&heap.lock);
      psp_freeTagMemory(heap.tag, 1);
    }
    state.chunks[chunk].store(nullptr, std::memory_order_relaxed);
    psp_freeMem(state.chunk_memory[chunk], nullptr);
    state.chunk_memory[chunk] = nullptr;
  }
  state.next_new = 1;
  state.first_free = kNoHeap;
}

}  // namespace

psp_status shmheap_start() {
  state.list_lock = core::sync_create(PSP_SYNC_EXCL, core::LockRank::kHeapList, kSource, __LINE__);
  state.default_heap = core::is_sync_object(state.list_lock) ? shmheap_create() : kNoHeap;
  if (state.default_heap != kNoHeap) return PSP_OKAY;
  shmheap_stop();
  return PSP_FAILED;
}

void shmheap_stop() {
  release_chunks();
  psp_syncDelete(state.list_lock);
  state.list_lock = nullptr;
  state.default_heap = kNoHeap;
}

HeapId shmheap_default() { return state.default_heap; }

Heap *shmheap_find(HeapId id) {
  const Place place = place_of(id);
  return state.chunks[place.chunk].load(std::memory_order_acquire) + place.index;
}

HeapId shmheap_create() {
  psp_tag *tag = psp_createTagEx(nullptr, 0, kSource, __LINE__);
  if (tag == PSP_TAG_FAILED) return kNoHeap;
  const HeapId id = take_record();
  if (id == kNoHeap) {
    psp_freeTagMemory(tag, 1);
    return kNoHeap;
  }
  reset(shmheap_find(id), id, tag);
  return id;
}

Heap *shmheap_open(HeapId id, uint32_t flags, size_t root_bytes) {
  Heap *heap = shmheap_find(id);
  if (heap->root != nullptr) return heap;
  if ((flags & kCreateRoot) == 0) return nullptr;
  heap->root = psp_getMem(root_bytes, heap->tag, PSP_MEM_ZERO, nullptr, kSource, __LINE__);
  if (heap->root == nullptr) return nullptr;
  core::sync_begin(&heap->lock);
  return heap;
}

void shmheap_destroy(Heap *heap) {
  if (heap->root != nullptr) core::sync_end(&heap->lock);
  psp_freeTagMemory(heap->tag, 1);
  heap->tag = nullptr;
  give_record_back(heap->id);
}

// In front of a block stands the address of its memory. There is room for it, and for the way to
// the alignment, since memory begins at a multiple of kAddressBytes.
void *shmheap_alloc(Heap *heap, uint32_t number, size_t front, size_t bytes, size_t alignment) {
  constexpr size_t kAddressBytes = alignof(max_align_t);
  if (number >= heap->block_capacity && !grow_blocks(heap, number)) return nullptr;
  heap->block_count = std::max(heap->block_count, number + 1);
  const size_t whole = add_or_most(front + alignment, bytes);
  void *memory = psp_getMem(whole, heap->tag, PSP_MEM_ZERO, nullptr, kSource, __LINE__);
  if (memory == nullptr) return nullptr;
  const uintptr_t first = reinterpret_cast<uintptr_t>(memory) + kAddressBytes + front;
  const uintptr_t aligned = (first + alignment - 1) & ~(alignment - 1);
  void *block = reinterpret_cast<void *>(aligned - front);
  static_cast<void **>(block)[-1] = memory;
  heap->blocks[number] = block;
  return block;
}

void shmheap_free(Heap *heap, uint32_t number) {
  void *block = shmheap_get(heap, number);
  psp_freeMem(static_cast<void **>(block)[-1], heap->tag);
  heap->blocks[number] = nullptr;
}

}  // namespace psp::memstore
