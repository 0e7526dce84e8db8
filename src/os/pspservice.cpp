// Module pspservice: a program as a service of the system's service manager, and the installing and
// removing of services.
//
// What a manager is asked and told lies below os.h; here stands the course of a service: its
// states, its two events, its worker thread. A service works without a started library, since its
// main function may be what starts it.
//
// Owns the state of the one service that a process can be. It takes no lock: the service's record
// is set before any other thread of it exists, and the rest is atomic. The client's main function
// is called from the bottom of the worker's stack, or from psp_serviceStart itself, which is no
// core::exported_call because it allocates nothing: either way its allocations begin afresh and no
// lock is held.

#include <atomic>
#include <cstring>

#include "core/exported_call.h"
#include "os/os.h"
#include "psp.h"
#include "streams/stream.h"

namespace os = psp::os;

namespace {

constexpr char kSource[] = "pspservice.cpp";
constexpr uint32_t kWaitHintMilliseconds = 5000;

// What psp_serviceStart was given. It lives on the stack of that call.
struct Service {
  const char *name;
  uint16_t *stop_flag;
  psp_word first;
  psp_word second;
  psp_serviceMain main;
};

// An event that opens once; missing outside the service body.
enum Event : uint32_t { kMissing, kClosed, kOpen };

struct State {
  const Service *service = nullptr;
  std::atomic<uint32_t> started{kMissing};
  std::atomic<uint32_t> done{kMissing};
  std::atomic<uint32_t> check_point{1};
};

constinit State state;

// ---- Events -------------------------------------------------------------------------------------

void open_event(std::atomic<uint32_t> *event) {
  uint32_t expected = kClosed;
  if (event->compare_exchange_strong(expected, kOpen, std::memory_order_acq_rel)) {
    os::wake_all(*event);
  }
}

// Waits until the event is open, and removes it.
void await_event(std::atomic<uint32_t> *event) {
  while (event->load(std::memory_order_acquire) != kOpen) {
    const os::WaitResult result = os::wait_on_address(*event, kClosed, os::kNoTimeLimit);
    if (result == os::WaitResult::kFailed) os::sleep_milliseconds(1);
  }
  event->store(kMissing, std::memory_order_relaxed);
}

// ---- Being a service ----------------------------------------------------------------------------

// A manager that cannot be told is of no matter to the service.
void report(os::ServiceState service_state) {
  os::ServiceStatus status = {};
  status.state = service_state;
  status.accepts_stop = service_state != os::ServiceState::kStartPending;
  if (service_state == os::ServiceState::kStartPending ||
      service_state == os::ServiceState::kStopPending) {
    status.check_point = state.check_point.fetch_add(1, std::memory_order_relaxed);
    status.wait_hint_milliseconds = kWaitHintMilliseconds;
  }
  const os::LastErrorKeeper keeper;
  os::service_report(status);
}

void handle_control(os::ServiceControl control) {
  if (control != os::ServiceControl::kStop) return report(os::ServiceState::kRunning);
  uint16_t *stop_flag = state.service->stop_flag;
  if (stop_flag != nullptr) {
    std::atomic_ref<uint16_t>(*stop_flag).store(1, std::memory_order_release);
  }
  report(os::ServiceState::kStopPending);
}

void run_main(void *) {
  const Service &service = *state.service;
  service.main(service.first, service.second);
}

void run_body() {
  state.done.store(kClosed, std::memory_order_relaxed);
  state.started.store(kClosed, std::memory_order_release);
  uintptr_t worker = 0;
  if (os::thread_start_awaited(run_main, nullptr, &worker) != 0) {
    return report(os::ServiceState::kStopped);
  }
  await_event(&state.started);
  report(os::ServiceState::kRunning);
  await_event(&state.done);
  os::thread_wait_end(worker);
  report(os::ServiceState::kStopped);
}

void run_service(void *argument) {
  state.service = static_cast<const Service *>(argument);
  if (os::service_register(state.service->name, handle_control) != 0) {
    return report(os::ServiceState::kStopped);
  }
  psp::streams::set_running_as_service(true);
  report(os::ServiceState::kStartPending);
  run_body();
  state.started.store(kMissing, std::memory_order_relaxed);
  state.done.store(kMissing, std::memory_order_relaxed);
}

// ---- Installing ---------------------------------------------------------------------------------

bool is_text(const char *text) {
  return text != nullptr && psp_utf8_to_wchar(nullptr, text, 0, PSP_UTF8_STRICT) >= 0;
}

bool is_installed(const char *name) {
  uint32_t count = 0;
  return os::service_counter_read(name, &count) == 0 && count != 0;
}

psp_status status_of(os::Error error, os::Condition condition, psp_status meaning) {
  if (error == 0) return PSP_OKAY;
  return os::file_condition(error) == condition ? meaning : PSP_FAILED;
}

psp_status open_manager() {
  return status_of(os::service_manager_open(), os::Condition::kAccessDenied, PSP_NOACCESS);
}

psp_status refuse_argument() {
  os::set_last_error(os::refusal_code(os::Refusal::kInvalidArgument));
  return PSP_FAILED;
}

// The setup lacks the command line.
os::Error create(os::ServiceSetup setup, const char *path, const char *arguments) {
  char *command_line = psp_makeStrVA(kSource, __LINE__, nullptr, "%s %s", path, arguments);
  if (command_line == nullptr) return os::refusal_code(os::Refusal::kInvalidArgument);
  setup.command_line = command_line;
  const os::Error error = os::service_create(setup);
  const os::LastErrorKeeper keeper;
  psp_freeMem(command_line, nullptr);
  return error;
}

}  // namespace

