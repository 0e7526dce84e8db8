// Last error, address space, waiting on a word, and the start and end of threads, for POSIX systems
// with futexes.
//
// Owns one thread-specific key, whose destructor is the thread-exit hook. It takes no lock: a hook
// is installed and removed while no other thread arms one (the library's first start and last
// stop).
//
// Waiting, waking and giving back keep errno, because they run between a failure and the caller's
// look at its code.
#include "os/posix/posix.h"
// posix.h comes before every system header.
#include <linux/futex.h>
#include <linux/membarrier.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <new>

#include "core/checked.h"

namespace psp::os {
namespace {

constexpr long kNanosecondsPerMillisecond = 1'000'000;
constexpr long kNanosecondsPerSecond = 1'000'000'000;
constexpr uint32_t kMillisecondsPerSecond = 1000;

// The futex call that reads a timespec as this process lays it out: a 32-bit process with 64-bit
// time needs the newer one.
#if defined(SYS_futex_time64)
constexpr long kFutexCall = sizeof(time_t) > sizeof(long) ? SYS_futex_time64 : SYS_futex;
#else
constexpr long kFutexCall = SYS_futex;
#endif

static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t), "the kernel reads the word");
static_assert(std::atomic<uint32_t>::is_always_lock_free, "the kernel compares the word");

long futex(const std::atomic<uint32_t> &word, int operation, uint32_t value,
           const timespec *limit) {
  return syscall(kFutexCall, &word, operation | FUTEX_PRIVATE_FLAG, value, limit, nullptr, 0);
}

timespec time_span(uint32_t milliseconds) {
  timespec span = {};
  span.tv_sec = static_cast<time_t>(milliseconds / kMillisecondsPerSecond);
  span.tv_nsec =
      static_cast<long>(milliseconds % kMillisecondsPerSecond) * kNanosecondsPerMillisecond;
  return span;
}

struct ExitHook {
  std::atomic<void (*)()> hook{nullptr};
  pthread_key_t key = 0;  // lives while hook is not null
};

constinit ExitHook exit_hook;

void run_exit_hook(void *) {
  void (*hook)() = exit_hook.hook.load(std::memory_order_acquire);
  if (hook != nullptr) hook();
}

}  // namespace

// ---- Last error ---------------------------------------------------------------------------------

Error last_error() { return static_cast<Error>(errno); }

void set_last_error(Error error) { errno = static_cast<int>(error); }

// ---- Pages --------------------------------------------------------------------------------------

void *reserve_pages(size_t bytes) {
  void *pages = mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (pages == MAP_FAILED) return nullptr;
#if defined(MADV_NOHUGEPAGE)
  // A huge page would take 2 MiB for the first byte touched. A kernel without them refuses the
  // advice, which is as good.
  LastErrorKeeper keeper;
  madvise(pages, bytes, MADV_NOHUGEPAGE);
#endif
  return pages;
}

void release_pages(void *pages, size_t bytes) {
  LastErrorKeeper keeper;
  munmap(pages, bytes);
}

// ---- Threads and waiting ------------------------------------------------------------------------

WaitResult wait_on_address(const std::atomic<uint32_t> &word, uint32_t expected,
                           uint32_t milliseconds) {
  LastErrorKeeper keeper;
  const timespec limit = time_span(milliseconds);
  if (futex(word, FUTEX_WAIT, expected, milliseconds == kNoTimeLimit ? nullptr : &limit) == 0) {
    return WaitResult::kWoken;
  }
  switch (errno) {
    case EAGAIN:  // the word had changed before the sleep
    case EINTR:
      return WaitResult::kWoken;
    case ETIMEDOUT:
      return WaitResult::kTimedOut;
    default:
      return WaitResult::kFailed;
  }
}

// The word may be gone already when the wake-up is sent (its new holder has ended it). The kernel
// then finds nobody, or refuses the address; neither matters.
void wake_one(const std::atomic<uint32_t> &word) {
  LastErrorKeeper keeper;
  futex(word, FUTEX_WAKE, 1, nullptr);
}

