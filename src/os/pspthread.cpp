// Module pspthread: starting, ending and ranking threads.
//
// Owns nothing: a thread belongs to the platform, and nobody waits for one. Everything works
// without a started library. The message of a failed start is the last thing that a call does.

#include "os/os.h"
#include "psp.h"

namespace os = psp::os;

namespace {

os::ThreadPriority platform_priority(int32_t priority) {
  switch (priority) {
    case PSP_PRIORITY_LOWEST:
      return os::ThreadPriority::kLowest;
    case PSP_PRIORITY_HIGHEST:
      return os::ThreadPriority::kHighest;
    default:
      return os::ThreadPriority::kNormal;
  }
}

// *handle, if wanted, is set before the thread can be ranked, but costs a wait for its first step.
psp_status start_thread(void (*function)(void *), uint32_t stack_bytes, void *argument,
                        psp_threadHandle *handle) {
  os::Error error = os::refusal_code(os::Refusal::kInvalidArgument);
  if (function != nullptr) error = os::thread_start(function, argument, stack_bytes, handle);
  if (error == 0) return PSP_OKAY;
  os::set_last_error(error);
  psp_log("Failed to create thread\n");
  return PSP_FAILED;
}

}  // namespace

psp_status psp_threadBegin(void (*function)(void *), uint32_t stack, void *argument) {
  return start_thread(function, stack, argument, nullptr);
}

psp_status psp_threadBeginEx(void (*function)(void *), uint32_t stack, void *argument,
                             psp_threadHandle *handle, int32_t priority, int32_t) {
  if (handle == nullptr && priority == PSP_PRIORITY_NORMAL) {
    return start_thread(function, stack, argument, nullptr);
  }
  psp_threadHandle thread = 0;
  const psp_status status = start_thread(function, stack, argument, &thread);
  if (status != PSP_OKAY) return status;
  if (priority != PSP_PRIORITY_NORMAL) {
    os::LastErrorKeeper keeper;  // a refusal is not told
    psp_threadSetPriority(thread, priority);
  }
  if (handle != nullptr) *handle = thread;
  return PSP_OKAY;
}

psp_status psp_threadSetPriority(psp_threadHandle thread, int32_t priority) {
  return os::thread_set_priority(thread, platform_priority(priority)) == 0 ? PSP_OKAY : PSP_FAILED;
}

void psp_threadEnd(void) { os::thread_end(); }

psp_status psp_threadJoin(psp_threadHandle) { return PSP_NOTSUPPORTED; }

uint32_t psp_threadId(void) { return os::thread_id(); }
