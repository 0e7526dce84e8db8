// Faults: the C runtime's allocation under the linker's --wrap, the counters, and the sweep.
//
// The armed fault and its counters belong to the thread; the numbers of live blocks and reserved
// regions, and the report of the sweeps, to the process.
#include "support/faults.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <random>
#include <semaphore>
#include <set>
#include <thread>

#include "support/steps.h"

namespace psp::faults {
namespace {

thread_local Fault armed;
thread_local Counters counters;
thread_local bool in_platform;
thread_local bool tracing;  // what can fail is noted in the table

// In a compound fault memory fails too, at this allocation after the first failure; 0: in none.
thread_local uint32_t memory_fails_at;
thread_local uint32_t allocations_behind;
std::atomic<int> live_blocks{0};
std::atomic<int> live_regions{0};
std::atomic<uint32_t> process_calls[kFunctions];

struct Report {
  const char *running = "";  // the test that runs
  uint32_t of_kind[6] = {};  // faults that it met, by kind
  uint32_t runs = 0;         // with compound faults, and those of them where memory failed
  uint32_t compounds = 0;
  bool failed[kFallible] = {};   // functions that failed in any test
  std::set<std::string> places;  // FILE:LINE of the messages that memory is out
};

Report report;
std::mutex report_lock;  // of the counts, where faults are armed in several threads

std::vector<const FaultTest *> &all_tests() {
  static std::vector<const FaultTest *> tests;
  return tests;
}

constexpr uint32_t kSeed = 23;           // of the compound faults
constexpr uint32_t kNotedFaults = 1000;  // of a run: a wait may fail for as long as it takes

// Whether number `seen` of what the armed fault counts is to fail.
bool is_due(uint32_t seen) {
  if (seen < armed.nth || seen - armed.nth >= armed.times) return false;
  if (++counters.faults <= kNotedFaults) note_in_table(armed, armed.kind == Kind::kAllocation);
  return true;
}

void come_nearer_to_kill() {
  if (calls_until_kill != 0 && --calls_until_kill == 0) raise(SIGKILL);
}

bool counts(Os function) { return armed.only == Os::kCount || armed.only == function; }

bool allocation_fails() {
  ++counters.allocations;
  if (tracing) note_in_table({}, true);
  if (armed.kind == Kind::kAllocation) {
    if (!is_due(counters.allocations)) return false;
  } else {
    if (armed.kind == Kind::kNone || counters.faults == 0 || memory_fails_at == 0) return false;
    if (++allocations_behind != memory_fails_at) return false;
    ++report.compounds;
    note_in_table({.kind = Kind::kAllocation}, true);
  }
  errno = ENOMEM;
  return true;
}

// A fresh block, which counts, if there is one.
void *counted(void *block) {
  if (block != nullptr) ++live_blocks;
  return block;
}

}  // namespace

void arm(const Fault &fault) {
  counters = {};
  allocations_behind = 0;
  armed = fault;
}

Counters disarm() {
  const std::lock_guard guard(report_lock);
  report.of_kind[static_cast<int>(armed.kind)] += counters.faults;
  for (int index = 0; index < kFallible; ++index) {
    if (counters.failed_calls[index] != 0) report.failed[index] = true;
  }
  armed = {};
  return counters;
}

void count_call(Os function) {
  ++counters.calls[static_cast<int>(function)];
  ++process_calls[static_cast<int>(function)];
}

uint32_t calls_in_process(Os function) { return process_calls[static_cast<int>(function)]; }

bool fails(Os function, os::Error *error) {
  come_nearer_to_kill();
  // Whichever function gets there first needs the pages, and the hook of its thread.
  const bool is_shared = function == Os::reserve_pages || function == Os::arm_thread_exit_hook;
  if (tracing && !is_shared) note_in_table({}, false);
  if (armed.kind != Kind::kCall || !counts(function)) return false;
  uint32_t seen = 0;
  for (int index = 0; index < kFallible; ++index) {
    if (counts(static_cast<Os>(index))) seen += counters.calls[index];
  }
  if (!is_due(seen)) return false;
  ++counters.failed_calls[static_cast<int>(function)];
  *error = armed.error;
  return true;
}

bool shortens(Os function, uint32_t count) {
  if (armed.kind != Kind::kShortTransfer || !counts(function) || count < 2) return false;
  return is_due(++counters.transfers);
}

void note_pages(int change) { live_regions += change; }

Held held() {
  std::filesystem::directory_iterator descriptors("/proc/self/fd");
  return {live_blocks, live_regions, static_cast<int>(std::distance(begin(descriptors), {}))};
}

InPlatform::InPlatform() : before(in_platform) { in_platform = true; }
InPlatform::~InPlatform() { in_platform = before; }

bool system_call_fails() {
  if (in_platform) come_nearer_to_kill();
  if (!in_platform || armed.kind != Kind::kSystemCall || !is_due(++counters.system_calls)) {
    return false;
  }
  errno = static_cast<int>(armed.error);
  return true;
}

size_t system_count(size_t count) {
  if (!in_platform || armed.kind != Kind::kSystemShort || count < 2) return count;
  return is_due(++counters.system_transfers) ? count / 2 : count;
}

}  // namespace psp::faults