void wake_all(const std::atomic<uint32_t> &word) {
  LastErrorKeeper keeper;
  futex(word, FUTEX_WAKE, INT_MAX, nullptr);
}

Error install_thread_exit_hook(void (*hook)()) {
  if (exit_hook.hook.load(std::memory_order_relaxed) == nullptr) {
    const int error = pthread_key_create(&exit_hook.key, run_exit_hook);
    if (error != 0) {
      errno = error;
      return static_cast<Error>(error);
    }
  }
  exit_hook.hook.store(hook, std::memory_order_release);
  return 0;
}

void remove_thread_exit_hook() {
  if (exit_hook.hook.exchange(nullptr, std::memory_order_acq_rel) == nullptr) return;
  pthread_key_delete(exit_hook.key);
}

// The hook runs among the destructors of the thread's other keys, in no order that is told. One of
// them that arms the hook after it ran makes it run again, in the next of the platform's rounds
// (PTHREAD_DESTRUCTOR_ITERATIONS, at least 4); what is armed in the last round is not run.
bool arm_thread_exit_hook() {
  if (exit_hook.hook.load(std::memory_order_acquire) == nullptr) return false;
  return pthread_setspecific(exit_hook.key, &exit_hook) == 0;
}

// A forked child inherits the registration with the address space.
bool enable_barrier_in_all_threads() {
  LastErrorKeeper keeper;
  return syscall(SYS_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0, 0) == 0;
}

void barrier_in_all_threads() {
  LastErrorKeeper keeper;
  syscall(SYS_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0, 0);
}

void yield_thread() { sched_yield(); }

// Sleeps until a point of time, so that interruptions do not add up.
void sleep_milliseconds(uint32_t milliseconds) {
  timespec end = {};
  clock_gettime(CLOCK_MONOTONIC, &end);
  const timespec span = time_span(milliseconds);
  const long nanoseconds = end.tv_nsec + span.tv_nsec;
  end.tv_sec += span.tv_sec + nanoseconds / kNanosecondsPerSecond;
  end.tv_nsec = nanoseconds % kNanosecondsPerSecond;
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
  }
}

// ---- Start, end and priority of threads ---------------------------------------------------------

