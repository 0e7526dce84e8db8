// Memory pools: a model of one pool, chunks that are given back wrongly, and two threads that trade
// chunks through a shared pool.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "psp.h"
#include "support/fixtures.h"

namespace {

using psp::tests::output_of;

constexpr char kForeign[] =
    "Attempting to put a memory chunk into a pool that didn't create it\r\n";

class Pool : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(psp_init(), PSP_OKAY);
    tag = psp_createTag(PSP_TAG_THREADSAFE);
  }
  void TearDown() override {
    psp_zFreePool(&pool);
    EXPECT_EQ(pool, nullptr);
    psp_freeTagMemory(tag, 1);
    psp_term();
  }
  char *get(size_t size, uint32_t mode = PSP_MEM_ALLOC, const void *source = nullptr) {
    return static_cast<char *>(psp_getMemFromPool(size, pool, mode, source, "here.c", 7));
  }
  void put(void *chunk) { psp_putInPool(chunk, pool); }

  psp_tag *tag = nullptr;
  psp_pool *pool = nullptr;
};

// The free list as it must be: last in, first out, at most 1000, and what is too small goes.
TEST_F(Pool, HandsOutWhatAModelHandsOut) {
  constexpr uint32_t kSeed = 14;
  std::mt19937 random(kSeed);
  pool = psp_allocPool(tag, 0, 1);
  struct Chunk {
    char *content;
    size_t capacity;
  };
  std::vector<Chunk> waiting, held;
  for (int step = 0; step < 60000; ++step) {
    const bool grows = step / 3000 % 2 == 0;  // in turn more gets and more puts
    if (held.empty() || random() % 4 < (grows ? 3u : 1u)) {
      const size_t size = random() % 300;
      char *content = get(size);
      ASSERT_EQ(reinterpret_cast<uintptr_t>(content) % alignof(max_align_t), 0u);
      size_t capacity = size;
      if (!waiting.empty()) {
        if (waiting.back().capacity >= size) {
          ASSERT_EQ(content, waiting.back().content) << "seed " << kSeed << ", step " << step;
          capacity = waiting.back().capacity;
        }
        waiting.pop_back();
      }
      std::memset(content, static_cast<int>(size), capacity);  // AddressSanitizer knows its end
      held.push_back({content, capacity});
    } else {
      std::swap(held[random() % held.size()], held.back());
      if (waiting.size() < 1000) waiting.push_back(held.back());
      put(held.back().content);
      held.pop_back();
    }
  }
}

TEST_F(Pool, FillsExactlyWhatIsAskedFor) {
  pool = psp_allocPool(nullptr, 0, 0);
  char *chunk = get(100);
  std::memset(chunk, 'x', 100);
  put(chunk);
  ASSERT_EQ(get(40, PSP_MEM_ZERO), chunk);
  EXPECT_EQ(std::string(chunk, 100), std::string(40, '\0') + std::string(60, 'x'));
  put(chunk);
  ASSERT_EQ(get(3, PSP_MEM_COPY, "abcdef"), chunk);
  EXPECT_EQ(std::string(chunk, 6), std::string("abc\0\0\0", 6));
  EXPECT_EQ(get(3, PSP_MEM_COPY, nullptr), nullptr);
  put(chunk);
  put(std::memset(get(200), 'x', 200));
  EXPECT_EQ(get(SIZE_MAX), nullptr);
}

TEST_F(Pool, OfFixedSizeChecksNoSizesAndLimitsWhatWaits) {
  for (const uint32_t thread_safe : {0, 1}) {
    pool = psp_allocPool(tag, 1, thread_safe);
    std::vector<char *> chunks;
    for (int index = 0; index < 1001; ++index) chunks.push_back(get(64));
    for (char *chunk : chunks) put(chunk);
    for (int index = 999; index >= 0; --index) ASSERT_EQ(get(65), chunks[index]);
    for (int index = 0; index < 1000; ++index) put(chunks[index]);
    psp_zFreePool(&pool);
  }
}

TEST_F(Pool, TakesNoHarmFromWhatItDidNotHandOut) {
  pool = psp_allocPool(tag, 0, 0);
  char *twice = get(50);
  put(twice);
  EXPECT_EQ(output_of([&] { put(twice); }), kForeign);
  EXPECT_EQ(get(50), twice);
  EXPECT_NE(get(50), twice);

  auto *no_chunk = static_cast<char *>(psp_allocZero(200, tag));
  for (const size_t offset : {96, 100}) {
    EXPECT_EQ(output_of([&] { put(no_chunk + offset); }), kForeign);
    EXPECT_NE(get(1), no_chunk + offset);
  }

  // Another pool's chunk changes its owner: it outlives the other tag.
  psp_tag *other_tag = psp_createTag(0);
  psp_pool *other = psp_allocPool(other_tag, 0, 0);
  void *chunk = psp_getMemFromPool(300, other, PSP_MEM_ALLOC, nullptr, "here.c", 7);
  EXPECT_EQ(output_of([&] { put(chunk); }), kForeign);
  psp_freeTagMemory(other_tag, 1);
  EXPECT_EQ(get(300, PSP_MEM_ZERO), chunk);
  EXPECT_EQ(output_of([&] { put(chunk); }), "");

  // A pool of one size must not hand an adopted chunk out for more than it holds.
  for (const uint32_t thread_safe : {0, 1}) {
    psp_pool *fixed = psp_allocPool(tag, 1, thread_safe);
    chunk = get(16);
    EXPECT_EQ(output_of([&] { psp_putInPool(chunk, fixed); }), kForeign);
    EXPECT_NE(psp_getMemFromPool(4096, fixed, PSP_MEM_ZERO, nullptr, "here.c", 7), nullptr);
    psp_zFreePool(&fixed);
  }

  put(nullptr);
  psp_putInPool(chunk, nullptr);
  psp_zFreePool(nullptr);
  EXPECT_EQ(psp_getMemFromPool(1, nullptr, PSP_MEM_ALLOC, nullptr, "here.c", 7), nullptr);
}

TEST_F(Pool, SharedByThreadsGivesNoChunkTwice) {
  pool = psp_allocPool(tag, 0, 1);
  psp::tests::in_threads(4, [this](int number) {
    std::vector<char *> mine;
    for (int round = 0; round < 20000; ++round) {
      mine.push_back(get(16 + round % 3 * 16));
      std::memset(mine.back(), number, 16);
      if (mine.size() < 8) continue;
      for (char *chunk : mine) {
        ASSERT_EQ(std::string(chunk, 16), std::string(16, static_cast<char>(number)));
        put(chunk);
      }
      mine.clear();
    }
  });
}

TEST(PoolLife, NeedsAStartedLibrary) {
  EXPECT_EQ(psp_allocPool(nullptr, 0, 1), nullptr);
  ASSERT_EQ(psp_init(), PSP_OKAY);
  psp_pool *pool = psp_allocPool(nullptr, 0, 1);
  psp_term();
  EXPECT_EQ(psp_getMemFromPool(1, pool, PSP_MEM_ALLOC, nullptr, "here.c", 7), nullptr);
  psp_putInPool(&pool, pool);
  psp_zFreePool(&pool);
  EXPECT_EQ(pool, nullptr);
}

}  // namespace