int32_t psp_serviceStart(const char *name, uint16_t *stopFlag, psp_word first, psp_word second,
                         psp_serviceMain main) {
  if (main == nullptr) return refuse_argument();
  if (is_text(name) && is_installed(name)) {
    Service service = {name, stopFlag, first, second, main};
    const os::ServiceRun run = os::service_run(name, run_service, &service);
    if (run != os::ServiceRun::kNotStartedByManager) return 0;
  }
  return main(first, second);
}

void psp_serviceStarted(void) { open_event(&state.started); }

void psp_serviceDone(void) { open_event(&state.done); }

psp_status psp_serviceInstall(const char *counterName, const char *serviceName,
                              const char *displayName, const char *description,
                              const char *programPath, const char *programArguments) {
  const char *arguments = programArguments != nullptr ? programArguments : "";
  const bool texts = is_text(counterName) && is_text(serviceName) && is_text(displayName) &&
                     is_text(programPath) && is_text(arguments) &&
                     (description == nullptr || is_text(description));
  if (!texts) return refuse_argument();
  return psp::core::exported_call([&] {
    const psp_status status = open_manager();
    if (status != PSP_OKAY) return status;
    const os::ServiceSetup setup = {.counter = counterName,
                                    .name = serviceName,
                                    .display_name = displayName,
                                    .description = description,
                                    .command_line = nullptr,
                                    .program_bytes = std::strlen(programPath)};
    if (create(setup, programPath, arguments) != 0) return psp_status{PSP_FAILED};
    const os::LastErrorKeeper keeper;
    os::service_start(serviceName);
    return psp_status{PSP_OKAY};
  });
}

psp_status psp_serviceUninstall(const char *counterName, const char *serviceName) {
  if (!is_text(counterName) || !is_text(serviceName)) return refuse_argument();
  psp_status status = open_manager();
  if (status == PSP_OKAY) {
    status = status_of(os::service_find(serviceName), os::Condition::kNotFound, PSP_NOSERVICE);
  }
  if (status != PSP_OKAY) return status;
  const os::LastErrorKeeper keeper;
  os::service_stop(serviceName);
  if (os::service_delete(serviceName) != 0) return PSP_FAILED;
  os::service_counter_add(counterName, -1);
  return PSP_OKAY;
}
