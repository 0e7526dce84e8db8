// Module pspmdir: the B-tree of a directory's entries: search, insertion, deletion, walk.
//
//     item 0          item 1                    item k
//     child 0 key 0 | child 1 key 1 | ... k-1 | child k        key_count = k
//
// Owns nothing; everything stands in the directory's pages. The directory's lock guards all. Nodes
// are pinned one step long: the deepest step, a merge, pins four.
#include "memstore/pspmdir.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "memstore/pspmdir_pages.h"

namespace psp::memstore {
namespace {

using Node = Pinned<DirectoryNode>;

constexpr uint32_t kMiddleKey = kMaxKeys / 2;  // goes up when a node is split

// ---- The order of names -------------------------------------------------------------------------

// Names are compared by pieces of 24 bytes: what stands in the entry, and then what stands in each
// overflow entry. Behind its end a name is zero, so a piece with the name's end in it sorts in
// front of one that goes on.

constexpr size_t kPieceWords = 3;
constexpr size_t kPieceBytes = kPieceWords * sizeof(uint64_t);
static_assert(kPieceBytes == sizeof(DirectoryEntry::name));
static_assert(kPieceBytes == sizeof(OverflowEntry::name));

// The letters A to Z among the eight bytes become those from a to z.
inline uint64_t fold(uint64_t bytes) {
  constexpr uint64_t kEach = 0x0101010101010101u;
  const uint64_t low_bits = bytes & (kEach * 0x7F);
  const uint64_t from_a_on = low_bits + kEach * (0x80 - 'A');
  const uint64_t behind_z = low_bits + kEach * (0x7F - 'Z');
  const uint64_t upper = from_a_on & ~behind_z & ~bytes & (kEach * 0x80);
  return bytes | (upper >> 2);
}

// As numbers, words sort like the bytes that they were made of, folded.
inline uint64_t load_word(const char *bytes) {
  uint64_t word;
  std::memcpy(&word, bytes, sizeof(word));
  if constexpr (std::endian::native == std::endian::little) word = __builtin_bswap64(word);
  return fold(word);
}

struct Piece {
  uint64_t words[kPieceWords];

  explicit Piece(const char (&bytes)[kPieceBytes])
      : words{load_word(bytes), load_word(bytes + 8), load_word(bytes + 16)} {}

  // -1, 0 or 1. Two words that differ decide, and there is one branch for that: most often the
  // first two do, or in a directory of names with the same beginning never.
  int compare(const Piece &other) const {
    uint64_t mine = words[0];
    uint64_t its = other.words[0];
    if (mine == its) {
      const bool second_differs = words[1] != other.words[1];
      mine = second_differs ? words[1] : words[2];
      its = second_differs ? other.words[1] : other.words[2];
    }
    return (mine > its) - (mine < its);
  }
};

Piece piece_of(const char *bytes, size_t count) {
  char padded[kPieceBytes] = {};
  std::copy_n(bytes, count, padded);
  return Piece(padded);
}

// A name that is looked for; its first piece is folded once.
class SoughtName {
 public:
  SoughtName(SegmentedFile *file, std::string_view name)
      : file_(file),
        name_(name),
        head_(piece_of(name.data(), std::min<size_t>(name.size(), DirectoryEntry::kInlineBytes))) {}

  // Less than 0 when the name sorts before the entry's, 0 when it is the same, else greater.
  int compare(const DirectoryEntry &entry) const {
    const int order = head_.compare(Piece(entry.name));
    return order != 0 ? order : compare_rest(entry);
  }

 private:
  // What differs only behind the inline bytes, if at all.
  [[gnu::noinline]] int compare_rest(const DirectoryEntry &entry) const {
    constexpr size_t kChunkBytes = OverflowEntry::kNameBytes;
    OverflowChain chain(file_);
    OverflowPlace place = entry.overflow;
    for (size_t done = DirectoryEntry::kInlineBytes;; done += kChunkBytes) {
      if (std::min<size_t>(name_.size(), entry.name_bytes) <= done) {
        return (name_.size() > done) - (entry.name_bytes > done);
      }
      const OverflowEntry *chunk = chain.at(place);
      const size_t count = std::min(name_.size() - done, kChunkBytes);
      const int order = piece_of(name_.data() + done, count).compare(Piece(chunk->name));
      if (order != 0) return order;
      place = chunk->next;
    }
  }

