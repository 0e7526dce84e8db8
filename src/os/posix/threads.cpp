// Last error, address space, waiting on a word and the end of threads, for POSIX systems with
// futexes.
//
// Owns one thread-specific key, whose destructor is the thread-exit hook. It takes no lock: a hook
// is installed and removed while no other thread arms one (the library's first start and last
// stop).
//
// Waiting, waking and giving back keep errno, because they run between a failure and the caller's
// look at its code.

#include <errno.h>
#include <linux/futex.h>
#include <linux/membarrier.h>
#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <climits>

#include "os/os.h"

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
  end.tv_sec += span.tv_sec;
  end.tv_nsec += span.tv_nsec;
  if (end.tv_nsec >= kNanosecondsPerSecond) {
    end.tv_nsec -= kNanosecondsPerSecond;
    ++end.tv_sec;
  }
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
  }
}

}  // namespace psp::os
