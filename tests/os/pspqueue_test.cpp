// Message queues: the registry, the order of messages against a model, waits that end, and deletion
// by whoever sees the effect of a call first.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <random>
#include <thread>
#include <vector>

#include "psp.h"
#include "support/fixtures.h"

namespace {

using psp::tests::output_of;

class Queue : public psp::tests::Started {
 protected:
  void SetUp() override {
    Started::SetUp();
    ASSERT_EQ(psp_queueInit(0), PSP_OKAY);
  }
  void TearDown() override {
    psp_queueTerm(1);
    psp_term();
  }
};
using QueueRegistry = Queue;
using QueueMessages = Queue;
using QueueWait = Queue;
using QueueEnd = Queue;

// The data of the next message; its limit is for tests that must not hang.
psp_word next(psp_queue *queue, uint32_t limit = 60000) {
  psp_word data = 0;
  EXPECT_EQ(psp_queueRead(queue, &data, nullptr, nullptr, limit), PSP_OKAY);
  return data;
}

// ---- The registry -------------------------------------------------------------------------------

TEST_F(QueueRegistry, FindsTheNewestOfAName) {
  psp_queue *older = psp_queueCreate("x"), *newer = psp_queueCreate("x");
  psp_queue *other = psp_queueCreate("X"), *nameless = psp_queueCreate(nullptr);
  EXPECT_EQ(psp_queueFind("x"), newer);
  EXPECT_EQ(psp_queueFind("X"), other);
  EXPECT_EQ(psp_queueFind(""), nameless);
  EXPECT_EQ(psp_queueFind("y"), nullptr);
  EXPECT_EQ(psp_queueFind(nullptr), nullptr);
  psp_queueDelete(newer);
  EXPECT_EQ(psp_queueFind("x"), older);
  psp_queueDelete(older);
  EXPECT_EQ(psp_queueFind("x"), nullptr);
  EXPECT_EQ(psp_queueFind("X"), other);
}

TEST_F(QueueRegistry, RefusesWhatIsNoQueue) {
  psp_queueTerm(1);
  EXPECT_EQ(psp_queueCreate("q"), nullptr) << "not started";
  ASSERT_EQ(psp_queueInit(0), PSP_OKAY);
  psp_queue *queue = psp_queueCreate("q");
  psp_queueDelete(queue);
  EXPECT_EQ(output_of([&] {
              psp_queueDelete(nullptr);
              psp_queueDelete(queue);
            }),
            "Deleted too many queues");
  psp_word data = 5;
  EXPECT_EQ(output_of([&] {
              psp_queueWrite(nullptr, 1, 2, 3, 0);
              EXPECT_EQ(psp_queueRead(nullptr, &data, nullptr, nullptr, 0), PSP_FAILED);
              psp_queuePurge(nullptr, 3);
              psp_queueClose(nullptr);
              EXPECT_EQ(psp_queueCount(nullptr), 0u);
            }),
            "Invalid queue handleInvalid queue handleInvalid queue handleInvalid queue handle");
  queue = psp_queueCreate("q");
  psp_queueWrite(queue, 1, 2, 3, 0);
  EXPECT_EQ(psp_queueRead(queue, nullptr, nullptr, nullptr, 0), PSP_FAILED);
  EXPECT_EQ(psp_queueCount(queue), 1u);  // nothing was taken
  EXPECT_EQ(data, 5u);
}

TEST(QueueLife, IsBracketedByItsUsers) {
  EXPECT_EQ(psp_queueInit(0), PSP_FAILED);  // the library is not started
  for (int life = 0; life < 2; ++life) {
    ASSERT_EQ(psp_init(), PSP_OKAY);
    EXPECT_EQ(psp_queueCreate("q"), nullptr);
    EXPECT_EQ(psp_queueFind("q"), nullptr);
    psp_queueTerm(1);
    EXPECT_EQ(psp_queueInit(0), PSP_OKAY);
    psp_queue *queue = psp_queueCreate("q");
    ASSERT_NE(queue, nullptr);
    EXPECT_EQ(psp_queueInit(0), PSP_OKAY);
    psp_queueTerm(0);
    EXPECT_EQ(psp_queueFind("q"), queue);
    EXPECT_EQ(psp_queueInit(1), PSP_OKAY);
    EXPECT_EQ(psp_queueFind("q"), nullptr);
    psp_queueTerm(0);
    EXPECT_EQ(psp_queueCreate("q"), nullptr);
    EXPECT_EQ(psp_queueInit(0), PSP_OKAY);
    EXPECT_NE(psp_queueCreate("left behind"), nullptr);
    psp_term();  // without psp_queueTerm
    psp_queueTerm(1);
  }
}

// ---- Messages -----------------------------------------------------------------------------------

struct Message {
  psp_word data, extra, type;
  bool operator==(const Message &) const = default;
};

TEST_F(QueueMessages, FollowAModel) {
  constexpr uint32_t kSeed = 20;
  std::mt19937 random(kSeed);
  psp_queue *queue = psp_queueCreate("model");
  std::deque<Message> model;
  for (psp_word step = 1; step <= 200000; ++step) {
    const uint32_t dice = random() % 1000;
    const bool drains = step / 512 % 2 != 0;  // in turn more writes and more reads
    if (dice < 4) {
      const psp_word type = dice == 0 ? PSP_QUEUE_ALL_TYPES : random() % 3;
      psp_queuePurge(queue, type);
      std::erase_if(model,
                    [&](const Message &message) { return dice == 0 || message.type == type; });
    } else if (dice < (drains ? 300u : 700u)) {
      const Message message{step, random(), random() % 3};
      const uint32_t flags = random() % 8;
      psp_queueWrite(queue, message.data, message.extra, message.type, flags);
      model.insert((flags & PSP_QUEUE_URGENT) != 0 ? model.begin() : model.end(), message);
    } else if (model.empty()) {
      Message message{1, 2, 3};
      ASSERT_EQ(psp_queueRead(queue, &message.data, &message.extra, &message.type, 0), PSP_FAILED);
      ASSERT_EQ(message, (Message{1, 2, 3}));
    } else {
      Message message{};
      ASSERT_EQ(psp_queueRead(queue, &message.data, &message.extra, &message.type,
                              step % 2 == 0 ? 0 : PSP_NO_LIMIT),
                PSP_OKAY);
      ASSERT_EQ(message, model.front()) << "seed " << kSeed << ", step " << step;
      model.pop_front();
    }
    ASSERT_EQ(psp_queueCount(queue), model.size());
  }
}

TEST_F(QueueMessages, StayUnreadInAClosedQueue) {
  psp_queue *queue = psp_queueCreate("closed");
  psp_queueWrite(queue, 1, 0, 7, 0);
  psp_queueClose(queue);
  psp_queueWrite(queue, 2, 0, 7, 0);
  psp_queuePurge(queue, 7);
  psp_word data = 0;
  EXPECT_EQ(psp_queueRead(queue, &data, nullptr, nullptr, 0), PSP_QUEUE_CLOSED);
  EXPECT_EQ(psp_queueRead(queue, &data, nullptr, nullptr, PSP_NO_LIMIT), PSP_QUEUE_CLOSED);
  EXPECT_EQ(psp_queueCount(queue), 1u);
}

// ---- Waiting ------------------------------------------------------------------------------------

TEST_F(QueueWait, EndsByItsLimitAndNotBefore) {
  psp_queue *queue = psp_queueCreate("timed");
  psp_word data = 0;
  for (int round = 0; round < 3; ++round) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(psp_queueRead(queue, &data, nullptr, nullptr, 30), PSP_TIMEOUT);
    // The platform's clock of milliseconds may start within one.
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(29));
  }
  psp_queueWrite(queue, 1, 0, 0, 0);  // a reader that gave up holds nothing back
  EXPECT_EQ(next(queue, 0), 1u);
}

