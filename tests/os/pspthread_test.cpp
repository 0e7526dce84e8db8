// Threads: start, end, identifier, stack, priority, and the locks of a thread that ends itself.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>

#include "os/os.h"
#include "psp.h"

namespace {

struct Started {
  psp_sync lock, gate;
  std::atomic<uint32_t> id;
  int nice;
  static void run(void *argument) {
    auto *started = static_cast<Started *>(argument);
    started->id = psp_threadId();
    EXPECT_EQ(psp_threadSetPriority(started->id, PSP_PRIORITY_LOWEST), PSP_OKAY);
    started->nice = getpriority(PRIO_PROCESS, 0);  // the thread's
    psp_syncEnterExcl(started->lock);
    volatile char most_of_the_least_stack[40'000] = {};
    (void)most_of_the_least_stack[psp_threadId() % 40'000];
    psp_syncResume(started->gate);
    psp_threadEnd();
  }
};

TEST(Thread, ExitHookIsArmedOnlyWhileItIsInstalled) {
  psp::os::remove_thread_exit_hook();
  EXPECT_FALSE(psp::os::arm_thread_exit_hook());
  for (int time = 0; time < 2; ++time) EXPECT_EQ(psp::os::install_thread_exit_hook([] {}), 0u);
  EXPECT_TRUE(psp::os::arm_thread_exit_hook());
  psp::os::remove_thread_exit_hook();
}

TEST(Thread, EndsByItselfAndGivesItsLocksUp) {
  ASSERT_EQ(psp_init(), PSP_OKAY);
  const int normal = std::min(getpriority(PRIO_PROCESS, 0) + 3, 19);
  ASSERT_EQ(setpriority(PRIO_PROCESS, 0, normal), 0);
  for (const uint32_t stack : {0u, 1u, 1u << 20}) {
    Started started = {psp_syncCreate(PSP_SYNC_EXCL), psp_syncCreate(PSP_SYNC_EVENT), {}, 0};
    psp_syncStart(started.gate);
    psp_threadHandle handle = 0;
    ASSERT_EQ(psp_threadBeginEx(Started::run, stack, &started, &handle, PSP_PRIORITY_LOWEST, 0),
              PSP_OKAY);
    EXPECT_NE(handle, 0u);
    ASSERT_EQ(psp_syncWait(started.gate, 30000), PSP_OKAY);
    psp_syncEnterExcl(started.lock);  // waits for the end of the thread
    psp_syncExitExcl(started.lock);
    EXPECT_NE(started.id, psp_threadId());
    EXPECT_EQ(started.nice, std::min(normal + 10, 19));
    psp_syncDelete(started.lock);
    psp_syncDelete(started.gate);
    EXPECT_EQ(psp_threadJoin(handle), PSP_NOTSUPPORTED);
  }
  EXPECT_EQ(psp_threadBegin(nullptr, 0, nullptr), PSP_FAILED);
  for (const psp_threadHandle nobody : {psp_threadHandle{0}, ~psp_threadHandle{0}}) {
    EXPECT_EQ(psp_threadSetPriority(nobody, PSP_PRIORITY_NORMAL), PSP_FAILED);
  }
  const psp_status raised = psp_threadSetPriority(psp_threadId(), PSP_PRIORITY_HIGHEST);
  EXPECT_EQ(getpriority(PRIO_PROCESS, 0), raised == PSP_OKAY ? std::max(normal - 10, -20) : normal);
  psp_term();
}

}  // namespace
