// Module pspsegfile: heaps as files; start and stop of the store.
//
// Owns nothing but what its callers hold. Locks: the heap's lock, then those of pspshmcache.
#include "memstore/pspsegfile.h"

#include <algorithm>
#include <cstring>

#include "core/checked.h"
#include "core/modules.h"
#include "os/os.h"
#include "psp.h"

namespace psp::memstore {
namespace {

constexpr char kSource[] = "pspsegfile.cpp";

// ---- Which byte lies in which segment -----------------------------------------------------------

// Segments of one size: those from `first` on. Segment n begins at (n - origin) * bytes, for the
// classes together leave no gap.
struct SizeClass {
  uint32_t first;
  uint32_t origin;
  uint32_t shift;  // log2 of the size

  constexpr uint64_t begin() const { return uint64_t{first - origin} << shift; }
};

constexpr uint32_t kPageShift = 12;
static_assert(1u << kPageShift == kPageBytes);

// The largest first: most bytes lie there.
constexpr SizeClass kClasses[] = {{13, 12, kPageShift + 8},
                                  {10, 9, kPageShift + 6},
                                  {7, 6, kPageShift + 4},
                                  {4, 3, kPageShift + 2},
                                  {0, 0, kPageShift}};

struct Segment {
  uint64_t begin;
  uint32_t number;
  uint32_t byte_count;
};

// False for a place beyond what segments can number.
inline bool find_segment(uint64_t offset, Segment *segment) {
  const SizeClass *size = kClasses;
  while (offset < size->begin()) ++size;
  const uint64_t number = (offset >> size->shift) + size->origin;
  *segment = {offset >> size->shift << size->shift, static_cast<uint32_t>(number),
              1u << size->shift};
  return number < UINT32_MAX;
}

uint32_t bytes_of_segment(uint32_t number) {
  const SizeClass *size = kClasses;
  while (number < size->first) ++size;
  return 1u << size->shift;
}

// Another thread may set the size at the same time: what it has raised is not lowered.
template <class Value>
void raise(std::atomic<Value> *value, Value least) {
  Value now = value->load(std::memory_order_relaxed);
  while (now < least && !value->compare_exchange_weak(now, least, std::memory_order_relaxed)) {
  }
}

}  // namespace

psp_status segfile_start() { return shmcache_start(); }

void segfile_stop() { shmcache_stop(); }

// ---- Opening and closing ------------------------------------------------------------------------

bool SegmentedFile::open(HeapId id, uint32_t flags) {
  heap_ = shmcache_attach(id, flags, sizeof(SegmentRoot));
  if (heap_ == nullptr) return false;
  root_ = static_cast<SegmentRoot *>(heap_->root);
  return true;
}

void SegmentedFile::close() {
  {
    const core::SyncGuard guard(&heap_->lock);
    for (uint32_t number = 0; number < held_capacity_; ++number) {
      if (held_[number] != nullptr) shmcache_release(heap_, held_[number]);
    }
  }
  if (held_ != held_inline_) psp_freeMem(held_, nullptr);
  shmcache_detach(heap_);
  heap_ = nullptr;
  held_ = held_inline_;
  held_capacity_ = kHeldInline;
  std::fill_n(held_inline_, kHeldInline, nullptr);
}

// ---- Pages that are held ------------------------------------------------------------------------

// Null for a page that another object has cut off since: it must be made anew before it is used.
inline Page *SegmentedFile::held_page(uint32_t number) const {
  Page *page = number < held_capacity_ ? held_[number] : nullptr;
  const bool is_whole = page != nullptr && !page->is_discarded.load(std::memory_order_relaxed);
  return is_whole ? page : nullptr;
}

bool SegmentedFile::grow_held(uint32_t number) {
  if (number < held_capacity_) return true;
  const uint32_t capacity = std::max(number + 1, held_capacity_ + held_capacity_ / 2);
  constexpr size_t kPointerBytes = sizeof(void *);
  const size_t new_bytes = size_t{capacity - held_capacity_} * kPointerBytes;
  const size_t bytes = multiply_or_most(capacity, kPointerBytes);
  Page **was = held_ == held_inline_ ? nullptr : held_;
  auto *grown = static_cast<Page **>(
      psp_extendMem(was, bytes, nullptr, 1, was == nullptr ? bytes : new_bytes, kSource, __LINE__));
  if (grown == nullptr) return false;
  if (was == nullptr) std::copy_n(held_inline_, kHeldInline, grown);
  held_ = grown;
  held_capacity_ = capacity;
  return true;
}

// The page of the segment, made if need be, and held from now on. Null when memory is short.
Page *SegmentedFile::hold_page(uint32_t number) {
  if (!grow_held(number)) return nullptr;
  Page *page = shmcache_create_page(heap_, number, bytes_of_segment(number));
  if (page == nullptr) return nullptr;
  raise(&root_->segment_count, number + 1);
  // Held before, and cut off meanwhile: one reference is enough.
  if (held_[number] != nullptr) shmcache_release(heap_, page);
  held_[number] = page;
  return page;
}

Page *SegmentedFile::pin_page(uint32_t number) {
  const uint32_t count = root_->segment_count.load(std::memory_order_relaxed);
  Page *page = nullptr;
  if (number < count) {
    page = shmcache_get_page(heap_, number);
  } else {
    page = shmcache_create_page(heap_, number, kPageBytes);
    if (page == nullptr) return nullptr;
    raise(&root_->segment_count, number + 1);
  }
  shmcache_pin(page);
  return page;
}

void SegmentedFile::unpin_page(Page *page) {
  shmcache_unpin(page);
  shmcache_release(heap_, page);
}

// ---- Bytes --------------------------------------------------------------------------------------

// Hands `copy` the bytes of the file piece by piece, together with how many went before.
template <class Copy>
inline uint32_t SegmentedFile::transfer(uint64_t offset, uint32_t count, Copy &&copy) {
  uint32_t done = 0;
  while (done < count) {
    const uint64_t place = offset + done;
    Segment segment;
    if (!find_segment(place, &segment)) break;
    Page *page = held_page(segment.number);
    if (page == nullptr) page = hold_page(segment.number);
    if (page == nullptr) break;
    const auto first = static_cast<uint32_t>(place - segment.begin);
    const uint32_t piece = std::min(segment.byte_count - first, count - done);
    copy(shmcache_pin(page) + first, done, piece);
    shmcache_unpin(page);
    done += piece;
  }
  return done;
}

uint32_t SegmentedFile::read(uint64_t offset, void *buffer, uint32_t count) {
  const core::SyncGuard guard(&heap_->lock);
  const uint64_t end = length();
  if (offset >= end) return 0;
  auto *to = static_cast<unsigned char *>(buffer);
  return transfer(offset, static_cast<uint32_t>(std::min<uint64_t>(count, end - offset)),
                  [to](const unsigned char *bytes, uint32_t done, uint32_t piece) {
                    std::memcpy(to + done, bytes, piece);
                  });
}

uint32_t SegmentedFile::write(uint64_t offset, const void *buffer, uint32_t count) {
  const core::SyncGuard guard(&heap_->lock);
  const auto *from = static_cast<const unsigned char *>(buffer);
  const uint32_t done =
      transfer(offset, count, [from](unsigned char *bytes, uint32_t before, uint32_t piece) {
        std::memcpy(bytes, from + before, piece);
      });
  if (done == 0) return 0;
  raise(&root_->length, offset + done);
  root_->modified_seconds.store(os::recent_seconds(), std::memory_order_relaxed);
  return done;
}

psp_status SegmentedFile::set_size(uint64_t bytes) {
  Segment last = {0, 0, kPageBytes};
  if (bytes > 0 && !find_segment(bytes - 1, &last)) return PSP_FAILED;
  std::atomic<uint32_t> &count = root_->segment_count;
  while (count.load(std::memory_order_relaxed) <= last.number) {
    if (hold_page(count.load(std::memory_order_relaxed)) == nullptr) return PSP_FAILED;
  }
  for (uint32_t number = count.load(std::memory_order_relaxed); --number > last.number;) {
    count.store(number, std::memory_order_relaxed);
    if (number < held_capacity_ && held_[number] != nullptr) {
      shmcache_release(heap_, held_[number]);
      held_[number] = nullptr;
    }
    shmcache_discard(heap_, number);
  }
  // What lies behind the end is zero already, but for what was cut off just now.
  const uint64_t cut_end = std::min(length(), last.begin + last.byte_count);
  if (bytes < cut_end) {
    shmcache_clear(heap_, last.number, static_cast<uint32_t>(bytes - last.begin),
                   static_cast<uint32_t>(cut_end - last.begin));
  }
  root_->length.store(bytes, std::memory_order_relaxed);
  return PSP_OKAY;
}

// ---- Queries ------------------------------------------------------------------------------------

int64_t segfile_length_of(HeapId id) {
  const auto *root = static_cast<const SegmentRoot *>(shmheap_find(id)->root);
  return static_cast<int64_t>(root->length.load(std::memory_order_relaxed));
}

int64_t segfile_modified_of(HeapId id) {
  const auto *root = static_cast<const SegmentRoot *>(shmheap_find(id)->root);
  return root->modified_seconds.load(std::memory_order_relaxed);
}

}  // namespace psp::memstore
