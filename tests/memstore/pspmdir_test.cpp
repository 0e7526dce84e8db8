// The B-tree of a directory against a sorted map, and what its layout promises.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "psp.h"
#include "support/directory_check.h"

namespace {

using namespace psp::memstore;

#ifdef PSP_CHECK_LOCK_ORDER  // a sanitizer build
constexpr size_t kNames = 6'000;
#else
constexpr size_t kNames = 100'000;
#endif
constexpr uint32_t kSeed = 5;

class DirectoryTree : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(psp_init(), PSP_OKAY);
    ASSERT_TRUE(file_.open(shmheap_create(), kCreateRoot));
    ASSERT_EQ(mdir_init(&file_), PSP_OKAY);
    cursor_.file = &file_;
  }
  void TearDown() override {
    file_.close();
    psp_term();
  }

  psp_status insert(const std::string &name, HeapId heap) {
    if (mdir_search(&cursor_, name) != PSP_NOTFOUND) return PSP_FAILED;
    return mdir_insert(&cursor_, name, heap, EntryType::kFile);
  }
  bool remove(const std::string &name) {
    if (mdir_search(&cursor_, name) != PSP_OKAY) return false;
    mdir_delete(&cursor_);
    return true;
  }
  std::string name_at() const {
    const DirectoryEntry entry = mdir_read(cursor_);
    std::string name(entry.name_bytes, '?');
    mdir_copy_name(cursor_, entry, name.data());
    return name;
  }
  DirectoryHeader header() {
    Page *page = file_.pin_page(kHeaderPage);
    const auto header = *reinterpret_cast<DirectoryHeader *>(page->bytes());
    file_.unpin_page(page);
    return header;
  }
  uint32_t keys(uint32_t number) {
    Page *page = file_.pin_page(number);
    const uint32_t count = reinterpret_cast<DirectoryNode *>(page->bytes())->key_count;
    file_.unpin_page(page);
    return count;
  }

  SegmentedFile file_;
  DirectoryCursor cursor_;
};

// Names of 1 to 300 bytes in four orders of insertion, deleted in another.
TEST_F(DirectoryTree, AgreesWithASortedMapInEveryOrder) {
  std::mt19937 random(kSeed);
  std::map<std::string, HeapId> model;
  std::vector<std::string> names;
  for (size_t index = 0; index < kNames; ++index) {
    std::string name = std::to_string(index * 7919 % 1'000'003);
    if (index % 16 == 0) name.insert(0, 20 + random() % 270, 'p');
    names.push_back(name);
  }
  for (int order = 0; order < 4; ++order) {
    if (order == 0) std::sort(names.begin(), names.end());
    if (order == 1) std::reverse(names.begin(), names.end());
    if (order == 2) std::shuffle(names.begin(), names.end(), random);
    if (order == 3) {  // from both ends to the middle
      std::sort(names.begin(), names.end());
      for (size_t index = 1; index < names.size() / 2; index += 2) {
        std::swap(names[index], names[names.size() - index]);
      }
    }
    HeapId heap = 0;
    for (const std::string &name : names) {
      ASSERT_EQ(insert(name, ++heap), PSP_OKAY) << "seed " << kSeed;
      model[name] = heap;
    }
    ASSERT_STREQ(mdir_check(&file_), nullptr);
    bool is_there = mdir_first(&cursor_);
    for (const auto &[name, id] : model) {
      ASSERT_TRUE(is_there && name_at() == name && mdir_read(cursor_).heap == id);
      is_there = mdir_next(&cursor_, true);
    }
    ASSERT_FALSE(is_there);
    if (order % 2 == 0) std::shuffle(names.begin(), names.end(), random);
    for (size_t index = 0; index < names.size(); ++index) {
      ASSERT_TRUE(remove(names[index]));
      const bool is_checked = index % (kNames / 4) == 0;
      ASSERT_STREQ(is_checked ? mdir_check(&file_) : nullptr, nullptr);
    }
    model.clear();
    ASSERT_STREQ(mdir_check(&file_), nullptr);
    ASSERT_FALSE(mdir_first(&cursor_));
  }
}

TEST_F(DirectoryTree, NamesSortInLowerCaseAndAreFoundInAny) {
  for (const char *name : {"Zebra", "_x", "apple", "apple pie", "\xC4"}) {
    EXPECT_EQ(insert(name, 1), PSP_OKAY);
  }
  EXPECT_EQ(insert("APPLE", 1), PSP_FAILED);
  std::string all;
  for (bool is_there = mdir_first(&cursor_); is_there; is_there = mdir_next(&cursor_, true)) {
    all += name_at() + ",";
  }
  EXPECT_EQ(all, "_x,apple,apple pie,Zebra,\xC4,");
}

TEST_F(DirectoryTree, SplitsMergesAndReusesPagesAsLaidOut) {
  const auto name = [](int number) { return std::to_string(1000 + number); };
  const auto fill = [&] { return std::pair(keys(2), keys(3)); };
  for (int number = 0; number < 91; ++number) ASSERT_EQ(insert(name(number), 1), PSP_OKAY);
  EXPECT_EQ(keys(kRootPage), 91u);
  ASSERT_EQ(insert(name(91), 1), PSP_OKAY);
  EXPECT_EQ(keys(kRootPage), 1u);
  EXPECT_EQ(fill(), std::pair(46u, 45u));
  EXPECT_EQ(header().next_new_page, 4u);
  // A node of 46 is left alone, one of 45 takes from a neighbour that has two more.
  for (int number = 92; number < 95; ++number) ASSERT_EQ(insert(name(number), 1), PSP_OKAY);
  EXPECT_TRUE(insert("1000a", 1) == PSP_OKAY && remove("1000a"));
  EXPECT_EQ(fill(), std::pair(46u, 48u));
  EXPECT_TRUE(remove(name(94)) && remove(name(93)) && remove(name(92)));
  EXPECT_EQ(fill(), std::pair(46u, 45u));
  ASSERT_EQ(insert(name(92), 1), PSP_OKAY);
  EXPECT_TRUE(remove(name(0)));
  EXPECT_EQ(fill(), std::pair(45u, 46u));
  EXPECT_TRUE(remove(name(92)));  // 45 and 45 and the one between them fit in one node
  EXPECT_EQ(keys(kRootPage), 91u);
  EXPECT_NE(header().free_page, 0u);
  EXPECT_TRUE(remove(name(1)) && remove(name(2)));
  // Overflow entries: none up to 22 bytes, one up to 46, two from 47 on; a page has 128.
  EXPECT_EQ(insert(std::string(22, 'n'), 1), PSP_OKAY);
  EXPECT_EQ(header().free_overflow.page, 0u);
  EXPECT_EQ(insert(std::string(23, 'n'), 1), PSP_OKAY);
  EXPECT_EQ(header().free_overflow.slot, 1u);
  EXPECT_EQ(header().next_new_page, 4u) << "the pages of the merge come first";
  EXPECT_EQ(insert(std::string(65535, 'n'), 1), PSP_OKAY);
  ASSERT_STREQ(mdir_check(&file_), nullptr);
  EXPECT_EQ(insert(std::string(65536, 'n'), 1), PSP_FAILED);
}

}  // namespace
