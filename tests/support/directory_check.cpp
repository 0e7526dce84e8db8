// The proof that a directory is whole.
#include "support/directory_check.h"

#include <string>
#include <vector>

#include "memstore/pspmdir_pages.h"

namespace psp::memstore {
namespace {

std::string folded(std::string name) {
  for (char &c : name) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
  return name;
}

// Walks the tree in order and then the lists. Each page, and each overflow entry, is met once.
class Check {
 public:
  explicit Check(SegmentedFile *file)
      : file_(file), header_(*Pinned<DirectoryHeader>(file, kHeaderPage)) {
    pages_.resize(header_.next_new_page);
  }

  const char *run() {
    meet(kHeaderPage);
    walk(kRootPage, 0);
    follow(header_.free_overflow, UINT32_MAX);
    for (uint32_t page = header_.free_page; page != 0 && wrong_ == nullptr;) {
      meet(page);
      page = Pinned<FreePage>(file_, page)->next;
    }
    for (const Use &use : pages_) {
      fail_unless(use.is_met || !use.slots.empty(), "a page that nothing leads to");
      for (const bool is_met : use.slots) fail_unless(is_met, "a lost overflow entry");
    }
    return wrong_;
  }

 private:
  struct Use {
    bool is_met = false;
    std::vector<bool> slots;  // of a page of overflow entries
  };

  bool fail_unless(bool holds, const char *what) {
    if (!holds && wrong_ == nullptr) wrong_ = what;
    return holds;
  }

  void meet(uint32_t page) {
    if (!fail_unless(page < pages_.size(), "a page that was never handed out")) return;
    fail_unless(!pages_[page].is_met && pages_[page].slots.empty(), "a page met twice");
    pages_[page].is_met = true;
  }

  // A chain of overflow entries, of that many, or to its end.
  void follow(OverflowPlace place, uint32_t count) {
    for (uint32_t entries = 0; place.page != 0 && wrong_ == nullptr; ++entries) {
      if (!fail_unless(entries < count, "a chain that is too long")) return;
      const bool exists = place.page < pages_.size() && !pages_[place.page].is_met;
      if (!fail_unless(exists && place.slot < kOverflowEntries, "a chain out of place")) return;
      std::vector<bool> &slots = pages_[place.page].slots;
      slots.resize(kOverflowEntries);
      fail_unless(!slots[place.slot], "an overflow entry met twice");
      slots[place.slot] = true;
      place = Pinned<OverflowPage>(file_, place.page)->entries[place.slot].next;
    }
  }

  void take(const DirectoryEntry &entry) {
    const uint32_t rest =
        entry.name_bytes > DirectoryEntry::kInlineBytes
            ? (entry.name_bytes - DirectoryEntry::kInlineBytes + OverflowEntry::kNameBytes - 1) /
                  OverflowEntry::kNameBytes
            : 0;
    fail_unless((rest != 0) == (entry.overflow.page != 0), "a chain that should (not) be");
    follow(entry.overflow, rest);
    if (wrong_ != nullptr) return;
    std::string name(entry.name_bytes, '\0');
    copy_name(file_, entry, name.data());
    name = folded(name);
    fail_unless(last_.empty() || last_ < name, "names out of order");
    last_ = name;
  }

  void walk(uint32_t page, int depth) {
    meet(page);
    if (wrong_ != nullptr) return;
    const DirectoryNode node = *Pinned<DirectoryNode>(file_, page);
    fail_unless(node.key_count < kMaxKeys, "a full node");
    fail_unless(page == kRootPage || node.key_count >= kLeastKeys - 2, "a node too empty");
    const bool is_leaf = node.items[0].child == 0;
    if (is_leaf && leaf_depth_ < 0) leaf_depth_ = depth;
    fail_unless(!is_leaf || depth == leaf_depth_, "leaves of unequal depth");
    for (uint32_t index = 0; index <= node.key_count && wrong_ == nullptr; ++index) {
      fail_unless((node.items[index].child == 0) == is_leaf, "a child that should (not) be");
      if (!is_leaf && wrong_ == nullptr) walk(node.items[index].child, depth + 1);
      if (index < node.key_count && wrong_ == nullptr) take(node.items[index].entry);
    }
  }

  SegmentedFile *const file_;
  const DirectoryHeader header_;
  std::vector<Use> pages_;
  std::string last_;
  int leaf_depth_ = -1;
  const char *wrong_ = nullptr;
};

}  // namespace

const char *mdir_check(SegmentedFile *file) {
  file->lock();
  const char *wrong = Check(file).run();
  file->unlock();
  return wrong;
}

}  // namespace psp::memstore
