// Faults under the functions that no other fault test calls, a row for each, and proof that the
// rest comes to nothing that can fail. What a failure leaves is judged by the tests of their
// families' other forms; here nothing may crash, leak or stay locked, and all must work afterwards.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <map>
#include <thread>

#include "support/faults.h"

namespace {

using namespace psp::faults;

constexpr uint16_t kMemory = PSP_FILE_MEMORY;
constexpr unsigned kBoth = kAllocations | kCalls;
constexpr unsigned kNames = kBoth | kJumps;  // wide names are made in the default tag

constexpr unsigned kInStore = kAllocations | 64;
constexpr uint32_t kBigBytes = 100'000;  // more pages than an open file has room for
constexpr const char *kBig = "\\m\\big", *kOther = "\\m\\other";
const std::string long_text = "\\m\\" + std::string(300, 'n');
const char *const long_name = long_text.c_str(), *const long_folder = long_name + 2;
const std::u16string wide_long(long_text.begin(), long_text.end());
std::string big(kBigBytes + 1, 'b');
const std::string content(2500, 's');
int32_t number32;
void *block;
char buffer[6000];
psp_wchar wide_buffer[100];
PSP_FH file;
psp_stream *stream;
psp_inputBuff *in;
psp_outputBuff *out;

const char *at(const char *name) { return scratch_path(name); }

const psp_wchar *wide(const char *name) {
  static std::map<std::string, std::u16string> names;
  const std::string path = at(name);
  return names[name].assign(path.begin(), path.end()).c_str();
}

int32_t with_list(int32_t (*call)(const char *, va_list), const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int32_t result = call(format, arguments);
  va_end(arguments);
  return result;
}

const char *text() { return std::memset(buffer, 't', 3000), buffer[3000] = '\0', buffer; }
bool opens(const char *name, const char *mode, uint16_t where) {
  return (stream = psp_fopenEx(name, mode, 1, where)) != nullptr;
}

bool pushed(psp_status status, void (*use)()) {
  if (status == 0) use();
  return status == 0;
}

bool repeats(uint32_t times, bool (*step)()) {
  while (times > 0 && step()) --times;
  return times == 0;
}

#define ROW(sweeps, ...)               \
  {                                    \
    sweeps, [] { return __VA_ARGS__; } \
  }

struct Row {
  unsigned sweeps;
  bool (*works)();
};

const Row kRows[] = {
    ROW(kNames, psp_fileCopyW(wide("f"), wide("n")) == 0),
    ROW(kNames, psp_fileCopyExW(wide("f"), 0, wide("n"), 0) == 0),
    ROW(kCalls, psp_fileCopyEx(at("f"), 0, at("n"), 0) == 0),
    ROW(kNames, psp_fileCmpW(wide("f"), wide("g")) == 0),
    ROW(kNames, psp_fileCmpExW(wide("f"), 0, wide("g"), 0) == 0),
    ROW(kNames, psp_fileCmpEx(at("f"), 0, at("g"), 0) == 0),
    ROW(kNames, psp_fileRemoveW(wide("f")) == 0),
    ROW(kNames, psp_fileRemoveExW(wide("f"), 0) == 0),
    ROW(kCalls, psp_fileRemoveEx(at("f"), 0) == 0),
    ROW(kNames, psp_fileRenameW(wide("f"), wide("n")) == 0),
    ROW(kNames, psp_fileRenameExW(wide("f"), 0, wide("n"), 0) == 0),
    ROW(kCalls, psp_fileRenameEx(at("f"), 0, at("n"), 0) == 0),
    ROW(kNames, psp_fileValidateW(wide("f")) == 1),
    ROW(kNames, psp_fileValidateExW(wide("f"), 0, nullptr) == 1),
    ROW(kCalls, psp_fileValidateEx(at("f"), 0, nullptr) == 1),
    ROW(kNames, psp_fileMoveW(wide("f"), wide("n")) == 0),
    ROW(kNames, psp_fileMoveExW(wide("f"), 0, wide("n"), 0) == 0),
    ROW(kCalls, psp_fileMoveEx(at("f"), 0, at("n"), 0) == 0),
    ROW(kNames, psp_dirMoveW(wide("d"), wide("n")) == 0),
    ROW(kNames, psp_dirMoveExW(wide("d"), 0, wide("n"), 0) == 0),
    ROW(kCalls, psp_dirMoveEx(at("d"), 0, at("n"), 0) == 0),
    ROW(kNames, psp_dirCreateW(wide("n")) == 0),
    ROW(kNames, psp_dirCreateAllW(wide("n/m")) == 0),
    ROW(kNames, psp_dirRemoveW(wide("e")) == 0),
    ROW(kCalls, block = psp_fullpath("a"), psp_freeMem(block, nullptr), block != nullptr),
    ROW(kBoth, opens(at("f"), "r", 0)),
    ROW(kCalls, opens(at("f"), "r", 0) && repeats(2500, [] { return psp_fgetc(stream) == 's'; })),
    ROW(kCalls, opens(at("f"), "r", 0) && psp_fgets(buffer, 2501, stream) != nullptr &&
                    strlen(buffer) == 2500),
    ROW(kCalls, opens(at("f"), "r", 0) && psp_fseek(stream, 2000, PSP_SEEK_START) == 0 &&
                    psp_fgetc(stream) == 's'),
    ROW(kCalls, opens(at("n"), "w", 0) && psp_fputs(text(), stream) == 3000),
    ROW(kBoth, opens(at("n"), "w", 0) &&
                   with_list([](auto format,
                                auto arguments) { return psp_vfprintf(stream, format, arguments); },
                             "%s", text()) == 3000),
    ROW(kCalls, opens(at("n"), "w", 0) && psp_fprintf(stream, "%s", text()) == 3000),
    ROW(kBoth, with_list([](auto format, auto arguments) { return psp_printfV(format, arguments); },
                         "%s", text()) == 3000),
    ROW(kBoth,
        with_list([](auto format, auto arguments) { return psp_printfErrV(format, arguments); },
                  "%s", text()) == 3000),
    ROW(kBoth, with_list([](auto format, auto arguments) { return psp_logV(format, arguments); },
                         "%s\n", text()) == 3001),
    ROW(kCalls,
        psp_fclose(opens(at("n"), "w", 0) && psp_fputs("t", stream) == 1 ? stream : nullptr),
        stream = nullptr, true),
    ROW(kCalls, psp_fileClose(psp_fileOpen(at("f"), PSP_OPEN_READ, 0)), true),
    ROW(kBoth,
        pushed(psp_stdout_open(at("n")), [] { psp_printf("t"), psp_flush(), psp_stdout_close(); })),
    ROW(kBoth, pushed(psp_stderr_open(at("n")),
                      [] { psp_printfErr("t"), psp_flushErr(), psp_stderr_close(); })),
    ROW(kBoth,
        pushed(psp_log_open(at("n")), [] { psp_log_err("t"), psp_log_flush(), psp_log_close(); })),
    ROW(kCalls, pushed(psp_log_open(at("n")),
                       [] {
                         psp_logChunk *chunk = psp_log_chunk_init();
                         psp_log_chunk(chunk, "t"), psp_log_chunk_end(chunk, "\n");
                         psp_log_close();
                       })),
    ROW(kCalls, psp_threadSetPriority(psp_threadId(), 0) == 0),
    ROW(kInStore, psp_fileLengthStat(long_name, kMemory) == 1),
    ROW(kInStore, psp_fileModTimeStat(long_name, kMemory) > 0),
    ROW(kInStore, psp_fileValidateEx(long_name, kMemory, nullptr) == 1),
    ROW(kInStore, psp_fileRenameEx(long_name, kMemory, kOther, kMemory) == 0),
    ROW(kInStore, psp_fileMoveEx(long_name, kMemory, kOther, kMemory) == 0),
    ROW(kInStore, psp_dirMoveEx("\\m", kMemory, long_folder, kMemory) == 0),
    ROW(kInStore, psp_fileRead(file = psp_fileOpen(kBig, PSP_OPEN_READ, kMemory), big.data(),
                               kBigBytes) == kBigBytes),
    ROW(kInStore, psp_fileSeekRead(file = psp_fileOpen(kBig, PSP_OPEN_READ, kMemory), kBigBytes - 9,
                                   buffer, 9) == 9),
    ROW(kInStore,
        psp_fileSetSize(file = psp_fileOpen(kOther, PSP_OPEN_READWRITE | PSP_OPEN_CREATE, kMemory),
                        kBigBytes) == 0),
    ROW(kInStore,
        opens(kBig, "r", kMemory) && repeats(kBigBytes, [] { return psp_fgetc(stream) == 'b'; })),
    ROW(kInStore, opens(kBig, "r", kMemory) &&
                      psp_fgets(big.data(), kBigBytes + 1, stream) != nullptr &&
                      strlen(big.data()) == kBigBytes),
    ROW(kInStore, opens(kOther, "w", kMemory) && psp_fputs(text(), stream) == 3000),
    ROW(kInStore,
        opens(kOther, "w", kMemory) && repeats(3000, [] { return psp_fputc('t', stream) == 1; })),
    ROW(kInStore,
        opens(kOther, "w", kMemory) && psp_fputs("t", stream) == 1 && psp_fflush(stream) == 0),
    ROW(kInStore,
        psp_fclose(opens(kOther, "w", kMemory) && psp_fputs("t", stream) == 1 ? stream : nullptr),
        stream = nullptr, true),
    ROW(kInStore, psp_fileRemoveExW(wide_long.c_str(), kMemory) == 0),
    ROW(kBoth,
        psp_readIniFileEx(at("i"), 0) == 0 && psp_iniGetEx(at("i"), "s", "k", buffer, 9, 0) == 0),
    ROW(kNames, psp_readIniFileW(wide("i")) == 0),
    ROW(kNames, psp_readIniFileExW(wide("i"), 0) == 0),
    ROW(kNames, psp_iniGet(at("i"), "s", "k", buffer, 9) == 0),
    ROW(kNames, psp_iniGetEx(at("i"), "s", "k", buffer, 9, 0) == 0),
    ROW(kNames, psp_iniGetExW(wide("i"), u"s", u"k", wide_buffer, 9, 0) == 0),
    ROW(kNames, psp_iniString(at("i"), "s", "k", buffer, 9) == 0),
    ROW(kNames, psp_iniStringEx(at("i"), "s", "k", buffer, 9, 0) == 0),
    ROW(kNames, psp_iniStringW(wide("i"), u"s", u"k", wide_buffer, 9) == 0),
    ROW(kNames, psp_iniStringExW(wide("i"), u"s", u"k", wide_buffer, 9, 0) == 0),
    ROW(kNames, psp_iniInt32(at("i"), "s", "k", &number32) == 0),
    ROW(kNames, psp_iniInt32Ex(at("i"), "s", "k", &number32, 0) == 0),
    ROW(kNames, psp_iniInt32ExW(wide("i"), u"s", u"k", &number32, 0) == 0),
    ROW(kNames, psp_iniSet(at("i"), "s", "k", "2") == 0),
    ROW(kCalls, psp_iniSetEx(at("i"), "s", "k", "2", 0) == 0),
    ROW(kNames, psp_iniSetExW(wide("i"), u"s", u"k", u"2", 0) == 0)};

void make_files() {
  for (const char *name : {"d", "e", "n", "f"}) std::filesystem::remove_all(at(name));
  for (const char *name : {"d", "e"}) std::filesystem::create_directory(at(name));
  for (const char *name : {"f", "g", "d/f"}) put_file(at(name), content);
  put_file(at("i"), "[s]\r\nk=1\r\n");
}

void make_store() {
  psp_fileRemoveEx(kOther, kMemory);
  psp_dirMoveEx(long_folder, kMemory, "\\m", kMemory);
  for (const auto &[name, bytes] : {std::pair{long_name, 1u}, std::pair{kBig, kBigBytes}}) {
    file = psp_fileOpen(name, PSP_OPEN_READWRITE | PSP_OPEN_CREATE, kMemory);
    std::fill(big.begin(), big.end(), 'b');
    EXPECT_EQ(psp_fileWrite(file, big.data(), bytes), bytes);
    psp_fileClose(file);
    file = nullptr;
  }
}

FAULT_TEST(EachFunctionFaults, FunctionFailsOrWorksAndWorksAfterwards) {
  for (const Row &row : kRows) {
    SCOPED_TRACE(testing::Message() << "row " << &row - kRows);
    Scenario scenario{.sweeps = row.sweeps, .act = row.works};
    scenario.keeps_any_blocks = (row.sweeps & kInStore) == kInStore;
    scenario.prepare = scenario.keeps_any_blocks ? make_store : make_files;
    scenario.clean = [&] {
      psp_fclose(stream);
      stream = nullptr;
      psp_fileClose(file);
      file = nullptr;
      psp_iniCleanup();
      scenario.prepare();
    };
    sweep(scenario);
    if (testing::Test::HasFailure()) return;
  }
  Scenario scenario{.sweeps = kAllocations | kJumps, .kept_blocks = 1};
  scenario.prepare = [] {
    psp_iniTerm();
    leave_sync_slots(0);
  };
  scenario.act = [] { return psp_iniInit() == PSP_OKAY; };
  scenario.clean = psp_iniTerm;
  sweep(scenario);
  // The rate of the counter is asked for until it is known.
  for (const uint32_t times : {1u, kFromThereOn}) {
    arm({.kind = Kind::kCall, .times = times, .error = EIO, .only = Os::counter_frequency});
    EXPECT_EQ(psp_timeNanoSecs(), 0u);
    EXPECT_EQ(disarm().faults, 1u);
  }
  EXPECT_NE(psp_timeNanoSecs(), 0u);
}

// ---- What cannot fail ---------------------------------------------------------------------------

struct Needless {
  const char *calls;
  void (*call)();
};

#define CALLS(...)                    \
  {                                   \
#__VA_ARGS__, [] { __VA_ARGS__; } \
  }

psp_tag *tag, *other_tag;
psp_pool *pool;
psp_sync lock, gate;
psp_rand *generator;
psp_queue *queue;
psp_pathIter *names;
void *chunk;
int16_t number16;
int64_t number64;
float single;
double twice;

// In an order in which what the one needs is not ended by another before.
const Needless kNeedless[] = {
    CALLS(psp_version(nullptr, nullptr, nullptr), psp_isPurifyRunning(), psp_errno(),
          psp_errPrint(""), psp_memCmp("a", "b", 1), psp_resetTag(nullptr, tag),
          psp_moveMemTag(block, other_tag, tag), psp_freeMem(block, other_tag),
          psp_putInPool(chunk, pool), psp_zFreePool(&pool), psp_freeTagMemory(tag, 1)),
    CALLS(psp_syncExitExcl(lock), psp_syncStart(gate), psp_syncResume(gate), psp_syncDelete(gate),
          psp_enterCritSec(), psp_exitCritSec()),
    CALLS(psp_snprintf(buffer, 100, "%f %s", 1e300, "s"),
          with_list([](auto text, auto list) { return psp_vsnprintf(buffer, 100, text, list); },
                    "%.30e", 1e-300),
          psp_randResetSeed(generator, 1), psp_randGet(generator), psp_randGetUInt32(generator),
          psp_randGetUInt64(generator), psp_randGetDouble(generator), psp_randDestroy(generator)),
    CALLS(psp_wchar_to_utf8(buffer, u"w", 9, 0), psp_wchar_to_utf8_len(buffer, 9, u"w", 1, 0),
          psp_utf8_to_wchar(wide_buffer, "n", 9, 0),
          psp_utf8_to_wchar_len(wide_buffer, 9, "n", 1, 0), psp_strcasestr("text", "X"),
          psp_strncpyZ(buffer, "text", 3), psp_wcsncpyZ(wide_buffer, u"text", 3), psp_round(0.5)),
    CALLS(psp_alignType('d'), psp_align(5, 2), psp_swaporder16(1), psp_swaporder32(1),
          psp_swaporder64(1), psp_swaporderf32(1), psp_swaporderf64(1)),
    CALLS(psp_pathIsFullyQualified("a"), psp_pathStripDrive("a:b"), psp_pathIsDir("a"),
          psp_pathIsLink("a"), psp_pathClose(names), psp_fungetc('c', stream),
          psp_fseek(stream, 0, PSP_SEEK_START)),
    CALLS(psp_inputBuffGetChar(in, buffer), psp_inputBuffGetInt16(in, &number16),
          psp_inputBuffGetInt32(in, &number32), psp_inputBuffGetInt32Timeout(in, &number32, 1),
          psp_inputBuffGetInt64(in, &number64), psp_inputBuffGetFloat32(in, &single),
          psp_inputBuffGetFloat64(in, &twice), psp_inputBuffGetStringWithLength(in, buffer, 9),
          psp_inputBuffGetBytes(in, buffer, 9), psp_inputBuffReset(in), psp_inputBuffDestroy(in)),
    CALLS(psp_outputBuffPutChar(out, 'c'), psp_outputBuffPutInt16(out, 1),
          psp_outputBuffPutInt32(out, 1), psp_outputBuffPutInt64(out, 1),
          psp_outputBuffPutFloat32(out, 1), psp_outputBuffPutFloat64(out, 1),
          psp_outputBuffPutString(out, "s"), psp_outputBuffPutBytes(out, "b", 1),
          psp_outputBuffSendDirect(out, "b", 1), psp_outputBuffFlush(out),
          psp_outputBuffDestroy(out)),
    CALLS(psp_iniCleanup(), psp_iniTerm(), psp_threadJoin(0), psp_threadId()),
    CALLS(number32 = psp_queueInit(0), psp_queueFind("q"), psp_queueCount(queue),
          psp_queuePurge(queue, PSP_QUEUE_ALL_TYPES), psp_queueClose(queue), psp_queueDelete(queue),
          psp_queueTerm(1)),
    CALLS(psp_sleep(0), psp_get_pid(), psp_daemonStart(1, 2), psp_daemonComplete(1),
          psp_serviceStarted(), psp_serviceDone(), psp_seed(), psp_timeSecs(), psp_timeMilliSecs(),
          psp_getenv("HOME"), psp_setlocale(0, nullptr), psp_rdonly(), psp_nodisk())};

// In a process of its own: modes cannot be taken back.
void call_needless() {
  EXPECT_EQ(psp_init(), PSP_OKAY);
  make_files();
  tag = psp_createTag(0);
  other_tag = psp_createTag(0);
  pool = psp_allocPool(tag, 0, 1);
  block = psp_alloc(9, tag);
  chunk = psp_getMemFromPool(9, pool, PSP_MEM_ALLOC, nullptr, "", 0);
  psp_syncEnterExcl(lock = psp_syncCreate(PSP_SYNC_EXCL));
  gate = psp_syncCreate(PSP_SYNC_EVENT);
  generator = psp_randCreate(1);
  EXPECT_EQ(psp_queueInit(0), PSP_OKAY);
  queue = psp_queueCreate("q");
  names = psp_pathOpen(at("d"), "*");
  EXPECT_TRUE(opens(at("f"), "r", 0));
  const auto read = [](void *, void *data, uint32_t capacity, uint32_t *filled) -> int32_t {
    std::memset(data, 0, *filled = capacity);
    return PSP_OKAY;
  };
  const auto read_timed = [](void *, void *data, uint32_t, uint32_t *filled, uint32_t) -> int32_t {
    std::memset(data, 0, *filled = 4);
    return PSP_OKAY;
  };
  const auto write = [](void *, const void *, uint32_t) -> int32_t { return PSP_OKAY; };
  EXPECT_EQ(psp_inputBuffCreate(read, read_timed, nullptr, 0, &in), PSP_OKAY);
  EXPECT_EQ(psp_outputBuffCreate(write, nullptr, 0, &out), PSP_OKAY);
  for (const Needless &each : kNeedless) expect_no_need(each.calls, each.call);
}

FAULT_TEST(EachFunctionFaults, TheOthersComeToNothingThatCanFail) {
  std::fflush(stdout);
  const int status = psp::tests::status_of_child([] {
    call_needless();
    return std::fflush(stdout) != 0 || testing::Test::HasFailure();
  });
  EXPECT_EQ(status, 0);
  for (const Needless &each : kNeedless) note_without_need(each.calls);
  // A thread ends though all fails.
  std::thread([] {
    arm({.kind = Kind::kCall, .times = kFromThereOn});
    psp_threadEnd();
  }).join();
  note_without_need("psp_threadEnd()");
}

}  // namespace
