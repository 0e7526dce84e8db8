// Segmented files: a heap as a file.
//
// The heap's root tells length, modification time and the number of segments; segment n is page n
// of the heap. Seen as bytes, segments grow with their number, so that a small file costs one page
// and a large one is held in pieces of 1 MiB. Seen as pages, every segment has kPageBytes; a
// directory uses a file so. The two views agree on segments 0 to 3.
//
// Locks: reading, writing and closing take the heap's lock, which is re-entrant; setting the size
// does not, and a caller that sets it while others read or write holds the lock. Pages are pinned
// under the lock, too. An object is used by one thread at a time.
//
// Included by the modules of memstore/.
#pragma once

#include <atomic>
#include <cstdint>

#include "memstore/pspshmcache.h"

namespace psp::memstore {

// The heap's root. Atomic, because the queries by name and the setting of the size take no lock.
struct SegmentRoot {
  std::atomic<int64_t> modified_seconds;  // since 1970-01-01 UTC; 0 until the first write
  std::atomic<uint32_t> segment_count;    // segments below it are in use; one may have no block yet
  alignas(8) std::atomic<uint64_t> length;
};
static_assert(sizeof(SegmentRoot) == 24);

// A file that is open. The pages that it holds are found by their number until it is closed, since
// most files are read and written again and again in the same places.
class SegmentedFile {
 public:
  SegmentedFile() = default;
  SegmentedFile(const SegmentedFile &) = delete;
  SegmentedFile &operator=(const SegmentedFile &) = delete;

  // Opens the heap's file; kCreateRoot makes one where there is none. False when there is none or
  // memory is short. See shmcache_attach for who may open.
  [[nodiscard]] bool open(HeapId id, uint32_t flags);

  // Waits for a thread that has locked the file.
  void close();

  bool is_open() const { return heap_ != nullptr; }
  HeapId heap() const { return heap_->id; }

  // How often note_change was called for the heap's file, under its lock, by whomever.
  uint32_t changes() const { return heap_->changes.load(std::memory_order_acquire); }
  void note_change() { heap_->changes.store(changes() + 1, std::memory_order_release); }

  // lock(), for a client that keeps it. Gives the number of the turn: the same while one thread
  // holds the lock through any object, another when it is taken anew. Only the holder of the lock
  // has a turn.
  uint32_t take_turn() PSP_UNCHECKED {
    const bool is_new = !heap_->lock.lock.mine();
    lock();
    return is_new ? ++heap_->lock_turns : heap_->lock_turns;
  }
  bool has_turn(uint32_t turn) const {
    return heap_->lock.lock.mine() && heap_->lock_turns == turn;
  }

  void lock() PSP_UNCHECKED { shmheap_lock(heap_); }
  void unlock() PSP_UNCHECKED { shmheap_unlock(heap_); }

  // Give the bytes moved: fewer than count at the file's end, or when memory is short. A write
  // behind the end fills the gap with zeros.
  uint32_t read(uint64_t offset, void *buffer, uint32_t count);
  uint32_t write(uint64_t offset, const void *buffer, uint32_t count);

  // PSP_OKAY, or PSP_FAILED with the length unchanged when memory is short or the size is beyond
  // what segments can number. What is cut off reads as zero if the file grows again.
  psp_status set_size(uint64_t bytes);

  uint64_t length() const { return root_->length.load(std::memory_order_relaxed); }

  // The page of the number, pinned, made zeroed where there is none; null when memory is short.
  // Pages are made in the order of their numbers. Reaching a page that exists cannot fail.
  Page *pin_page(uint32_t number);
  void unpin_page(Page *page);

 private:
  Page *held_page(uint32_t number) const;
  Page *hold_page(uint32_t number);
  bool grow_held(uint32_t number);
  template <class Copy>
  uint32_t transfer(uint64_t offset, uint32_t count, Copy &&copy);

  static constexpr uint32_t kHeldInline = 4;

  Heap *heap_ = nullptr;
  SegmentRoot *root_ = nullptr;
  Page **held_ = held_inline_;  // by number; null where none is held
  uint32_t held_capacity_ = kHeldInline;
  Page *held_inline_[kHeldInline] = {};
};

psp_status segfile_start();
void segfile_stop();

// Length and modification time of a heap's file, without opening it. There is one.
int64_t segfile_length_of(HeapId id);
int64_t segfile_modified_of(HeapId id);

}  // namespace psp::memstore
