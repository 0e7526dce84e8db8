// The library in processes that are not as usual: forked ones, a full disk, a limit on the size of
// files, standard descriptors closed at the start.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "psp.h"
#include "support/fixtures.h"

namespace {

using psp::tests::status_of_child;
using std::string;

constexpr uint32_t kCreate = PSP_OPEN_READWRITE | PSP_OPEN_CREATE;

class Process : public testing::Test, protected psp::tests::Folder {
 protected:
  void TearDown() override {
    psp_term();
    if (!mounted) return;
    umount2(folder_.c_str(), MNT_DETACH);
    folder_.resize(folder_.size() - 5);
  }
  // The library, with its messages in a file.
  void start() {
    ASSERT_EQ(psp_init(), PSP_OKAY);
    ASSERT_EQ(psp_stdout_open(path("messages").c_str()), PSP_OKAY);
  }
  bool mounted = false;
};

// ---- Fork ---------------------------------------------------------------------------------------

// Gives the number of the first family that did not work.
int use_every_family(const string &folder, const string &who) {
  const string name = folder + "/" + who;
  psp_tag *tag = psp_createTag(PSP_TAG_THREADSAFE);
  char *text = psp_makeStr(tag, "%s %s", "memory of", who.c_str());
  if (text == nullptr || text != "memory of " + who) return 1;
  psp_freeTagMemory(tag, 1);
  psp_stream *stream = psp_fopen(name.c_str(), "w", 1);
  const bool written = psp_fprintf(stream, "[s]\nwho=%s\n", who.c_str()) > 0;
  psp_fclose(stream);
  if (!written) return 2;
  char value[100] = "";
  if (psp_iniGet(name.c_str(), "s", "who", value, sizeof value) != PSP_OKAY || who != value)
    return 3;
  if (psp_iniSet(name.c_str(), "s", "who", "changed") != PSP_OKAY) return 4;
  PSP_FH file = psp_fileOpen("\\d\\f", kCreate, PSP_FILE_MEMORY);
  if (psp_fileSeekWrite(file, 0, who.data(), static_cast<uint32_t>(who.size())) < 1) return 5;
  psp_fileClose(file);
  psp_log("%s was here\n", who.c_str());
  psp_queue *queue = psp_queueCreate(who.c_str());
  const auto write = [](void *place) {
    psp_queueWrite(static_cast<psp_queue *>(place), 7, 0, 0, 0);
  };
  psp_word data = 0;
  if (psp_threadBegin(write, 0, queue) != PSP_OKAY) return 6;
  if (psp_queueRead(queue, &data, nullptr, nullptr, PSP_NO_LIMIT) != PSP_OKAY || data != 7)
    return 7;
  psp_queueDelete(queue);
  return 0;
}

TEST_F(Process, ForkedChildrenOfThreadsUseEveryFamilyOnTheirOwn) {
  start();
  ASSERT_EQ(psp_queueInit(0), PSP_OKAY);
  ASSERT_EQ(psp_log_open(path("log").c_str()), PSP_OKAY);
  const psp_sync gate = psp_syncCreate(PSP_SYNC_EVENT);
  const psp_sync lock = psp_syncCreate(PSP_SYNC_EXCL);
  ASSERT_EQ(use_every_family(folder_, "the parent"), 0);
  std::thread other([&] {
    psp_syncStart(gate);
    ASSERT_EQ(use_every_family(folder_, "the other thread"), 0);
    psp_syncEnterExcl(lock);
    psp_syncExitExcl(lock);
    const int status = status_of_child([&] {
      psp_syncEnterExcl(lock);
      if (psp_syncWait(gate, 0) != PSP_TIMEOUT || psp_init() != PSP_OKAY) return 20;
      psp_term();
      psp_log_close();  // parent and child would overwrite each other's lines
      if (psp_log_open(path("log of the child").c_str()) != PSP_OKAY) return 23;
      int result = use_every_family(folder_, "the child");
      const auto grandchild = [&] { return use_every_family(folder_, "the grandchild"); };
      if (result == 0 && status_of_child(grandchild) != 0) result = 21;
      psp_term();
      if (psp_init() != PSP_OKAY) return 22;  // a life of its own
      psp_term();
      return result;
    });
    EXPECT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 0);
  });
  other.join();
  char who[30] = "";
  PSP_FH file = psp_fileOpen("\\d\\f", PSP_OPEN_READ, PSP_FILE_MEMORY);
  EXPECT_EQ(psp_fileRead(file, who, sizeof who), 16);
  EXPECT_STREQ(who, "the other thread") << "a child's store is its own";
  psp_fileClose(file);
  EXPECT_EQ(psp_syncWait(gate, 0), PSP_TIMEOUT);
  ASSERT_EQ(use_every_family(folder_, "the parent again"), 0);
  EXPECT_EQ(get("log of the child").substr(24, 20), "the child was here\r\n");
  const string log = get("log");
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 3) << log;
}

