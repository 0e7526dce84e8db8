// Names, directories and threads of the in-memory store; its pages and segments.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>

#include "files/files.h"
#include "memstore/pspmdir.h"
#include "memstore/store_names.h"
#include "psp.h"
#include "support/fixtures.h"

namespace {

using namespace psp::memstore;
constexpr uint16_t kMemory = PSP_FILE_MEMORY;

class MemoryStore : public psp::tests::Started {
 protected:
  void SetUp() override {
    psp_nodisk();  // so that relative names begin at the root
    Started::SetUp();
  }

  static bool put(const char *name, const std::string &content) {
    PSP_FH file = psp_fileOpen(name, PSP_OPEN_READWRITE | PSP_OPEN_TRUNCATE, kMemory);
    const auto count = static_cast<uint32_t>(content.size());
    const bool done = file != nullptr && psp_fileWrite(file, content.data(), count) >= 0;
    psp_fileClose(file);
    return done;
  }
  static std::string get(const char *name) {
    char buffer[100];
    PSP_FH file = psp_fileOpen(name, PSP_OPEN_READ, kMemory);
    if (file == nullptr) return "none";
    const int32_t count = psp_fileRead(file, buffer, sizeof buffer);
    psp_fileClose(file);
    return {buffer, static_cast<size_t>(count)};
  }
  // "+" for a file, "/" for a directory, "" for nothing.
  static std::string kind(const char *name) {
    uint32_t is_directory = 0;
    if (psp_fileValidateEx(name, kMemory, &is_directory) == 0) return "";
    return is_directory != 0 ? "/" : "+";
  }
  static std::string list(const char *folder, const char *pattern = "*") {
    psp_pathIter *names = psp_pathOpenEx(folder, kMemory, pattern);
    if (names == nullptr) return "none";
    std::string all;
    uint32_t is_directory = 0;
    while (const char *name = psp_pathNext(names, &is_directory)) {
      all += name + std::string(is_directory != 0 ? "/ " : " ");
    }
    psp_pathClose(names);
    return all;
  }
};

TEST_F(MemoryStore, DirectoriesComeWithTheWayToAName) {
  EXPECT_EQ(list("\\"), "");  // the root is there in an empty store
  errno = 0;
  EXPECT_EQ(psp_fileOpen("\\a\\b\\c.txt", PSP_OPEN_READ, kMemory), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(kind("\\a\\b") + kind("\\a\\b\\c.txt"), "/");
  EXPECT_TRUE(put("C:/a/./b//C.txt", "x"));
  EXPECT_EQ(get("\\A\\q\\..\\B\\c.TXT") + kind("a\\b\\c.txt") + list("/a/b/"), "x+C.txt ");
  EXPECT_FALSE(put("\\a\\b", "")) << "a directory's name";
  EXPECT_EQ(psp_fileRemoveEx("\\a\\b", kMemory), PSP_FAILED);
  EXPECT_EQ(psp_pathOpenEx("\\a\\b\\C.txt", kMemory, "*"), nullptr);
  EXPECT_FALSE(put("no-directory", ""));
  EXPECT_FALSE(put("\\a\\..", "")) << "a name that leads elsewhere";
  EXPECT_TRUE(put("\\f", "root") && put("./g", "dot") && put("..\\h", "up"));
  EXPECT_EQ(list("."), "a/ f g h ");
  EXPECT_EQ(list("\\", "?"), "a/ f g h ");
  EXPECT_EQ(kind(".") + kind("\\") + kind("\\..\\..") + kind("\\a\\..\\f"), "///+");
}

TEST_F(MemoryStore, RenameStaysInItsDirectoryAndLosesNothing) {
  ASSERT_TRUE(put("\\a\\x", "1") && put("\\a\\y", "2") && put("\\b\\z", "3"));
  EXPECT_EQ(psp_fileRenameEx("\\a\\x", kMemory, "\\b\\w", kMemory), PSP_OKAY);
  EXPECT_EQ(psp_fileRenameEx("\\a\\w", kMemory, "\\a\\y", kMemory), PSP_FAILED);
  EXPECT_EQ(psp_fileRenameEx("\\a\\w", kMemory, "\\a\\W", kMemory), PSP_FAILED);
  EXPECT_EQ(psp_fileRenameEx("\\a\\n", kMemory, "\\a\\m", kMemory), PSP_NOTFOUND);
  EXPECT_EQ(psp_fileRenameEx("\\a\\w", kMemory, "\\a\\", kMemory), PSP_FAILED);
  EXPECT_EQ(psp_fileRenameEx("\\a\\w", kMemory, "\\a\\..", kMemory), PSP_FAILED);
  EXPECT_EQ(psp_fileRenameEx("\\a\\w", kMemory, std::string(65536, 'n').c_str(), kMemory),
            PSP_FAILED);
  EXPECT_EQ(list("\\a") + get("\\a\\w"), "w y 1");
  EXPECT_EQ(psp_fileRenameEx("\\a", kMemory, "c", kMemory), PSP_OKAY) << "a directory";
  EXPECT_EQ(list("\\c") + list("\\"), "w y b/ c/ ");
  // A move goes where it is sent, and never removes what it moves.
  EXPECT_EQ(psp_fileMoveEx("\\c\\w", kMemory, "\\b\\z", kMemory), PSP_OKAY);
  EXPECT_EQ(psp_fileMoveEx("\\c\\y", kMemory, "C:\\c\\.\\Y", kMemory), PSP_OKAY);
  EXPECT_EQ(get("\\b\\z") + get("\\c\\y") + list("\\c"), "12y ");
  EXPECT_EQ(psp_dirMoveEx("\\c", kMemory, "\\b\\d", kMemory), PSP_OKAY);
  EXPECT_EQ(list("\\b\\d") + list("\\b") + list("\\c"), "y d/ z ");
}

TEST_F(MemoryStore, ReplacementTakesAPlaceThatIsThere) {
  using psp::files::replace_file;
  ASSERT_TRUE(put("\\f", "1") && put("\\g", "2"));
  EXPECT_EQ(replace_file("\\gone", "\\f", kMemory), PSP_NOTFOUND);
  EXPECT_EQ(replace_file("\\f", "\\gone", kMemory), PSP_NOTFOUND);
  EXPECT_EQ(replace_file("\\f", "\\", kMemory), PSP_FAILED);
  EXPECT_EQ(replace_file("\\f", "\\.\\F", kMemory), PSP_OKAY) << "by itself";
  EXPECT_EQ(get("\\f") + get("\\g") + list("\\"), "12f g ");
  EXPECT_EQ(replace_file("\\f", "\\g", kMemory), PSP_OKAY);
  EXPECT_EQ(get("\\g") + list("\\"), "1g ");
}

TEST_F(MemoryStore, ListGoesOnBehindWhatWasReadAhead) {
  std::string expected;
  for (size_t length = 500; length < 525; ++length) {
    const std::string name(length < 524 ? length : 3000, 'n');
    ASSERT_TRUE(put(("\\" + name).c_str(), ""));
    expected += name + " ";
  }
  EXPECT_EQ(list("\\"), expected);
}

TEST(MemoryStoreLife, NothingIsStoredBeforeTheStart) {
  EXPECT_EQ(psp_fileLengthStat("\\f", kMemory), 0);
}

TEST_F(MemoryStore, OpenFileOutlivesItsName) {
  ASSERT_TRUE(put("\\a\\f", "old"));
  PSP_FH file = psp_fileOpen("\\a\\f", PSP_OPEN_READWRITE, kMemory);
  ASSERT_EQ(psp_fileRemoveEx("\\a\\f", kMemory), PSP_OKAY);
  EXPECT_TRUE(put("\\a\\f", "new"));
  char buffer[4] = {};
  EXPECT_EQ(psp_fileSeekRead(file, 0, buffer, 3), 3);
  EXPECT_EQ(buffer + get("\\a\\f"), "oldnew");
  psp_fileClose(file);
}

TEST_F(MemoryStore, PlacesAndSizesThatNoSegmentHas) {
  PSP_FH file = psp_fileOpen("\\f", PSP_OPEN_READWRITE | PSP_OPEN_CREATE, kMemory);
  EXPECT_EQ(psp_fileSetSize(file, INT64_MAX), 2);
  EXPECT_EQ(psp_fileSetSize(file, -1), 2);
  EXPECT_EQ(psp_fileSeekWrite(file, INT64_MAX - 3, "12345678", 8), 0);
  EXPECT_EQ(psp_fileLength(file), 0);
  EXPECT_EQ(psp_fileSeek(file, 0, PSP_SEEK_START - 1), PSP_FAILED);
  EXPECT_EQ(psp_fileSeekWrite(file, 5 << 20, "0123456789", 10), 10);
  EXPECT_EQ(psp_fileLength(file), (5 << 20) + 10);
  uint64_t zeros = 1;
  EXPECT_EQ(psp_fileSeekRead(file, (5 << 20) - 8, &zeros, 8), 8);
  EXPECT_EQ(zeros, 0u);
  psp_fileClose(file);
}

// What one handle holds of a file that another one cuts must neither show old bytes nor be lost.
TEST_F(MemoryStore, CutFileGrowsAnewUnderAnotherHandle) {
  PSP_FH one = psp_fileOpen("\\f", PSP_OPEN_READWRITE | PSP_OPEN_CREATE, kMemory);
  PSP_FH other = psp_fileOpen("\\f", PSP_OPEN_READWRITE, kMemory);
  const std::string old_bytes(100'000, 'o');
  ASSERT_EQ(psp_fileSeekWrite(one, 0, old_bytes.data(), 100'000), 100'000);
  EXPECT_EQ(psp_fileSetSize(other, 10), 0);
  EXPECT_EQ(psp_fileSeekWrite(one, 90'000, "n", 1), 1);
  psp_fileClose(one);
  std::string found(90'001, '?');
  EXPECT_EQ(psp_fileSeekRead(other, 0, found.data(), 90'001), 90'001);
  EXPECT_EQ(found, std::string(10, 'o') + std::string(89'990, '\0') + "n");
  psp_fileClose(other);
}

TEST_F(MemoryStore, StreamsAndSettingsInReadOnlyMode) {
  psp_rdonly();
  psp_stream *stream = psp_fopenEx("\\s.ini", "w", 2, kMemory);
  ASSERT_NE(stream, nullptr);
  EXPECT_GE(psp_fputs("[s]\nk=1\n", stream), 0);
  psp_fclose(stream);
  EXPECT_EQ(psp_iniSetEx("\\s.ini", "s", "k", "2", kMemory), PSP_OKAY);
  int32_t number = 0;
  EXPECT_EQ(psp_iniInt32Ex("\\s.ini", "s", "k", &number, kMemory), PSP_OKAY);
  EXPECT_EQ(std::to_string(number) + list("\\"), "2s.ini ");
  EXPECT_EQ(psp_fileValidateEx("\\s.ini", 0, nullptr), 0);
}

TEST_F(MemoryStore, LockWaitsForAnotherThreadAndGoesWithItsHandleOrThread) {
  PSP_FH mine = psp_fileOpen("\\f", PSP_OPEN_READWRITE | PSP_OPEN_CREATE, kMemory);
  PSP_FH twin = psp_fileOpen("\\f", PSP_OPEN_READWRITE, kMemory);
  psp_fileUnlock(mine);  // nothing to give up
  EXPECT_EQ(psp_fileLock(mine) + psp_fileLock(mine) + psp_fileUnlock(mine), 0);
  EXPECT_EQ(psp_fileLock(twin), 0);
  psp_fileUnlock(twin);
  psp_fileUnlock(twin);  // what is left is another handle's
  psp_fileClose(twin);
  std::atomic<bool> is_written{false};
  std::thread other([&] {
    PSP_FH theirs = psp_fileOpen("\\f", PSP_OPEN_READWRITE, kMemory);
    EXPECT_EQ(psp_fileWrite(theirs, "b", 1), 1);
    is_written = true;
    psp_fileClose(theirs);
  });
  EXPECT_EQ(psp_fileSeekWrite(mine, 0, "aa", 2), 2);
  EXPECT_FALSE(is_written);
  psp_fileClose(mine);
  other.join();
  EXPECT_EQ(get("\\f"), "ba");
  // Levels that went with their thread are nobody's: they give up no one else's lock.
  PSP_FH left = psp_fileOpen("\\f", PSP_OPEN_READWRITE, kMemory);
  std::thread([&] { psp_fileLock(left); }).join();
  mine = psp_fileOpen("\\f", PSP_OPEN_READWRITE, kMemory);
  psp_fileLock(mine);
  psp_fileClose(left);
  std::atomic<bool> is_read{false};
  std::thread reader([&] {
    EXPECT_EQ(get("\\f"), "ba");
    is_read = true;
  });
  psp_sleep(20);
  EXPECT_FALSE(is_read) << "the lock was given up for another";
  psp_fileClose(mine);
  reader.join();
}

// Many threads in one folder: names that come and go, one file that all append to, one each.
TEST_F(MemoryStore, ThreadsShareAFolder) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 300;
  ASSERT_TRUE(put("\\d\\shared", ""));
  const auto work = [](int number) {
    const std::string own = "\\d\\own" + std::to_string(number);
    for (int round = 0; round < kRounds; ++round) {
      EXPECT_TRUE(put(own.c_str(), std::to_string(round)));
      PSP_FH fleeting = psp_fileOpen("\\d\\fleeting", PSP_OPEN_WRITE | PSP_OPEN_CREATE, kMemory);
      EXPECT_EQ(psp_fileWrite(fleeting, "1234", 4), 4);
      EXPECT_NE(psp_fileRemoveEx("\\d\\fleeting", kMemory), PSP_FAILED);
      psp_fileClose(fleeting);
      PSP_FH shared = psp_fileOpen("\\d\\shared", PSP_OPEN_READWRITE, kMemory);
      psp_fileLock(shared);
      EXPECT_EQ(psp_fileSeekWrite(shared, psp_fileLength(shared), "x", 1), 1);
      psp_fileClose(shared);
      EXPECT_EQ(get(own.c_str()), std::to_string(round));
      EXPECT_NE(list("\\d", "own*").find("own" + std::to_string(number)), std::string::npos);
      const psp_status removed = psp_fileRemoveEx(own.c_str(), kMemory);
      EXPECT_EQ(removed, PSP_OKAY);
    }
  };
  psp::tests::in_threads(kThreads, work);
  EXPECT_EQ(list("\\d"), "shared ");
  EXPECT_EQ(psp_fileLengthStat("\\d\\shared", kMemory), kThreads * kRounds);
}

// Some at a time, which are then handed out without the directory's lock.
TEST_F(MemoryStore, NamesAreReadAhead) {
  for (const char c : {'a', 'b', 'c', 'd', 'e', 'f'})
    ASSERT_TRUE(put(("\\" + std::string(600, c)).c_str(), ""));
  psp_pathIter *names = psp_pathOpenEx("\\", kMemory, "*");
  Directory root;
  ASSERT_TRUE(root.open(shmheap_default(), 0));
  uint32_t is_directory = 0;
  for (const char *three : {"abc", "def"}) {
    EXPECT_EQ(*psp_pathNext(names, &is_directory), three[0]);
    root.lock();
    std::thread([&] {
      for (int next : {1, 2}) EXPECT_EQ(*psp_pathNext(names, &is_directory), three[next]);
    }).join();
    root.unlock();
  }
  psp_pathClose(names);
}

TEST_F(MemoryStore, PageThatBecameIdleLastMakesRoom) {
  SegmentedFile file;
  EXPECT_FALSE(file.open(shmheap_create(), 0));
  ASSERT_TRUE(file.open(shmheap_create(), kCreateRoot));
  Page *pages[kMappedLimit + 2] = {};
  for (uint32_t number = 0; number < kMappedLimit; ++number) {
    pages[number] = shmcache_create_page(shmheap_find(file.heap()), number, kPageBytes);
    shmcache_pin(pages[number]);
  }
  const auto is_mapped = [](const Page *page) { return (page->pins & Page::kMapped) != 0; };
  for (const uint32_t number : {7, 3, 5}) shmcache_unpin(pages[number]);
  for (const uint32_t number : {kMappedLimit, kMappedLimit + 1}) {
    pages[number] = shmcache_create_page(shmheap_find(file.heap()), number, kPageBytes);
    shmcache_pin(pages[number]);
  }
  EXPECT_TRUE(is_mapped(pages[7]) && !is_mapped(pages[3]) && !is_mapped(pages[5]));
  EXPECT_EQ(shmcache_mapped_count, kMappedLimit);
  shmcache_pin(pages[7]);
  shmcache_pin(pages[3]);  // none is idle: the limit gives way
  EXPECT_EQ(shmcache_mapped_count, kMappedLimit + 1);
  // The last one is pinned again, or goes: the ticks tell.
  for (const uint32_t number : {9, 3, 8}) shmcache_unpin(pages[number]);
  shmcache_pin(pages[8]);
  shmcache_pin(pages[5]);
  EXPECT_TRUE(!is_mapped(pages[9]) && !is_mapped(pages[3]) && is_mapped(pages[8]));
  shmcache_unpin(pages[8]);
  shmcache_release(shmheap_find(file.heap()), pages[8]);
  EXPECT_EQ(shmcache_mapped_count, kMappedLimit - 1);
  for (const uint32_t number : {3, 9}) shmcache_pin(pages[number]);
  EXPECT_EQ(shmcache_mapped_count, kMappedLimit + 1);
}

}  // namespace
