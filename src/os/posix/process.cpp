// Clocks, local time, process identity, environment, locale and interrupts, for POSIX systems.
//
// Owns the seconds last told, and the state of the interrupt handler and of a service's stop
// control, which are two users of the same signals: what stood before them, and the threads that
// call them ("watcher" is the handler's). The caller runs installs and removals of each one at a
// time; a mutex guards what the two share. Signal handlers only count into an atomic word and wake
// the thread that sleeps on it: no descriptor is used, so none can run short, and a forked child
// shares nothing with its parent through which its signals could be taken for the parent's.
#include "os/posix/posix.h"
// posix.h comes before every system header.
#include <errno.h>
#include <langinfo.h>
#include <pthread.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <bit>
#include <clocale>
#include <cstdlib>
#include <new>

#include "core/checked.h"

namespace psp::os {

// ---- Time ---------------------------------------------------------------------------------------

namespace {

constexpr int64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr long kNanosecondsPerMillisecond = 1'000'000;

// The seconds that calendar_seconds told last.
constinit std::atomic<int64_t> told_seconds{0};

bool fits_time(int64_t seconds) {
  if (fits<time_t>(seconds)) return true;
  errno = EOVERFLOW;
  return false;
}

}  // namespace

// Seconds come from here with and without their milliseconds: time() reads a coarser clock, which
// lags behind this one.
int64_t calendar_seconds(uint32_t *milliseconds) {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  if (milliseconds != nullptr) {
    *milliseconds = static_cast<uint32_t>(now.tv_nsec / kNanosecondsPerMillisecond);
  }
  if (now.tv_sec != told_seconds.load(std::memory_order_relaxed)) {
    told_seconds.store(now.tv_sec, std::memory_order_relaxed);
  }
  return now.tv_sec;
}

// The C runtime's time() loads what the last tick of the clock has left. A tick behind, it may lag
// behind what was told.
int64_t recent_seconds() {
  const int64_t ticked = time(nullptr);
  const int64_t told = told_seconds.load(std::memory_order_relaxed);
  return told == ticked + 1 ? told : ticked;
}

bool counter_frequency(int64_t *frequency) {
  *frequency = kNanosecondsPerSecond;
  return true;
}

int64_t counter_value() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * kNanosecondsPerSecond + now.tv_nsec;
}

bool local_time(int64_t seconds, std::tm *result) {
  if (!fits_time(seconds)) return false;
  const auto time = static_cast<time_t>(seconds);
  tzset();  // localtime_r alone need not notice a changed TZ
  std::tm parts = {};
  if (localtime_r(&time, &parts) == nullptr) return false;
  *result = parts;
  return true;
}

const char *time_text(int64_t seconds) {
  if (!fits_time(seconds)) return nullptr;
  const auto time = static_cast<time_t>(seconds);
  return ctime(&time);
}

// ---- Environment and process --------------------------------------------------------------------

int32_t process_id() { return getpid(); }

WideAnswer environment_wide(const psp_wchar *, const char *name_utf8) {
  WideAnswer answer;
  if (name_utf8 != nullptr) answer.narrow = std::getenv(name_utf8);
  return answer;
}

WideAnswer locale_wide(int category, const psp_wchar *name, const char *name_utf8) {
  WideAnswer answer;
  const bool convertible = name == nullptr || name_utf8 != nullptr;
  if (convertible) answer.narrow = std::setlocale(category, name_utf8);
  return answer;
}

const char *decimal_point() { return nl_langinfo(RADIXCHAR); }

const char *thousands_separator() { return nl_langinfo(THOUSEP); }

// ---- Interrupts ---------------------------------------------------------------------------------

namespace {

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};
constexpr size_t kSignalCount = sizeof kSignals / sizeof kSignals[0];

// The pending word: a counter of ten bits for each signal, and the bit that says that a watcher
// takes what is counted. A full counter stays full.
constexpr uint32_t kCounterBits = 10;
constexpr uint32_t kCounterMask = (1u << kCounterBits) - 1;
constexpr uint32_t kWatched = 1u << 31;
static_assert(kSignalCount * kCounterBits < 31);

constexpr uint32_t counter_shift(size_t index) {
  return static_cast<uint32_t>(index) * kCounterBits;
}

