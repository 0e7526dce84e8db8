// Tagged memory: rings of blocks, moves, extension, releases that must be refused, the jump.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <random>

#include "core/checked.h"
#include "core/exported_call.h"
#include "core/live_blocks.h"
#include "psp.h"
#include "support/fixtures.h"

namespace {

using psp::tests::output_of;

constexpr char kDoubleRelease[] = "Attempting to free previously freed memory\n";
constexpr size_t kTooMuch = SIZE_MAX;  // wraps with the header: fails under every allocator

using Memory = psp::tests::Started;

TEST_F(Memory, EachModeFillsItsBlock) {
  psp_tag *tag = psp_createTag(0);
  const psp_wchar wide[] = PSP_W("wide");
  EXPECT_STREQ(psp_strdup("narrow", tag), "narrow");
  EXPECT_EQ(std::memcmp(psp_wcsdup(wide, tag), wide, sizeof wide), 0);
  EXPECT_EQ(std::memcmp(psp_memdup("ab", 2, tag), "ab", 2), 0);
  EXPECT_STREQ(psp_strdup("", tag), "");
  EXPECT_EQ(*psp_wcsdup(PSP_W(""), tag), 0);
  auto *zeros = static_cast<char *>(psp_allocZero(1000, tag));
  EXPECT_EQ(std::string(zeros, 1000), std::string(1000, '\0'));
  void *plain = psp_alloc(1, tag);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(plain) % alignof(max_align_t), 0u);
  EXPECT_EQ(output_of([&] {
              EXPECT_EQ(psp_alloc(0, tag), nullptr);
              EXPECT_EQ(psp_allocZero(0, tag), nullptr);
              EXPECT_EQ(psp_memdup("", 0, tag), nullptr);
              EXPECT_EQ(psp_getMem(8, tag, 6, "x", "f", 1), nullptr);
              EXPECT_EQ(psp_getMem(8, tag, 0, "x", "f", 1), nullptr);
              EXPECT_EQ(psp_strdup(nullptr, tag), nullptr);
            }),
            "");
  psp_freeTagMemory(tag, 1);
}

TEST_F(Memory, SecondAndForeignReleasesAreRefused) {
  psp_tag *tag = psp_createTag(PSP_TAG_THREADSAFE);
  void *other = psp_alloc(64, tag);
  char foreign[64];
  EXPECT_EQ(output_of([&] {
              void *block = psp_alloc(64, tag);
              psp_freeMem(block, tag);
              psp_freeMem(block, tag);                            // a second time
              psp_freeMem(foreign + 32, tag);                     // never the library's
              psp_freeMem(static_cast<char *>(other) + 16, tag);  // inside a live block
              psp_freeMem(static_cast<char *>(other) + 1, tag);
              psp_freeMem(nullptr, tag);
            }),
            std::string(kDoubleRelease) + kDoubleRelease + kDoubleRelease + kDoubleRelease);
  EXPECT_EQ(psp_extendMem(foreign + 32, 10, tag, 0, 0, "f", 1), nullptr);
  psp_moveMemTag(foreign + 32, nullptr, tag);
  EXPECT_EQ(output_of([&] {
              psp_freeTagMemory(tag, 0);
              psp_freeMem(other, tag);  // went with its tag
            }),
            kDoubleRelease);
  psp_freeTagMemory(tag, 1);
}

TEST_F(Memory, ReleaseThroughTheWrongTagTearsNoRing) {
  psp_tag *right = psp_createTag(0), *wrong = psp_createTag(0);
  void *first = psp_alloc(10, right), *newest = psp_alloc(10, right);
  void *stays = psp_alloc(10, wrong);
  EXPECT_EQ(output_of([&] {
              psp_freeMem(newest, wrong);
              psp_freeMem(stays, wrong);
              psp_freeMem(first, right);
            }),
            "");
  psp_freeTagMemory(right, 1);
  psp_freeTagMemory(wrong, 1);
}

TEST_F(Memory, MovedBlocksOutliveTheirOldTag) {
  psp_tag *from = psp_createTag(PSP_TAG_THREADSAFE), *to = psp_createTag(0);
  char *text = psp_strdup("kept", from);
  psp_moveMemTag(text, from, from);
  psp_moveMemTag(nullptr, to, from);
  psp_moveMemTag(text, to, from);
  psp_freeTagMemory(from, 1);
  EXPECT_STREQ(text, "kept");
  psp_moveMemTag(text, nullptr, to);
  psp_freeTagMemory(to, 1);
  EXPECT_STREQ(text, "kept");
  EXPECT_EQ(output_of([&] { psp_freeMem(text, nullptr); }), "");
}

