// How the out-of-memory jump leaves the library without tearing it.
//
// An allocation that fails in an armed tag must jump, but the code between the failing allocation
// and the client may hold locks, memory and half-made records. So inside the library a failed
// allocation always returns null; the thread remembers the tag that asked for the jump, every
// function gives back what it took as for any failure, and the jump is made by the outermost
// exported function, when nothing is left to undo.
//
// Every exported function that may allocate, directly or through another exported function, runs
// its work as
//
//     char *psp_makeThing(...) {
//       return core::exported_call([&] { return make_thing(...); });
//     }
//
// where make_thing does everything, guards and all; no object with a destructor may be alive
// beside the call, since longjmp passes over it. psp_getMem and psp_extendMem themselves jump at
// once when no such call encloses them.
//
// A client's callback starts afresh: inside CallbackScope its allocations jump as anywhere, past
// the library's frames if its setjmp lies beyond them. No lock may be held around a callback.
//
// State: three words of the calling thread.
#pragma once

#include <type_traits>
#include <utility>

#include "psp.h"

namespace psp::core {

struct CallState {
  uint32_t depth = 0;              // exported calls under way in this thread
  bool reporting = false;          // an out-of-memory message is being written
  psp_tag *jump_wanted = nullptr;  // armed tag in which an allocation failed
};

extern constinit thread_local CallState call_state;

// Jumps to the tag that asked for it, if it is still armed. The outermost call has ended.
void take_wanted_jump();

template <class Work>
inline auto exported_call(Work &&work) -> std::invoke_result_t<Work> {
  static_assert(std::is_trivially_destructible_v<std::remove_reference_t<Work>>);
  CallState &state = call_state;
  ++state.depth;
  if constexpr (std::is_void_v<std::invoke_result_t<Work>>) {
    work();
    if (--state.depth == 0 && state.jump_wanted != nullptr) [[unlikely]]
      take_wanted_jump();
  } else {
    auto result = work();
    static_assert(std::is_trivially_destructible_v<decltype(result)>);
    if (--state.depth == 0 && state.jump_wanted != nullptr) [[unlikely]]
      take_wanted_jump();
    return result;
  }
}

}  // namespace psp::core