// ---- Full disks and limits ----------------------------------------------------------------------

const string kIni = "; " + string(3000, 'c') + "\r\n[s]\r\nn=0\r\n";

TEST_F(Process, FullDiskKeepsWhatWasThereAndTakesTheRestLater) {
  mkdir(path("disk").c_str(), 0700);
  folder_ += "/disk";
  mounted = unshare(CLONE_NEWNS) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0;
  mounted = mounted && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
            mount("psp", folder_.c_str(), "tmpfs", 0, "size=128k") == 0;
  if (!mounted) {
    folder_.resize(folder_.size() - 5);
    GTEST_SKIP() << "no small file system can be mounted here";
  }
  ASSERT_EQ(psp_init(), PSP_OKAY);
  ASSERT_EQ(psp_stdout_open(""), PSP_OKAY);
  const string outside = folder_ + "/../outside", old(8192, 'o'), big(20000, 'b');
  std::ofstream(outside) << big;
  const string ini = put("a.ini", kIni), kept = put("kept", old), stream_file = path("stream");
  ASSERT_EQ(psp_log_open(path("log").c_str()), PSP_OKAY);
  psp_log("the first message\n");
  psp_stream *stream = psp_fopen(stream_file.c_str(), "w", 1);
  PSP_FH file = psp_fileOpen(kept.c_str(), PSP_OPEN_READWRITE, 0);
  PSP_FH filler = psp_fileOpen(path("filler").c_str(), kCreate, 0);
  while (psp_fileWrite(filler, old.data(), 4096) == 4096) continue;
  EXPECT_EQ(psp_errno(), uint32_t{ENOSPC});

  EXPECT_EQ(psp_fileSeekWrite(file, 8192, big.data(), 4096), -1);
  EXPECT_EQ(psp_errno(), uint32_t{ENOSPC});
  EXPECT_EQ(get("kept"), old);
  const psp_status status = psp_iniSet(ini.c_str(), "s", "n", "1");
  EXPECT_TRUE(status == PSP_ERR_REPLACEFILE || status == PSP_ERR_NOFILE) << status;
  EXPECT_EQ(get("a.ini"), kIni);
  EXPECT_EQ(psp_fileCopy(outside.c_str(), kept.c_str()), PSP_FAILED);
  EXPECT_EQ(get("kept").size(), old.size());
  EXPECT_EQ(psp_fileRename(outside.c_str(), path("moved").c_str()), PSP_FAILED);
  EXPECT_EQ(psp_fileMove(outside.c_str(), path("moved").c_str()), PSP_FAILED);
  EXPECT_EQ(std::filesystem::file_size(outside), big.size());
  EXPECT_EQ(psp_fputs(string(1000, 's').c_str(), stream), 1000);
  EXPECT_EQ(psp_fflush(stream), 0);
  EXPECT_EQ(psp_fputs(string(1000, 't').c_str(), stream), -1) << "the block is full";
  EXPECT_EQ(get("stream"), "");
  for (int messages = 0; messages < 8; ++messages) psp_log("%s\n", string(900, 'l').c_str());
  EXPECT_EQ(get("log").find("the first message\r\n"), 24u);

  psp_fileClose(filler);
  EXPECT_EQ(psp_fileRemove(path("filler").c_str()), PSP_OKAY);
  psp_log("the last message\n");
  psp_fclose(stream);
  EXPECT_EQ(get("stream"), string(1000, 's') + string(24, 't'));
  EXPECT_NE(get("log").find("the last message\r\n"), string::npos);
  EXPECT_EQ(psp_iniSet(ini.c_str(), "s", "n", "1"), PSP_OKAY);
  EXPECT_EQ(psp_fileSeekWrite(file, 8192, big.data(), 4096), 4096);
  EXPECT_EQ(psp_fileMove(outside.c_str(), path("moved").c_str()), PSP_OKAY);
  EXPECT_EQ(get("moved"), big);
  psp_fileClose(file);
  for (const auto &entry : std::filesystem::directory_iterator(folder_)) {
    const string name = entry.path().filename();
    EXPECT_NE(string("a.ini kept stream log moved").find(name), string::npos) << name << " is left";
  }
}

