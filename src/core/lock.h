// Locks of the library: the recursive lock behind sync objects and internal state, its guard, and
// the one order in which locks are taken.
//
// A lock is two words. `state` says free, held, or held with waiters, and is what waiters sleep on;
// `owner` names the holding thread and is written by the holder alone. An uncontended enter is one
// compare-and-swap, an exit one store or exchange; neither makes a system call.
//
// Why reading `owner` without the lock is right: a thread compares it with its own identity only.
// It finds its own identity there exactly if it wrote it and has not cleared it, for nobody else
// writes that value; whatever else it reads, however stale, means "not mine".
//
// Why a plain store may release a lock: only while nobody has ever waited for it (`waited`). The
// first waiter sets `waited` and then has a barrier executed in all threads. A releaser stores
// "free" and looks at `waited` again. If it looked before the barrier, its store is visible to the
// waiter from the barrier on, and the waiter takes the lock; if after it, it sees `waited` and
// wakes. Other waiters may come between the two steps of the first: the first one takes the lock as
// contended in any case, and wakes them when it leaves. From then on the lock is released by an
// exchange, so the barrier, which disturbs all threads, is paid once in a lock's life. Where the
// platform has no such barrier a lock begins as waited for.
//
// Included by modules that own locks.
#pragma once

#include <atomic>
#include <cstdint>

#include "core/thread_annotations.h"
#include "psp.h"

namespace psp::core {

// The order of locks: a thread takes them with rising rank only; a lock that it holds already may
// be entered again at any time. Builds with PSP_CHECK_LOCK_ORDER stop the process otherwise. Locks
// of clients have no rank: they may be held when the library is called. Nor have those of the
// store's files and directories, which a client may hold (sync_begin).
enum class LockRank : uint8_t {
  kClient,
  kGlobal,         // psp_enterCritSec: start, stop, one-time set-ups
  kProcess,        // the interrupt handler, the wide answers of the environment
  kIni,            // the store of INI files, for each whole lookup or update
  kQueueRegistry,  // the list of message queues, and the queues' tags
  kQueueReader,    // the turn to read a queue, a wait included
  kQueue,          // a queue's messages; two queues' locks are never held together
  kChannel,        // a channel's outputs; two channels' locks are never held together
  kStoreCache,     // the in-memory store's open files and directories and their pages
  kHeapList,       // the table of that store's heaps
  kPool,           // a memory pool's free chunks; two pools' locks are never held together
  kTag,            // a tag's blocks; two tags' locks are never held together
  kTagList,        // the list of tags
  kSyncTable,      // the table of sync objects
  kCount,
};

// Whether a lock of the rank may be released by a store; see above. A client may end a lock as soon
// as it holds it, while the thread that released it is still on its way out; and whoever reads the
// last message of a queue, or finds it closed, may end the queue with its locks.
constexpr bool may_store_at_release(LockRank rank) {
  return rank != LockRank::kClient && rank != LockRank::kQueueReader && rank != LockRank::kQueue;
}

// What a thread remembers of its locks. Its address is the thread's identity as an owner.
struct ThreadLocks {
  psp_syncObject *newest_held = nullptr;  // see sync.h
  uint32_t life = 0;                      // the life of the library that the list belongs to
#ifdef PSP_CHECK_LOCK_ORDER
  uint32_t held_of_rank[static_cast<size_t>(LockRank::kCount)] = {};
#endif
};

extern constinit thread_local ThreadLocks thread_locks;

class PSP_CAPABILITY("lock") Lock {
 public:
  // may_store: the lock may be released by a store; see above.
  constexpr explicit Lock(LockRank rank, bool may_store = false)
      : rank_(rank), waited_(!may_store) {}
  Lock(const Lock &) = delete;
  Lock &operator=(const Lock &) = delete;

  // Makes a new lock of one that has ended. Atomic, since its last releaser may still look at it.
  void reset(LockRank rank, bool may_store) {
    state_.store(kFree, std::memory_order_relaxed);
    inner_levels_ = 0;
    owner_.store(nullptr, std::memory_order_relaxed);
    rank_ = rank;
    waited_.store(!may_store, std::memory_order_relaxed);
  }

  // True when this was the thread's first level.
  bool enter() PSP_ACQUIRES() {
    if (mine()) {
      ++inner_levels_;
      return false;
    }
    enter_once();
    owner_.store(&thread_locks, std::memory_order_relaxed);
    return true;
  }

  // For locks that no thread enters twice: such a lock knows no owner.
  void enter_once() PSP_ACQUIRES() {
    check_order();
    uint32_t state = kFree;
    if (!state_.compare_exchange_strong(state, kHeld, std::memory_order_acquire,
                                        std::memory_order_relaxed)) [[unlikely]] {
      wait_until_taken();
    }
  }

  // Only while mine(). True when this was the thread's last level; the caller release()s then.
  bool leave_level() {
    if (inner_levels_ == 0) return true;
    --inner_levels_;
    return false;
  }

  // After the last level: lets the next thread in.
  void release() PSP_RELEASES() {
    owner_.store(nullptr, std::memory_order_relaxed);
    exit_once();
  }

  // Ends enter_once.
  void exit_once() PSP_RELEASES() {
    note_release();
    if (!waited_.load(std::memory_order_relaxed)) [[likely]] {
      state_.store(kFree, std::memory_order_release);
      std::atomic_signal_fence(std::memory_order_seq_cst);  // the processor's part: the barrier
      if (waited_.load(std::memory_order_relaxed)) [[unlikely]]
        wake_waiter();
      return;
    }
    if (state_.exchange(kFree, std::memory_order_release) == kContended) wake_waiter();
  }

  // Gives up all levels of the holder, which is the calling thread, at its end.
  void abandon() PSP_RELEASES() {
    inner_levels_ = 0;
    release();
  }

  // Nothing happens when the calling thread does not hold the lock.
  void exit() PSP_RELEASES() {
    if (mine() && leave_level()) release();
  }

  bool mine() const { return owner_.load(std::memory_order_relaxed) == &thread_locks; }

 private:
  static constexpr uint32_t kFree = 0;
  static constexpr uint32_t kHeld = 1;
  static constexpr uint32_t kContended = 2;  // held, and a waiter may sleep

  void wait_until_taken();
  void wake_waiter();
#ifdef PSP_CHECK_LOCK_ORDER
  void check_order() const;
  void note_release() const;
#else
  void check_order() const {}
  void note_release() const {}
#endif

  std::atomic<uint32_t> state_{kFree};
  uint32_t inner_levels_ = 0;                 // of the holder, after the first
  std::atomic<const void *> owner_{nullptr};  // the holder's ThreadLocks
  [[maybe_unused]] LockRank rank_;
  std::atomic<bool> waited_;  // a thread has waited, or the lock is never released by a store
};

class PSP_SCOPED_CAPABILITY LockGuard {
 public:
  explicit LockGuard(Lock &lock) PSP_ACQUIRES(lock) : lock_(lock) { lock_.enter(); }
  ~LockGuard() PSP_RELEASES() { lock_.exit(); }
  LockGuard(const LockGuard &) = delete;
  LockGuard &operator=(const LockGuard &) = delete;

 private:
  Lock &lock_;
};

}  // namespace psp::core