// A watcher is waited for and released by the removal that finds it waiting. One that runs the
// handler is only marked: it detaches from everybody and releases itself.
enum class Phase : uint32_t { kWaiting, kHandling, kEnding };

struct Watcher {
  pthread_t thread = {};
  std::atomic<Phase> phase{Phase::kWaiting};
};

// Those who want a signal, as bits.
constexpr uint8_t kHandlerUser = 1;
constexpr uint8_t kStopUser = 2;

struct Interrupts {
  std::atomic<uint32_t> pending{0};
  std::atomic<void (*)()> handler{nullptr};  // not null while installed
  std::atomic<pid_t> process{0};             // in which the watcher and the stop thread run
  // A bit for each signal whose disposition a removal left to the client, which had set its own
  // over ours and may still call ours. Never cleared, for nobody tells when that ends.
  std::atomic<uint32_t> covered{0};

  // The stop control: a count of stops and kWatched, which takes SIGTERM while it is set.
  std::atomic<uint32_t> stops{0};
  void (*control)() = nullptr;
  pthread_t stop_thread = {};

  // What stood before the first user, until the last one goes. Changed under the mutex, and read by
  // a forked child's signal handlers.
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  struct sigaction previous[kSignalCount] = {};
  uint8_t users[kSignalCount] = {};

  Watcher *watcher = nullptr;
};

constinit Interrupts interrupts;

bool in_forked_child() { return interrupts.process.load(std::memory_order_relaxed) != getpid(); }

// False when there is no stop control.
bool count_stop() {
  uint32_t word = interrupts.stops.load(std::memory_order_relaxed);
  do {
    if ((word & kWatched) == 0) return false;
  } while (!interrupts.stops.compare_exchange_weak(word, word + 1, std::memory_order_release,
                                                   std::memory_order_relaxed));
  wake_one(interrupts.stops);
  return true;
}

// False when nobody takes what would be counted.
bool count_interrupt(size_t index) {
  const uint32_t shift = counter_shift(index);
  uint32_t word = interrupts.pending.load(std::memory_order_relaxed);
  do {
    if ((word & kWatched) == 0) return false;
    if (((word >> shift) & kCounterMask) == kCounterMask) return true;
  } while (!interrupts.pending.compare_exchange_weak(
      word, word + (1u << shift), std::memory_order_release, std::memory_order_relaxed));
  wake_one(interrupts.pending);
  return true;
}

void note_interrupt(int signal);

bool is_ours(const struct sigaction &action) {
  return (action.sa_flags & SA_SIGINFO) == 0 && action.sa_handler == note_interrupt;
}

// Whether a thread takes the signal. It is watched before our disposition is set, and until that
// goes.
bool is_watched(size_t index) {
  return (interrupts.pending.load(std::memory_order_acquire) & kWatched) != 0 ||
         (kSignals[index] == SIGTERM &&
          (interrupts.stops.load(std::memory_order_acquire) & kWatched) != 0);
}

// Three cases bring a signal here that nobody watches for. A forked child inherits the disposition
// but not the watcher, and behaves as if the handler had been removed. The client may have put our
// disposition back behind the removal, as one that it had found; the same holds then. And a thread
// may have been on its way here when the handler was removed; what stands now gets the signal.
// Nothing is raised when a handler of the client called us as the one that stood before it: it
// would be called for ever.
void pass_on_unwatched(size_t index, bool forked) {
  struct sigaction now = {};
  sigaction(kSignals[index], nullptr, &now);
  if (is_ours(now)) {
    if (forked || !is_watched(index)) {
      sigaction(kSignals[index], &interrupts.previous[index], nullptr);
    }
  } else if (forked || (interrupts.covered.load(std::memory_order_relaxed) >> index & 1) != 0) {
    return;
  }
  raise(kSignals[index]);
}

void note_interrupt(int signal) {
  const LastErrorKeeper keeper;
  size_t index = 0;
  while (index < kSignalCount && kSignals[index] != signal) ++index;
  if (index == kSignalCount) return;
  const bool forked = in_forked_child();
  if (!forked && signal == SIGTERM && count_stop()) return;
  if (forked || !count_interrupt(index)) pass_on_unwatched(index, forked);
}

