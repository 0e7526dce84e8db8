// File handles: what they may do to each other, in one process and between processes, and what
// becomes of bytes, positions, modes and failures.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <functional>
#include <random>
#include <thread>
#include <vector>

#include "psp.h"
#include "support/fixtures.h"

namespace {

constexpr uint32_t kUpdate = PSP_OPEN_READWRITE;
constexpr uint16_t kDenyAll = PSP_FILE_DENY_READ | PSP_FILE_DENY_WRITE;

struct Handle {
  Handle(const std::string &name, uint32_t flags, uint16_t mode = 0)
      : file(psp_fileOpen(name.c_str(), flags, mode)) {}
  Handle(Handle &&other) noexcept : file(std::exchange(other.file, nullptr)) {}
  ~Handle() { psp_fileClose(file); }
  operator PSP_FH() const { return file; }
  PSP_FH file;
};

bool opens(const std::string &name, uint32_t flags, uint16_t mode = 0) {
  return Handle(name, flags, mode) != nullptr;
}

class Files : public psp::tests::StartedInFolder {
 protected:
  void SetUp() override {
    StartedInFolder::SetUp();
    ASSERT_EQ(psp_stdout_open(path("messages").c_str()), PSP_OKAY);
  }
};

// A child that runs work and then stays until it is killed; what came of the work is known when the
// constructor returns.
class Child {
 public:
  explicit Child(const std::function<bool()> &work) {
    int done[2];
    EXPECT_EQ(pipe(done), 0);
    pid_ = fork();
    if (pid_ == 0) {
      const char result = work() && !testing::Test::HasFailure() ? 1 : 0;
      _exit(write(done[1], &result, 1) == 1 && pause());
    }
    close(done[1]);
    char result = 0;
    worked = read(done[0], &result, 1) == 1 && result == 1;
    close(done[0]);
  }
  ~Child() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  bool worked = false;

