// Sync objects as the library's own modules use them: creation with a rank in the lock order, and
// the guard.
//
// A locked object stands in a list of its holder's thread, newest first, so that the locks of a
// thread that ends can be given up. The list is the thread's own and needs no lock.
//
// Included by modules that own sync objects.
#pragma once

#include <atomic>
#include <cstdint>

#include "core/lock.h"
#include "psp.h"

namespace psp::core {

// A gate is one word: whether it is open, whether somebody may sleep in front of it while it is
// closed, and how often it was opened. A waiter that finds the count changed knows that the gate
// was opened, even if it is closed again. Whoever opens it learns in the same step whether to wake,
// and touches the gate no more: a waiter that it lets through may end it at once. The wake-up wants
// the word's address only.
struct Gate {
  static constexpr uint32_t kOpen = 1;
  static constexpr uint32_t kSleepers = 2;
  static constexpr uint32_t kTurn = 4;

  std::atomic<uint32_t> word{kOpen};

  static bool is_open(uint32_t word) { return (word & kOpen) != 0; }

  // True: there may be sleepers, and the caller must os::wake_all at the word's address.
  bool open() {
    uint32_t old = word.load(std::memory_order_seq_cst);
    uint32_t opened;
    do {
      if (is_open(old)) return false;  // whoever opened it wakes the waiters
      opened = ((old & ~kSleepers) + kTurn) | kOpen;
    } while (!word.compare_exchange_weak(old, opened, std::memory_order_seq_cst));
    return (old & kSleepers) != 0;
  }

  // seq_cst: whoever closes the gate and then looks for what it waits for, and whoever provides
  // that and then opens, are in one order: one of the two sees the other.
  void close() { word.fetch_and(~kOpen, std::memory_order_seq_cst); }
};

}  // namespace psp::core

// One slot of the table of sync objects, alone on its cache line.
struct PSP_CAPABILITY("sync object") alignas(64) psp_syncObject {
  psp::core::Lock lock{psp::core::LockRank::kClient};  // kind PSP_SYNC_EXCL
  psp::core::Gate gate;                                // kind PSP_SYNC_EVENT
  psp_syncObject *newer_held = nullptr;                // the holder's list
  psp_syncObject *older_held = nullptr;
  int16_t kind = 0;   // 0 while the slot is free
  int16_t next = 0;   // the next free slot of the block, or one of pspsync.cpp's marks
  int16_t entry = 0;  // the table entry of the slot's block
};

static_assert(sizeof(psp_syncObject) == 64);

namespace psp::core {

// psp_syncCreate_check for the library's own locks.
psp_sync sync_create(int16_t kind, LockRank rank, const char *file, uint32_t line);

// Makes an exclusive lock of an object that lies in a record of the library's own, and ends it
// again. A client can hold such a lock while it calls the library, so it has no rank. Its memory
// outlives it: a thread on its way out of the lock may still look at it.
void sync_begin(psp_syncObject *object);
void sync_end(psp_syncObject *object);

// Ends every object still alive and gives the slots' memory back. Nobody uses one any more; the
// memory module calls this before it stops, when no tag has a lock any more.
void sync_close_all();

// The life of the library that is under way, 0 while it is stopped. A thread's list of held locks
// is void when it belongs to another life.
extern constinit std::atomic<uint32_t> sync_life;

// Binds the calling thread's list to the present life and arms the hook at the thread's end.
void sync_attach_thread();

inline bool is_sync_object(psp_sync object) { return object != nullptr && object != PSP_SYNC_NONE; }

inline void sync_enter(psp_sync object) PSP_ACQUIRES(object) PSP_UNCHECKED {
  if (!object->lock.enter()) return;
  ThreadLocks &mine = thread_locks;
  if (mine.life != sync_life.load(std::memory_order_relaxed)) [[unlikely]]
    sync_attach_thread();
  psp_syncObject *older = mine.newest_held;
  object->older_held = older;
  if (older != nullptr) older->newer_held = object;
  mine.newest_held = object;
}

// Takes the object out of its holder's list, which is the calling thread's. The link to a newer
// object means something only while there is one.
inline void sync_forget_held(psp_sync object) {
  ThreadLocks &mine = thread_locks;
  psp_syncObject *older = object->older_held;
  if (mine.newest_held == object) [[likely]] {
    mine.newest_held = older;
    return;
  }
  object->newer_held->older_held = older;
  if (older != nullptr) older->newer_held = object->newer_held;
}

inline void sync_exit(psp_sync object) PSP_RELEASES(object) PSP_UNCHECKED {
  Lock &lock = object->lock;
  if (!lock.mine() || !lock.leave_level()) return;
  sync_forget_held(object);
  lock.release();
}

// Holds a lock for work that enters it no second time and cannot end the thread (no cancellation
// point, no call to a client): neither an owner nor the holder's list need be kept. A lock is
// always held so or never. PSP_SYNC_NONE and null hold nothing.
class PSP_SCOPED_CAPABILITY BriefSyncGuard {
 public:
  explicit BriefSyncGuard(psp_sync object) PSP_ACQUIRES(object) PSP_UNCHECKED : object_(object) {
    if (is_sync_object(object_)) object_->lock.enter_once();
  }
  ~BriefSyncGuard() PSP_RELEASES() PSP_UNCHECKED {
    if (is_sync_object(object_)) object_->lock.exit_once();
  }
  BriefSyncGuard(const BriefSyncGuard &) = delete;
  BriefSyncGuard &operator=(const BriefSyncGuard &) = delete;

 private:
  const psp_sync object_;
};

// Holds a lock for a scope; PSP_SYNC_NONE and null hold nothing.
class PSP_SCOPED_CAPABILITY SyncGuard {
 public:
  explicit SyncGuard(psp_sync object) PSP_ACQUIRES(object) PSP_UNCHECKED : object_(object) {
    if (is_sync_object(object_)) sync_enter(object_);
  }
  ~SyncGuard() PSP_RELEASES() PSP_UNCHECKED {
    if (is_sync_object(object_)) sync_exit(object_);
  }
  SyncGuard(const SyncGuard &) = delete;
  SyncGuard &operator=(const SyncGuard &) = delete;

 private:
  const psp_sync object_;
};

}  // namespace psp::core