namespace {

// Enough for what thread-local storage and the C runtime may take of any stack.
constexpr size_t kAmpleStackBytes = size_t{1} << 20;
// Enough for the functions of the library.
constexpr size_t kLeastStackBytes = size_t{64} << 10;

// The kernel schedules threads of the ordinary class by their nice values, which Linux keeps for
// each thread: a step of ten gives or takes nine tenths of a processor that two threads contend
// for, as two steps of another system's priorities do, and starves nobody. The real-time classes
// would: a thread of theirs that does not sleep stops all others. Going down wants no right, going
// up, be it back to normal, wants one. Normal is what the process was started with, or its first
// thread has now.
constexpr int kNiceStep = 10;
constexpr int kLeastNice = -20;
constexpr int kGreatestNice = 19;

Error nice_value(ThreadPriority priority, int *value) {
  // Not by the C library's function, whose -1 may be an answer: the kernel counts down from 20.
  const long told = syscall(SYS_getpriority, PRIO_PROCESS, getpid());
  if (told == -1) return last_error();
  *value = 20 - static_cast<int>(told);
  if (priority == ThreadPriority::kLowest) *value = std::min(*value + kNiceStep, kGreatestNice);
  if (priority == ThreadPriority::kHighest) *value = std::max(*value - kNiceStep, kLeastNice);
  return 0;
}

struct Start {
  void (*function)(void *);
  void *argument;
};

void *run_start(void *place) {
  const Start start = *static_cast<Start *>(place);
  std::free(place);
  start.function(start.argument);
  return nullptr;
}

// Stands on the stack of the creator, who waits for the identifier and then goes on.
struct WatchedStart {
  Start start;
  std::atomic<uint32_t> id{0};
};

void *run_watched_start(void *place) {
  auto *watched = static_cast<WatchedStart *>(place);
  const Start start = watched->start;
  const std::atomic<uint32_t> &id = watched->id;
  watched->id.store(thread_id(), std::memory_order_release);
  wake_one(id);  // the word may be gone, see there
  start.function(start.argument);
  return nullptr;
}

// A stack may be too small for the storage that the thread gets there before it runs; nobody tells
// how much that is, but the refusal is a code of its own.
int create_detached(size_t stack_bytes, void *(*run)(void *), void *place) {
  pthread_attr_t attributes;
  int error = pthread_attr_init(&attributes);
  if (error != 0) return error;
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  size_t size = stack_bytes;
  if (size != 0) size = std::max({size, kLeastStackBytes, static_cast<size_t>(PTHREAD_STACK_MIN)});
  pthread_t thread;
  for (;;) {
    if (size != 0) error = pthread_attr_setstacksize(&attributes, size);
    if (error == 0) error = pthread_create(&thread, &attributes, run, place);
    if (error != EINVAL || size == 0 || size >= kAmpleStackBytes) break;
    size *= 2;
  }
  pthread_attr_destroy(&attributes);
  return error;
}

Error start_unwatched(const Start &start, size_t stack_bytes) {
  void *place = std::malloc(sizeof(Start));
  if (place == nullptr) return ENOMEM;
  const int error = create_detached(stack_bytes, run_start, new (place) Start(start));
  if (error != 0) std::free(place);
  return static_cast<Error>(error);
}

Error start_watched(const Start &start, size_t stack_bytes, uintptr_t *handle) {
  WatchedStart watched{start};
  const int error = create_detached(stack_bytes, run_watched_start, &watched);
  if (error != 0) return static_cast<Error>(error);
  uint32_t id = 0;
  while ((id = watched.id.load(std::memory_order_acquire)) == 0) {
    wait_on_address(watched.id, 0, kNoTimeLimit);
  }
  *handle = id;
  return 0;
}

}  // namespace

// The handle is the kernel's identifier of the thread. A thread whose handle nobody wants starts
// without anybody waiting for it.
Error thread_start(void (*function)(void *), void *argument, size_t stack_bytes,
                   uintptr_t *handle) {
  const int before = errno;
  const Start start{function, argument};
  const Error error = handle != nullptr ? start_watched(start, stack_bytes, handle)
                                        : start_unwatched(start, stack_bytes);
  set_last_error(error != 0 ? error : static_cast<Error>(before));
  return error;
}

Error thread_start_awaited(void (*function)(void *), void *argument, uintptr_t *thread) {
  void *place = std::malloc(sizeof(Start));
  if (place == nullptr) return fail(ENOMEM);
  pthread_t identity = {};
  const int error =
      pthread_create(&identity, nullptr, run_start, new (place) Start{function, argument});
  if (error != 0) {
    std::free(place);
    return fail(static_cast<Error>(error));
  }
  *thread = std::bit_cast<uintptr_t>(identity);
  return 0;
}

void thread_wait_end(uintptr_t thread) { pthread_join(std::bit_cast<pthread_t>(thread), nullptr); }

void thread_end() { pthread_exit(nullptr); }

// To setpriority, 0 is the calling thread, and the identifier of an ended thread may by now be that
// of another process's: neither is meant.
Error thread_set_priority(uintptr_t handle, ThreadPriority priority) {
  if (handle == 0 || !fits<pid_t>(handle)) return fail(ESRCH);
  const auto id = static_cast<pid_t>(handle);
  if (syscall(SYS_tgkill, getpid(), id, 0) == -1) return last_error();
  int value = 0;
  const Error error = nice_value(priority, &value);
  if (error != 0) return fail(error);
  const int result = setpriority(PRIO_PROCESS, static_cast<id_t>(id), value);
  return result == -1 ? last_error() : 0;
}

uint32_t thread_id() { return static_cast<uint32_t>(syscall(SYS_gettid)); }

}  // namespace psp::os