// The signal of one counted interrupt, which is taken; 0 when there is none.
int take_interrupt() {
  uint32_t word = interrupts.pending.load(std::memory_order_acquire);
  for (;;) {
    const uint32_t counters = word & ~kWatched;
    if (counters == 0) return 0;
    const size_t index = static_cast<size_t>(std::countr_zero(counters)) / kCounterBits;
    if (interrupts.pending.compare_exchange_weak(word, word - (1u << counter_shift(index)),
                                                 std::memory_order_acquire)) {
      return kSignals[index];
    }
  }
}

// False when there is nothing to wait for any more.
bool wait_for_interrupt() {
  for (;;) {
    const uint32_t word = interrupts.pending.load(std::memory_order_relaxed);
    if ((word & ~kWatched) != 0) return true;
    if (word == 0) return false;
    wait_on_address(interrupts.pending, word, kNoTimeLimit);
  }
}

void handle_one_interrupt() {
  const int signal = take_interrupt();
  if (signal == 0) return;
  void (*handler)() = interrupts.handler.load(std::memory_order_acquire);
  if (handler != nullptr) {
    handler();
  } else {
    kill(getpid(), signal);  // removed since it was counted: what stands now gets it
  }
}

void *run_watcher(void *argument) {
  auto *watcher = static_cast<Watcher *>(argument);
  while (wait_for_interrupt()) {
    Phase expected = Phase::kWaiting;
    if (!watcher->phase.compare_exchange_strong(expected, Phase::kHandling)) return nullptr;
    handle_one_interrupt();
    expected = Phase::kHandling;
    if (!watcher->phase.compare_exchange_strong(expected, Phase::kWaiting)) {
      std::free(watcher);
      return nullptr;
    }
  }
  return nullptr;
}

// Starts a thread that no signal interrupts, save those that a fault of its own raises: blocked,
// they would end the process past the client's crash handler.
Error start_quiet_thread(pthread_t *thread, void *(*run)(void *), void *argument) {
  sigset_t blocked;
  sigset_t kept;
  sigfillset(&blocked);
  for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS}) {
    sigdelset(&blocked, fault);
  }
  pthread_sigmask(SIG_SETMASK, &blocked, &kept);
  const int error = pthread_create(thread, nullptr, run, argument);
  pthread_sigmask(SIG_SETMASK, &kept, nullptr);
  return static_cast<Error>(error);
}

// Ends the watcher at once, or after the handler that it runs. The pending word is 0 already. A
// forked child has no such thread, unless its parent forked inside the handler.
void end_watcher(bool forked) {
  Watcher *watcher = interrupts.watcher;
  interrupts.watcher = nullptr;
  const pthread_t thread = watcher->thread;
  if (watcher->phase.exchange(Phase::kEnding) == Phase::kHandling) {
    if (!forked) pthread_detach(thread);
    return;
  }
  if (!forked) {
    wake_all(interrupts.pending);
    pthread_join(thread, nullptr);
  }
  std::free(watcher);
}

void take_signal(size_t index, uint8_t user) {
  struct sigaction action = {};
  action.sa_handler = note_interrupt;
  action.sa_flags = SA_RESTART | SA_ONSTACK;
  sigemptyset(&action.sa_mask);
  for (const int signal : kSignals) sigaddset(&action.sa_mask, signal);
  pthread_mutex_lock(&interrupts.mutex);
  struct sigaction before = {};
  sigaction(kSignals[index], &action, &before);
  if (!is_ours(before)) interrupts.previous[index] = before;
  interrupts.users[index] |= user;
  pthread_mutex_unlock(&interrupts.mutex);
}

// The last user restores what stood before. A disposition that the client has set over ours since
// then stays.
void give_signal_back(size_t index, uint8_t user) {
  pthread_mutex_lock(&interrupts.mutex);
  interrupts.users[index] &= static_cast<uint8_t>(~user);
  if (interrupts.users[index] == 0) {
    struct sigaction now = {};
    sigaction(kSignals[index], nullptr, &now);
    if (is_ours(now)) {
      sigaction(kSignals[index], &interrupts.previous[index], nullptr);
    } else {
      interrupts.covered.fetch_or(1u << index, std::memory_order_relaxed);
    }
  }
  pthread_mutex_unlock(&interrupts.mutex);
}

