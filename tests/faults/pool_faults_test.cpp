// Faults under memory pools.
#include <gtest/gtest.h>

#include <cstring>

#include "support/faults.h"

namespace {

using namespace psp::faults;

psp_tag *tag;
psp_pool *pool;
void *chunk;
constexpr char kText[] = "a text of some length";

FAULT_TEST(PoolFaults, PoolAndChunkAreNullOrThere) {
  Scenario scenario{.sweeps = kAllocations | kJumps, .armed_tag = &tag};
  scenario.prepare = [] { tag = psp_createTag(PSP_TAG_THREADSAFE); };
  scenario.act = [] {
    pool = nullptr;
    chunk = nullptr;
    pool = psp_allocPool(tag, 0, 1);
    chunk = psp_getMemFromPool(sizeof kText, pool, PSP_MEM_COPY, kText, "here.cpp", 7);
    return chunk != nullptr;
  };
  scenario.judge = [](const Run &run) {
    EXPECT_TRUE(!run.worked || std::strcmp(static_cast<char *>(chunk), kText) == 0);
    EXPECT_EQ(run.output.find("here.cpp:7") != std::string::npos, pool != nullptr && !run.worked);
    psp_putInPool(chunk, pool);
  };
  scenario.clean = [] { psp_zFreePool(&pool); };
  scenario.finish = [] { psp_freeTagMemory(tag, 1); };
  sweep(scenario);
}

// A waiting chunk that is too small goes first; the pool works on.
FAULT_TEST(PoolFaults, LargerChunkIsNullOrThere) {
  Scenario scenario{.sweeps = kAllocations | kJumps};
  scenario.prepare = [] {
    pool = psp_allocPool(nullptr, 0, 1);
    psp_putInPool(psp_getMemFromPool(10, pool, PSP_MEM_ALLOC, nullptr, "here.cpp", 7), pool);
  };
  scenario.act = [] {
    chunk = nullptr;
    chunk = psp_getMemFromPool(5000, pool, PSP_MEM_ZERO, nullptr, "here.cpp", 7);
    return chunk != nullptr;
  };
  // Leaves one waiting chunk, as prepare does.
  scenario.clean = [] {
    if (chunk == nullptr)
      chunk = psp_getMemFromPool(10, pool, PSP_MEM_ALLOC, nullptr, "here.cpp", 7);
    psp_putInPool(chunk, pool);
  };
  scenario.finish = [] { psp_zFreePool(&pool); };
  sweep(scenario);
}

// As a tag, a pool does without.
FAULT_TEST(PoolFaults, LockThatNeedsANewSlotBlock) {
  Scenario scenario{.sweeps = kAllocations | kJumps, .kept_blocks = 1};
  scenario.prepare = [] { leave_sync_slots(0); };
  scenario.act = [] {
    pool = nullptr;
    pool = psp_allocPool(nullptr, 0, 1);
    psp_sync other = psp_syncCreate(PSP_SYNC_EVENT);
    const bool had_lock = other != PSP_SYNC_NONE;
    psp_syncDelete(other);
    return pool != nullptr && had_lock;
  };
  scenario.clean = [] { psp_zFreePool(&pool); };
  sweep(scenario);
}

}  // namespace
