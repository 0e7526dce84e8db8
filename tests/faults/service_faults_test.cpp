// Faults under services: what a failure leaves of the unit and of the counter, and that a service
// that cannot be run ends at once.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include "streams/stream.h"
#include "support/faults.h"

#define os real_os  // the places are those of the platform layer below the faults
#include "os/posix/service_places.h"
#undef os

namespace {

using namespace psp::faults;

constexpr char kScript[] = "#!/bin/sh\ncase \"$*\" in *cat*) exit 1;; esac\n";

void use_private_places() {
  static const char *const units = scratch_path("units"), *const script = scratch_path("manager"),
                           *const counters = scratch_path("counters");
  std::filesystem::create_directory(units);
  put_file(script, kScript);
  chmod(script, 0755);
  psp::real_os::service_places = {counters, units, units, script};
}

FAULT_TEST(ServiceFaults, UnitIsWholeOrMissing) {
  static psp_status installed, uninstalled;
  Scenario scenario{.sweeps = kAllocations | kJumps | kCalls, .codes = {EIO, EACCES, ENOENT}};
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  scenario.codes = {EIO};  // every run clones the process a few times, which is dear there
#else
  scenario.sweeps |= kSystem;
  scenario.system_codes = {EIO};
#endif
  scenario.prepare = use_private_places;
  scenario.act = [] {
    installed = psp_serviceInstall("f", "f", "F", "of faults", "/a", "b");
    uninstalled = psp_serviceUninstall("f", "f");
    return installed == PSP_OKAY && uninstalled == PSP_OKAY;
  };
  scenario.judge = [](const Run &run) {
    const std::string unit = get_file((std::string(scratch_path("units")) + "/f.service").c_str());
    if (run.jumped) {
      EXPECT_EQ(unit, "");
      return;
    }
    const bool is_whole = unit.ends_with("WantedBy=multi-user.target\n");
    EXPECT_TRUE(is_whole || unit.empty());
    // Where every call fails, what undoes the others does too.
    const bool may_stay = run.fault.kind == Kind::kSystemCall && run.fault.times != 1;
    EXPECT_TRUE(is_whole == (installed == PSP_OKAY && uninstalled != PSP_OKAY) || may_stay);
  };
  scenario.clean = [] {
    psp_serviceUninstall("f", "f");
    std::filesystem::remove_all(scratch_path("counters"));
  };
  sweep(scenario);
}

FAULT_TEST(ServiceFaults, ServiceThatCannotBeRunIsNotRun) {
  static int runs;
  static int32_t result;
  Scenario scenario{.sweeps = kAllocations | kCalls | kSystem, .codes = {EAGAIN}};
  scenario.prepare = [] {
    use_private_places();
    ASSERT_EQ(psp::os::service_counter_add("f", 1), 0u);
    unsetenv("SYSTEMD_EXEC_PID");
    setenv("NOTIFY_SOCKET", scratch_path("nobody"), 1);
  };
  scenario.act = [] {
    runs = 0;
    result = psp_serviceStart("f", nullptr, 1, 2, [](psp_word, psp_word) -> int32_t {
      ++runs;
      psp_serviceStarted();
      psp_serviceDone();
      return 7;
    });
    return runs == 1;
  };
  scenario.judge = [](const Run &) {
    EXPECT_LE(runs, 1);
    EXPECT_TRUE(result == 0 || (result == 7 && runs == 1));
  };
  scenario.finish = [] {
    unsetenv("NOTIFY_SOCKET");
    psp::streams::set_running_as_service(false);  // other tests read the console
  };
  sweep(scenario);
}

}  // namespace
