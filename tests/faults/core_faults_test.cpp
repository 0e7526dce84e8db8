// Faults under start and stop, tagged memory, sync objects, texts that are made, and the wrappers.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>

#include "core/sync.h"
#include "support/faults.h"

namespace {

using namespace psp::faults;

// ---- Start and stop -----------------------------------------------------------------------------

FAULT_TEST(LifeFaults, FailedStartIsUndoneAndCanBeRepeated) {
  Scenario scenario{.sweeps = kAllocations | kCalls, .started = false};
  scenario.act = [] { return psp_init() == PSP_OKAY; };
  scenario.judge = [](const Run &run) {
    EXPECT_EQ(psp_alloc(1, nullptr) != nullptr, run.worked);
    EXPECT_EQ(psp_syncCreate(PSP_SYNC_EVENT) != PSP_SYNC_NONE, run.worked);
    const bool first = run.fault.kind == Kind::kAllocation && run.fault.nth == 1;
    const bool told = run.output == "Out of memory initializing PSP memory module\n";
    EXPECT_TRUE(told == first || memory_fails_too());
    if (run.worked) psp_term();
  };
  sweep(scenario);
}

FAULT_TEST(LifeFaults, StopLeavesNothingWhateverFails) {
  Scenario scenario{.sweeps = kAllocations | kCalls | kShorts, .started = false};
  scenario.act = [] {
    if (psp_init() != PSP_OKAY) return false;
    const bool pushed = psp_log_open(scratch_path("log")) == PSP_OKAY &&
                        psp_stdout_open(scratch_path("console")) == PSP_OKAY;
    psp_printf("waits\n");
    psp_term();
    return pushed;
  };
  scenario.judge = [](const Run &) { EXPECT_EQ(psp_alloc(1, nullptr), nullptr); };
  sweep(scenario);
}

// ---- Memory -------------------------------------------------------------------------------------

psp_tag *tag;
void make_tag() { tag = psp_createTag(PSP_TAG_THREADSAFE); }
void end_tag() { psp_freeTagMemory(tag, 1); }

FAULT_TEST(MemoryFaults, AllocationGivesNullOrJumpsAfterTheMessage) {
  static void *blocks[6];
  static const auto nulls = [] { return std::count(blocks, blocks + 6, nullptr); };
  Scenario scenario{.sweeps = kAllocations | kJumps, .armed_tag = &tag};
  scenario.prepare = make_tag;
  scenario.act = [] {
    std::fill(blocks, blocks + 6, nullptr);
    blocks[0] = psp_getMem(100, tag, PSP_MEM_ALLOC, nullptr, "here.cpp", 77);
    blocks[1] = psp_getMem(100, tag, PSP_MEM_ZERO, nullptr, "here.cpp", 77);
    blocks[2] = psp_getMem(0, tag, PSP_MEM_STRDUP, "text", "here.cpp", 77);
    blocks[3] = psp_getMem(5, tag, PSP_MEM_COPY, "text", "here.cpp", 77);
    blocks[4] = psp_getMem(0, tag, PSP_MEM_WSTRDUP, PSP_W("text"), "here.cpp", 77);
    blocks[5] = psp_extendMem(nullptr, 100, tag, 1, 0, "here.cpp", 77);
    return nulls() == 0;
  };
  scenario.judge = [](const Run &run) {
    EXPECT_TRUE(run.jumped || run.fault.times != 1 || nulls() == !run.worked);
    const size_t told = run.output.find("Out of memory. Called from here.cpp:77");
    EXPECT_EQ(told == std::string::npos, run.worked) << run.output;
  };
  scenario.clean = [] { psp_freeTagMemory(tag, 0); };
  scenario.finish = end_tag;
  sweep(scenario);
}

FAULT_TEST(MemoryFaults, FailedGrowthLeavesTheBlockInItsTag) {
  static void *block;
  Scenario scenario{.sweeps = kAllocations | kJumps, .armed_tag = &tag};
  scenario.prepare = [] {
    make_tag();
    block = std::memset(psp_alloc(100, tag), 'x', 100);
  };
  scenario.act = [] {
    void *grown = psp_extendMem(block, 5000, tag, 1, 4900, "here.cpp", 77);
    if (grown != nullptr) block = grown;
    return grown != nullptr;
  };
  scenario.judge = [](const Run &run) {
    EXPECT_TRUE(!run.worked || static_cast<char *>(block)[4999] == 0);
    // The block leaves its tag, which is emptied, and comes back.
    psp_tag *other = psp_createTag(0);
    psp_moveMemTag(block, other, tag);
    psp_freeTagMemory(tag, 0);
    EXPECT_EQ(std::string(static_cast<char *>(block), 100), std::string(100, 'x'));
    psp_moveMemTag(block, tag, other);
    psp_freeTagMemory(other, 1);
  };
  scenario.clean = [] { block = psp_extendMem(block, 100, tag, 0, 0, "here.cpp", 77); };
  scenario.finish = end_tag;
  sweep(scenario);
}

// ---- Sync objects -------------------------------------------------------------------------------

// The record of a tag is no tagged memory: no message, no jump.
FAULT_TEST(SyncFaults, TagWithAndWithoutALockThatNeedsANewSlotBlock) {
  static psp_tag *plain;
  Scenario scenario{.sweeps = kAllocations | kJumps, .kept_blocks = 1};
  scenario.prepare = [] { leave_sync_slots(0); };
  scenario.act = [] {
    plain = tag = PSP_TAG_FAILED;
    plain = psp_createTag(0);
    make_tag();
    return plain != PSP_TAG_FAILED && tag != PSP_TAG_FAILED;
  };
  scenario.judge = [](const Run &run) {
    EXPECT_TRUE(run.output.empty() || run.output.starts_with("Out of memory. Called from pspsync"));
  };
  scenario.clean = [] {
    psp_freeTagMemory(plain, 1);
    end_tag();
  };
  sweep(scenario);
}

FAULT_TEST(SyncFaults, WaitThatThePlatformRefusesFails) {
  static psp_sync gate;
  static psp_status status;
  Scenario scenario{.sweeps = kCalls};
  scenario.prepare = [] {
    gate = psp_syncCreate(PSP_SYNC_EVENT);
    psp_syncStart(gate);
  };
  scenario.act = [] { return (status = psp_syncWait(gate, 1)) == PSP_TIMEOUT; };
  scenario.judge = [](const Run &run) { EXPECT_TRUE(run.worked || status == PSP_FAILED); };
  sweep(scenario);
}

// The first waiter for a lock that may be released by a store has a barrier executed.
FAULT_TEST(SyncFaults, LockIsWaitedForThoughThePlatformCannotWait) {
  using psp::core::LockRank;
  const uint32_t once = psp::os::enable_barrier_in_all_threads() ? 1 : 0;
  const std::pair<LockRank, uint32_t> rows[] = {{LockRank::kClient, 0},
                                                {LockRank::kQueueReader, 0},
                                                {LockRank::kQueue, 0},
                                                {LockRank::kPool, once}};
  for (const auto &[rank, barriers] : rows) {
    Scenario scenario{.sweeps = kCalls};
    scenario.act = [rank = rank, barriers = barriers] {
      psp_sync lock = psp::core::sync_create(PSP_SYNC_EXCL, rank, "here.cpp", 77);
      const uint32_t before = calls_in_process(Os::barrier_in_all_threads);
      const uint32_t waits = calls_in_process(Os::wait_on_address);
      std::atomic<bool> held = false;
      std::thread holder([&] {
        psp_syncEnterExcl(lock);
        held = true;
        while (calls_in_process(Os::wait_on_address) == waits) std::this_thread::yield();
        psp_syncExitExcl(lock);
      });
      while (!held) std::this_thread::yield();
      psp_syncEnterExcl(lock);
      psp_syncExitExcl(lock);
      holder.join();
      psp_syncDelete(lock);
      EXPECT_EQ(calls_in_process(Os::barrier_in_all_threads) - before, barriers);
      return true;
    };
    sweep(scenario);
  }
}

// ---- What is made in one call -------------------------------------------------------------------

struct Maker {
  void *(*make)();
  void (*release)(void *);
  bool needs_slots = false;  // for sync objects, of which none is left
};

const std::string text(3000, 'x');
const std::basic_string<psp_wchar> wide(3000, 'x');
psp_wchar first[] = u"first", third[] = u"third";
psp_wchar *const arguments[] = {first, nullptr, third};

void release_block(void *block) { psp_freeMem(block, nullptr); }

const Maker makers[] = {
    {[]() -> void * { return psp_makeStr(nullptr, "%s", text.c_str()); }, release_block},
    {[]() -> void * { return psp_makeString("%d", 42); }, release_block},
    {[]() -> void * { return psp_makeStrVA("here.cpp", 77, nullptr, "%05d", 42); }, release_block},
    {[]() -> void * { return psp_convertToWchar(text.c_str(), 0); }, release_block},
    {[]() -> void * { return psp_convertToUTF8(wide.c_str(), 0); }, release_block},
    {[]() -> void * {
       char **texts = nullptr;
       const psp_status status = psp_convertArgvToUTF8(3, arguments, &texts);
       EXPECT_EQ(texts != nullptr, status == PSP_OKAY);
       return texts;
     },
     [](void *made) {
       for (int index : {0, 1, 2}) psp_freeMem(static_cast<char **>(made)[index], nullptr);
       psp_freeMem(made, nullptr);
     }},
    {[]() -> void * { return psp_randCreate(5489); },
     [](void *made) { psp_randDestroy(static_cast<psp_rand *>(made)); }},
    {[]() -> void * {
       const psp_sync object = psp_syncCreate(PSP_SYNC_EXCL);
       return object != PSP_SYNC_NONE ? object : nullptr;
     },
     [](void *made) { psp_syncDelete(static_cast<psp_sync>(made)); }, true},
};

FAULT_TEST(MakerFaults, WhatIsMadeIsThereOrNullOrLeftByAJump) {
  static void *made;
  for (const Maker &maker : makers) {
    Scenario scenario{.sweeps = kAllocations | kJumps, .kept_blocks = maker.needs_slots};
    if (maker.needs_slots) scenario.prepare = [] { leave_sync_slots(0); };
    scenario.act = [&maker] { return (made = nullptr, made = maker.make()) != nullptr; };
    scenario.clean = [&maker] {
      if (made != nullptr) maker.release(made);
    };
    sweep(scenario);
  }
}

// ---- Time, environment and process --------------------------------------------------------------

FAULT_TEST(WrapperFaults, RefusalsOfThePlatformAreTold) {
  static std::tm parts;
  const std::function<bool()> calls[] = {
      [] { return psp_timeLocaltime(0, &parts) == &parts; },
      [] { return psp_timeCtime(0) != nullptr; },
      [] {
        const psp_status installed = psp_handleInterrupt([] {});
        return psp_handleInterrupt(nullptr) == PSP_OKAY && installed == PSP_OKAY;
      },
  };
  for (const auto &call : calls) {
    Scenario scenario{.sweeps = kCalls};
    if (&call == &calls[2]) scenario.sweeps |= kAllocations;
    scenario.act = call;
    scenario.clean = [] { EXPECT_EQ(psp_handleInterrupt(nullptr), PSP_OKAY); };
    sweep(scenario);
  }
}

FAULT_TEST(WrapperFaults, WideAnswerIsNull) {
  static const std::basic_string<psp_wchar> kLongName(1000, 'x');
  setenv(std::string(1000, 'x').c_str(), "value", 1);
  const std::function<const psp_wchar *()> questions[] = {
      [] { return psp_getenvW(kLongName.c_str()); },
      [] { return psp_setlocaleW(0, nullptr); },
  };
  for (const auto &ask : questions) {
    Scenario scenario{.sweeps = kAllocations | kCalls, .kept_blocks = 1};
    scenario.act = [&ask] { return ask() != nullptr; };
    sweep(scenario);
  }
}

}  // namespace
