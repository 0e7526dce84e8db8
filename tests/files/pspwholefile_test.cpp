// Whole files by name: what a copy writes, what a rename and a move never lose, on one file system,
// across two, and on one that lacks the calls for it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <numeric>
#include <set>
#include <vector>

#include "files/files.h"
#include "psp.h"
#include "support/fixtures.h"

namespace {

namespace fs = std::filesystem;
using psp::tests::get_file;
using psp::tests::put_file;
using Results = std::vector<int32_t>;  // of calls, in their order

const auto kPast = fs::file_time_type::clock::now() - std::chrono::hours(1);

// Names and contents under a folder.
std::string list(const std::string &folder = ".") {
  std::set<std::string> lines;
  for (const fs::directory_entry &entry : fs::recursive_directory_iterator(folder)) {
    const std::string name = entry.path().lexically_relative(folder);
    lines.insert(name + (entry.is_directory() ? "/ " : "=" + get_file(entry.path()) + " "));
  }
  return std::accumulate(lines.begin(), lines.end(), std::string());
}

// A folder of its own is the current directory.
class WholeFiles : public psp::tests::StartedInFolder {
 protected:
  void SetUp() override { ASSERT_EQ(psp_init() + chdir(folder_.c_str()), 0); }
};

TEST_F(WholeFiles, CopyAndCompareAroundTheBlockSize) {
  for (const size_t from : {0, 1, 1023, 1024, 1025, 2048, 3000}) {
    for (const size_t to : {0, 1, 1023, 1024, 1025, 3000, 5000}) {
      for (const char filler : {'x', 'y'}) {
        put_file("a", std::string(from, 'x'));
        put_file("b", std::string(to, filler));
        const bool equal = from == to && (filler == 'x' || to == 0);
        EXPECT_EQ(psp_fileCmp("a", "b"), equal ? PSP_OKAY : PSP_FAILED) << from << ' ' << to;
        EXPECT_EQ(psp_fileCopy("a", "b"), PSP_OKAY);
        EXPECT_EQ(list(), "a=" + std::string(from, 'x') + " b=" + std::string(from, 'x') + " ");
      }
    }
  }
  EXPECT_EQ((Results{psp_fileCmp("none", "b"), psp_fileCmp("a", "none"),
                     psp_fileCmp("none", "none"), psp_fileCopy("none", "new")}),
            (Results{PSP_CMP_NO_FIRST, PSP_CMP_NO_SECOND, PSP_OKAY, PSP_FAILED}));
  // A pipe has no length: it is no empty file, of which the destination would become a copy.
  ASSERT_EQ(mkfifo("pipe", 0600), 0);
  const int pipe = open("pipe", O_RDWR);
  EXPECT_EQ(psp_fileCopy("pipe", "b"), PSP_FAILED);
  close(pipe);
  fs::remove("pipe");
  EXPECT_EQ(list(), "a=" + std::string(3000, 'x') + " b=" + std::string(3000, 'x') + " ");
}

TEST_F(WholeFiles, CopyWritesOnlyBlocksThatDiffer) {
  put_file("a", std::string(500'000, '\0') + "x");
  put_file("b", "");
  fs::resize_file("b", 600'000);  // a hole, which takes room only where it is written
  EXPECT_EQ((Results{psp_fileCopy("a", "b"), psp_fileCmp("a", "b")}), (Results{0, 0}));
  struct stat status = {};
  ASSERT_EQ((sync(), stat("b", &status)), 0);
  EXPECT_LE(status.st_blocks, 64) << "in units of 512 bytes";
  fs::last_write_time("b", kPast);
  EXPECT_EQ((Results{psp_fileCopy("a", "b"), psp_fileCopy("b", "b")}), (Results{0, 0}));
  EXPECT_EQ(fs::last_write_time("b"), kPast) << "nothing is written where nothing differs";
}

// Makes a system call fail for the rest of the process.
bool forbid(unsigned call, unsigned error) {
  sock_filter filter[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                          BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 1),
                          BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error),
                          BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
  const sock_fprog program = {std::size(filter), filter};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

void expect_rename_never_replaces() {
  put_file("a", "1");
  put_file("b", "2");
  for (const char *name : {"d", "e"}) fs::create_directory(name);
  for (const char *from : {"a", "d"}) {
    for (const char *to : {"a", "b", "d", "e", "d/d/", "a/x"}) {
      EXPECT_EQ(psp_fileRename(from, to), PSP_FAILED) << from << ' ' << to;
    }
  }
  EXPECT_EQ(list(), "a=1 b=2 d/ e/ ");
  EXPECT_EQ((Results{psp_fileRename("a", "d\\a"), psp_fileRename("d", "f")}), (Results{0, 0}));
  EXPECT_EQ(list(), "b=2 e/ f/ f/a=1 ");
  for (const char *name : {"b", "e", "f/a", "f"}) fs::remove(name);
}

TEST_F(WholeFiles, RenameNeverReplacesWhateverTheFileSystemOffers) {
  expect_rename_never_replaces();
  for (const unsigned error : {EINVAL, ENOSYS}) {
    if (!forbid(SYS_renameat2, error)) GTEST_SKIP() << "system calls cannot be forbidden here";
    expect_rename_never_replaces();
  }
  for (const unsigned error : {EPERM, EMLINK, ENOSYS, EOPNOTSUPP}) {
    ASSERT_TRUE(forbid(SYS_linkat, error));
    expect_rename_never_replaces();
  }
  // A device that takes nothing and tells nothing.
  ASSERT_TRUE(forbid(SYS_pwrite64, 0));
  const PSP_FH file = psp_fileOpen("a", PSP_OPEN_WRITE | PSP_OPEN_CREATE, 0);
  EXPECT_EQ(psp_fileWrite(file, "1", 1), 0);
  psp_fileClose(file);
}

TEST_F(WholeFiles, MoveReplacesButNeverTheFileItself) {
  put_file("a", "1");
  put_file("b", "2");
  fs::create_hard_link("a", "link");
  fs::create_directory("d");
  EXPECT_EQ((Results{psp_fileMove("a", "./a"), psp_fileMove("link", "a"), psp_dirMove("d", "./d")}),
            (Results{0, 0, 0}));
  EXPECT_EQ(list(), "a=1 b=2 d/ link=1 ");
  EXPECT_EQ((Results{psp_fileMove("b", "a"), psp_fileMove("a", "d"), psp_dirMove("none", "new")}),
            (Results{0, PSP_FAILED, PSP_FAILED}));
  EXPECT_EQ(list(), "a=2 d/ link=1 ");
  // Files that only look like a path into a directory stay where they are.
  for (const char *name : {"d/x\\y", "d/x"}) put_file(name, "3");
  fs::create_directory("e");
  EXPECT_EQ(psp_dirMove("d", "e"), PSP_OKAY);
  EXPECT_EQ(list(), "a=2 d/ d/x\\y=3 e/ e/x=3 link=1 ");
}

TEST_F(WholeFiles, AcrossFileSystemsNothingIsLostOrReplaced) {
  struct stat here = {}, there = {};
  if (stat(".", &here) != 0 || stat("/dev/shm", &there) != 0 || here.st_dev == there.st_dev) {
    GTEST_SKIP() << "there is no second file system";
  }
  char other[] = "/dev/shm/psp-whole-XXXXXX";
  fs::create_directory_symlink(mkdtemp(other), "other");
  const std::string big(100'000, 'b');
  put_file("a", big);
  fs::permissions("a", fs::perms{0751});
  fs::last_write_time("a", kPast);
  put_file("other/b", "2");
  const PSP_FH writer = psp_fileOpen("a", PSP_OPEN_WRITE, 0);
  EXPECT_EQ(psp_fileRename("a", "other/a"), PSP_FAILED) << "somebody may still write it";
  psp_fileClose(writer);
  EXPECT_EQ((Results{psp_fileRename("a", "other/b"), psp_fileRename("a", "other/a")}),
            (Results{PSP_FAILED, PSP_OKAY}));
  EXPECT_EQ(list(other), "a=" + big + " b=2 ");
  EXPECT_EQ(fs::status("other/a").permissions(), fs::perms{0751});
  EXPECT_EQ(fs::last_write_time("other/a"), kPast);
  fs::create_directories("d/sub");
  for (const char *name : {"d/1", "d/a", "other/a"}) put_file(name, name);
  ASSERT_EQ(mkfifo("pipe", 0600), 0);  // a copy would wait for a writer
  EXPECT_EQ((Results{psp_fileMove("other/a", "d/a"), psp_fileRename("d", "other/d"),
                     psp_dirMove("d", "other/x/y/"), psp_dirMove("d/sub", "other/x"),
                     psp_fileMove("pipe", "other/p"), psp_fileMove("pipe", "p")}),
            (Results{PSP_OKAY, PSP_FAILED, PSP_OKAY, PSP_OKAY, PSP_FAILED, PSP_OKAY}));
  fs::remove("p");
  fs::remove("other");
  EXPECT_EQ(list() + list(other), "d/ b=2 x/ x/y/ x/y/1=d/1 x/y/a=other/a ");
  fs::remove_all(other);
}

TEST_F(WholeFiles, ModesAndBadNames) {
  const auto each = [](const char *first, const char *second) {
    return Results{psp_fileCopy(first, second), psp_fileCmp(first, second),
                   psp_fileRemove(second),      psp_fileRename(first, second),
                   psp_fileMove(first, second), psp_dirMove(".", second)};
  };
  put_file("f", "1");
  EXPECT_EQ(each("f", nullptr), (Results{2, 8, 2, 2, 2, 2}));
  EXPECT_EQ((Results{psp_fileCmp(nullptr, "f"), psp_fileCmp("no\\x", "no/x"),
                     psp_fileValidate(nullptr), psp::files::replace_file(nullptr, "f", 0),
                     psp_fileCopyEx("\\A/b", PSP_FILE_MEMORY, "/a\\B", PSP_FILE_MEMORY)}),
            (Results{PSP_CMP_NO_FIRST, 0, 0, 2, 0}));
  psp_fileClose(psp_fileOpen("\\m\\x", PSP_OPEN_READWRITE | PSP_OPEN_CREATE, PSP_FILE_MEMORY));
  EXPECT_EQ(psp_dirMoveEx("\\m", PSP_FILE_MEMORY, "m", 0), PSP_OKAY);
  EXPECT_EQ(fs::remove_all("m"), 2u);
  const psp_wchar bad[] = {0xD800, 0}, *const f = PSP_W("f");
  EXPECT_EQ((Results{psp_fileCopyW(f, bad), psp_fileCmpW(f, bad), psp_fileRemoveW(bad),
                     psp_fileRenameW(f, nullptr), psp_fileMoveW(f, bad), psp_dirMoveW(f, bad),
                     psp_fileValidateW(bad), psp_fileValidateW(f), psp_fileCopyW(f, PSP_W("g")),
                     psp_fileRenameEx("f", 0, "h", PSP_FILE_MEMORY)}),
            (Results{2, 2, 3, 3, 2, 2, 0, 1, 0, 2}));
  uint32_t flag = 7;
  EXPECT_EQ((psp_fileValidateEx("none", 0, &flag), flag), 7u);
  EXPECT_EQ((psp_fileValidateEx(".", 0, &flag), flag), 16384u);
  EXPECT_EQ((psp_fileValidateEx("f", 0, &flag), flag), 0u);
  psp_rdonly();
  EXPECT_EQ(each("f", "new"), (Results{2, 8, 2, 2, 2, 2}));
  EXPECT_EQ(psp::files::replace_file("f", "g", 0), PSP_FAILED);
  EXPECT_EQ(psp_dirMoveEx(".", 0, "\\all", PSP_FILE_MEMORY), PSP_OKAY) << "what is left stays";
  EXPECT_EQ(psp::files::open_replacement("h", "g", 0), nullptr);
  psp_nodisk();
  EXPECT_EQ(each("f", "./f"), (Results{2, 7, 2, 2, 2, 2}));
  EXPECT_EQ(each("f", "f"), (Results{2, 0, 2, 2, 0, 2}));
  EXPECT_EQ(psp_fileValidate("f"), 0);
  EXPECT_EQ(psp::files::open_replacement("h", "g", 0), nullptr);
  psp_term();
  EXPECT_EQ(psp_fileOpen("stdout", PSP_OPEN_WRITE, 0), nullptr) << "not started";
  EXPECT_EQ(psp::files::open_replacement("h", "g", 0), nullptr);
  EXPECT_EQ(psp_init(), PSP_OKAY);
  EXPECT_EQ(list(), "f=1 g=1 ");
}

}  // namespace
