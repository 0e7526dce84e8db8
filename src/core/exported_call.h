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
// A client's callback is called outside exported_call, with no lock held: its own allocations jump
// as anywhere, past the library's frames if its setjmp lies beyond them.
//
// The failure itself is reported at once, where the allocation fails. Where locks are held that the
// log may want, PutOffReports puts the report off to its end.
//
// State: a few words of the calling thread.
#pragma once

#include <type_traits>
#include <utility>

#include "psp.h"

namespace psp::core {

struct CallState {
  uint32_t depth = 0;              // exported calls under way in this thread
  psp_tag *jump_wanted = nullptr;  // armed tag in which an allocation failed

  uint32_t put_offs = 0;                  // PutOffReports under way in this thread
  const char *unreported_file = nullptr;  // the first place whose failure waits for its report
  uint32_t unreported_line = 0;
};

extern constinit thread_local CallState call_state;

// Whether a jump will take the place of this call's result: what it would hand out is to be given
// back, for nobody will see it.
inline bool result_is_lost() { return call_state.jump_wanted != nullptr; }

// Logs the failure that waits for its report.
void report_put_off_failure();

// Puts off the reports of failed allocations: of those that fail while it lives, the first is told
// when the outermost of them ends, with every lock left that was taken inside.
class PutOffReports {
 public:
  PutOffReports() { ++call_state.put_offs; }
  ~PutOffReports() {
    if (--call_state.put_offs == 0 && call_state.unreported_file != nullptr) [[unlikely]]
      report_put_off_failure();
  }
  PutOffReports(const PutOffReports &) = delete;
  PutOffReports &operator=(const PutOffReports &) = delete;
};

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
