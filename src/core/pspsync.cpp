// Module pspsync: sync objects (recursive exclusive locks and gates) and the process-wide critical
// section.
//
// Owns the table of sync objects: up to 128 blocks of 1024 slots, each block obtained from the
// default tag when all before it are full, so that making or ending an object costs no allocation.
// The table lock guards the table and the free lists. It is held for a few instructions only, never
// while memory is obtained or a message is logged. Enter, exit, wait, open and close take no lock
// of the library.
//
// Lock order: the global critical section before the table lock; see LockRank.
#include <algorithm>
#include <new>

#include "core/checked.h"
#include "core/exported_call.h"
#include "core/lifecycle.h"
#include "core/modules.h"
#include "core/sync.h"
#include "os/os.h"

namespace psp::core {

constinit std::atomic<uint32_t> sync_life{0};

namespace {

constexpr char kSource[] = "pspsync.cpp";

constexpr int16_t kBlocks = 128;
constexpr int16_t kSlotsPerBlock = 1024;
constexpr int16_t kSlotsEnd = -1;   // `next` of the last free slot, `free_head` of a full block
constexpr int16_t kSlotInUse = -2;  // `next` of a slot in use

struct TableEntry {
  void *memory;           // the block as obtained; null until the entry is needed
  psp_syncObject *slots;  // the block on a cache line
  int16_t free_head;      // most recently freed slot
};

struct State {
  Lock global_section{LockRank::kGlobal};

  uint32_t next_life = 1;      // odd, never 0; guarded by the global critical section, as is the
  bool barrier_works = false;  // other, which is constant between start and stop

  Lock table_lock{LockRank::kSyncTable};
  TableEntry table[kBlocks] PSP_GUARDED_BY(table_lock) = {};
};

constinit State state;

// Makes a free block of the memory: the slots in index order.
void link_slots(TableEntry *entry, void *memory) PSP_REQUIRES(state.table_lock) {
  constexpr uintptr_t kLine = alignof(psp_syncObject);
  const uintptr_t address = (reinterpret_cast<uintptr_t>(memory) + kLine - 1) & ~(kLine - 1);
  entry->memory = memory;
  entry->slots = reinterpret_cast<psp_syncObject *>(address);
  entry->free_head = 0;
  for (int16_t slot = 0; slot < kSlotsPerBlock; ++slot) {
    psp_syncObject *object = new (&entry->slots[slot]) psp_syncObject;
    object->entry = static_cast<int16_t>(entry - state.table);
    object->next = slot + 1 < kSlotsPerBlock ? static_cast<int16_t>(slot + 1) : kSlotsEnd;
  }
}

// What the search for a slot found.
struct Search {
  psp_syncObject *slot = nullptr;
  TableEntry *blockless_entry = nullptr;  // without a slot: the entry that wants a block, if any
};

// Takes the free slot of the lowest block that has one, but looks no further than the first entry
// without a block.
Search take_slot() PSP_REQUIRES(state.table_lock) {
  for (TableEntry &entry : state.table) {
    if (entry.slots == nullptr) return {.blockless_entry = &entry};
    if (entry.free_head == kSlotsEnd) continue;
    psp_syncObject *slot = &entry.slots[entry.free_head];
    entry.free_head = slot->next;
    slot->next = kSlotInUse;
    return {.slot = slot};
  }
  return {};
}

// Takes a slot, obtaining a block when it must. Null when all are in use (*exhausted) or memory is
// short. The block is obtained outside the table lock; if another thread was quicker, ours goes
// back.
psp_syncObject *obtain_slot(bool *exhausted) {
  void *memory = nullptr;
  Search search;
  for (;;) {
    {
      LockGuard guard(state.table_lock);
      search = take_slot();
      if (search.blockless_entry != nullptr && memory != nullptr) {
        link_slots(search.blockless_entry, memory);
        memory = nullptr;
        search = take_slot();
      }
    }
    if (search.slot != nullptr || search.blockless_entry == nullptr) break;
    memory = psp_getMem(sizeof(psp_syncObject) * kSlotsPerBlock + alignof(psp_syncObject), nullptr,
                        PSP_MEM_ZERO, nullptr, kSource, __LINE__);
    if (memory == nullptr) return nullptr;
  }
  psp_freeMem(memory, nullptr);
  *exhausted = search.slot == nullptr;
  return search.slot;
}

void give_slot_back(psp_syncObject *slot) {
  LockGuard guard(state.table_lock);
  TableEntry &entry = state.table[slot->entry];
  slot->next = entry.free_head;
  entry.free_head = static_cast<int16_t>(slot - entry.slots);
}

// The hook at a thread's end: whoever waits for one of its locks gets it.
void give_up_locks_of_thread() PSP_UNCHECKED {
  ThreadLocks &mine = thread_locks;
  if (mine.life != sync_life.load(std::memory_order_relaxed)) return;
  while (mine.newest_held != nullptr) {
    psp_syncObject *object = mine.newest_held;
    mine.newest_held = object->older_held;
    object->lock.abandon();
  }
  mine.life = 0;  // a lock entered by a later hook of the same thread arms ours again
}

uint64_t monotonic_milliseconds() {
  int64_t frequency = 0;
  if (!os::counter_frequency(&frequency)) return 0;
  return static_cast<uint64_t>(os::counter_value() / (frequency / 1000));
}

// Sleeps in front of the closed gate, at most so long. False when the gate had changed before.
bool sleep_before(Gate &gate, uint32_t closed, uint32_t milliseconds, os::WaitResult *result) {
  const uint32_t with_sleepers = closed | Gate::kSleepers;
  if (!gate.word.compare_exchange_strong(closed, with_sleepers, std::memory_order_seq_cst)) {
    return false;
  }
  *result = os::wait_on_address(gate.word, with_sleepers, milliseconds);
  return true;
}

// Waits for the gate to be opened after the closed word that the caller saw.
[[gnu::noinline]] psp_status wait_for_turn(Gate &gate, uint32_t seen, uint32_t milliseconds) {
  const uint64_t start = milliseconds == PSP_NO_LIMIT ? 0 : monotonic_milliseconds();
  uint32_t left = milliseconds;
  for (;;) {
    const uint32_t word = gate.word.load(std::memory_order_acquire);
    if (Gate::is_open(word) || word / Gate::kTurn != seen / Gate::kTurn) return PSP_OKAY;
    if (left == 0) return PSP_TIMEOUT;
    os::WaitResult result = os::WaitResult::kWoken;
    if (!sleep_before(gate, word, left, &result)) continue;
    if (result == os::WaitResult::kFailed) return PSP_FAILED;
    if (milliseconds == PSP_NO_LIMIT) continue;
    // Woken for nothing, or by a wake-up for an earlier gate of the slot.
    const uint64_t passed = std::min<uint64_t>(monotonic_milliseconds() - start, milliseconds);
    left = result == os::WaitResult::kTimedOut ? 0 : milliseconds - static_cast<uint32_t>(passed);
  }
}

}  // namespace

void sync_attach_thread() {
  thread_locks.newest_held = nullptr;
  thread_locks.life = sync_life.load(std::memory_order_relaxed);
  // Without room for the hook the thread's locks are not given up at its end; nothing else changes.
  os::arm_thread_exit_hook();
}

psp_sync sync_create(int16_t kind, LockRank rank, const char *file, uint32_t line) {
  if (!started()) return PSP_SYNC_NONE;
  if (kind != PSP_SYNC_EXCL && kind != PSP_SYNC_EVENT) return PSP_SYNC_NONE;
  bool exhausted = false;
  psp_syncObject *slot = obtain_slot(&exhausted);
  if (slot == nullptr) {
    if (exhausted) {
      psp_log("Insufficient number of semaphores, called from %s:%d\n", file,
              static_cast<int32_t>(line));
    }
    return PSP_SYNC_NONE;
  }
  slot->lock.reset(rank, may_store_at_release(rank) && state.barrier_works);
  slot->gate.word.store(Gate::kOpen, std::memory_order_relaxed);
  slot->kind = kind;
  return slot;
}

void sync_begin(psp_syncObject *object) {
  object->lock.reset(LockRank::kClient, state.barrier_works);
  object->kind = PSP_SYNC_EXCL;
}

void sync_end(psp_syncObject *object) PSP_UNCHECKED {
  if (object->lock.mine()) {
    sync_forget_held(object);
    object->lock.abandon();
  }
  object->kind = 0;
}

void sync_close_all() PSP_UNCHECKED {
  thread_locks.newest_held = nullptr;
  for (TableEntry &entry : state.table) {
    void *memory = entry.memory;
    entry = {};
    psp_freeMem(memory, nullptr);
  }
}

psp_status sync_start() {
  if (os::install_thread_exit_hook(give_up_locks_of_thread) != 0) return PSP_FAILED;
  state.barrier_works = os::enable_barrier_in_all_threads();
  sync_life.store(state.next_life, std::memory_order_relaxed);
  state.next_life += 2;
  return PSP_OKAY;
}

void sync_stop() {
  sync_life.store(0, std::memory_order_relaxed);
  os::remove_thread_exit_hook();
}

}  // namespace psp::core

