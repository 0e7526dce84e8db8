// Faults for tests: allocation number n fails, or call n of the platform layer fails with a chosen
// code, once or from there on; and the sweep that tries every n.
//
// Linked into the fault tests alone. faulty_os.cpp stands in for the platform layer and forwards to
// it; the linker hands malloc, calloc, realloc and free to faults.cpp (--wrap). Faults are armed
// for the calling thread: other threads go on undisturbed.
#pragma once

#include <array>
#include <cerrno>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "os/os.h"
#include "support/fixtures.h"
#include "support/os_functions.h"

namespace psp::faults {

#define PSP_NAME(name, ...) name,
enum class Os { PSP_OS_FUNCTIONS(PSP_NAME) kCount };
#undef PSP_NAME
inline constexpr int kFunctions = static_cast<int>(Os::kCount);
inline constexpr int kFallible = static_cast<int>(Os::last_error);  // the others cannot fail

// ---- Single faults ------------------------------------------------------------------------------

enum class Kind { kNone, kAllocation, kCall, kShortTransfer, kSystemCall, kSystemShort };

inline constexpr uint32_t kFromThereOn = UINT32_MAX;

struct Fault {
  Kind kind = Kind::kNone;
  uint32_t nth = 1;      // the first one to fail, of its kind
  uint32_t times = 1;    // how many fail
  os::Error error = 0;   // of a failing call
  Os only = Os::kCount;  // the function whose calls count; kCount: any that can fail
  bool jumps = false;    // the tag is armed: counts for the table alone
};

// What this thread met since it armed a fault.
struct Counters {
  uint32_t faults = 0;
  uint32_t allocations = 0;
  uint32_t transfers = 0;  // that could have been short
  uint32_t system_calls = 0;
  uint32_t system_transfers = 0;
  uint32_t calls[kFunctions] = {};
  uint32_t failed_calls[kFallible] = {};
};

void arm(const Fault &fault);
Counters disarm();
uint32_t calls_in_process(Os function);  // by all threads, ever

// What the process holds: live blocks of the C runtime's heap, reserved regions, open descriptors.
using Held = std::array<int, 3>;
Held held();

// The platform's code for a condition, or one that faulty_os.cpp makes up where it has none.
os::Error error_of(os::Condition condition);

// ---- Sweeps -------------------------------------------------------------------------------------

enum Sweeps : unsigned {
  kAllocations = 1,  // each allocation fails and gives null
  kJumps = 2,        // the same in an armed tag: control must come back by the jump
  kCalls = 4,        // each call of the platform fails
  kShorts = 8,       // each file transfer moves half of what it should
  kSystem = 16,      // kCalls, and kShorts if chosen, for what the layer calls of the C library
};

// One run, as its judge sees it.
struct Run {
  bool worked = false;      // what act gave
  bool jumped = false;      // act was left by the jump
  os::Error error = 0;      // the last error behind act
  Fault fault = {};         // kNone: the run after the faults, which must work
  std::string output = {};  // what came out of the process's standard output and error
};

// What a broken or full disk, missing rights, a signal and a missing file bring about.
inline const std::vector<os::Error> kCommonCodes = {EIO, ENOSPC, EACCES, EINTR, ENOENT};
// What calls of the C library fail with in a sweep: for some the layer has another way.
inline const std::vector<os::Error> kSystemCodes = {EINTR, EIO, EACCES, EINVAL, ENOENT, EEXIST};

// The error that a failed act should leave. A call of the platform may tell a failure of the C
// library's in a code of its own.
inline os::Error expected_error(const Run &run) {
  if (run.fault.kind == Kind::kSystemCall && run.error != 0) return run.error;
  return run.fault.error != 0 ? run.fault.error : ENOMEM;
}

struct Scenario {
  unsigned sweeps = kAllocations;
  std::function<void()> prepare = [] {};
  // The calls under test, with faults; true: they worked. The jump may leave it, so it makes
  // nothing that wants a destructor.
  std::function<bool()> act = {};
  std::function<void(const Run &)> judge = [](const Run &) {};
  std::function<void()> clean = [] {};   // gives back what act left
  std::function<void()> finish = [] {};  // undoes prepare
  std::vector<os::Error> codes = {5};    // with which calls fail
  std::vector<os::Error> system_codes = kSystemCodes;
  psp_tag **armed_tag = nullptr;  // for kJumps; null: the default tag
  int kept_blocks = 0;            // that act may leave until the library stops
  bool keeps_any_blocks = false;  // as many as it likes
  bool started = true;            // the library is started around the run
};

// Whether memory fails behind the fault too, in a compound of both.
bool memory_fails_too();

// Runs the scenario with fault 1, 2, 3 ... until a run meets none, each as one failure and as one
// from there on. After each run nothing may be held or leaked, and act must work without faults.
void sweep(const Scenario &scenario);

// ---- Tests --------------------------------------------------------------------------------------

// A path in a folder that goes with the process.
const char *scratch_path(const char *name);
using tests::get_file;
using tests::put_file;

// Uses up the slots for sync objects but so many: the next object after those needs memory.
void leave_sync_slots(size_t count);

// A fault test is a GoogleTest test and stands in the list of the test that runs them all.
struct FaultTest {
  FaultTest(const char *name, void (*body)());
  void run() const;

  const char *name;
  void (*body)();
};

#define FAULT_TEST(suite, name)                                                                \
  static void suite##_##name();                                                                \
  static const psp::faults::FaultTest suite##_##name##_test(#suite "." #name, suite##_##name); \
  TEST(suite, name) { suite##_##name##_test.run(); }                                           \
  static void suite##_##name()

// Runs every fault test and prints what each met. Gives what can fail and never did: functions of
// the platform, and places in the sources (a folder) where tagged memory is allocated.
std::vector<std::string> run_all_and_list_unfailed(const char *sources);

// ---- The table of exported functions ------------------------------------------------------------

// Counts a fault that fires for the exported function that the test has called, or (kNone) only
// that this function came to where memory (else the platform) can fail.
void note_in_table(const Fault &fault, bool memory);
extern bool table_is_kept;  // false: a program with faults in many threads does without

// Calls functions that come to neither; notes those of a text as such.
void expect_no_need(const char *calls, void (*call)());
void note_without_need(const char *calls);

// Prints the table, also to the file that the environment names in PSP_FAULT_TABLE, and gives what
// is missing in it: functions of the header that never failed where they can fail, or where their
// comments say so, and those that stand nowhere.
std::vector<std::string> print_table_and_list_missing(const char *header);

// ---- What faulty_os.cpp asks at each call -------------------------------------------------------

void count_call(Os function);
bool fails(Os function, os::Error *error);   // the call fails, with this error
bool shortens(Os function, uint32_t count);  // the transfer moves half
void note_pages(int change);                 // reserved (1) or released (-1)

// Marks the time that the thread spends in the platform layer.
struct InPlatform {
  InPlatform();
  ~InPlatform();
  const bool before;
};

// ---- What system_calls.cpp asks at each call ----------------------------------------------------

bool system_call_fails();           // it fails, with errno set
size_t system_count(size_t count);  // bytes that a transfer may move

}  // namespace psp::faults
