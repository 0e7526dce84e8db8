// Clocks, environment and interrupts, against the C runtime's and the kernel's own answers.
#include <dirent.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <string>
#include <vector>

#include "core/modules.h"
#include "os/os.h"
#include "psp.h"
#include "support/fixtures.h"

namespace {

using psp::tests::status_of_child;

int64_t nanoseconds(clockid_t clock) {
  timespec now = {};
  clock_gettime(clock, &now);
  return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

size_t entries(const char *folder) {
  size_t count = 0;  // beside . and ..
  DIR *directory = opendir(folder);
  while (readdir(directory) != nullptr) ++count;
  closedir(directory);
  return count - 2;
}

#if defined(__SANITIZE_THREAD__)
constexpr size_t kToolThreads = 1;
constexpr bool kForkedChildMayStartThreads = false;
#else
constexpr size_t kToolThreads = 0;
constexpr bool kForkedChildMayStartThreads = true;
#endif

// An ended thread, joined or not, stays in the kernel's list for a moment.
bool no_thread_is_left() {
  for (int round = 0; round < 100'000; ++round) {
    if (entries("/proc/self/task") == 1 + kToolThreads) return true;
    sched_yield();
  }
  return false;
}

// ---- Time and process ---------------------------------------------------------------------------

TEST(TimeClocks, AgreeWithTheKernelAcrossTheChangeOfASecond) {
  constexpr int64_t kMargin = 5'000'000;
  constexpr double kDoubleSlack = 1024;  // of a product in double precision, at any uptime
  const int64_t rest = 1'000'000'000 - nanoseconds(CLOCK_REALTIME) % 1'000'000'000;
  if (rest > kMargin) psp_sleep(static_cast<uint32_t>((rest - kMargin) / 1'000'000));
  const int64_t end = nanoseconds(CLOCK_MONOTONIC) + 4 * kMargin;
  for (int64_t now = 0; now < end;) {
    const int64_t before = nanoseconds(CLOCK_REALTIME) / 1'000'000;
    const int64_t seconds = psp_timeSecs();
    const int64_t recent = psp::os::recent_seconds();  // of a clock that lags
    const uint32_t milliseconds = psp_timeMilliSecs();
    const int64_t seed = psp_seed();
    const int64_t after = nanoseconds(CLOCK_REALTIME) / 1'000'000;
    ASSERT_TRUE(before / 1000 <= seconds && seconds <= recent && recent <= seed &&
                seed <= after / 1000);
    ASSERT_LE(milliseconds - static_cast<uint32_t>(before), static_cast<uint32_t>(after - before));

    const auto early = static_cast<double>(nanoseconds(CLOCK_MONOTONIC)) - kDoubleSlack;
    const auto told = static_cast<double>(psp_timeNanoSecs());
    now = nanoseconds(CLOCK_MONOTONIC);
    ASSERT_TRUE(early <= told && told <= static_cast<double>(now) + kDoubleSlack);
  }
}

std::atomic<int> alarms{0};

TEST(Process, SleepLastsAsToldUnderAStormOfSignals) {
  struct sigaction action = {};
  action.sa_handler = [](int) { ++alarms; };  // no SA_RESTART: every alarm interrupts the sleep
  sigaction(SIGALRM, &action, nullptr);
  const itimerval storm = {{0, 500}, {0, 500}}, calm = {};
  setitimer(ITIMER_REAL, &storm, nullptr);
  const int64_t start = nanoseconds(CLOCK_MONOTONIC);
  psp_sleep(50);
  const int64_t elapsed = nanoseconds(CLOCK_MONOTONIC) - start;
  setitimer(ITIMER_REAL, &calm, nullptr);
  EXPECT_GE(elapsed, 50'000'000);
  EXPECT_GT(alarms, 0);

  EXPECT_EQ(psp_get_pid(), getpid());
  EXPECT_EQ(psp_daemonStart(INT32_MIN, 7), PSP_OKAY);
}

TEST(TimeLocal, AgreesWithTheRuntimeAtEdgesOfYearsAndOfDaylightSaving) {
  constexpr int64_t kSpring = 1'772'953'200;  // 2026-03-08 07:00 UTC: 02:00 becomes 03:00
  const std::vector<int64_t> times = {0,
                                      -1,
                                      951'782'399,
                                      1'798'761'599,
                                      1'798'761'600,
                                      kSpring - 1,
                                      kSpring,
                                      INT32_MIN,
                                      INT32_MAX,
                                      INT32_MAX + 1LL,
                                      INT32_MIN - 1LL,
                                      253'402'300'799,
                                      -62'135'596'801};
  for (const char *zone : {"UTC0", "<+0545>-5:45", "<-12>12", "EST5EDT,M3.2.0,M11.1.0"}) {
    setenv("TZ", zone, 1);  // without tzset: the library has to notice
    for (const int64_t time : times) {
      const auto runtime_time = static_cast<time_t>(time);
      if (runtime_time != time) continue;
      std::tm told = {};
      ASSERT_EQ(psp_timeLocaltime(time, &told), &told) << zone << " " << time;
      const std::tm real = *localtime(&runtime_time);
      char told_text[80], real_text[80];
      strftime(told_text, sizeof told_text, "%Y-%m-%d %H:%M:%S %w %j %Z", &told);
      strftime(real_text, sizeof real_text, "%Y-%m-%d %H:%M:%S %w %j %Z", &real);
      EXPECT_STREQ(told_text, real_text) << zone << " " << time;
      EXPECT_EQ(told.tm_isdst, real.tm_isdst);
      EXPECT_STREQ(psp_timeCtime(time), asctime(&real));
    }
  }
  std::tm untouched;
  EXPECT_EQ(psp_timeLocaltime(INT64_MAX, &untouched), nullptr) << "no such year";
  EXPECT_EQ(psp_timeLocaltime(0, nullptr), nullptr);
  EXPECT_STREQ(psp_timeCtime(kSpring - 1), "Sun Mar  8 01:59:59 2026\n");
  EXPECT_STREQ(psp_timeCtime(kSpring), "Sun Mar  8 03:00:00 2026\n");
}

// ---- Environment and locale ---------------------------------------------------------------------

std::u16string text(const psp_wchar *answer) { return answer != nullptr ? answer : u"(null)"; }

TEST(Environment, WideAnswersAreConvertedAndStayValid) {
  setenv("PSP_T\xC3\xA4ST", "Gr\xC3\xBC\xC3\x9F\x65 \xF0\x9F\x98\x80", 1);
  const psp_wchar *first = psp_getenvW(u"PSP_T\u00E4ST");
  EXPECT_EQ(text(first), u"Gr\u00FC\u00DFe \U0001F600");
  EXPECT_EQ(psp_getenvW(u"PSP_T\u00E4ST"), first) << "one text is kept once";
  setenv("PSP_T\xC3\xA4ST", "", 1);
  EXPECT_EQ(text(psp_getenvW(u"PSP_T\u00E4ST")), u"");
  EXPECT_EQ(text(first), u"Gr\u00FC\u00DFe \U0001F600");
  setenv(std::string(5000, 'N').c_str(), "far", 1);
  EXPECT_EQ(text(psp_getenvW(std::u16string(5000, u'N').c_str())), u"far");
  psp::core::environment_stop();
  EXPECT_EQ(text(psp_getenvW(std::u16string(5000, u'N').c_str())), u"far");
}

TEST(Environment, WhatHasNoAnswerGivesNull) {
  const psp_wchar lone_surrogate[] = {u'P', 0xD800, 0};
  unsetenv("PSP_TEST");
  EXPECT_EQ(psp_getenv("PSP_TEST"), nullptr);
  EXPECT_EQ(psp_getenv(nullptr), nullptr);
  for (const psp_wchar *name :
       {u"PSP_TEST", lone_surrogate, static_cast<const psp_wchar *>(nullptr)})
    EXPECT_EQ(psp_getenvW(name), nullptr);
  setenv("PSP_TEST", "cut \xC3", 1);
  EXPECT_STREQ(psp_getenv("PSP_TEST"), "cut \xC3");
  EXPECT_EQ(psp_getenvW(u"PSP_TEST"), nullptr);
  EXPECT_EQ(psp_setlocaleW(LC_ALL, lone_surrogate), nullptr);
  for (const psp_wchar *name : {u"C", static_cast<const psp_wchar *>(nullptr)}) {
    EXPECT_EQ(text(psp_setlocaleW(LC_ALL, name)), u"C");
  }
}

// ---- Interrupts ---------------------------------------------------------------------------------

constexpr int kInterrupts[] = {SIGINT, SIGTERM, SIGHUP};

// Counts calls, and lets the test wait for each.
struct Calls {
  std::atomic<int> count{0};
  int awaited = 0;
  std::atomic<pthread_t> thread;

  void note() {
    thread = pthread_self();
    ++count;
    count.notify_one();
  }
  void wait() {
    ++awaited;
    for (int seen; (seen = count) < awaited;) count.wait(seen);
  }
};

Calls first, second, own;

std::atomic<bool> signals_blocked{false};

void call_first() {
  sigset_t blocked;
  pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
  signals_blocked = sigismember(&blocked, SIGUSR1) == 1 && sigismember(&blocked, SIGSEGV) == 0;
  first.note();
}
void call_second() { second.note(); }
void remove_and_call_first() {
  psp_handleInterrupt(nullptr);
  first.note();
}

// Dispositions of the client.
void note_own(int) { own.note(); }

void set_dispositions(void (*handler)(int)) {
  struct sigaction action = {};
  action.sa_handler = handler;
  action.sa_flags = SA_NODEFER;
  sigaddset(&action.sa_mask, SIGUSR1);
  for (const int signal : kInterrupts) sigaction(signal, &action, nullptr);
}

struct sigaction disposition(int signal) {
  struct sigaction action = {};
  sigaction(signal, nullptr, &action);
  return action;
}

class Interrupt : public testing::Test {
 protected:
  Interrupt() { set_dispositions(SIG_DFL); }
  ~Interrupt() override { psp_handleInterrupt(nullptr); }
};

TEST_F(Interrupt, EverySignalCallsTheLatestHandlerOnceOnAThreadOfItsOwn) {
  ASSERT_EQ(psp_handleInterrupt(call_second), PSP_OKAY);
  ASSERT_EQ(psp_handleInterrupt(call_first), PSP_OKAY);
  for (int round = 0; round < 3; ++round) {
    errno = EDOM;
    raise(kInterrupts[round]);
    EXPECT_EQ(errno, EDOM);
    first.wait();
    EXPECT_FALSE(pthread_equal(first.thread, pthread_self()));
    EXPECT_TRUE(signals_blocked);
  }
  for (int round = 0; round < 100; ++round) raise(kInterrupts[round % 3]);
  for (int round = 0; round < 100; ++round) first.wait();
  psp_handleInterrupt(nullptr);
  EXPECT_EQ(first.count, 103);
  EXPECT_EQ(second.count, 0);
}

TEST_F(Interrupt, RemovalRestoresWhatStoodBefore) {
  ASSERT_EQ(psp_handleInterrupt(call_first), PSP_OKAY);
  ASSERT_EQ(psp_handleInterrupt(nullptr), PSP_OKAY);
  EXPECT_EXIT(raise(SIGINT), testing::KilledBySignal(SIGINT), "");
  set_dispositions(note_own);
  const struct sigaction before = disposition(SIGTERM);
  psp_handleInterrupt(call_first);
  psp_handleInterrupt(nullptr);
  const struct sigaction after = disposition(SIGTERM);
  EXPECT_EQ(after.sa_flags, before.sa_flags);
  EXPECT_EQ(sigismember(&after.sa_mask, SIGUSR1), 1);
  for (const int signal : kInterrupts) raise(signal);
  EXPECT_EQ(own.count, 3);
}

TEST_F(Interrupt, RoundsLeaveNothingBehindEvenIfHandlersRemoveThemselves) {
  set_dispositions(note_own);
  const size_t descriptors = entries("/proc/self/fd");
  for (int round = 1; round <= 1000; ++round) {
    ASSERT_EQ(psp_handleInterrupt(call_second), PSP_OKAY);
    ASSERT_EQ(psp_handleInterrupt(nullptr), PSP_OKAY);
    psp_handleInterrupt(remove_and_call_first);
    raise(SIGTERM);
    first.wait();
    raise(SIGTERM);
    ASSERT_EQ(own.count, round);
  }
  EXPECT_EQ(entries("/proc/self/fd"), descriptors);
  EXPECT_TRUE(no_thread_is_left());
}

TEST_F(Interrupt, ForkedChildHasNoHandlerUntilItInstallsOne) {
  psp_handleInterrupt(call_first);
  raise(SIGTERM);
  first.wait();  // the thread is up: a fork amid its start may hang the sanitizers
  first.count = first.awaited = 0;
  // The thread sanitizer hands a signal on at the next atomic operation.
  int status = status_of_child([] { return raise(SIGTERM) + first.count; });
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
  if (kForkedChildMayStartThreads) {
    status = status_of_child([] {
      psp_handleInterrupt(call_first);
      raise(SIGTERM);
      first.wait();
      return first.count - 1;
    });
    EXPECT_EQ(status, 0);
  }
  EXPECT_EQ(first.count, 0);
  raise(SIGTERM);
  first.wait();  // the parent's handler goes on
}

void (*passed_on_to)(int);
void note_own_and_pass_on(int signal, siginfo_t *, void *) {
  own.note();
  passed_on_to(signal);
}

TEST_F(Interrupt, SignalsThatNobodyWatchesAnyMoreGoToWhatStoodBefore) {
  set_dispositions(note_own);
  psp_handleInterrupt(call_first);
  const struct sigaction ours = disposition(SIGTERM);
  passed_on_to = ours.sa_handler;
  passed_on_to(SIGUSR1);  // none of ours
  const auto raise_in_child = [] { return raise(SIGTERM) + own.count - 1; };
  if (kForkedChildMayStartThreads) {
    EXPECT_EQ(status_of_child(raise_in_child), 0);
  }
  struct sigaction chained = {};
  chained.sa_sigaction = note_own_and_pass_on;
  chained.sa_flags = SA_SIGINFO;
  sigaction(SIGTERM, &chained, nullptr);
  EXPECT_EQ(status_of_child(raise_in_child), 0);
  raise(SIGTERM);
  first.wait();
  EXPECT_EQ(own.count, 1);
  psp_handleInterrupt(nullptr);
  raise(SIGTERM);
  EXPECT_EQ(own.count, 2) << "a chain ends with us";
  passed_on_to(SIGHUP);  // as of a thread that was on its way when the handler went
  EXPECT_EQ(own.count, 3);
  for (int round = 0; round < 2; ++round) {
    sigaction(SIGTERM, &ours, nullptr);  // put back, as the one that was found
    if (round == 1) {
      psp_handleInterrupt(call_first);
      psp_handleInterrupt(nullptr);
    }
    raise(SIGTERM);
    EXPECT_EQ(own.count, 4 + round) << "raised for ever";
  }
}

std::atomic<int> release;

TEST_F(Interrupt, WhatIsCountedWhileAHandlerRunsIsRaisedAgainByItsRemoval) {
  set_dispositions(note_own);
  psp_handleInterrupt([] {
    if (kForkedChildMayStartThreads) {
      EXPECT_EQ(status_of_child([] { return psp_handleInterrupt(nullptr); }), 0)
          << "inside a handler";
    }
    first.note();
    release.wait(0);
  });
  raise(SIGINT);
  first.wait();
  for (int count = 0; count < 1100; ++count) raise(SIGTERM);  // more than are counted
  psp_handleInterrupt(nullptr);
  EXPECT_EQ(own.count, 1);
  release = 1;
  release.notify_all();
  EXPECT_TRUE(no_thread_is_left());
}

}  // namespace