constexpr size_t kStopIndex = 1;
static_assert(kSignals[kStopIndex] == SIGTERM);

// Each stop that was counted calls the control, until the word is 0.
void *run_stop_thread(void *) {
  for (;;) {
    uint32_t word = interrupts.stops.load(std::memory_order_acquire);
    if (word == 0) return nullptr;
    if (word == kWatched) {
      wait_on_address(interrupts.stops, word, kNoTimeLimit);
    } else if (interrupts.stops.compare_exchange_strong(word, word - 1,
                                                        std::memory_order_acquire)) {
      interrupts.control();
    }
  }
}

// A forked child begins without what its parent had installed, which has no threads here.
void forget_parent() {
  if (interrupts.process.load(std::memory_order_relaxed) == 0 || !in_forked_child()) return;
  remove_interrupt_handler();
  remove_stop_control();
}

}  // namespace

// A stop that nobody was called for yet is forgotten: the service has ended.
Error install_stop_control(void (*control)()) {
  forget_parent();
  interrupts.process.store(getpid(), std::memory_order_relaxed);
  interrupts.control = control;
  interrupts.stops.store(kWatched, std::memory_order_release);
  const Error error = start_quiet_thread(&interrupts.stop_thread, run_stop_thread, nullptr);
  if (error != 0) {
    interrupts.stops.store(0, std::memory_order_relaxed);
    return fail(error);
  }
  take_signal(kStopIndex, kStopUser);
  return 0;
}

void remove_stop_control() {
  if (interrupts.stops.load(std::memory_order_relaxed) == 0) return;
  const LastErrorKeeper keeper;
  const bool forked = in_forked_child();
  give_signal_back(kStopIndex, kStopUser);
  interrupts.stops.store(0, std::memory_order_release);
  if (forked) return;
  wake_all(interrupts.stops);
  pthread_join(interrupts.stop_thread, nullptr);
}

// In a forked child, whose parent had installed a handler, this installs afresh. Until then the
// child's interrupts do what they did before the parent's install.
Error install_interrupt_handler(void (*handler)()) {
  forget_parent();
  if (interrupts.handler.load(std::memory_order_relaxed) != nullptr) {
    interrupts.handler.store(handler, std::memory_order_release);
    return 0;
  }
  void *place = std::malloc(sizeof(Watcher));
  if (place == nullptr) {
    set_last_error(ENOMEM);
    return ENOMEM;
  }
  auto *watcher = new (place) Watcher;
  interrupts.process.store(getpid(), std::memory_order_relaxed);
  interrupts.handler.store(handler, std::memory_order_release);
  interrupts.pending.store(kWatched, std::memory_order_release);
  const Error error = start_quiet_thread(&watcher->thread, run_watcher, watcher);
  if (error != 0) {
    interrupts.pending.store(0, std::memory_order_relaxed);
    interrupts.handler.store(nullptr, std::memory_order_relaxed);
    std::free(watcher);
    set_last_error(error);
    return error;
  }
  // Nothing fails from here on.
  interrupts.watcher = watcher;
  for (size_t index = 0; index < kSignalCount; ++index) take_signal(index, kHandlerUser);
  return 0;
}

// The order matters: what stood before is back before the handler and the watcher go, so that an
// interrupt which finds neither can be raised again, and none is lost.
Error remove_interrupt_handler() {
  if (interrupts.handler.load(std::memory_order_relaxed) == nullptr) return 0;
  const LastErrorKeeper keeper;
  const bool forked = in_forked_child();
  for (size_t index = 0; index < kSignalCount; ++index) give_signal_back(index, kHandlerUser);
  interrupts.handler.store(nullptr, std::memory_order_release);
  const uint32_t left = interrupts.pending.exchange(0, std::memory_order_acq_rel);
  end_watcher(forked);
  if (forked) return 0;  // what is left was the parent's
  for (size_t index = 0; index < kSignalCount; ++index) {
    if (((left >> counter_shift(index)) & kCounterMask) != 0) kill(getpid(), kSignals[index]);
  }
  return 0;
}

}  // namespace psp::os
