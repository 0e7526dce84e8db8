// Memory pools beside the C runtime's allocator and Boost's pool: a chunk of 64 bytes got and put.
#include <boost/pool/pool.hpp>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "bench.h"
#include "psp.h"

namespace {

using benchmark::State;

constexpr size_t kBytes = 64;

template <uint32_t kThreadSafe>
uint64_t psp_pool_of(State &state) {
  psp_tag *tag = psp_createTag(PSP_TAG_THREADSAFE);
  psp_pool *pool = psp_allocPool(tag, 1, kThreadSafe);
  uint64_t sum = 0;
  for (auto _ : state) {
    void *chunk = psp_getMemFromPool(kBytes, pool, PSP_MEM_ALLOC, nullptr, __FILE__, __LINE__);
    std::memset(chunk, 1, 8);
    benchmark::DoNotOptimize(chunk);
    sum += *static_cast<unsigned char *>(chunk);
    psp_putInPool(chunk, pool);
  }
  psp_zFreePool(&pool);
  psp_freeTagMemory(tag, 1);
  return sum;
}

// What the allocators share: the mutex is there or not.
struct NoMutex {
  void lock() {}
  void unlock() {}
};

template <class Mutex, class Get, class Put>
uint64_t get_and_put(State &state, Get get, Put put) {
  static Mutex mutex;
  uint64_t sum = 0;
  for (auto _ : state) {
    mutex.lock();
    void *chunk = get();
    mutex.unlock();
    std::memset(chunk, 1, 8);
    benchmark::DoNotOptimize(chunk);
    sum += *static_cast<unsigned char *>(chunk);
    mutex.lock();
    put(chunk);
    mutex.unlock();
  }
  return sum;
}

template <class Mutex>
uint64_t with_malloc(State &state) {
  return get_and_put<Mutex>(
      state, [] { return std::malloc(kBytes); }, [](void *chunk) { std::free(chunk); });
}

template <class Mutex>
uint64_t with_boost(State &state) {
  boost::pool<> pool(kBytes);
  return get_and_put<Mutex>(
      state, [&] { return pool.malloc(); }, [&](void *chunk) { pool.free(chunk); });
}

const psp_bench::Registration registration([] {
  psp_bench::add_case("pool/get and put 64 bytes, with a lock",
                      {{"psp", psp_pool_of<1>},
                       {"malloc, std::mutex", with_malloc<std::mutex>, 0.5},
                       {"boost::pool, std::mutex", with_boost<std::mutex>}});
  psp_bench::add_case("pool/get and put 64 bytes, without a lock",
                      {{"psp", psp_pool_of<0>},
                       {"malloc, std::mutex", with_malloc<std::mutex>, 0.5},
                       {"malloc", with_malloc<NoMutex>},
                       {"boost::pool", with_boost<NoMutex>, 3.0}});
});

}  // namespace