TEST_F(Memory, ExtensionKeepsContentAndClearsWhatItIsTold) {
  psp_tag *tag = psp_createTag(0);
  auto *block = static_cast<char *>(psp_memdup("0123456789abcdef", 16, tag));
  ASSERT_NE(psp_alloc(16, tag), nullptr);  // a newer neighbour
  block = static_cast<char *>(psp_extendMem(block, 32, tag, 1, 16, "f", 1));
  EXPECT_EQ(std::string(block, 32), std::string("0123456789abcdef") + std::string(16, '\0'));
  block = static_cast<char *>(psp_extendMem(block, 1 << 20, tag, 0, 0, "f", 1));
  EXPECT_EQ(std::string(block, 16), "0123456789abcdef");
  block = static_cast<char *>(psp_extendMem(block, 4, tag, 1, 1000, "f", 1));
  EXPECT_EQ(std::string(block, 4), std::string(4, '\0'));
  auto *fresh = static_cast<char *>(psp_extendMem(nullptr, 10, tag, 1, 0, "f", 1));
  EXPECT_EQ(std::string(fresh, 10), std::string(10, '\0'));
  EXPECT_EQ(psp_extendMem(nullptr, 0, tag, 1, 0, "f", 1), nullptr);
  psp_freeTagMemory(tag, 1);
}

TEST_F(Memory, ARequestThatWrapsFailsAndHarmsNothing) {
  char *text = psp_strdup("kept", nullptr);
  EXPECT_EQ(output_of([&] {
              EXPECT_EQ(psp_getMem(SIZE_MAX, nullptr, PSP_MEM_ALLOC, nullptr, "a.c", 7), nullptr);
              EXPECT_EQ(psp_getMem(SIZE_MAX - 8, nullptr, PSP_MEM_ZERO, nullptr, "a.c", 8),
                        nullptr);
              EXPECT_EQ(psp_extendMem(text, SIZE_MAX - 4, nullptr, 1, 4, "a.c", 9), nullptr);
              EXPECT_EQ(psp_getMem(SIZE_MAX, nullptr, PSP_MEM_COPY, text, "a.c", 10), nullptr);
            }),
            "Out of memory. Called from a.c:7\r\nOut of memory. Called from a.c:8\r\n"
            "Out of memory. Called from a.c:9\r\nOut of memory. Called from a.c:10\r\n");
  EXPECT_STREQ(text, "kept");
  psp_freeMem(text, nullptr);
  EXPECT_EQ(psp::multiply_or_most(SIZE_MAX / 2, 3), SIZE_MAX);
}

TEST_F(Memory, AnArmedTagJumpsAndADisarmedOneReturns) {
  jmp_buf jump;
  psp_tag *volatile tag = nullptr;
  volatile int jumps = 0;
  const int value = setjmp(jump);
  if (value == 0) {
    tag = psp_createTagEx(&jump, PSP_TAG_THREADSAFE, __FILE__, __LINE__);
    void *none = psp_alloc(kTooMuch, tag);
    FAIL() << "came back with " << none;
  }
  EXPECT_EQ(value, 1);
  jumps = jumps + 1;
  if (jumps == 1) {
    void *block = psp_alloc(10, tag);  // the tag's lock has been left
    EXPECT_NE(block, nullptr);
    block = psp_extendMem(block, kTooMuch, tag, 0, 0, "f", 1);
    FAIL() << "came back with " << block;
  }
  EXPECT_EQ(jumps, 2);
  psp_resetTag(nullptr, tag);
  EXPECT_EQ(psp_alloc(kTooMuch, tag), nullptr);
  psp_freeTagMemory(tag, 1);
}

// The jump leaves from the outermost exported call, after inner ones have come back with null.
TEST_F(Memory, TheJumpWaitsForTheOutermostCall) {
  jmp_buf jump;
  volatile bool inner_came_back = false;
  if (setjmp(jump) == 0) {
    psp_resetTag(&jump, nullptr);
    psp::core::exported_call([&] {
      EXPECT_EQ(psp_alloc(kTooMuch, nullptr), nullptr);
      inner_came_back = true;
    });
    FAIL() << "came back";
  }
  EXPECT_TRUE(inner_came_back);
  psp_resetTag(nullptr, nullptr);
}