// The library leaves the signal alone: what it does is for the program to say.
TEST_F(Process, LimitOfFileSizeEndsProgramOrFailsWrites) {
  start();
  const string name = put("file", string(6000, 'o')), big = put("big", string(10000, 'b'));
  const auto grow = [&] {
    const rlimit limit = {8192, 8192};
    setrlimit(RLIMIT_CORE, std::array<rlimit, 1>{}.data());
    setrlimit(RLIMIT_FSIZE, &limit);
    PSP_FH file = psp_fileOpen(name.c_str(), PSP_OPEN_READWRITE, 0);
    const string more(4000, 'm');
    if (psp_fileSeekWrite(file, 6000, more.data(), 4000) != 2192) return 1;
    if (psp_fileSeekWrite(file, 8192, more.data(), 1) != -1 || psp_errno() != EFBIG) return 2;
    if (psp_fileSetSize(file, 10000) != -1 || psp_fileLength(file) != 8192) return 3;
    if (psp_fileCopy(big.c_str(), path("copy").c_str()) != PSP_FAILED) return 4;
    return psp_fileMove(big.c_str(), path("moved").c_str()) == PSP_OKAY ? 0 : 5;  // a rename
  };
  const int ended = status_of_child(grow);
  EXPECT_TRUE(WIFSIGNALED(ended) && WTERMSIG(ended) == SIGXFSZ) << ended;
  EXPECT_EQ(get("file"), string(6000, 'o') + string(2192, 'm'));
  EXPECT_EQ(truncate(name.c_str(), 6000), 0);
  signal(SIGXFSZ, SIG_IGN);
  EXPECT_EQ(status_of_child(grow), 0);
  EXPECT_EQ(get("file"), string(6000, 'o') + string(2192, 'm'));
}

// ---- Closed standard descriptors ----------------------------------------------------------------

TEST_F(Process, StartedWithoutStandardDescriptorsNothingTakesTheirPlace) {
  const auto closed = [] {
    return fcntl(0, F_GETFD) == -1 && fcntl(1, F_GETFD) == -1 && fcntl(2, F_GETFD) == -1;
  };
  const string ini = put("a.ini", kIni);
  const int status = status_of_child([&] {
    for (const int descriptor : {0, 1, 2}) close(descriptor);
    if (psp_init() != PSP_OKAY || psp_log_open(path("log").c_str()) != PSP_OKAY) return 1;
    PSP_FH file = psp_fileOpen(path("file").c_str(), kCreate, PSP_FILE_DENY_WRITE);
    psp_stream *stream = psp_fopen(path("stream").c_str(), "w", 2);
    psp_pathIter *iterator = psp_pathOpen(folder_.c_str(), "*");
    if (!closed() || file == nullptr || stream == nullptr || iterator == nullptr) return 2;
    if (psp_printf("lost\n") > 5 || psp_printfErr("lost\n") > 5) return 3;
    psp_flush();
    psp_flushErr();
    psp_errPrint("lost");
    psp_log("kept\n");
    if (psp_iniSet(ini.c_str(), "s", "n", "1") != PSP_OKAY) return 4;
    if (psp_fileWrite(file, "kept", 4) != 4 || !closed()) return 5;
    psp_stream *input = psp_fopen_std("stdin");
    if (psp_fgetc(input) != -1) return 6;
    psp_fclose(input);
    psp_fileClose(file);
    psp_fclose(stream);
    psp_pathClose(iterator);
    psp_term();
    return closed() ? 0 : 7;
  });
  EXPECT_TRUE(WIFEXITED(status)) << status;
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(get("file"), "kept");
  EXPECT_EQ(get("stream"), "\xFF\xFE");
  EXPECT_EQ(get("log").substr(24, 6), "kept\r\n");
}

}  // namespace
