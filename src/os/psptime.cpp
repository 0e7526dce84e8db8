// Module psptime: clocks, calendar time, environment, locale, process identity and interrupts.
//
// Everything works without a started library. Owns the wide answers that psp_getenvW and
// psp_setlocaleW have handed out: each distinct text is kept once, in the C runtime's memory, until
// the last stop, because its receivers never give it back. They stand in a plain list, which is
// right for the few dozen texts that a program asks for and slow for thousands.
//
// One lock guards the list and runs installs and removals of the interrupt handler one at a time.
// The counter's frequency is an atomic that concurrent first callers set to the same value.

#include <clocale>
#include <cstdlib>
#include <cstring>
#include <new>

#include "core/checked.h"
#include "core/lock.h"
#include "core/modules.h"
#include "os/os.h"

namespace os = psp::os;

using psp::core::Lock;
using psp::core::LockGuard;
using psp::core::LockRank;

namespace {

constexpr uint32_t kMillisecondsPerSecond = 1000;
constexpr double kNanosecondsPerSecond = 1e9;

// A text that was handed out: this record, its wide units with the terminator, then the narrow
// text that they were converted from, by which it is found again.
struct Answer {
  Answer *next = nullptr;
  const char *narrow = nullptr;
  psp_wchar *wide = nullptr;
};

struct State {
  std::atomic<int64_t> counter_frequency{0};  // counts per second; 0 until known

  Lock lock{LockRank::kProcess};
  Answer *answers PSP_GUARDED_BY(lock) = nullptr;
};

constinit State state;

// A wide argument in UTF-8. Empty when the argument is null, is no valid UTF-16, or memory is
// short.
class NarrowName {
 public:
  explicit NarrowName(const psp_wchar *wide) {
    if (wide == nullptr) return;
    const int32_t size_bytes = psp_wchar_to_utf8(nullptr, wide, 0, PSP_UTF8_STRICT);
    if (size_bytes < 0) return;
    const auto size = static_cast<uint32_t>(size_bytes);
    text_ = size <= sizeof place_ ? place_ : static_cast<char *>(std::malloc(size));
    if (text_ != nullptr) psp_wchar_to_utf8(text_, wide, size, PSP_UTF8_STRICT);
  }
  ~NarrowName() {
    if (text_ != place_) std::free(text_);
  }
  NarrowName(const NarrowName &) = delete;
  NarrowName &operator=(const NarrowName &) = delete;

  const char *get() const { return text_; }

 private:
  char *text_ = nullptr;
  char place_[256];
};

// A new answer for the text, in one block; null when it is not valid UTF-8 or memory is short.
Answer *make_answer(const char *narrow) {
  const int32_t measured = psp_utf8_to_wchar(nullptr, narrow, 0, PSP_UTF8_STRICT);
  if (measured < 0) return nullptr;
  const auto units = static_cast<uint32_t>(measured);
  const size_t narrow_bytes = std::strlen(narrow) + 1;
  const uint64_t wide_bytes = uint64_t{units} * sizeof(psp_wchar);
  const uint64_t bytes = sizeof(Answer) + wide_bytes + narrow_bytes;
  void *block = psp::fits<size_t>(bytes) ? std::malloc(static_cast<size_t>(bytes)) : nullptr;
  if (block == nullptr) return nullptr;
  auto *answer = new (block) Answer;
  answer->wide = reinterpret_cast<psp_wchar *>(answer + 1);
  psp_utf8_to_wchar(answer->wide, narrow, units, PSP_UTF8_STRICT);
  answer->narrow = static_cast<const char *>(
      std::memcpy(reinterpret_cast<char *>(answer->wide) + wide_bytes, narrow, narrow_bytes));
  return answer;
}

const psp_wchar *kept_wide(const char *narrow) PSP_REQUIRES(state.lock) {
  for (const Answer *answer = state.answers; answer != nullptr; answer = answer->next) {
    if (std::strcmp(answer->narrow, narrow) == 0) return answer->wide;
  }
  Answer *answer = make_answer(narrow);
  if (answer == nullptr) return nullptr;
  answer->next = state.answers;
  state.answers = answer;
  return answer->wide;
}

const psp_wchar *wide_text(const os::WideAnswer &answer) PSP_REQUIRES(state.lock) {
  return answer.narrow != nullptr ? kept_wide(answer.narrow) : answer.wide;
}

}  // namespace

namespace psp::core {

void environment_stop() {
  const LockGuard guard(state.lock);
  while (state.answers != nullptr) {
    Answer *answer = state.answers;
    state.answers = answer->next;
    std::free(answer);
  }
}

}  // namespace psp::core

// ---- Process ------------------------------------------------------------------------------------

void psp_sleep(uint32_t milliseconds) {
  if (milliseconds == 0) {
    os::yield_thread();
  } else {
    os::sleep_milliseconds(milliseconds);
  }
}

int32_t psp_get_pid(void) { return os::process_id(); }

psp_status psp_daemonStart(int32_t, int32_t) { return PSP_OKAY; }

void psp_daemonComplete(int32_t) {}

psp_status psp_handleInterrupt(void (*handler)(void)) {
  const LockGuard guard(state.lock);
  const os::Error error =
      handler != nullptr ? os::install_interrupt_handler(handler) : os::remove_interrupt_handler();
  return error == 0 ? PSP_OKAY : PSP_FAILED;
}

// ---- Time ---------------------------------------------------------------------------------------

int64_t psp_seed(void) { return psp_timeSecs(); }

int64_t psp_timeSecs(void) { return os::calendar_seconds(nullptr); }

uint32_t psp_timeMilliSecs(void) {
  uint32_t milliseconds = 0;
  const int64_t seconds = os::calendar_seconds(&milliseconds);
  return static_cast<uint32_t>(seconds) * kMillisecondsPerSecond + milliseconds;
}

uint64_t psp_timeNanoSecs(void) {
  int64_t frequency = state.counter_frequency.load(std::memory_order_relaxed);
  if (frequency == 0) {
    if (!os::counter_frequency(&frequency)) return 0;
    state.counter_frequency.store(frequency, std::memory_order_relaxed);
  }
  const double nanoseconds_per_count = kNanosecondsPerSecond / static_cast<double>(frequency);
  return static_cast<uint64_t>(static_cast<double>(os::counter_value()) * nanoseconds_per_count);
}

struct tm *psp_timeLocaltime(int64_t time, struct tm *result) {
  if (result == nullptr || !os::local_time(time, result)) return nullptr;
  return result;
}

const char *psp_timeCtime(int64_t time) { return os::time_text(time); }

// ---- Environment and locale ---------------------------------------------------------------------

const char *psp_getenv(const char *name) { return name != nullptr ? std::getenv(name) : nullptr; }

const psp_wchar *psp_getenvW(const psp_wchar *name) {
  if (name == nullptr) return nullptr;
  const NarrowName narrow(name);
  const LockGuard guard(state.lock);
  return wide_text(os::environment_wide(name, narrow.get()));
}

const char *psp_setlocale(int32_t category, const char *name) {
  return std::setlocale(category, name);
}

const psp_wchar *psp_setlocaleW(int32_t category, const psp_wchar *name) {
  const NarrowName narrow(name);
  const LockGuard guard(state.lock);
  return wide_text(os::locale_wide(category, name, narrow.get()));
}
