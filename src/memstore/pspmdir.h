// Directories: a B-tree of entries, ordered by name, in the pages of a segmented file.
//
// Page 0 is the header, page 1 always the tree's root. A node has up to kMaxKeys - 1 entries at
// rest; the insertion that would fill it splits it. Names longer than an entry has room for go on
// in a chain of overflow entries, of which a page holds kOverflowEntries. Names are compared
// without regard to ASCII case, folded to lower case.
//
// All functions are called with the directory's lock held, through a cursor, and leave no page
// pinned. An insertion takes every page it needs before it changes anything: it happens whole or
// not at all. Everything else allocates nothing and cannot run out of memory.
//
// Included by the modules of memstore/.
#pragma once

#include <cstdint>
#include <string_view>

#include "memstore/pspsegfile.h"

namespace psp::memstore {

// ---- What stands in the pages -------------------------------------------------------------------
// Little-endian, as the machines that the library runs on store them.

// Where an overflow entry stands; page 0 is none.
struct OverflowPlace {
  uint32_t page;
  uint16_t slot;
  uint16_t unused;
};

struct DirectoryHeader {
  uint32_t free_page;      // the first of the free pages; each begins with the next one's number
  uint32_t next_new_page;  // never handed out, as all above it
  OverflowPlace free_overflow;  // the first free overflow entry
};
static_assert(sizeof(DirectoryHeader) == 16);

enum class EntryType : uint16_t { kFile = 0, kDirectory = 1 };

struct DirectoryEntry {
  static constexpr uint32_t kInlineBytes = 22;

  HeapId heap;
  uint16_t name_bytes;
  EntryType type;
  OverflowPlace overflow;       // of the rest of a name that does not fit here
  char name[kInlineBytes + 2];  // the last two are unused, and zero
};
static_assert(sizeof(DirectoryEntry) == 40);

struct OverflowEntry {
  static constexpr uint32_t kNameBytes = 24;

  OverflowPlace next;  // in the chain, or of the free ones
  char name[kNameBytes];
};
static_assert(sizeof(OverflowEntry) == 32);

struct DirectoryItem {
  uint32_t child;  // the page of what sorts before the entry; 0 in a leaf
  DirectoryEntry entry;
};
static_assert(sizeof(DirectoryItem) == 44);

inline constexpr uint32_t kHeaderPage = 0;
inline constexpr uint32_t kRootPage = 1;
inline constexpr uint32_t kMaxKeys = (kPageBytes - 8) / sizeof(DirectoryItem);  // never at rest
inline constexpr uint32_t kLeastKeys = kMaxKeys / 2;  // fewer, and a node looks to its neighbour
inline constexpr uint32_t kOverflowEntries = kPageBytes / sizeof(OverflowEntry);
inline constexpr uint64_t kEmptyDirectoryBytes = 2 * kPageBytes;
inline constexpr size_t kMaxNameBytes = 65535;

struct DirectoryNode {
  uint16_t key_count;
  uint16_t unused;
  DirectoryItem items[kMaxKeys + 1];  // items[key_count].child is the last child
};
static_assert(sizeof(DirectoryNode) <= kPageBytes);

// ---- Cursors ------------------------------------------------------------------------------------

// A place in a directory: the way down from the root. After a search the last step stands at the
// entry found, or where the name belongs, in a leaf; the steps above tell which child was followed.
struct DirectoryCursor {
  struct Step {
    uint32_t page;
    uint32_t index;
  };
  // Nodes have at least 45 entries each, the root one: 2^32 pages make no higher tree.
  static constexpr int32_t kMaxLevels = 10;

  SegmentedFile *file = nullptr;
  int32_t level = -1;  // of the last step; -1 before a search
  Step steps[kMaxLevels];
};

// Lays out an empty directory in a file of length 0; PSP_FAILED when memory is short, and then the
// length is 0 again.
psp_status mdir_init(SegmentedFile *file);

// PSP_OKAY with the cursor at the entry, or PSP_NOTFOUND with the cursor where the name belongs.
psp_status mdir_search(DirectoryCursor *cursor, std::string_view name);

// Puts an entry in at the cursor, which a search for the name has left behind, not found.
// PSP_FAILED when memory is short or the name is longer than kMaxNameBytes; nothing has changed
// then. The cursor is worn out afterwards.
psp_status mdir_insert(DirectoryCursor *cursor, std::string_view name, HeapId heap, EntryType type);

// Copies the entry at the cursor.
DirectoryEntry mdir_read(const DirectoryCursor &cursor);

// Lets the entry at the cursor name another heap.
void mdir_set_heap(const DirectoryCursor &cursor, HeapId heap);

// Takes the entry at the cursor out, with its name. The cursor is worn out afterwards.
void mdir_delete(DirectoryCursor *cursor);

// The first entry in order; false in an empty directory.
bool mdir_first(DirectoryCursor *cursor);

// Moves to the entry behind the cursor (`step`), or to the entry where the cursor stands, which is
// the next greater one when a search found no entry there. False at the end.
bool mdir_next(DirectoryCursor *cursor, bool step);

// The bytes of the name at the cursor; its entry is one that mdir_read gave. `to` has room for
// entry.name_bytes; no terminator is written.
void mdir_copy_name(const DirectoryCursor &cursor, const DirectoryEntry &entry, char *to);

}  // namespace psp::memstore
