// The slow paths of the lock: waiting, waking, and the check of the order in which locks are taken.
//
// State: what each thread remembers of its locks (thread_locks). Takes no lock itself.
#include "core/lock.h"

#include <cstdio>
#include <cstdlib>

#include "os/os.h"

namespace psp::core {

constinit thread_local ThreadLocks thread_locks;

// Sleeps at once: on a lock that two threads take in turn, looking again and again before the sleep
// cost more than it won, because each look takes the lock's line from the holder.
void Lock::wait_until_taken() {
  if (!waited_.load(std::memory_order_relaxed)) {
    waited_.store(true, std::memory_order_relaxed);
    os::barrier_in_all_threads();
  }
  // From here on the lock is taken as contended, since other waiters may sleep; the worst of it is
  // one wake-up for nobody.
  while (state_.exchange(kContended, std::memory_order_acquire) != kFree) {
    os::wait_on_address(state_, kContended, os::kNoTimeLimit);
  }
}

void Lock::wake_waiter() { os::wake_one(state_); }

#ifdef PSP_CHECK_LOCK_ORDER
void Lock::check_order() const {
  if (rank_ == LockRank::kClient) return;
  const auto rank = static_cast<size_t>(rank_);
  for (size_t held = rank; held < static_cast<size_t>(LockRank::kCount); ++held) {
    if (thread_locks.held_of_rank[held] != 0) {
      std::fprintf(stderr, "psp: lock of rank %zu taken while one of rank %zu is held\n", rank,
                   held);
      std::abort();
    }
  }
  ++thread_locks.held_of_rank[rank];
}

void Lock::note_release() const {
  if (rank_ != LockRank::kClient) --thread_locks.held_of_rank[static_cast<size_t>(rank_)];
}
#endif

}  // namespace psp::core