// A tag that is disarmed, or ends, before the outermost call does is not jumped to; nor is another
// in which memory failed too, but later.
void fail_in_call(jmp_buf *jump, void (*undo)(psp_tag *)) {
  psp_tag *tag = psp_createTagEx(jump, 0, __FILE__, __LINE__);
  psp_resetTag(jump, nullptr);
  psp::core::exported_call([=] {
    for (psp_tag *each : {tag, static_cast<psp_tag *>(nullptr)}) {
      EXPECT_EQ(psp_alloc(kTooMuch, each), nullptr);
    }
    undo(tag);
  });
  psp_resetTag(nullptr, nullptr);
}

TEST_F(Memory, TheJumpIsNotMadeWhenItsTagIsDisarmedOrGone) {
  jmp_buf jump;
  if (setjmp(jump) != 0) FAIL() << "jumped";
  fail_in_call(&jump, [](psp_tag *tag) { psp_resetTag(nullptr, tag); });
  fail_in_call(&jump, [](psp_tag *tag) { psp_freeTagMemory(tag, 1); });
}

TEST(MemoryLife, NothingIsDoneWithoutAStartOrWithATagThatWasNotMade) {
  static char foreign[64];
  const auto use = [](psp_tag *tag) {
    psp_resetTag(nullptr, tag);
    psp_freeTagMemory(tag, 1);
    EXPECT_EQ(psp_alloc(1, tag), nullptr);
    EXPECT_EQ(psp_extendMem(foreign + 32, 1, tag, 0, 0, "f", 1), nullptr);
    psp_moveMemTag(foreign + 32, nullptr, tag);
    psp_moveMemTag(foreign + 32, tag, nullptr);
    psp_freeMem(foreign + 32, tag);
  };
  EXPECT_EQ(output_of([&] {
              use(nullptr);
              ASSERT_EQ(psp_init(), PSP_OKAY);
              use(PSP_TAG_FAILED);
            }),
            "");
  psp_term();
}

TEST(LiveBlocks, WhatLiesBeyondTheMapIsTrusted) {
  static constinit psp::core::LiveBlocks blocks;
  if (sizeof(void *) == 4) return;
  const auto *beyond = reinterpret_cast<void *>(static_cast<uintptr_t>(uint64_t{1} << 56));
  blocks.mark(beyond);
  blocks.clear(beyond);
  EXPECT_TRUE(blocks.is_live(beyond) && blocks.take(beyond) && blocks.take(beyond));
}

TEST_F(Memory, ThreadsShareATag) {
  psp_tag *tag = psp_createTag(PSP_TAG_THREADSAFE);
  psp::tests::in_threads(4, [&](int seed) {
    std::mt19937 random(seed);
    std::map<void *, size_t> blocks;
    for (int step = 0; step < 5000; ++step) {
      const size_t size = random() % 300 + 1;
      if (blocks.size() < 20) {
        void *block = psp_alloc(size, tag);
        std::memset(block, static_cast<int>(seed), size);
        blocks[block] = size;
      }
      auto chosen = std::next(blocks.begin(), static_cast<long>(random() % blocks.size()));
      void *block = chosen->first;
      const size_t held = chosen->second;
      blocks.erase(chosen);
      for (size_t i = 0; i < held; ++i) ASSERT_EQ(static_cast<char *>(block)[i], char(seed));
      if (random() % 2 == 0) {
        psp_freeMem(block, tag);
      } else {
        block = psp_extendMem(block, size, tag, 0, 0, "f", 1);
        std::memset(block, static_cast<int>(seed), size);
        blocks[block] = size;
      }
    }
  });
  psp_freeTagMemory(tag, 1);
}

TEST(MemoryCompare, OrdersUnsignedBytes) {
  EXPECT_EQ(psp_memCmp("abcd", "abce", 4), -1);
  EXPECT_EQ(psp_memCmp("abcd", "abce", 3), 0);
  EXPECT_EQ(psp_memCmp("\x80", "\x01", 1), 1);
  EXPECT_EQ(psp_memCmp(nullptr, nullptr, 0), 0);
}

}  // namespace
