// Module psp: start and stop of the library, its two process-wide modes, its version.
//
// Owns the start count and the modes (lifecycle.h). Starts and stops run inside the global critical
// section, so that the first of several concurrent starts does the work and the others wait for it.
#include <cstdio>

#include "core/critical_section.h"
#include "core/lifecycle.h"
#include "core/modules.h"
#include "os/os.h"

namespace psp::core {

constinit ProcessState process_state;

namespace {

struct Module {
  psp_status (*start)();
  void (*stop)();
};

psp_status start_nothing() { return PSP_OKAY; }

// In the order of starting; stops run in reverse. A module uses only those above it.
constexpr Module kModules[] = {
    {start_nothing, environment_stop},  // works without a start; its texts live until the last stop
    {sync_start, sync_stop},            // sync objects
    {memory_start, memory_stop},        // tags, the default tag first
    {files_start, files_stop},          // the tag of the file handles
    {psp_iniInit, psp_iniTerm},         // the store of INI files and its lock
    {store_start, store_stop},          // the in-memory file store
    {start_nothing, temporary_directory_stop},  // found when first wanted
    {channels_start, channels_stop},            // standard output, standard error, log
};
constexpr int kModuleCount = static_cast<int>(sizeof kModules / sizeof kModules[0]);

void stop_modules(int started_count) {
  for (int index = started_count - 1; index >= 0; --index) kModules[index].stop();
}

psp_status start_modules() {
  for (int index = 0; index < kModuleCount; ++index) {
    if (kModules[index].start() != PSP_OKAY) {
      stop_modules(index);
      return PSP_FAILED;
    }
  }
  return PSP_OKAY;
}

}  // namespace
}  // namespace psp::core

using namespace psp::core;
namespace os = psp::os;

psp_status psp_init(void) {
  const CriticalSection inside;
  std::atomic<int32_t> &count = process_state.start_count;
  const int32_t starts = count.load(std::memory_order_relaxed);
  // The count is raised first: the modules allocate while they start.
  count.store(starts + 1, std::memory_order_release);
  if (starts != 0) return PSP_OKAY;
  const psp_status status = start_modules();
  if (status != PSP_OKAY) count.store(0, std::memory_order_release);
  return status;
}

void psp_term(void) {
  const CriticalSection inside;
  std::atomic<int32_t> &count = process_state.start_count;
  const int32_t starts = count.load(std::memory_order_relaxed);
  if (starts == 0) return;
  if (starts == 1) stop_modules(kModuleCount);
  count.store(starts - 1, std::memory_order_release);
}

void psp_rdonly(void) { process_state.read_only.store(true, std::memory_order_relaxed); }

void psp_nodisk(void) { process_state.no_disk.store(true, std::memory_order_relaxed); }

void psp_version(uint16_t *major, uint16_t *minor, uint16_t *build) {
  if (major != nullptr) *major = PSP_VERSION_MAJOR;
  if (minor != nullptr) *minor = PSP_VERSION_MINOR;
  if (build != nullptr) *build = PSP_VERSION_BUILD;
}

int32_t psp_isPurifyRunning(void) { return 0; }

uint32_t psp_errno(void) { return os::last_error(); }

void psp_errPrint(const char *text) { std::printf("%s\n", text != nullptr ? text : ""); }
