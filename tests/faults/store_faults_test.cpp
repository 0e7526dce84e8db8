// Faults under the in-memory store: after each of them its directories are whole, what it held is
// as it was, and nothing of what failed is left.
#include <gtest/gtest.h>

#include <utility>

#include "support/directory_check.h"
#include "support/faults.h"

namespace {

using namespace psp::faults;
using namespace psp::memstore;

constexpr uint16_t kMemory = PSP_FILE_MEMORY;
constexpr const char *kOld = "\\d\\old";
constexpr const char *kNew = "\\d\\new";
const std::string long_name = "\\d\\" + std::string(300, 'n');
const std::string long_ini = "\\d\\" + std::string(300, 's');
const char *const kIni = long_ini.c_str();
const std::string content(5000, 'c');
const std::string long_way = [] {  // to the folder
  std::string way = "\\d";
  while (way.size() < 300) way += "\\.";
  return way;
}();

// What the act has open, for a jump may leave it.
PSP_FH file;
psp_pathIter *names;

bool put(const char *name, int64_t far) {
  file = psp_fileOpen(name, PSP_OPEN_READWRITE | PSP_OPEN_CREATE, kMemory);
  if (file == nullptr) return false;
  bool works = psp_fileWrite(file, content.data(), 5000) == 5000;
  if (far != 0) works = works && psp_fileSeekWrite(file, far, "x", 1) == 1;
  if (far != 0) works = works && psp_fileSetSize(file, far + 30'000) == 0;
  psp_fileClose(file);
  file = nullptr;
  return works;
}

bool list() {
  names = psp_pathOpenEx(long_way.c_str(), kMemory, "*d");
  if (names == nullptr) return false;
  uint32_t is_directory = 0;
  const char *found = psp_pathNext(names, &is_directory);
  const bool works = found != nullptr && strcmp(found, "old") == 0;
  psp_pathClose(names);
  names = nullptr;
  return works;
}

bool use_store() {
  return put(kNew, 70'000) && list() &&
         psp_fileRenameEx(kNew, kMemory, long_name.c_str(), kMemory) == PSP_OKAY &&
         psp_fileCopyEx(kOld, kMemory, "\\d\\copy", kMemory) == PSP_OKAY &&
         psp_iniSetEx(kIni, "s", "k", "2", kMemory) == PSP_OKAY &&
         psp_fileRemoveEx(long_name.c_str(), kMemory) == PSP_OKAY;
}

void clean_store() {
  psp_fileClose(file);
  file = nullptr;
  if (names != nullptr) psp_pathClose(names);
  names = nullptr;
  for (const char *name : {kNew, long_name.c_str(), "\\d\\copy"}) psp_fileRemoveEx(name, kMemory);
  psp_iniCleanup();
}

void expect_whole_directories() {
  DirectoryCursor cursor;
  SegmentedFile root;
  SegmentedFile folder;
  ASSERT_TRUE(root.open(shmheap_default(), 0));
  EXPECT_STREQ(mdir_check(&root), nullptr);
  cursor.file = &root;
  ASSERT_EQ(mdir_search(&cursor, "d"), PSP_OKAY);
  ASSERT_TRUE(folder.open(mdir_read(cursor).heap, 0));
  EXPECT_STREQ(mdir_check(&folder), nullptr);
  folder.close();
  root.close();
}

FAULT_TEST(StoreFaults, WhatTheStoreHoldsStaysWhole) {
  Scenario scenario{.sweeps = kAllocations | kJumps};
  scenario.prepare = [] {
    ASSERT_TRUE(put(kOld, 0));
    PSP_FH ini = psp_fileOpen(kIni, PSP_OPEN_READWRITE | PSP_OPEN_CREATE, kMemory);
    ASSERT_EQ(psp_fileWrite(ini, "[s]\nk=1\n", 8), 8);
    psp_fileClose(ini);
    ASSERT_TRUE(use_store());  // the folder's pages stay with it
    clean_store();
  };
  scenario.act = use_store;
  scenario.judge = [](const Run &) {
    EXPECT_EQ(psp_fileLengthStat(kOld, kMemory), 5000);
    int32_t number = 0;
    EXPECT_EQ(psp_iniInt32Ex(kIni, "s", "k", &number, kMemory), PSP_OKAY);
    EXPECT_TRUE(number == 1 || number == 2);
    expect_whole_directories();
  };
  scenario.clean = clean_store;
  sweep(scenario);
}

// New folders with their first files, one of which is beyond the first records of heaps.
FAULT_TEST(StoreFaults, FolderAndItsFilesComeWholeOrNotAtAll) {
  static int made;
  static const std::string folder = "\\" + std::string(60, 'n');
  Scenario scenario{.sweeps = kAllocations};
  scenario.prepare = [] {
    for (int heap = 0; heap < 60; ++heap) ASSERT_NE(shmheap_create(), kNoHeap);
  };
  scenario.act = [] {
    for (made = 0; made < 2; ++made) {
      const std::string name = folder + std::to_string(made) + "\\d\\f";
      if (!put(name.c_str(), 0)) return false;
    }
    return true;
  };
  scenario.judge = [](const Run &run) {
    const std::string name = folder + std::to_string(made) + "\\d\\f";
    EXPECT_EQ(run.worked, made == 2);
    const int64_t bytes = psp_fileLengthStat(name.c_str(), kMemory);
    EXPECT_TRUE(bytes == 0 || bytes == 4096) << bytes;  // one of two pages, then memory was short
    SegmentedFile root;
    if (!root.open(shmheap_default(), 0)) return;
    EXPECT_STREQ(mdir_check(&root), nullptr);
    root.close();
  };
  // What was made stays until the library stops, which is when it is missed if it does not go.
  scenario.keeps_any_blocks = true;
  sweep(scenario);
}

FAULT_TEST(StoreFaults, NameWithoutARootIsTakenFromTheCurrentFolder) {
  static const std::string name = std::string(300, 'r') + "\\f";
  Scenario scenario{.sweeps = kAllocations | kJumps | kCalls, .keeps_any_blocks = true};
  scenario.act = [] { return put(name.c_str(), 0); };
  scenario.judge = [](const Run &run) {
    EXPECT_EQ(psp_fileLengthStat(name.c_str(), kMemory) == 5000, run.worked);
  };
  scenario.clean = [] { psp_fileClose(std::exchange(file, nullptr)); };
  sweep(scenario);
}

// A long name whose insertion splits up to the root.
FAULT_TEST(StoreFaults, InsertionThatSplitsHappensWholeOrNotAtAll) {
  static SegmentedFile folder;
  static DirectoryCursor cursor;
  static uint32_t before;
  static std::string name;
  Scenario scenario{.sweeps = kAllocations};
  scenario.prepare = [] {
    ASSERT_TRUE(folder.open(shmheap_create(), kCreateRoot) && mdir_init(&folder) == PSP_OKAY);
    cursor.file = &folder;
    for (uint32_t number = 0; number + 1 < kMaxKeys; ++number) {
      name = std::to_string(1000 + number);
      ASSERT_EQ(mdir_search(&cursor, name), PSP_NOTFOUND);
      ASSERT_EQ(mdir_insert(&cursor, name, 1, EntryType::kFile), PSP_OKAY);
    }
    name = std::string(300, 'n');
  };
  scenario.act = [] {
    before = folder.changes();
    mdir_search(&cursor, name);
    return mdir_insert(&cursor, name, 1, EntryType::kFile) == PSP_OKAY;
  };
  scenario.judge = [](const Run &run) {
    EXPECT_STREQ(mdir_check(&folder), nullptr);
    EXPECT_EQ(folder.changes() - before, run.worked ? 1u : 0u);
    EXPECT_EQ(mdir_search(&cursor, name), run.worked ? PSP_OKAY : PSP_NOTFOUND);
    if (run.worked) name += 'n';
  };
  scenario.finish = [] { folder.close(); };
  scenario.keeps_any_blocks = true;
  sweep(scenario);
}

}  // namespace