// ---- The C runtime's allocation -----------------------------------------------------------------

extern "C" {
void *__real_malloc(size_t bytes);
void *__real_calloc(size_t count, size_t bytes);
void *__real_realloc(void *block, size_t bytes);
void __real_free(void *block);

void *__wrap_malloc(size_t bytes) {
  using namespace psp::faults;
  return allocation_fails() ? nullptr : counted(__real_malloc(bytes));
}

void *__wrap_calloc(size_t count, size_t bytes) {
  using namespace psp::faults;
  return allocation_fails() ? nullptr : counted(__real_calloc(count, bytes));
}

void *__wrap_realloc(void *block, size_t bytes) {
  using namespace psp::faults;
  if (allocation_fails()) return nullptr;
  return block != nullptr ? __real_realloc(block, bytes) : counted(__real_malloc(bytes));
}

void __wrap_free(void *block) {
  if (block != nullptr) --psp::faults::live_blocks;
  __real_free(block);
}
}

// ---- Sweeps -------------------------------------------------------------------------------------

namespace psp::faults {
namespace {

// Takes what goes to the process's standard output and error, in memory: it is synced often.
class Capture {
 public:
  Capture() {
    std::fflush(stdout);
    dup2(file_, 1);
    dup2(file_, 2);
  }
  std::string end() {
    std::fflush(stdout);
    dup2(output_, 1);
    dup2(error_, 2);
    std::string text(static_cast<size_t>(lseek(file_, 0, SEEK_END)), '\0');
    EXPECT_EQ(pread(file_, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    for (const int descriptor : {file_, output_, error_}) close(descriptor);
    return text;
  }

 private:
  const int file_ = memfd_create("output", MFD_CLOEXEC);
  const int output_ = dup(1);
  const int error_ = dup(2);
};

// Another thread, which lasts for the process, passes through every lock of the library. There is
// no way on from a lock that is still held.
void expect_locks_free() {
  static std::binary_semaphore asked{0}, passed{0};
  [[maybe_unused]] static const bool started = [] {
    std::thread([] {
      for (;; passed.release()) {
        asked.acquire();
        psp_enterCritSec();
        psp_exitCritSec();
        psp_freeMem(psp_alloc(1, nullptr), nullptr);
        psp_freeTagMemory(psp_createTag(PSP_TAG_THREADSAFE), 1);
        psp_fileClose(psp_fileOpen("/nonexistent", PSP_OPEN_READ, 0));
        psp_queueDelete(psp_queueCreate(""));  // nothing where the module is not started
        psp_log_flush();
      }
    }).detach();
    return true;
  }();
  asked.release();
  if (passed.try_acquire_for(std::chrono::seconds(30))) return;
  std::fprintf(stderr, "a lock of the library is still held\n");
  std::abort();
}

// Notes the places that ran out of memory. Whether one of them belongs to a tag that is armed in
// the sweep of jumps: file handles, message queues and the heaps of the store have their own.
bool note_places(const std::string &output) {
  constexpr std::string_view kBefore = "Called from ";
  bool of_armed_tag = false;
  for (size_t at = output.find(kBefore); at != output.npos; at = output.find(kBefore, at)) {
    at += kBefore.size();
    const std::string place = output.substr(at, output.find_first_of("\r\n", at) - at);
    const bool has_own_tag = place.starts_with("pspfile.cpp") ||
                             place.starts_with("pspqueue.cpp") ||
                             place.starts_with("pspshmheap.cpp");
    if (!has_own_tag) of_armed_tag = true;
    report.places.insert(place);
  }
  return of_armed_tag;
}

// The calls under test, with the fault armed, in a frame of its own for setjmp.
[[gnu::noinline]] Run act(const Scenario &scenario, const Fault &fault, bool jumps, Counters *met) {
  static jmp_buf home;
  static Run run;
  psp_tag *tag = scenario.armed_tag != nullptr ? *scenario.armed_tag : nullptr;
  run = {.fault = fault};
  Capture capture;
  const int value = setjmp(home);
  if (value == 0) {
    if (jumps) psp_resetTag(&home, tag);
    Fault armed_now = fault;
    armed_now.jumps = jumps;
    arm(armed_now);
    run.worked = scenario.act();
  }
  run.error = psp_errno();
  // Of two failures either may be the last one.
  if (memory_fails_at != 0 && fault.error != 0 && run.error == ENOMEM) run.error = fault.error;
  *met = disarm();
  run.jumped = value == 1;
  EXPECT_LE(value, 1);
  if (jumps) psp_resetTag(nullptr, tag);
  psp_log_flush();  // what a failed write left behind
  run.output = capture.end();
  return run;
}

// One life of the library with one fault in it, and the same calls without one afterwards. Gives
// the number of faults met; adds a jump to *jumped.
uint32_t run_once(const Scenario &scenario, const Fault &fault, bool jumps, uint32_t *jumped) {
  SCOPED_TRACE(testing::Message() << report.running << ": kind " << static_cast<int>(fault.kind)
                                  << (jumps ? " (jumps)" : "") << ", number " << fault.nth << ", "
                                  << fault.times << " times, code " << fault.error
                                  << ", and memory at " << memory_fails_at);
  const Held before = held();
  if (scenario.started && psp_init() != PSP_OKAY) ADD_FAILURE() << "the library does not start";
  scenario.prepare();
  Held ready = held();

  Counters met;
  const Run run = act(scenario, fault, jumps, &met);
  *jumped += run.jumped ? 1 : 0;
  EXPECT_TRUE(run.worked || met.faults != 0) << run.output;
  EXPECT_EQ(run.jumped, note_places(run.output) && jumps) << run.output;
  scenario.judge(run);
  scenario.clean();
  const Held after = held();
  if (after[0] > ready[0] && !run.jumped) ready[0] += scenario.kept_blocks;
  if (scenario.keeps_any_blocks) ready[0] = after[0];
  ready[1] = after[1];  // regions may grow until the library stops
  EXPECT_EQ(after, ready) << "left behind by the calls";
  if (scenario.started) expect_locks_free();

  if (met.faults != 0) {
    Counters none;
    const Run undisturbed = act(scenario, {}, false, &none);
    EXPECT_TRUE(undisturbed.worked) << "with the fault over: " << undisturbed.output;
    scenario.judge(undisturbed);
    scenario.clean();
  }
  scenario.finish();
  if (scenario.started) psp_term();
  EXPECT_EQ(held(), before) << "left behind by the library";
  return met.faults;
}

void sweep_kind(const Scenario &scenario, Fault fault, bool jumps) {
  uint32_t met = 0;
  uint32_t jumped = 0;
  for (const uint32_t times : {1u, kFromThereOn}) {
    if (fault.error == EINTR && fault.kind == Kind::kSystemCall && times != 1) break;  // tried on
    fault.times = times;
    for (fault.nth = 1;; ++fault.nth) {
      const uint32_t faults = run_once(scenario, fault, jumps, &jumped);
      if (testing::Test::HasFailure()) return;  // the first failing run tells enough
      if (faults == 0) break;
      met += faults;
    }
  }
  EXPECT_NE(met, 0u) << report.running << " met no fault of kind " << static_cast<int>(fault.kind);
  EXPECT_EQ(jumped != 0, jumps) << report.running;
}

// Faults of the platform, and memory that fails while they are handled, as a seed has it.
void sample_compounds(const Scenario &scenario) {
  constexpr int kRuns = 30;
  static std::mt19937 random(kSeed);
  std::vector<Fault> faults;
  if ((scenario.sweeps & kCalls) != 0) {
    for (const os::Error code : scenario.codes) {
      faults.push_back({.kind = Kind::kCall, .error = code});
    }
  }
  if ((scenario.sweeps & kShorts) != 0) faults.push_back({.kind = Kind::kShortTransfer});
  for (int index = 0; index < kRuns && !faults.empty() && !testing::Test::HasFailure(); ++index) {
    Fault fault = faults[random() % faults.size()];
    fault.nth = 1 + random() % 12;
    fault.times = random() % 2 == 0 ? 1 : kFromThereOn;
    memory_fails_at = random() % 4 == 0 ? 2 : 1;  // most handling asks for memory once at most
    uint32_t jumped = 0;
    ++report.runs;
    run_once(scenario, fault, false, &jumped);
    memory_fails_at = 0;
  }
}

}  // namespace

bool memory_fails_too() { return memory_fails_at != 0; }

void sweep(const Scenario &scenario) {
  uint32_t jumped = 0;
  tracing = true;
  run_once(scenario, {}, false, &jumped);
  tracing = false;
  const Fault allocation = {.kind = Kind::kAllocation};
  if ((scenario.sweeps & kAllocations) != 0) sweep_kind(scenario, allocation, false);
  if ((scenario.sweeps & kJumps) != 0) sweep_kind(scenario, allocation, true);
  if ((scenario.sweeps & kShorts) != 0) sweep_kind(scenario, {.kind = Kind::kShortTransfer}, false);
  if ((scenario.sweeps & kCalls) != 0) {
    for (const os::Error code : scenario.codes) {
      sweep_kind(scenario, {.kind = Kind::kCall, .error = code}, false);
    }
  }
  sample_compounds(scenario);
  // The linker wraps the names that the C library's functions have where off_t is wide anyway.
  if ((scenario.sweeps & kSystem) == 0 || sizeof(void *) == 4) return;
  for (const os::Error code : scenario.system_codes) {
    sweep_kind(scenario, {.kind = Kind::kSystemCall, .error = code}, false);
  }
  if ((scenario.sweeps & kShorts) != 0) sweep_kind(scenario, {.kind = Kind::kSystemShort}, false);
}

// ---- Tests --------------------------------------------------------------------------------------

namespace {

// The places below a folder that allocate tagged memory, as their messages name them. What makes a
// sync object or a tag names its place too.
std::set<std::string> allocation_places(const char *sources) {
  std::set<std::string> places;
  for (const auto &entry : std::filesystem::recursive_directory_iterator(sources)) {
    std::ifstream file(entry.path());
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
      if (line.find("Source, __LINE__") == std::string::npos) continue;
      if (line.find("sync_create") != std::string::npos) continue;
      if (line.find("createTag") != std::string::npos) continue;
      places.insert(entry.path().filename().string() + ":" + std::to_string(number));
    }
  }
  return places;
}

}  // namespace

void leave_sync_slots(size_t count) {
  std::vector<psp_sync> objects;
  EXPECT_EQ(psp_stdout_open(""), PSP_OKAY);  // swallows the message
  arm({.kind = Kind::kAllocation, .times = kFromThereOn});
  for (psp_sync object; (object = psp_syncCreate(PSP_SYNC_EVENT)) != PSP_SYNC_NONE;) {
    disarm();
    objects.push_back(object);
    arm({.kind = Kind::kAllocation, .times = kFromThereOn});
  }
  disarm();
  psp_stdout_close();
  for (size_t index = 0; index < count; ++index) psp_syncDelete(objects[index]);
}

const char *scratch_path(const char *name) {
  static const tests::Folder folder(true);
  static std::set<std::string> paths;
  return paths.insert(folder.path(name)).first->c_str();
}

FaultTest::FaultTest(const char *name, void (*body)()) : name(name), body(body) {
  all_tests().push_back(this);
}

void FaultTest::run() const {
  report.running = name;
  std::fill(std::begin(report.of_kind), std::end(report.of_kind), 0);
  body();
}

std::vector<std::string> run_all_and_list_unfailed(const char *sources) {
  std::printf("%12s %8s %8s %8s %8s  failed in\n", "allocations", "calls", "shorts", "system",
              "shorts");
  for (const FaultTest *test : all_tests()) {
    test->run();
    const auto &met = report.of_kind;
    std::printf("%12u %8u %8u %8u %8u  %s\n", met[1], met[2], met[3], met[4], met[5], test->name);
  }
  std::printf("seed %u: %u compound faults, memory failed in %u of them\n", kSeed, report.runs,
              report.compounds);
  std::vector<std::string> unfailed;
#define PSP_LIST(name, ...) \
  if (!report.failed[static_cast<int>(Os::name)]) unfailed.push_back(#name);
  PSP_OS_FALLIBLE(PSP_LIST)
  PSP_OS_TRANSFERS(PSP_LIST)
  for (const std::string &place : allocation_places(sources)) {
    if (report.places.count(place) == 0) unfailed.push_back(place);
  }
  return unfailed;
}

void expect_no_need(const char *calls, void (*call)()) {
  arm({});
  call();
  const Counters met = disarm();
  uint32_t fallible = met.allocations;
  for (int index = 0; index < kFallible; ++index) fallible += met.calls[index];
  EXPECT_EQ(fallible, 0u) << calls << " come to what can fail";
}

}  // namespace psp::faults
