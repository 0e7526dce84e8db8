// The library's start count and its two modes, as every module asks for them.
//
// The three words are written by psp.cpp alone, without a lock: a reader may see a mode switched on
// a moment late, which a caller that switches it while others work cannot tell from bad luck.
#pragma once

#include <atomic>
#include <cstdint>

namespace psp::core {

struct ProcessState {
  std::atomic<int32_t> start_count{0};
  std::atomic<bool> read_only{false};
  std::atomic<bool> no_disk{false};
};

extern constinit ProcessState process_state;

// True from the first step of the first start to the last step of the last stop.
inline bool started() { return process_state.start_count.load(std::memory_order_acquire) != 0; }
inline bool read_only() { return process_state.read_only.load(std::memory_order_relaxed); }
inline bool no_disk() { return process_state.no_disk.load(std::memory_order_relaxed); }

}  // namespace psp::core
