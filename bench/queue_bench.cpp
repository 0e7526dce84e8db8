// Message queues beside what a program would write itself and GLib's queue: a message there and
// back in one thread, a stream of messages to another thread, and a message that comes back.
#include <glib.h>

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

#include "bench.h"
#include "psp.h"

namespace {

using benchmark::State;
using psp_bench::add_case;

struct Message {
  psp_word data, extra, type;
};

class PspQueue {
 public:
  void write(const Message &m) { psp_queueWrite(queue_, m.data, m.extra, m.type, 0); }
  Message read() {
    Message m{};
    if (psp_queueRead(queue_, &m.data, &m.extra, &m.type, PSP_NO_LIMIT) != PSP_OKAY) m = {};
    return m;
  }
  ~PspQueue() { psp_queueDelete(queue_); }

 private:
  // The module starts with the first queue and stops with the library.
  psp_queue *const queue_ = psp_queueInit(0) == PSP_OKAY ? psp_queueCreate("bench") : nullptr;
};

class DequeQueue {
 public:
  void write(const Message &m) {
    {
      const std::lock_guard<std::mutex> guard(mutex_);
      messages_.push_back(m);
    }
    written_.notify_one();
  }
  Message read() {
    std::unique_lock<std::mutex> guard(mutex_);
    written_.wait(guard, [this] { return !messages_.empty(); });
    const Message m = messages_.front();
    messages_.pop_front();
    return m;
  }

 private:
  std::mutex mutex_;
  std::condition_variable written_;
  std::deque<Message> messages_;
};

// It carries pointers: three words want a block of their own.
class GlibQueue {
 public:
  void write(const Message &m) { g_async_queue_push(queue_, new Message(m)); }
  Message read() {
    const std::unique_ptr<Message> m(static_cast<Message *>(g_async_queue_pop(queue_)));
    return *m;
  }
  ~GlibQueue() { g_async_queue_unref(queue_); }

 private:
  GAsyncQueue *const queue_ = g_async_queue_new();
};

constexpr psp_word kEnd = UINTPTR_MAX;

template <class Queue>
uint64_t write_and_read(State &state) {
  Queue queue;
  psp_word number = 0, sum = 0;
  for (auto _ : state) {
    queue.write({++number, 2, 3});
    const Message m = queue.read();
    sum += m.data * m.extra * m.type;
  }
  return sum;
}

// The time is that of a message that the reader has; the last ones are waited for.
template <class Queue>
uint64_t one_writer_one_reader(State &state) {
  constexpr psp_word kBatch = 1000;
  Queue queue, done;
  psp_word sum = 0;
  std::thread reader([&] {
    for (psp_word count = 1;; ++count) {
      const Message m = queue.read();
      if (m.data == kEnd) return;
      sum += m.data * m.extra * m.type;
      if (count % kBatch == 0) done.write({count, 0, 0});
    }
  });
  for (auto _ : state) {
    for (psp_word number = 1; number <= kBatch; ++number) queue.write({number, 2, 3});
    benchmark::DoNotOptimize(done.read());
  }
  queue.write({kEnd, 0, 0});
  reader.join();
  return sum;
}

template <class Queue>
uint64_t ping(State &state) {
  Queue there, back;
  psp_word number = 0, sum = 0;
  std::thread other([&] {
    for (Message m = there.read(); m.data != kEnd; m = there.read()) {
      back.write({m.data + 1, m.extra, m.type});
    }
  });
  for (auto _ : state) {
    there.write({++number, 2, 3});
    sum += back.read().data;
  }
  there.write({kEnd, 0, 0});
  other.join();
  return sum;
}

const psp_bench::Registration registration([] {
  const char *const mutex = "std::deque, mutex, condition variable";
  add_case("queue/write and read, one thread", {{"psp", write_and_read<PspQueue>},
                                                {mutex, write_and_read<DequeQueue>, 1.0},
                                                {"GAsyncQueue", write_and_read<GlibQueue>, 0.8}});
  add_case("queue/1000 messages to another thread",
           {{"psp", one_writer_one_reader<PspQueue>},
            {mutex, one_writer_one_reader<DequeQueue>, 1.0},
            {"GAsyncQueue", one_writer_one_reader<GlibQueue>, 0.8}});
  add_case("queue/to another thread and back", {{"psp", ping<PspQueue>},
                                                {mutex, ping<DequeQueue>, 1.0},
                                                {"GAsyncQueue", ping<GlibQueue>, 0.8}});
});

}  // namespace
