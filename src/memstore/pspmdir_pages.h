// The pages of a directory: pinned for a scope, handed out and taken back, and those that hold what
// is left of long names.
//
// Pages that exist are reached without failure. What an operation may lack is reserved first, by
// reserve_pages; taking pages and storing names cannot fail then.
//
// Included by the files of module pspmdir.
#pragma once

#include <cassert>
#include <cstdint>
#include <string_view>

#include "memstore/pspmdir.h"

namespace psp::memstore {

struct FreePage {
  uint32_t next;  // 0 at the end
};

struct OverflowPage {
  OverflowEntry entries[kOverflowEntries];
};
static_assert(sizeof(OverflowPage) == kPageBytes);

// A page pinned for a scope, seen as what it holds.
template <class Layout>
class Pinned {
 public:
  explicit Pinned(SegmentedFile *file) : file_(file) {}
  Pinned(SegmentedFile *file, uint32_t number) : file_(file), page_(file->pin_page(number)) {}
  ~Pinned() {
    if (page_ != nullptr) file_->unpin_page(page_);
  }
  Pinned(const Pinned &) = delete;
  Pinned &operator=(const Pinned &) = delete;

  // Of a new page, when memory is short.
  bool is_null() const { return page_ == nullptr; }

  // Pins another page instead, unless it is the same.
  void move_to(uint32_t number) {
    if (page_ != nullptr) {
      if (page_->number == number) return;
      file_->unpin_page(page_);
    }
    page_ = file_->pin_page(number);
  }

  Layout &operator*() const { return *reinterpret_cast<Layout *>(page_->bytes()); }
  Layout *operator->() const { return &**this; }

 private:
  SegmentedFile *const file_;
  Page *page_ = nullptr;
};

// The overflow entries of a chain, one after the other; the page of the last one stays pinned.
class OverflowChain {
 public:
  explicit OverflowChain(SegmentedFile *file) : page_(file) {}

  OverflowEntry *at(OverflowPlace place) {
    assert(place.page != kHeaderPage);  // there is an entry
    page_.move_to(place.page);
    return &page_->entries[place.slot];
  }

 private:
  Pinned<OverflowPage> page_;
};

// Sees to it that so many pages can be taken. False when memory is short; pages that were made then
// stay as spare ones above the last page handed out.
bool reserve_pages(SegmentedFile *file, uint32_t count);

// A reserved page, with whatever stood in it last.
uint32_t take_page(SegmentedFile *file);
void give_page_back(SegmentedFile *file, uint32_t number);

// How many pages it takes to store a name of that length.
uint32_t count_pages_to_store(SegmentedFile *file, size_t name_bytes);

// Writes the name's fields of a zeroed entry. The pages for it are reserved.
void store_name(SegmentedFile *file, std::string_view name, DirectoryEntry *entry);

// Gives the entry's overflow entries back.
void release_name(SegmentedFile *file, const DirectoryEntry &entry);

// entry.name_bytes bytes.
void copy_name(SegmentedFile *file, const DirectoryEntry &entry, char *to);

}  // namespace psp::memstore