using namespace psp::core;
namespace os = psp::os;

psp_sync psp_syncCreate_check(int16_t kind, const char *file, uint32_t line) {
  return exported_call([&] { return sync_create(kind, LockRank::kClient, file, line); });
}

void psp_syncDelete(psp_sync object) PSP_UNCHECKED {
  if (!is_sync_object(object) || object->kind == 0) return;
  sync_end(object);
  give_slot_back(object);
}

void psp_syncEnterExcl(psp_sync object) PSP_UNCHECKED {
  if (is_sync_object(object) && object->kind == PSP_SYNC_EXCL) sync_enter(object);
}

void psp_syncExitExcl(psp_sync object) PSP_UNCHECKED {
  if (is_sync_object(object) && object->kind == PSP_SYNC_EXCL) sync_exit(object);
}

psp_status psp_syncWait(psp_sync object, uint32_t milliseconds) {
  if (!is_sync_object(object) || object->kind != PSP_SYNC_EVENT) return PSP_OKAY;
  const uint32_t word = object->gate.word.load(std::memory_order_acquire);
  if (Gate::is_open(word)) return PSP_OKAY;
  if (milliseconds == 0) return PSP_TIMEOUT;
  return wait_for_turn(object->gate, word, milliseconds);
}

void psp_syncStart(psp_sync object) {
  if (is_sync_object(object) && object->kind == PSP_SYNC_EVENT) object->gate.close();
}

void psp_syncResume(psp_sync object) {
  if (!is_sync_object(object) || object->kind != PSP_SYNC_EVENT) return;
  if (object->gate.open()) os::wake_all(object->gate.word);
}

void psp_enterCritSec(void) PSP_UNCHECKED { state.global_section.enter(); }

void psp_exitCritSec(void) PSP_UNCHECKED { state.global_section.exit(); }
