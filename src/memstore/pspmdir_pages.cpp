// Module pspmdir, the pages of a directory: which are free, and what is left of long names.
//
// The free pages form a list, and so do the free overflow entries of all pages; the header has the
// heads. Pages of overflow entries are never given back as pages. The directory's lock guards all.
#include "memstore/pspmdir_pages.h"

#include <algorithm>

namespace psp::memstore {
namespace {

constexpr uint32_t kInlineBytes = DirectoryEntry::kInlineBytes;
constexpr uint32_t kChunkBytes = OverflowEntry::kNameBytes;

uint32_t count_overflow_entries(size_t name_bytes) {
  const size_t behind = std::max<size_t>(name_bytes, kInlineBytes) - kInlineBytes;
  return static_cast<uint32_t>((behind + kChunkBytes - 1) / kChunkBytes);
}

// How many pages it takes until so many overflow entries are free.
uint32_t count_pages_to_carve(SegmentedFile *file, const DirectoryHeader &header,
                              uint32_t entries) {
  OverflowChain chain(file);
  uint32_t missing = entries;
  for (OverflowPlace place = header.free_overflow; missing != 0 && place.page != 0; --missing) {
    place = chain.at(place)->next;
  }
  return (missing + kOverflowEntries - 1) / kOverflowEntries;
}

// Makes a page's entries the first of the free ones.
void carve_page(SegmentedFile *file, DirectoryHeader *header) {
  const uint32_t number = take_page(file);
  const Pinned<OverflowPage> page(file, number);
  for (uint32_t slot = 0; slot + 1 < kOverflowEntries; ++slot) {
    page->entries[slot].next = {number, static_cast<uint16_t>(slot + 1), 0};
  }
  page->entries[kOverflowEntries - 1].next = header->free_overflow;
  header->free_overflow = {number, 0, 0};
}

// Copies up to `capacity` bytes and fills the rest with zeros; gives how many it copied.
size_t fill(char *field, size_t capacity, const char *bytes, size_t count) {
  const size_t copied = std::min(capacity, count);
  std::fill(std::copy_n(bytes, copied, field), field + capacity, '\0');
  return copied;
}

}  // namespace

// ---- Pages --------------------------------------------------------------------------------------

bool reserve_pages(SegmentedFile *file, uint32_t count) {
  if (count == 0) return true;
  const Pinned<DirectoryHeader> header(file, kHeaderPage);
  for (uint32_t free = header->free_page; free != 0 && count != 0; --count) {
    free = Pinned<FreePage>(file, free)->next;
  }
  for (uint32_t number = header->next_new_page; count != 0; ++number, --count) {
    if (Pinned<FreePage>(file, number).is_null()) return false;
  }
  return true;
}

uint32_t take_page(SegmentedFile *file) {
  const Pinned<DirectoryHeader> header(file, kHeaderPage);
  const uint32_t free = header->free_page;
  if (free == 0) return header->next_new_page++;
  header->free_page = Pinned<FreePage>(file, free)->next;
  return free;
}

void give_page_back(SegmentedFile *file, uint32_t number) {
  const Pinned<DirectoryHeader> header(file, kHeaderPage);
  Pinned<FreePage>(file, number)->next = header->free_page;
  header->free_page = number;
}

// ---- Names --------------------------------------------------------------------------------------

uint32_t count_pages_to_store(SegmentedFile *file, size_t name_bytes) {
  const uint32_t entries = count_overflow_entries(name_bytes);
  if (entries == 0) return 0;
  return count_pages_to_carve(file, *Pinned<DirectoryHeader>(file, kHeaderPage), entries);
}

void store_name(SegmentedFile *file, std::string_view name, DirectoryEntry *entry) {
  entry->name_bytes = static_cast<uint16_t>(name.size());
  size_t done = fill(entry->name, kInlineBytes, name.data(), name.size());
  if (done == name.size()) return;

  const Pinned<DirectoryHeader> header(file, kHeaderPage);
  const uint32_t entries = count_overflow_entries(name.size());
  for (uint32_t pages = count_pages_to_carve(file, *header, entries); pages > 0; --pages) {
    carve_page(file, &*header);
  }
  // The first of the free entries are linked already as the name's chain must be.
  entry->overflow = header->free_overflow;
  OverflowChain chain(file);
  OverflowPlace place = entry->overflow;
  for (;;) {
    OverflowEntry *chunk = chain.at(place);
    done += fill(chunk->name, kChunkBytes, name.data() + done, name.size() - done);
    place = chunk->next;
    if (done < name.size()) continue;
    chunk->next = {};
    break;
  }
  header->free_overflow = place;
}

void release_name(SegmentedFile *file, const DirectoryEntry &entry) {
  if (entry.overflow.page == 0) return;
  OverflowChain chain(file);
  OverflowEntry *last = chain.at(entry.overflow);
  while (last->next.page != 0) last = chain.at(last->next);
  const Pinned<DirectoryHeader> header(file, kHeaderPage);
  last->next = header->free_overflow;
  header->free_overflow = entry.overflow;
}

void copy_name(SegmentedFile *file, const DirectoryEntry &entry, char *to) {
  size_t left = entry.name_bytes;
  size_t count = std::min<size_t>(left, kInlineBytes);
  to = std::copy_n(entry.name, count, to);
  OverflowChain chain(file);
  OverflowPlace place = entry.overflow;
  while ((left -= count) > 0) {
    const OverflowEntry *chunk = chain.at(place);
    count = std::min<size_t>(left, kChunkBytes);
    to = std::copy_n(chunk->name, count, to);
    place = chunk->next;
  }
}

}  // namespace psp::memstore
