// Faults under message queues.
#include <gtest/gtest.h>

#include <string>

#include "support/faults.h"

namespace {

using namespace psp::faults;

psp_queue *queue;

FAULT_TEST(QueueFaults, CreationGivesAQueueOrNothing) {
  static size_t free_slots;
  for (free_slots = 0; free_slots < 4; ++free_slots) {
    Scenario scenario{.sweeps = kAllocations, .kept_blocks = free_slots < 3 ? 1 : 0};
    if (free_slots < 3) scenario.sweeps |= kJumps;
    scenario.prepare = [] {
      EXPECT_EQ(psp_queueInit(0), PSP_OKAY);
      leave_sync_slots(free_slots);
    };
    scenario.act = [] {
      queue = nullptr;
      queue = psp_queueCreate("q");
      return queue != nullptr && psp_queueFind("q") == queue;
    };
    scenario.judge = [](const Run &run) {
      EXPECT_EQ(psp_queueFind("q") != nullptr, run.worked);
      if (queue == nullptr || run.worked) return;
      // Without its name: told each time, and it works.
      psp_word data = 0, last = 0;
      testing::internal::CaptureStdout();
      psp_queueWrite(queue, 5, 0, 0, 0);
      EXPECT_EQ(psp_queueRead(queue, &data, nullptr, nullptr, 0), PSP_OKAY);
      arm({.kind = Kind::kCall, .error = EIO, .only = Os::wait_on_address});
      EXPECT_EQ(psp_queueRead(queue, nullptr, nullptr, nullptr, 0), PSP_FAILED);
      EXPECT_EQ(psp_queueRead(queue, &last, nullptr, nullptr, 1), PSP_FAILED);
      disarm();
      psp_queueDelete(queue);
      psp_log_flush();
      const std::string told = "Invalid queue handle";
      EXPECT_EQ(testing::internal::GetCapturedStdout(),
                told + told + told + told + "unexpected empty queue on ");
      EXPECT_EQ(data, 5u);
    };
    scenario.clean = [] { EXPECT_EQ(psp_queueInit(1), PSP_OKAY); };
    scenario.finish = [] { psp_queueTerm(1); };
    sweep(scenario);
  }
}

FAULT_TEST(QueueFaults, MessageWithoutMemoryIsDroppedAlone) {
  static constexpr uint32_t kMessages = 100;
  Scenario scenario;
  scenario.act = [] {
    for (psp_word index = 0; index < kMessages; ++index) psp_queueWrite(queue, index, 0, 0, 0);
    return psp_queueCount(queue) == kMessages;
  };
  scenario.prepare = [] {
    EXPECT_EQ(psp_queueInit(0), PSP_OKAY);
    queue = psp_queueCreate("q");
  };
  scenario.judge = [](const Run &run) {
    psp_word newest = 0, data = 0;
    const uint32_t count = psp_queueCount(queue);
    EXPECT_EQ(count == kMessages, run.worked);
    for (uint32_t index = 0; index < count; ++index, newest = data) {
      EXPECT_EQ(psp_queueRead(queue, &data, nullptr, nullptr, 0), PSP_OKAY);
      EXPECT_TRUE(index == 0 || data > newest);
    }
  };
  scenario.clean = [] {
    psp_queueDelete(queue);
    queue = psp_queueCreate("q");
  };
  scenario.finish = [] { psp_queueTerm(1); };
  sweep(scenario);
}

FAULT_TEST(QueueFaults, WaitThatThePlatformRefusesFails) {
  static psp_status status;
  // A name, and what of it a message tells.
  static const std::string fitting(253, 'q'), odd(300, '\x80'),
      names[][2] = {{"q", "q"}, {fitting + "\xE2\x82\xAC", fitting}, {odd, odd.substr(0, 252)}};
  static size_t number;
  Scenario scenario{.sweeps = kCalls};
  scenario.prepare = [] {
    EXPECT_EQ(psp_queueInit(0), PSP_OKAY);
    queue = psp_queueCreate(names[number][0].c_str());
    psp_queueWrite(queue, 1, 0, 0, 0);  // obtains the nodes
    psp_queuePurge(queue, PSP_QUEUE_ALL_TYPES);
  };
  scenario.act = [] {
    psp_word data;
    return (status = psp_queueRead(queue, &data, nullptr, nullptr, 1)) == PSP_TIMEOUT;
  };
  scenario.judge = [](const Run &run) {
    EXPECT_TRUE(run.worked || status == PSP_FAILED);
    EXPECT_TRUE(run.worked || run.output.ends_with("unexpected empty queue on " + names[number][1]))
        << run.output;
    psp_queueWrite(queue, 1, 0, 0, 0);
    psp_word data = 0;
    EXPECT_EQ(psp_queueRead(queue, &data, nullptr, nullptr, 0), PSP_OKAY);
  };
  scenario.finish = [] { psp_queueTerm(1); };
  for (number = 0; number < std::size(names); ++number) sweep(scenario);
}

}  // namespace