  SegmentedFile *const file_;
  const std::string_view name_;
  const Piece head_;
};

// The index of the entry of that name, or of the first one that sorts behind it. Which way a step
// goes is not foreseeable, so it is no branch; the entries that the next step may want are on their
// way meanwhile.
uint32_t find_in_node(const DirectoryNode &node, const SoughtName &name, bool *found) {
  uint32_t index = 0;  // the result is that or one of the next `count`
  for (uint32_t count = node.key_count; count > 0;) {
    const uint32_t half = count / 2;
    const uint32_t other_index = index + count - half;
    __builtin_prefetch(node.items[index + half / 2].entry.name);
    __builtin_prefetch(node.items[other_index + half / 2].entry.name);
    const int order = name.compare(node.items[index + half].entry);
    if (order == 0) [[unlikely]] {
      *found = true;
      return index + half;
    }
    index = order > 0 ? other_index : index;
    count = half;
  }
  *found = false;
  return index;
}

// ---- Nodes --------------------------------------------------------------------------------------

void insert_item(DirectoryNode *node, uint32_t index, const DirectoryEntry &entry,
                 uint32_t right_child) {
  DirectoryItem *items = node->items;
  const uint32_t count = node->key_count;
  std::copy_backward(items + index, items + count + 1, items + count + 2);
  items[index].entry = entry;  // whose left child is the one that stood there
  items[index + 1].child = right_child;
  ++node->key_count;
}

// Takes the entry out, and the child in front of it.
void erase_item(DirectoryNode *node, uint32_t index) {
  std::copy(node->items + index + 1, node->items + node->key_count + 1, node->items + index);
  --node->key_count;
}

void copy_items(const DirectoryNode &from, uint32_t first, uint32_t end, DirectoryNode *to) {
  std::copy(from.items + first, from.items + end + 1, to->items);
  to->key_count = static_cast<uint16_t>(end - first);
}

// Puts both nodes' entries and the one between them into one node, which may be `right`.
void join(const DirectoryNode &left, DirectoryEntry separator, const DirectoryNode &right,
          DirectoryNode *to) {
  const uint32_t from_left = left.key_count;
  const uint32_t from_right = right.key_count;
  std::copy_backward(right.items, right.items + from_right + 1,
                     to->items + from_left + from_right + 2);
  std::copy_n(left.items, from_left + 1, to->items);
  to->items[from_left].entry = separator;
  to->key_count = static_cast<uint16_t>(from_left + 1 + from_right);
}

// Moves one entry through the parent, if the counts differ by more than one.
void even_out(DirectoryNode *left, DirectoryEntry *separator, DirectoryNode *right) {
  const uint32_t from_left = left->key_count;
  const uint32_t from_right = right->key_count;
  if (from_left + 1 < from_right) {
    insert_item(left, from_left, *separator, right->items[0].child);
    *separator = right->items[0].entry;
    erase_item(right, 0);
  } else if (from_right + 1 < from_left) {
    insert_item(right, 0, *separator, right->items[0].child);
    right->items[0].child = left->items[from_left].child;
    *separator = left->items[from_left - 1].entry;
    --left->key_count;
  }
}

// ---- Ways down ----------------------------------------------------------------------------------

DirectoryCursor::Step &last_step(DirectoryCursor *cursor) { return cursor->steps[cursor->level]; }

// From the page down to the first entry under it.
void descend(DirectoryCursor *cursor, uint32_t page) {
  do {
    cursor->steps[++cursor->level] = {page, 0};
    page = Node(cursor->file, page)->items[0].child;
  } while (page != 0);
}

// ---- Insertion ----------------------------------------------------------------------------------

// How many pages it takes to split every node on the way up that the insertion fills.
uint32_t count_pages_to_split(const DirectoryCursor &cursor) {
  uint32_t pages = 0;
  for (int32_t level = cursor.level; level >= 0; --level) {
    const Node node(cursor.file, cursor.steps[level].page);
    if (node->key_count + 1u < kMaxKeys) break;
    pages += level == 0 ? 2 : 1;
  }
  return pages;
}

// What stands behind the middle goes to a new page, the middle entry too, through `up`. Gives the
// number of the page.
uint32_t split_node(SegmentedFile *file, DirectoryNode *node, DirectoryEntry *up) {
  const uint32_t right = take_page(file);
  copy_items(*node, kMiddleKey + 1, kMaxKeys, &*Node(file, right));
  *up = node->items[kMiddleKey].entry;
  node->key_count = kMiddleKey;
  return right;
}

// The root stays where it is: both halves move to new pages.
void split_root(SegmentedFile *file, DirectoryNode *root) {
  const uint32_t left = take_page(file);
  copy_items(*root, 0, kMiddleKey, &*Node(file, left));
  DirectoryEntry middle;
  const uint32_t right = split_node(file, root, &middle);
  root->items[0].child = left;
  root->items[0].entry = middle;
  root->items[1].child = right;
  root->key_count = 1;
}

void insert_key(const DirectoryCursor &cursor, DirectoryEntry entry) {
  uint32_t right_child = 0;
  for (int32_t level = cursor.level;; --level) {
    const Node node(cursor.file, cursor.steps[level].page);
    insert_item(&*node, cursor.steps[level].index, entry, right_child);
    if (node->key_count < kMaxKeys) return;
    if (level == 0) return split_root(cursor.file, &*node);
    right_child = split_node(cursor.file, &*node, &entry);
  }
}

// ---- Deletion -----------------------------------------------------------------------------------

// Looks after the node at the cursor, which has too few keys. True when it was merged with its
// neighbour: the cursor then stands at the entry between them, which is to be taken out of the
// parent with the child in front of it.
bool rebalance(DirectoryCursor *cursor) {
  SegmentedFile *file = cursor->file;
  --cursor->level;
  DirectoryCursor::Step &up = last_step(cursor);
  const Node parent(file, up.page);
  if (up.index == parent->key_count) --up.index;
  DirectoryItem &separator = parent->items[up.index];
  const uint32_t left_page = separator.child;
  const uint32_t right_page = parent->items[up.index + 1].child;
  const Node left(file, left_page);
  const Node right(file, right_page);
  if (left->key_count + right->key_count + 1u >= kMaxKeys) {
    even_out(&*left, &separator.entry, &*right);
    return false;
  }
  const bool is_last = up.page == kRootPage && parent->key_count == 1;
  join(*left, separator.entry, *right, is_last ? &*parent : &*right);
  give_page_back(file, left_page);
  if (is_last) give_page_back(file, right_page);
  return !is_last;
}

void erase_key(DirectoryCursor *cursor) {
  do {
    const Node node(cursor->file, last_step(cursor).page);
    erase_item(&*node, last_step(cursor).index);
    if (cursor->level == 0 || node->key_count >= kLeastKeys) return;
  } while (rebalance(cursor));
}

}  // namespace

// ---- What the header tells ----------------------------------------------------------------------

psp_status mdir_init(SegmentedFile *file) {
  const DirectoryHeader header = {0, kRootPage + 1, {}};
  if (file->set_size(kEmptyDirectoryBytes) != PSP_OKAY) {
    file->set_size(0);
    return PSP_FAILED;
  }
  // The pages are there and hold zeros: nothing can fail, and the root is an empty node already.
  file->write(0, &header, sizeof(header));
  return PSP_OKAY;
}

psp_status mdir_search(DirectoryCursor *cursor, std::string_view name) {
  const SoughtName sought(cursor->file, name);
  bool found = false;
  cursor->level = -1;
  uint32_t page = kRootPage;
  do {
    const Node node(cursor->file, page);
    const uint32_t index = find_in_node(*node, sought, &found);
    cursor->steps[++cursor->level] = {page, index};
    page = node->items[index].child;
  } while (!found && page != 0);
  return found ? PSP_OKAY : PSP_NOTFOUND;
}

psp_status mdir_insert(DirectoryCursor *cursor, std::string_view name, HeapId heap,
                       EntryType type) {
  if (name.size() > kMaxNameBytes) return PSP_FAILED;
  SegmentedFile *file = cursor->file;
  const uint32_t pages = count_pages_to_store(file, name.size()) + count_pages_to_split(*cursor);
  if (!reserve_pages(file, pages)) return PSP_FAILED;
  // Nothing fails from here on.
  DirectoryEntry entry = {};
  entry.heap = heap;
  entry.type = type;
  store_name(file, name, &entry);
  insert_key(*cursor, entry);
  file->note_change();
  return PSP_OKAY;
}

DirectoryEntry mdir_read(const DirectoryCursor &cursor) {
  const DirectoryCursor::Step &step = cursor.steps[cursor.level];
  return Node(cursor.file, step.page)->items[step.index].entry;
}

void mdir_set_heap(const DirectoryCursor &cursor, HeapId heap) {
  const DirectoryCursor::Step &step = cursor.steps[cursor.level];
  Node(cursor.file, step.page)->items[step.index].entry.heap = heap;
  cursor.file->note_change();
}

void mdir_delete(DirectoryCursor *cursor) {
  SegmentedFile *file = cursor->file;
  {
    DirectoryCursor::Step &step = last_step(cursor);
    const Node node(file, step.page);
    DirectoryEntry *entry = &node->items[step.index].entry;
    release_name(file, *entry);
    const uint32_t behind = node->items[step.index + 1].child;
    if (behind != 0) {
      // The next greater entry, which stands in a leaf, takes the place of this one.
      ++step.index;
      descend(cursor, behind);
      *entry = mdir_read(*cursor);
    }
  }
  erase_key(cursor);
  file->note_change();
}

bool mdir_first(DirectoryCursor *cursor) {
  cursor->level = -1;
  descend(cursor, kRootPage);
  return mdir_next(cursor, false);
}

bool mdir_next(DirectoryCursor *cursor, bool step) {
  if (step) {
    DirectoryCursor::Step &last = last_step(cursor);
    const uint32_t child = Node(cursor->file, last.page)->items[++last.index].child;
    if (child != 0) {
      descend(cursor, child);
      return true;
    }
  }
  for (; cursor->level >= 0; --cursor->level) {
    const DirectoryCursor::Step &last = last_step(cursor);
    if (last.index < Node(cursor->file, last.page)->key_count) return true;
  }
  return false;
}

void mdir_copy_name(const DirectoryCursor &cursor, const DirectoryEntry &entry, char *to) {
  copy_name(cursor.file, entry, to);
}

}  // namespace psp::memstore