TEST_F(QueueWait, LosesAndDoublesNothingAmongManyThreads) {
  constexpr int kWriters = 3, kReaders = 3, kEach = 20000;
  psp_queue *queue = psp_queueCreate("many");
  std::vector<std::vector<psp_word>> read(kReaders);
  std::vector<std::thread> readers, writers;
  for (int reader = 0; reader < kReaders; ++reader) {
    readers.emplace_back([&, reader] {
      // Short limits too, so that waits end by the clock in the midst of it.
      uint32_t limit = 1;
      for (psp_word data;; limit = limit == 1 ? PSP_NO_LIMIT : 1) {
        const psp_status status = psp_queueRead(queue, &data, nullptr, nullptr, limit);
        if (status == PSP_QUEUE_CLOSED) return;
        ASSERT_TRUE(status == PSP_OKAY || (status == PSP_TIMEOUT && limit == 1)) << status;
        if (status == PSP_OKAY) read[reader].push_back(data);
      }
    });
  }
  for (int writer = 0; writer < kWriters; ++writer) {
    writers.emplace_back([&, writer] {
      for (int index = 0; index < kEach; ++index) {
        psp_queueWrite(queue, static_cast<psp_word>(writer * kEach + index), 0, 0, 0);
        if (index % 1000 == 0) std::this_thread::yield();
      }
    });
  }
  for (std::thread &writer : writers) writer.join();
  while (psp_queueCount(queue) != 0) std::this_thread::yield();
  psp_queueClose(queue);
  for (std::thread &reader : readers) reader.join();
  std::vector<psp_word> all;
  for (const auto &mine : read) {
    // Each reader sees each writer's messages in the order of their writing.
    psp_word newest[kWriters] = {};
    for (const psp_word data : mine) {
      ASSERT_GE(data, newest[data / kEach]);
      newest[data / kEach] = data;
    }
    all.insert(all.end(), mine.begin(), mine.end());
  }
  std::sort(all.begin(), all.end());
  ASSERT_EQ(all.size(), size_t{kWriters} * kEach);
  for (size_t index = 0; index < all.size(); ++index) ASSERT_EQ(all[index], index);
}

