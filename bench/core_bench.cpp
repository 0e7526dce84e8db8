// Locks, gates and tagged memory beside the C++ library's mutexes, malloc and talloc.
#include <talloc.h>

#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <vector>

#include "bench.h"
#include "psp.h"

namespace {

using benchmark::State;
using psp_bench::add_case;

constexpr size_t kBlockBytes = 64;
constexpr size_t kManyBlocks = 100000;

// One lock for the cases and all threads of a run.
psp_sync shared_lock() {
  static psp_sync lock = psp_syncCreate(PSP_SYNC_EXCL);
  return lock;
}

std::recursive_mutex shared_mutex;

void add_lock_cases() {
  const auto ours = [](State &state) {
    psp_sync lock = shared_lock();
    for (auto _ : state) {
      psp_syncEnterExcl(lock);
      psp_syncExitExcl(lock);
    }
    return uint64_t{0};
  };
  const auto theirs = [](State &state) {
    for (auto _ : state) {
      shared_mutex.lock();
      shared_mutex.unlock();
    }
    return uint64_t{0};
  };
  add_case("lock/alone", {{"psp", ours}, {"std::recursive_mutex", theirs, 1.0}});
  add_case("lock/two threads", {{"psp", ours}, {"std::recursive_mutex", theirs, 1.0}},
           {.threads = 2});
  add_case("lock/nested", {{"psp",
                            [](State &state) {
                              psp_sync lock = shared_lock();
                              psp_syncEnterExcl(lock);
                              for (auto _ : state) {
                                psp_syncEnterExcl(lock);
                                psp_syncExitExcl(lock);
                              }
                              psp_syncExitExcl(lock);
                              return uint64_t{0};
                            }},
                           {"std::recursive_mutex",
                            [](State &state) {
                              shared_mutex.lock();
                              for (auto _ : state) {
                                shared_mutex.lock();
                                shared_mutex.unlock();
                              }
                              shared_mutex.unlock();
                              return uint64_t{0};
                            },
                            1.0}});
}

// What a gate is without us.
struct PeerGate {
  std::mutex mutex;
  std::condition_variable changed;
  bool open = true;

  void wait() {
    std::unique_lock<std::mutex> guard(mutex);
    changed.wait(guard, [this] { return open; });
  }
  void set(bool value) {
    {
      std::lock_guard<std::mutex> guard(mutex);
      open = value;
    }
    if (value) changed.notify_all();
  }
};

void add_gate_cases() {
  add_case("gate/wait when open", {{"psp",
                                    [](State &state) {
                                      psp_sync gate = psp_syncCreate(PSP_SYNC_EVENT);
                                      for (auto _ : state) {
                                        benchmark::DoNotOptimize(psp_syncWait(gate, PSP_NO_LIMIT));
                                      }
                                      psp_syncDelete(gate);
                                      return uint64_t{0};
                                    }},
                                   {"mutex and condition variable",
                                    [](State &state) {
                                      PeerGate gate;
                                      for (auto _ : state) gate.wait();
                                      return uint64_t{0};
                                    },
                                    0.5}});
  add_case("gate/set and reset", {{"psp",
                                   [](State &state) {
                                     psp_sync gate = psp_syncCreate(PSP_SYNC_EVENT);
                                     for (auto _ : state) {
                                       psp_syncStart(gate);
                                       psp_syncResume(gate);
                                     }
                                     psp_syncDelete(gate);
                                     return uint64_t{0};
                                   }},
                                  {"mutex and condition variable",
                                   [](State &state) {
                                     PeerGate gate;
                                     for (auto _ : state) {
                                       gate.set(false);
                                       gate.set(true);
                                     }
                                     return uint64_t{0};
                                   },
                                   1.0}});
}

uint64_t get_and_free(State &state, psp_tag *tag) {
  for (auto _ : state) {
    void *block = psp_alloc(kBlockBytes, tag);
    benchmark::DoNotOptimize(block);
    psp_freeMem(block, tag);
  }
  psp_freeTagMemory(tag, 1);
  return 0;
}

std::mutex malloc_mutex;

// What the same wants without us: the allocator and a mutex for what keeps track of the blocks.
uint64_t malloc_under_mutex(State &state) {
  for (auto _ : state) {
    void *block;
    {
      std::lock_guard<std::mutex> guard(malloc_mutex);
      block = std::malloc(kBlockBytes);
    }
    benchmark::DoNotOptimize(block);
    std::lock_guard<std::mutex> guard(malloc_mutex);
    std::free(block);
  }
  return 0;
}

void add_memory_cases() {
  const auto thread_safe = [](State &state) {
    return get_and_free(state, psp_createTag(PSP_TAG_THREADSAFE));
  };
  add_case("memory/get and free 64 bytes, thread-safe tag",
           {{"psp", thread_safe}, {"malloc, std::mutex", malloc_under_mutex, 0.8}});
  add_case("memory/get and free 64 bytes, tag without a lock",
           {{"psp", [](State &state) { return get_and_free(state, psp_createTag(0)); }},
            {"talloc",
             [](State &state) {
               TALLOC_CTX *context = talloc_new(nullptr);
               for (auto _ : state) {
                 void *block = talloc_size(context, kBlockBytes);
                 benchmark::DoNotOptimize(block);
                 talloc_free(block);
               }
               talloc_free(context);
               return uint64_t{0};
             },
             0.8}});
  add_case("memory/two threads, a thread-safe tag each",
           {{"psp", thread_safe}, {"malloc, one std::mutex", malloc_under_mutex, 0.3}},
           {.threads = 2});
  add_case("memory/release 100,000 blocks",
           {{"psp",
             [](State &state) {
               psp_tag *tag = psp_createTag(0);
               for (auto _ : state) {
                 state.PauseTiming();
                 for (size_t i = 0; i < kManyBlocks; ++i) {
                   benchmark::DoNotOptimize(psp_alloc(kBlockBytes, tag));
                 }
                 state.ResumeTiming();
                 psp_freeTagMemory(tag, 0);
               }
               psp_freeTagMemory(tag, 1);
               return uint64_t{0};
             }},
            {"free of each",
             [](State &state) {
               std::vector<void *> blocks(kManyBlocks);
               for (auto _ : state) {
                 state.PauseTiming();
                 for (void *&block : blocks) {
                   block = std::malloc(kBlockBytes);
                 }
                 state.ResumeTiming();
                 for (size_t i = kManyBlocks; i > 0; --i) {
                   std::free(blocks[i - 1]);
                 }
               }
               return uint64_t{0};
             },
             1.1}});
}

const psp_bench::Registration registration([] {
  add_lock_cases();
  add_gate_cases();
  add_memory_cases();
});

}  // namespace