 private:
  pid_t pid_ = 0;
};

std::vector<int> open_descriptors() {
  std::vector<int> descriptors;
  for (int descriptor = 0; descriptor < 200; ++descriptor) {
    if (fcntl(descriptor, F_GETFD) != -1) descriptors.push_back(descriptor);
  }
  return descriptors;
}

// ---- Sharing ------------------------------------------------------------------------------------

struct Opening {
  uint32_t access;
  uint16_t denial;
  bool denies(const Opening &other) const {
    return ((denial & PSP_FILE_DENY_READ) != 0 && other.access != PSP_OPEN_WRITE) ||
           ((denial & PSP_FILE_DENY_WRITE) != 0 && other.access != PSP_OPEN_READ);
  }
  bool excludes(const Opening &other) const { return denies(other) || other.denies(*this); }
};

std::vector<Opening> all_openings() {
  std::vector<Opening> all;
  for (const uint32_t access : {PSP_OPEN_READ, PSP_OPEN_WRITE, PSP_OPEN_READWRITE}) {
    for (uint16_t denial = 0; denial <= kDenyAll; ++denial) all.push_back({access, denial});
  }
  return all;
}

void expect_second_openings(const std::string &name, const Opening &first) {
  for (const Opening &second : all_openings()) {
    EXPECT_EQ(opens(name, second.access, second.denial), !first.excludes(second))
        << first.access << '/' << first.denial << ' ' << second.access << '/' << second.denial;
  }
}

TEST_F(Files, SecondOpeningIsAllowedExactlyWhereNeitherDeniesTheOther) {
  const std::string name = put("shared", "content");
  for (const Opening &first : all_openings()) {
    {
      const Handle file(name, first.access, first.denial);
      ASSERT_NE(file, nullptr);
      expect_second_openings(name, first);
    }
    EXPECT_TRUE(opens(name, kUpdate, kDenyAll)) << "a denial outlives its handle";
    {
      const Child child(
          [&] { return psp_fileOpen(name.c_str(), first.access, first.denial) != nullptr; });
      ASSERT_TRUE(child.worked);
      expect_second_openings(name, first);
    }
    EXPECT_TRUE(opens(name, kUpdate, kDenyAll)) << "a denial outlives its killed process";
  }
}

TEST_F(Files, OtherDescriptorsForkedChildrenAndRefusedOpeningsChangeNothing) {
  const std::string name = put("shared", "content");
  const Handle file(name, kUpdate, PSP_FILE_DENY_WRITE);
  ASSERT_EQ(psp_fileLock(file), PSP_OKAY);
  close(open(name.c_str(), O_RDWR));
  {
    const Child child([&] { return close(open(name.c_str(), O_RDWR)) == 0; });
  }
  for (const uint32_t access : {PSP_OPEN_READ, PSP_OPEN_WRITE, PSP_OPEN_READWRITE}) {
    EXPECT_FALSE(opens(name, access | PSP_OPEN_TRUNCATE, PSP_FILE_DENY_WRITE));
  }
  EXPECT_EQ(psp_fileLock(Handle(name, PSP_OPEN_READ)), PSP_FAILED);
  EXPECT_EQ(get("shared"), "content");
  // Only regular files are denied to others.
  const Handle device("/dev/null", kUpdate, kDenyAll);
  EXPECT_TRUE(opens("/dev/null", kUpdate, kDenyAll));
}

// ---- The first byte -----------------------------------------------------------------------------

bool is_kept_from_first_byte(PSP_FH file) {
  char byte = 0;
  EXPECT_EQ(psp_fileLock(file), PSP_FAILED);
  EXPECT_EQ(psp_fileUnlock(file), PSP_FAILED);
  EXPECT_EQ(psp_fileSeek(file, 0, PSP_SEEK_START), PSP_OKAY);
  EXPECT_EQ(psp_fileRead(file, &byte, 1), -1);
  EXPECT_EQ(psp_fileWrite(file, "-", 1), -1);
  EXPECT_EQ(psp_fileSeekWrite(file, 0, "-", 1), -1);
  return psp_fileSeekRead(file, 1, &byte, 1) == 1;
}

TEST_F(Files, FirstByteBelongsToTheHandleThatLockedIt) {
  const std::string name = put("locked", "abcdef");
  const Handle updater(name, kUpdate), other(name, kUpdate), reader(name, PSP_OPEN_READ);
  char byte = 0;
  for (PSP_FH owner : {updater.file, reader.file}) {
    ASSERT_EQ(psp_fileLock(owner), PSP_OKAY);
    EXPECT_EQ(psp_fileLock(owner), PSP_FAILED);
    EXPECT_EQ(psp_fileSeekRead(owner, 0, &byte, 1), 1);
    EXPECT_TRUE(is_kept_from_first_byte(other));
    EXPECT_TRUE(is_kept_from_first_byte(Handle(name, PSP_OPEN_READ)));
    EXPECT_TRUE(Child([&] { return is_kept_from_first_byte(Handle(name, kUpdate)); }).worked);
    EXPECT_EQ(psp_fileUnlock(owner), PSP_OKAY);
    EXPECT_EQ(psp_fileUnlock(owner), PSP_FAILED);
    EXPECT_EQ(psp_fileSeekWrite(other, 0, owner == updater ? "A" : "B", 1), 1);
  }
  EXPECT_EQ(get("locked"), "Bbcdef");
  EXPECT_EQ(psp_fileLock(Handle(name, kUpdate)), PSP_OKAY);
  EXPECT_EQ(psp_fileLock(other), PSP_OKAY) << "the lock outlives its handle";
}

TEST_F(Files, PositionalReadOutlastsTheLockOfItsByte) {
  const std::string name = put("locked", "abcdef");
  const Handle holder(name, kUpdate);
  ASSERT_EQ(psp_fileLock(holder), PSP_OKAY);
  std::atomic<int> started{0}, result{0};
  std::thread reader([&] {
    const Handle file(name, PSP_OPEN_READ);
    char bytes[4];
    started = 1;
    started.notify_one();
    result = psp_fileSeekRead(file, 0, bytes, sizeof(bytes));
  });
  started.wait(0);
  for (int turn = 0; turn < 100; ++turn) std::this_thread::yield();
  EXPECT_EQ(result, 0);
  EXPECT_EQ(psp_fileUnlock(holder), PSP_OKAY);
  reader.join();
  EXPECT_EQ(result, 4);
}

// ---- Opening ------------------------------------------------------------------------------------

TEST_F(Files, FlagsDecideWhatBecomesOfTheFileAndWhatTheHandleMayDo) {
  for (const uint32_t access : {PSP_OPEN_READ, PSP_OPEN_WRITE, PSP_OPEN_READWRITE}) {
    for (const uint32_t creation : {0u, PSP_OPEN_CREATE, PSP_OPEN_TRUNCATE}) {
      for (uint16_t denial = 0; denial <= kDenyAll; ++denial) {
        std::filesystem::remove(path("missing"));
        const std::string name = put("existing", "content");
        EXPECT_EQ(opens(path("missing"), access | creation, denial), creation != 0);
        EXPECT_EQ(std::filesystem::exists(path("missing")), creation != 0);
        const Handle file(name, access | creation | PSP_OPEN_APPEND, denial);
        EXPECT_EQ(get("existing"), creation == PSP_OPEN_TRUNCATE ? "" : "content");
        char byte = 0;
        EXPECT_EQ(psp_fileRead(file, &byte, 1),
                  access == PSP_OPEN_WRITE ? -1 : (creation == PSP_OPEN_TRUNCATE ? 0 : 1));
        EXPECT_EQ(psp_fileSeekWrite(file, 1, "X", 1), access == PSP_OPEN_READ ? -1 : 1);
      }
    }
  }
}

TEST_F(Files, DescriptorsAreNeitherStandardChannelsNorInheritedNorLeftByFailures) {
  const std::string name = put("shared", "content");
  const std::vector<int> before = open_descriptors();
  const Handle device("/dev/null", kUpdate);
  close(STDIN_FILENO);
  const Handle file(name, kUpdate, kDenyAll);
  const std::vector<int> after = open_descriptors();
  EXPECT_EQ(after.size(), before.size() + 1);
  for (const int descriptor : after) {
    if (std::count(before.begin(), before.end(), descriptor) != 0) continue;
    EXPECT_GT(descriptor, STDERR_FILENO);
    EXPECT_EQ(fcntl(descriptor, F_GETFD), FD_CLOEXEC);
  }
  const struct {
    std::string name;
    uint32_t flags;
    uint32_t error;
  } cases[] = {{path("missing"), PSP_OPEN_READ, ENOENT},
               {folder_, PSP_OPEN_READ, EISDIR},
               {folder_, kUpdate | PSP_OPEN_CREATE, EISDIR},
               {folder_ + std::string(PATH_MAX, '/') + "\\shared", PSP_OPEN_READ, ENAMETOOLONG},
               {path("missing/f"), PSP_OPEN_WRITE | PSP_OPEN_CREATE, ENOENT},
               {name, PSP_OPEN_READ, EBUSY}};
  for (const auto &[bad_name, flags, error] : cases) {
    errno = 0;
    EXPECT_FALSE(opens(bad_name, flags)) << bad_name;
    EXPECT_EQ(psp_errno(), error) << bad_name;
  }
  EXPECT_EQ(psp_fileOpen(nullptr, PSP_OPEN_READ, 0), nullptr);
  EXPECT_EQ(open_descriptors(), after);
}

// ---- Bytes, positions and lengths ---------------------------------------------------------------

TEST_F(Files, PositionsAndLengthsGoBeyondFourGigabytes) {
  constexpr int64_t kFar = (int64_t{5} << 30) + 3;
  const std::string name = path("sparse");
  const Handle file(name, kUpdate | PSP_OPEN_CREATE);
  ASSERT_EQ(psp_fileSeekWrite(file, kFar, "far", 3), 3);
  EXPECT_EQ(psp_fileLength(file), kFar + 3);
  EXPECT_EQ(psp_fileLengthStat(name.c_str(), 0), kFar + 3);
  char bytes[8] = {};
  EXPECT_EQ(psp_fileSeek(file, -2, PSP_SEEK_END), PSP_OKAY);
  EXPECT_EQ(psp_fileRead(file, bytes, 8), 2);
  EXPECT_EQ(psp_fileSeek(file, -3, PSP_SEEK_CURRENT), PSP_OKAY);
  EXPECT_EQ(psp_fileRead(file, bytes, 8), 3);
  EXPECT_EQ(std::string(bytes, 3), "far");
  EXPECT_EQ(psp_fileSeekRead(file, kFar + 3, bytes, 8), 0);
  EXPECT_EQ(psp_fileSeek(file, -kFar - 4, PSP_SEEK_CURRENT), PSP_FAILED);
  EXPECT_EQ(psp_fileSeek(file, INT64_MAX, PSP_SEEK_END), PSP_FAILED);
  EXPECT_EQ(psp_fileRead(file, bytes, 8), 0) << "a failed seek has moved the position";
  EXPECT_EQ(psp_fileSetSize(file, kFar + 1), 0);
  EXPECT_EQ(psp_fileLengthStat(name.c_str(), 0), kFar + 1);
}

TEST_F(Files, SizeIsSetWithZerosAndThePositionFollows) {
  const std::string name = put("sized", "abc");
  {
    const Handle file(name, kUpdate);
    EXPECT_EQ(psp_fileSetSize(file, 25'003), 0);
    EXPECT_EQ(psp_fileWrite(file, "end", 3), 3);
    EXPECT_EQ(get("sized"), "abc" + std::string(25'000, '\0') + "end");
    EXPECT_EQ(psp_fileSetSize(file, 2), 0);
    EXPECT_EQ(psp_fileWrite(file, "C", 1), 1);
    EXPECT_EQ(psp_fileSeek(file, 1, PSP_SEEK_START), PSP_OKAY);
    EXPECT_EQ(psp_fileSetSize(file, 3), 0);
    EXPECT_EQ(psp_fileWrite(file, "B", 1), 1);
    EXPECT_EQ(psp_fileSetSize(file, -1), -1);
  }
  EXPECT_EQ(psp_fileSetSize(Handle(name, PSP_OPEN_READ), 100), -1);
  EXPECT_EQ(psp_fileSetSize(Handle(name, PSP_OPEN_READ), 1), 0) << "told by the last error alone";
  EXPECT_EQ(psp_errno(), uint32_t{EBADF});
  EXPECT_EQ(psp_fileSetSize(Handle("/dev/full", kUpdate), 100), -1);
  EXPECT_EQ(get("sized"), "aBC");
}

TEST_F(Files, NothingToTransferIsNoFailureAndMissingArgumentsAre) {
  char byte = 'x';
  const Handle file(put("file", "a"), kUpdate);
  EXPECT_EQ(psp_fileRead(file, nullptr, 0), 0);
  EXPECT_EQ(psp_fileWrite(file, nullptr, 0), 0);
  EXPECT_EQ(psp_fileSeekRead(file, -1, nullptr, 0), 0);
  EXPECT_EQ(psp_fileSeekWrite(file, -1, nullptr, 0), 0);
  EXPECT_EQ(psp_fileSeek(file, 10, PSP_SEEK_START), PSP_OKAY);
  for (PSP_FH handle : {file.file, static_cast<PSP_FH>(nullptr)}) {
    void *buffer = handle == nullptr ? &byte : nullptr;
    EXPECT_EQ(psp_fileRead(handle, buffer, 1), -1);
    EXPECT_EQ(psp_fileWrite(handle, buffer, 1), -1);
    EXPECT_EQ(psp_fileSeekRead(handle, 10, buffer, 1), -1);
    EXPECT_EQ(psp_fileSeekWrite(handle, 10, buffer, 1), -1);
  }
  EXPECT_EQ(psp_fileWrite(file, &byte, 0x80000000u), -1);
  EXPECT_EQ(psp_fileSeekWrite(file, 0, &byte, 0x80000000u), -1);
  EXPECT_EQ(psp_fileLength(file), 1);
  psp_fileClose(nullptr);
  EXPECT_EQ(psp_fileSeek(nullptr, 0, PSP_SEEK_START), PSP_FAILED);
  EXPECT_EQ(psp_fileLength(nullptr), 0);
  EXPECT_EQ(psp_fileSetSize(nullptr, 0), -1);
  EXPECT_EQ(psp_fileLock(nullptr), PSP_FAILED);
  EXPECT_EQ(psp_fileUnlock(nullptr), PSP_FAILED);
  EXPECT_EQ(psp_fileSync(nullptr), PSP_OKAY);
  const std::string missing = path("missing");
  for (const char *name : {missing.c_str(), static_cast<const char *>(nullptr)}) {
    EXPECT_EQ(psp_fileLengthStat(name, 0), -1);
    EXPECT_EQ(psp_fileModTimeStat(name, 0), -1);
  }
}

// The messages of the others are told by the fault tests.
TEST_F(Files, UnknownOriginIsTheBeginningAndAFailedWriteIsToldAsAnError) {
  const Handle writer(put("file", "abc"), PSP_OPEN_WRITE), reader(path("file"), PSP_OPEN_READ);
  testing::internal::CaptureStderr();
  EXPECT_EQ(psp_fileWrite(reader, "x", 1), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Write failed, errno = " + std::to_string(EBADF) + "\n");
  EXPECT_EQ(psp_fileSeek(writer, 1, 7), PSP_OKAY);
  EXPECT_EQ(psp_fileWrite(writer, "B", 1), 1);
  EXPECT_EQ(get("file"), "aBc");
  EXPECT_EQ(get("messages"), "Invalid seek method, seeking from beginning\r\n");
}

// ---- Pipes and standard channels ----------------------------------------------------------------

TEST_F(Files, PipesMoveInSequenceAndTransfersWaitUntilTheyMove) {
  const std::string name = path("pipe");
  ASSERT_EQ(mkfifo(name.c_str(), 0600), 0);
  char byte = 0;
  const Handle both(name, kUpdate), reader(name, PSP_OPEN_READ), writer(name, PSP_OPEN_WRITE);
  EXPECT_EQ(psp_fileWrite(writer, "ab", 2), 2);
  EXPECT_EQ(psp_fileRead(reader, &byte, 1), 1);
  EXPECT_EQ(psp_fileRead(writer, &byte, 1), -1);
  EXPECT_EQ(psp_fileWrite(reader, &byte, 1), -1);
  EXPECT_EQ(psp_fileSeek(reader, 0, PSP_SEEK_CURRENT), PSP_FAILED);
  EXPECT_EQ(psp_fileLength(reader), 0);
  EXPECT_EQ(psp_errno(), uint32_t{ESPIPE});
  // Whoever shares a pipe may have told it not to wait.
  constexpr int kPieces = 50, kPiece = 4096;  // more than a pipe holds
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_NONBLOCK | O_CLOEXEC), 0);
  const int output = dup(STDOUT_FILENO);
  dup2(ends[0], STDIN_FILENO);
  std::thread taker([&] {
    const Handle input("stdin", PSP_OPEN_READ);
    std::vector<char> piece(kPieces * kPiece);
    int32_t got = psp_fileRead(input, piece.data(), 1);
    psp_sleep(20);  // the pipe fills
    while (got < kPieces * kPiece) got += psp_fileRead(input, piece.data(), kPiece);
  });
  psp_sleep(20);  // the pipe is read while it is empty
  dup2(ends[1], STDOUT_FILENO);
  {
    const Handle channel("stdout", PSP_OPEN_WRITE);
    const std::string piece(kPieces * kPiece, 'p');
    EXPECT_EQ(psp_fileWrite(channel, piece.data(), kPieces * kPiece), kPieces * kPiece);
  }
  taker.join();
  dup2(output, STDOUT_FILENO);
  for (const int descriptor : {ends[0], ends[1], output}) close(descriptor);
}

TEST_F(Files, RedirectedChannelHasTheFilesPositionAndLength) {
  const int file = open(put("in", "abcdef").c_str(), O_RDONLY);
  dup2(file, STDIN_FILENO);
  close(file);
  const Handle input("stdin", PSP_OPEN_READ);
  char byte = 0;
  const struct {
    int64_t offset;
    int32_t whence;
    char next;
  } kSeeks[] = {{2, PSP_SEEK_START, 'c'}, {1, PSP_SEEK_CURRENT, 'e'}, {-1, PSP_SEEK_END, 'f'}};
  for (const auto &[offset, whence, next] : kSeeks) {
    EXPECT_EQ(psp_fileSeek(input, offset, whence), PSP_OKAY);
    EXPECT_EQ(psp_fileRead(input, &byte, 1), 1);
    EXPECT_EQ(byte, next);
  }
  EXPECT_EQ(psp_fileSeek(input, -7, PSP_SEEK_END), PSP_FAILED);
  EXPECT_EQ(psp_fileLength(input), 6);
}

// ---- Modes ----------------------------------------------------------------

TEST_F(Files, ReadOnlyModeWritesNothing) {
  const std::string name = put("file", "content");
  const Handle file(name, kUpdate);
  psp_rdonly();
  for (const uint32_t flags : {PSP_OPEN_WRITE, PSP_OPEN_READWRITE, PSP_OPEN_READ | PSP_OPEN_CREATE,
                               PSP_OPEN_READ | PSP_OPEN_TRUNCATE}) {
    EXPECT_FALSE(opens(name, flags)) << flags;
  }
  EXPECT_TRUE(opens(name, PSP_OPEN_READ));
  char byte = 0;
  EXPECT_EQ(psp_fileWrite(file, "X", 1), 0);
  EXPECT_EQ(psp_fileSeekWrite(file, 0, "X", 1), 0);
  EXPECT_EQ(psp_fileSetSize(file, 0), -1);
  EXPECT_EQ(psp_fileSync(file), PSP_OKAY);
  EXPECT_EQ(psp_fileRead(file, &byte, 1), 1);
  EXPECT_EQ(psp_fileLock(file), PSP_OKAY);
  EXPECT_EQ(psp_fileWrite(Handle("stdout", PSP_OPEN_WRITE), "X", 1), 0);
  EXPECT_EQ(get("file"), "content");
}

TEST_F(Files, NoDiskModeRefusesOpeningsAndLeavesHandles) {
  const std::string name = put("file", "content");
  EXPECT_LT(std::abs(psp_fileModTimeStat(name.c_str(), 0) - psp_timeSecs()), 100);
  const Handle file(name, kUpdate);
  psp_nodisk();
  EXPECT_FALSE(opens(name, PSP_OPEN_READ));
  EXPECT_TRUE(opens("stderr", PSP_OPEN_WRITE));
  EXPECT_EQ(psp_fileSeekWrite(file, 7, "!", 1), 1);
  EXPECT_EQ(psp_fileSetSize(file, 9), 0);
  EXPECT_EQ(psp_fileSync(file), PSP_OKAY);
  EXPECT_EQ(psp_fileLengthStat(name.c_str(), 0), 9);
  EXPECT_EQ(psp_fileModTimeStat(name.c_str(), 0), -1);
}

}  // namespace