// ---- The end ------------------------------------------------------------------------------------

// A reader that finds the queue closed deletes it at once, while the writer and the closer may be
// on their way out of their calls.
TEST_F(QueueEnd, CloseAgainstReadAgainstWrite) {
  for (int round = 0; round < 5000; ++round) {
    psp_queue *queue = psp_queueCreate("race");
    std::atomic<int> ready{0};
    std::thread closer([&] {
      ++ready;
      while (ready < 2) std::this_thread::yield();
      psp_queueWrite(queue, 1, 0, 0, 0);
      psp_queueClose(queue);
    });
    ++ready;
    while (ready < 2) std::this_thread::yield();
    if (round % 2 == 0) psp_queuePurge(queue, 99);
    psp_word data = 0;
    psp_status status;
    while ((status = psp_queueRead(queue, &data, nullptr, nullptr, PSP_NO_LIMIT)) == PSP_OKAY) {
    }
    EXPECT_EQ(status, PSP_QUEUE_CLOSED);
    psp_queueDelete(queue);
    closer.join();
  }
}

TEST_F(QueueEnd, ReaderOfTheLastMessageMayDeleteTheQueue) {
  for (psp_word round = 0; round < 3000; ++round) {
    psp_queue *queue = psp_queueCreate("last");
    std::thread writer([&] { psp_queueWrite(queue, round, 0, 0, 0); });
    EXPECT_EQ(next(queue), round);
    psp_queueDelete(queue);
    if (round % 100 == 0) {  // and the library may stop
      psp_queueTerm(0);
      psp_term();
      ASSERT_EQ(psp_init(), PSP_OKAY);
      ASSERT_EQ(psp_queueInit(0), PSP_OKAY);
    }
    writer.join();
  }
}

TEST_F(QueueEnd, ModuleThatStopsLosesNoQueue) {
  std::atomic<bool> done{false};
  std::thread stopper([&] {
    while (!done) {
      psp_queueTerm(0);
      EXPECT_EQ(psp_queueInit(0), PSP_OKAY);
    }
  });
  EXPECT_EQ(output_of([] {
              for (int round = 0; round < 100000; ++round) {
                psp_queue *queue = psp_queueCreate("q");
                if (queue == nullptr) continue;
                ASSERT_EQ(psp_queueFind("q"), queue);
                psp_queueDelete(queue);
              }
            }),
            "");
  done = true;
  stopper.join();
}

TEST_F(QueueEnd, WaitingReaderLeavesADeletedQueue) {
  for (int round = 0; round < 1000; ++round) {
    psp_queue *queue = psp_queueCreate("deleted");
    std::atomic<bool> reads{false};
    std::thread reader([&] {
      psp_word data = 0;
      // The first read shows that the reader is there; the second one waits.
      EXPECT_EQ(psp_queueRead(queue, &data, nullptr, nullptr, PSP_NO_LIMIT), PSP_OKAY);
      reads = true;
      EXPECT_EQ(psp_queueRead(queue, &data, nullptr, nullptr, PSP_NO_LIMIT), PSP_QUEUE_CLOSED);
    });
    psp_queueWrite(queue, 1, 0, 0, 0);
    while (!reads) std::this_thread::yield();
    psp_sleep(1);  // the reader waits by then
    if (round % 2 == 0) {
      psp_queueDelete(queue);
    } else {
      EXPECT_EQ(psp_queueInit(1), PSP_OKAY);
    }
    reader.join();
  }
}

}  // namespace
