// Sync objects: locks that survive their holders, gates that lose no wake-up, the full table.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "core/sync.h"
#include "os/os.h"
#include "psp.h"
#include "support/fixtures.h"

#if defined(__linux__)
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

namespace {

using SyncLock = psp::tests::Started;
using SyncGate = psp::tests::Started;
using SyncTable = psp::tests::Started;

// Whether another thread gets the lock at once (it gives it back).
bool free_for_others(psp_sync lock) {
  std::atomic<bool> entered{false};
  std::thread other([&] {
    psp_syncEnterExcl(lock);
    entered = true;
    psp_syncExitExcl(lock);
  });
  for (int look = 0; look < 20 && !entered; ++look) psp_sleep(5);
  const bool was_free = entered;
  if (!was_free) psp_syncExitExcl(lock);  // let the other one end
  other.join();
  return was_free;
}

TEST_F(SyncLock, WantsAnExitForEachEnter) {
  psp_sync lock = psp_syncCreate(PSP_SYNC_EXCL);
  psp_syncEnterExcl(lock);
  psp_syncEnterExcl(lock);
  psp_syncExitExcl(lock);
  EXPECT_FALSE(free_for_others(lock));
  EXPECT_TRUE(free_for_others(lock));
  psp_syncExitExcl(lock);  // not held: nothing happens
  EXPECT_TRUE(free_for_others(lock));
  psp_syncDelete(lock);
}

TEST_F(SyncLock, ExcludesUnderContention) {
  psp_sync lock = psp_syncCreate(PSP_SYNC_EXCL);
  constexpr int kThreads = 4, kRounds = 20000;
  int64_t counter = 0;  // plain: only the lock keeps it right
  psp::tests::in_threads(kThreads, [&](int) {
    for (int round = 0; round < kRounds; ++round) {
      psp_syncEnterExcl(lock);
      if (round % 7 == 0) psp_syncEnterExcl(lock);
      ++counter;
      if (round % 7 == 0) psp_syncExitExcl(lock);
      psp_syncExitExcl(lock);
    }
  });
  EXPECT_EQ(counter, kThreads * kRounds);
  psp_syncDelete(lock);
}

TEST_F(SyncLock, NextWaiterTakesLocksOfEndedThread) {
  psp_sync first = psp_syncCreate(PSP_SYNC_EXCL);
  psp_sync second = psp_syncCreate(PSP_SYNC_EXCL);
  psp_sync third = psp_syncCreate(PSP_SYNC_EXCL);
  for (int round = 0; round < 200; ++round) {
    std::atomic<bool> held{false};
    std::thread holder([&] {
      psp_syncEnterExcl(first);
      psp_syncEnterExcl(second);
      psp_syncEnterExcl(third);
      psp_syncEnterExcl(third);
      psp_syncExitExcl(second);  // from the middle of what it holds
      held = true;
    });
    while (!held) std::this_thread::yield();
    std::thread waiter([&] {
      psp_syncEnterExcl(third);
      psp_syncExitExcl(third);
    });
    psp_syncEnterExcl(first);
    holder.join();
    waiter.join();
    psp_syncExitExcl(first);
    EXPECT_TRUE(round % 50 != 0 || free_for_others(third));
  }
}

TEST_F(SyncLock, HolderThatOutlivesTheLibraryTouchesNothing) {
  std::atomic<int> stage{0};
  std::thread holder([&] {
    psp_syncEnterExcl(psp_syncCreate(PSP_SYNC_EXCL));
    stage = 1;
    while (stage != 2) std::this_thread::yield();
    psp_sync fresh = psp_syncCreate(PSP_SYNC_EXCL);  // of the second life
    psp_syncEnterExcl(fresh);
    psp_syncExitExcl(fresh);
  });
  while (stage != 1) std::this_thread::yield();
  psp_term();
  ASSERT_EQ(psp_init(), PSP_OKAY);
  stage = 2;
  holder.join();
}

// Whoever gets a lock or passes a gate may end it, and the library, while the other thread is still
// on its way out of the call.
TEST(SyncEnd, ReleasersTouchNothingOnTheirWayOut) {
  for (int round = 0; round < 300; ++round) {
    ASSERT_EQ(psp_init(), PSP_OKAY);
    psp_sync lock = psp_syncCreate(PSP_SYNC_EXCL), gate = psp_syncCreate(PSP_SYNC_EVENT);
    psp_syncStart(gate);
    std::atomic<bool> held{false};
    std::thread other([&] {
      psp_syncEnterExcl(lock);
      held = true;
      if (round % 2 == 0) psp_syncResume(gate);
      psp_syncExitExcl(lock);
      if (round % 2 != 0) psp_syncResume(gate);
    });
    while (!held) std::this_thread::yield();
    EXPECT_TRUE(round % 2 == 0 || psp_syncWait(gate, 60000) == PSP_OKAY);
    psp_syncEnterExcl(lock);
    psp_syncExitExcl(lock);
    psp_syncDelete(lock);
    psp_syncDelete(gate);
    EXPECT_EQ(psp_syncCreate(PSP_SYNC_EVENT), gate);
    psp_term();
    other.join();
  }
}

#if defined(__linux__) && !defined(__SANITIZE_THREAD__)  // which makes calls of its own
TEST_F(SyncLock, UncontendedUseMakesNoSystemCall) {
  psp_sync lock = psp_syncCreate(PSP_SYNC_EXCL);
  psp_sync gate = psp_syncCreate(PSP_SYNC_EVENT);
  psp_tag *tag = psp_createTag(PSP_TAG_THREADSAFE);  // whose lock is released by a store
  psp_syncEnterExcl(lock);  // the first lock of a thread arms the hook at its end
  psp_syncExitExcl(lock);
  const pid_t child = fork();
  if (child == 0) {
    // From here on any system call but exit kills the child.
    if (prctl(PR_SET_SECCOMP, SECCOMP_MODE_STRICT) != 0) _exit(2);
    for (int round = 0; round < 100; ++round) {
      psp_syncEnterExcl(lock);
      psp_syncEnterExcl(lock);
      psp_syncExitExcl(lock);
      psp_syncExitExcl(lock);
      psp_syncStart(gate);
      psp_syncResume(gate);
      static_cast<void>(psp_syncWait(gate, PSP_NO_LIMIT));
      psp_resetTag(nullptr, tag);
    }
    syscall(SYS_exit, 0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  if (WIFEXITED(status) && WEXITSTATUS(status) == 2) GTEST_SKIP() << "no seccomp here";
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}
#endif

TEST_F(SyncGate, OpensAndCloses) {
  psp_sync gate = psp_syncCreate(PSP_SYNC_EVENT);
  EXPECT_EQ(psp_syncWait(gate, 0), PSP_OKAY);
  psp_syncStart(gate);
  psp_syncStart(gate);
  EXPECT_EQ(psp_syncWait(gate, 0), PSP_TIMEOUT);
  EXPECT_EQ(psp_syncWait(gate, 20), PSP_TIMEOUT);
  psp_syncEnterExcl(gate);  // a gate is no lock
  psp_syncExitExcl(gate);
  psp_syncResume(gate);
  psp_syncResume(gate);
  EXPECT_EQ(psp_syncWait(gate, PSP_NO_LIMIT), PSP_OKAY);
  EXPECT_EQ(psp_syncWait(gate, 0), PSP_OKAY);
  psp_sync lock = psp_syncCreate(PSP_SYNC_EXCL);  // which is no gate
  psp_syncStart(lock);
  EXPECT_EQ(psp_syncWait(lock, PSP_NO_LIMIT), PSP_OKAY);
  psp_syncResume(lock);
  psp_syncDelete(lock);
  psp_syncDelete(gate);
}

TEST_F(SyncGate, OpenedAndClosedAtOnceLetsEveryWaiterThrough) {
  psp_sync gate = psp_syncCreate(PSP_SYNC_EVENT);
  for (int round = 0; round < 200; ++round) {
    psp_syncStart(gate);
    constexpr int kWaiters = 4;
    std::atomic<int> about_to_wait{0};
    std::vector<std::thread> waiters;
    for (int index = 0; index < kWaiters; ++index) {
      waiters.emplace_back([&] {
        ++about_to_wait;
        EXPECT_EQ(psp_syncWait(gate, PSP_NO_LIMIT), PSP_OKAY);
      });
    }
    while (about_to_wait < kWaiters) std::this_thread::yield();
    psp_sleep(round % 50 == 0 ? 10 : 0);
    psp_syncResume(gate);
    if (round % 50 == 0) psp_syncStart(gate);  // all of them waited by now
    psp_syncResume(gate);
    for (std::thread &waiter : waiters) waiter.join();
  }
}

// Such as those for an earlier gate at the same place: they let nobody through, and the wait takes
// its time, no more and no less.
TEST_F(SyncGate, WakeUpsForNothingChangeNothing) {
  psp_sync gate = psp_syncCreate(PSP_SYNC_EVENT);
  psp_syncStart(gate);
  std::atomic<bool> is_over{false};
  std::thread waker([&] {
    for (; !is_over; psp_sleep(1)) psp::os::wake_all(gate->gate.word);
  });
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(psp_syncWait(gate, 50), PSP_TIMEOUT);
  EXPECT_GT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(45));
  is_over = true;
  waker.join();
}

// A ball between two threads: any lost wake-up stops the game.
TEST_F(SyncGate, LosesNoWakeUp) {
  psp_sync ping = psp_syncCreate(PSP_SYNC_EVENT);
  psp_sync pong = psp_syncCreate(PSP_SYNC_EVENT);
  psp_syncStart(ping);
  psp_syncStart(pong);
  constexpr int kRounds = 20000;
  std::thread other([&] {
    for (int round = 0; round < kRounds; ++round) {
      ASSERT_EQ(psp_syncWait(ping, 60000), PSP_OKAY);
      psp_syncStart(ping);
      psp_syncResume(pong);
    }
  });
  for (int round = 0; round < kRounds; ++round) {
    psp_syncResume(ping);
    ASSERT_EQ(psp_syncWait(pong, 60000), PSP_OKAY);
    psp_syncStart(pong);
  }
  other.join();
}

TEST_F(SyncTable, HoldsSoManyAndThenSaysSo) {
  constexpr size_t kAll = 131072;
  std::vector<psp_sync> objects;
  psp_sync object;
  testing::internal::CaptureStdout();
  while (objects.size() <= kAll &&
         (object = psp_syncCreate_check(PSP_SYNC_EXCL, "here.c", 42)) != PSP_SYNC_NONE) {
    objects.push_back(object);
  }
  psp_log_flush();
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Insufficient number of semaphores, called from here.c:42\r\n");
  EXPECT_LT(objects.size(), kAll);  // the library has some itself
  EXPECT_GT(objects.size(), kAll - 20);

  EXPECT_EQ(psp_syncCreate(3), PSP_SYNC_NONE);
  psp_sync victim = objects[objects.size() / 2];
  psp_syncDelete(victim);
  psp_syncDelete(victim);  // a second time does nothing
  EXPECT_EQ(psp_syncCreate(PSP_SYNC_EVENT), victim);
  EXPECT_EQ(psp_syncCreate(PSP_SYNC_EVENT), PSP_SYNC_NONE);

  // All of them held by one thread that ends, the oldest first.
  psp_syncDelete(victim);
  objects[objects.size() / 2] = objects.back();
  objects.pop_back();
  std::thread([&] {
    for (psp_sync lock : objects) psp_syncEnterExcl(lock);
    for (size_t index = 0; index < objects.size() / 2; ++index) psp_syncExitExcl(objects[index]);
  }).join();
  for (psp_sync lock : objects) psp_syncEnterExcl(lock);
  for (psp_sync lock : objects) psp_syncDelete(lock);
}

TEST_F(SyncTable, ReusesTheSlotFreedLastAndTakesNoHarmFromBadHandles) {
  psp_sync a = psp_syncCreate(PSP_SYNC_EXCL);
  psp_sync b = psp_syncCreate(PSP_SYNC_EVENT);
  psp_syncDelete(a);
  EXPECT_EQ(psp_syncCreate(PSP_SYNC_EVENT), a);
  for (psp_sync none : {PSP_SYNC_NONE, psp_sync{nullptr}}) {
    psp_syncEnterExcl(none);
    psp_syncExitExcl(none);
    psp_syncStart(none);
    psp_syncResume(none);
    EXPECT_EQ(psp_syncWait(none, PSP_NO_LIMIT), PSP_OKAY);
    psp_syncDelete(none);
  }
  psp_syncDelete(b);
  psp_syncDelete(a);
}

TEST(CriticalSection, WorksBeforeTheStartAndAfterTheStop) {
  psp_exitCritSec();
  int64_t counter = 0;
  psp::tests::in_threads(3, [&](int) {
    for (int round = 0; round < 10000; ++round) {
      psp_enterCritSec();
      psp_enterCritSec();
      ++counter;
      psp_exitCritSec();
      psp_exitCritSec();
    }
  });
  EXPECT_EQ(counter, 30000);
  ASSERT_EQ(psp_init(), PSP_OKAY);
  psp_term();
  psp_enterCritSec();
  psp_exitCritSec();
}

}  // namespace
