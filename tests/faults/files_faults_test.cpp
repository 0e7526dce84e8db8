// Faults under file handles.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>

#include "support/faults.h"

namespace {

using namespace psp::faults;
using psp::os::Condition;

constexpr size_t kLength = 30'000;
constexpr uint32_t kReadWrite = PSP_OPEN_READWRITE | PSP_OPEN_CREATE;

const std::string kOldData(kLength, 'x');

PSP_FH file;
char buffer[1000];

const char *path() {
  static const char *const kPath = scratch_path("file");
  return kPath;
}

void close_file() {
  psp_fileClose(file);
  file = nullptr;
}

FAULT_TEST(FileFaults, FailedOpenLeavesTheFileAlone) {
  static psp_wchar wide[200];
  psp_utf8_to_wchar(wide, path(), 200, PSP_UTF8_STRICT);
  const std::function<PSP_FH()> opens[] = {
      [] { return psp_fileOpen(path(), kReadWrite, PSP_FILE_DENY_WRITE); },
      [] { return psp_fileOpen(path(), kReadWrite | PSP_OPEN_TRUNCATE, 0); },
      [] { return psp_fileOpen("stdin", PSP_OPEN_READ, 0); },
      [] { return psp_fileOpenW(wide, PSP_OPEN_READ, 0); },
  };
  for (const auto &open : opens) {
    Scenario scenario{.sweeps = kAllocations | kCalls | kSystem,
                      .codes = {EIO, EACCES, EMFILE, ENOSPC}};
    if (&open == &opens[3]) scenario.sweeps |= kJumps;  // the name is made in the default tag
    scenario.prepare = [] { put_file(path(), kOldData); };
    scenario.act = [&open] { return (file = open()) != nullptr; };
    scenario.judge = [](const Run &run) {
      EXPECT_TRUE(run.worked || get_file(path()) == kOldData);
      EXPECT_TRUE(run.worked || run.error == expected_error(run));
    };
    scenario.clean = close_file;
    sweep(scenario);
  }
}

struct Operation {
  int64_t (*call)();
  int64_t good;
  int64_t bad;
  const char *message;  // of a failure, before the code
};

const Operation kRead = {[]() -> int64_t { return psp_fileRead(file, buffer, 1000); }, 1000, -1,
                         "Read failed, errno = "};
const Operation kWrite = {[]() -> int64_t { return psp_fileWrite(file, buffer, 1000); }, 1000, -1,
                          "Write failed, errno = "};
const Operation kReadAt = {[]() -> int64_t { return psp_fileSeekRead(file, 5, buffer, 1000); },
                           1000, -1, "Failed to seek and read, errno = "};
const Operation kWriteAt = {[]() -> int64_t { return psp_fileSeekWrite(file, 5, buffer, 1000); },
                            1000, -1, "Failed to seek and write, errno = "};
const Operation kGrow = {[]() -> int64_t { return psp_fileSetSize(file, 60'000); }, 0, -1, ""};
const Operation kOthers[] = {
    {[]() -> int64_t { return psp_fileSeek(file, 7, PSP_SEEK_START); }, PSP_OKAY, PSP_FAILED, ""},
    {[]() -> int64_t { return psp_fileSetSize(file, 25'000); }, 0, -1, ""},
    {[]() -> int64_t { return psp_fileLength(file); }, kLength, 0, ""},
    {[]() -> int64_t { return psp_fileLengthStat(path(), 0); }, kLength, -1, ""},
    {[]() -> int64_t { return psp_fileModTimeStat(path(), 0) > 0 ? 0 : -1; }, 0, -1, ""},
    {[]() -> int64_t { return psp_fileLock(file); }, PSP_OKAY, PSP_FAILED, ""},
    {[]() -> int64_t { return psp_fileLock(file) == PSP_OKAY ? psp_fileUnlock(file) : PSP_FAILED; },
     PSP_OKAY, PSP_FAILED, ""},
    {[]() -> int64_t { return psp_fileSync(file); }, PSP_OKAY, PSP_OKAY, ""},
};

void sweep_operation(const Operation &operation, unsigned sweeps) {
  static int64_t result;
  Scenario scenario{.sweeps = sweeps, .codes = {EIO, ENOSPC, EACCES}};
  scenario.prepare = [] {
    put_file(path(), kOldData);
    file = psp_fileOpen(path(), kReadWrite, 0);
  };
  scenario.act = [&] { return (result = operation.call()) == operation.good; };
  scenario.judge = [&](const Run &run) {
    const bool partly =
        run.fault.kind == Kind::kShortTransfer || run.fault.kind == Kind::kSystemShort;
    EXPECT_TRUE(run.worked || result == operation.bad || (partly && result > 0)) << result;
    const bool told = *operation.message != '\0' && result == operation.bad;
    const std::string message = operation.message + std::to_string(expected_error(run));
    EXPECT_EQ(run.output.find(message) != std::string::npos, told) << run.output;
    EXPECT_TRUE(told || run.output.empty()) << run.output;
    EXPECT_TRUE(run.worked || partly || run.error == expected_error(run)) << run.error;
    // Beyond the reach of the transfers the old data stands, and behind them nothing but zeros.
    const std::string content = get_file(path());
    EXPECT_GE(content.size(), 25'000u);
    const size_t end = content.find_first_not_of('x', 2000);
    EXPECT_EQ(std::min(end, content.size()), std::min(kLength, content.size()));
    EXPECT_EQ(content.find_first_not_of('\0', std::min(end, content.size())), std::string::npos);
  };
  scenario.clean = [] {
    psp_fileUnlock(file);
    psp_fileSeek(file, 0, PSP_SEEK_START);
    put_file(path(), kOldData);
  };
  scenario.finish = close_file;
  sweep(scenario);
}

FAULT_TEST(FileFaults, OperationGivesItsFailureAndTheHandleStaysUsable) {
  for (const Operation *operation : {&kRead, &kWrite, &kReadAt, &kWriteAt, &kGrow}) {
    sweep_operation(*operation, kCalls | kShorts | kSystem);
  }
  for (const Operation &operation : kOthers) sweep_operation(operation, kCalls | kSystem);
}

FAULT_TEST(FileFaults, ConditionsOfPositionalTransfers) {
  ASSERT_EQ(psp_init(), PSP_OKAY);
  EXPECT_EQ(psp_stdout_open(""), PSP_OKAY);  // swallows the messages
  put_file(path(), kOldData);
  file = psp_fileOpen(path(), kReadWrite, 0);
  uint32_t met = 0;
  const auto under = [&met](Condition condition, uint32_t times, const Operation &operation,
                            uint32_t nth = 1) {
    arm({.kind = Kind::kCall,
         .nth = nth,
         .times = times,
         .error = error_of(condition),
         .only = &operation == &kReadAt ? Os::file_read_at : Os::file_write_at});
    const int64_t result = operation.call();
    met = disarm().faults;
    return result;
  };
  for (const Condition repeated : {Condition::kTransient, Condition::kLockViolation}) {
    EXPECT_EQ(under(repeated, 3, kReadAt), 1000);
    EXPECT_EQ(met, 3u);
    EXPECT_EQ(under(repeated, 1, kWriteAt), -1);
  }
  EXPECT_EQ(under(Condition::kEndOfFile, 1, kReadAt), 0);

  std::fill(std::begin(buffer), std::end(buffer), 'n');
  EXPECT_EQ(under(Condition::kTooLargeForSystem, 4, kWriteAt), 1000);
  EXPECT_EQ(met, 4u);
  EXPECT_EQ(get_file(path()).substr(0, 1010), "xxxxx" + std::string(1000, 'n') + "xxxxx");
  EXPECT_EQ(under(Condition::kTooLargeForSystem, kFromThereOn, kWriteAt), -1);
  EXPECT_EQ(under(Condition::kShortOfMemory, 1, kWriteAt), 1000);
  arm({.kind = Kind::kCall, .times = 2, .error = error_of(Condition::kTooLargeForSystem)});
  EXPECT_EQ(psp_fileSeekWrite(file, 5, buffer, 2), -1) << "a single byte has no halves";
  EXPECT_EQ(disarm().faults, 2u);
  close_file();
  psp_term();
}

}  // namespace
