// Faults under paths, directories, temporary names and threads: a failure is told, never a shorter
// answer.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cerrno>
#include <filesystem>

#include "support/faults.h"

namespace {

using namespace psp::faults;

std::string folder, made;  // made: what the last call gave, empty for null
uint32_t counter;
psp_threadHandle handle;

bool take(char *text) {
  made = text != nullptr ? text : "";
  psp_freeMem(text, nullptr);
  return text != nullptr;
}

bool make_temporary_name(const char *temp) {
  setenv("TEMP", temp, 1);
  return take(psp_fileCreateTmpName(&counter, nullptr, nullptr, nullptr));
}

FAULT_TEST(PathFaults, FailureIsNullAndNeverAShorterName) {
  folder = scratch_path("");
  for (const char *name : {"VKD_TMPDIR", "TMP"}) unsetenv(name);
  static std::string right;
  const std::function<bool()> acts[] = {
      [] { return take(psp_fullpath("a")) && (right = made, true); },
      [] {
        char *directory, *file;
        psp_pathSplit("a\\b", &directory, &file);
        EXPECT_EQ(directory == nullptr, file == nullptr);
        psp_freeMem(directory, nullptr);
        return (right = "b", take(file));
      },
      [] { return (right = made = "", psp_dirCreateAll(scratch_path("p\\q")) == PSP_OKAY); },
      [] { return (right = folder, make_temporary_name(folder.c_str())); }};
  for (const auto &act : acts) {
    Scenario scenario{.sweeps = kAllocations | kJumps, .act = act};
    scenario.kept_blocks = 1;  // the temporary directory's name
    scenario.judge = [](const Run &run) {
      EXPECT_TRUE(run.worked ? made.rfind(right, 0) == 0 : run.jumped || run.error == ENOMEM)
          << made;
    };
    scenario.clean = [] { std::filesystem::remove_all(scratch_path("p")); };
    if (&act == &acts[3]) scenario.sweeps &= ~kJumps;
    sweep(scenario);
  }
  // A refused directory gives way to the next one; without any the name stands alone.
  Scenario scenario{.sweeps = kCalls, .codes = {EACCES}, .kept_blocks = 1};
  scenario.act = [] { return make_temporary_name("/nonexistent"); };
  scenario.judge = [](const Run &run) { EXPECT_TRUE(run.worked) << "a refusal is no failure"; };
  sweep(scenario);
}

FAULT_TEST(ThreadFaults, RefusedStartIsToldAndARefusedPriorityIsNot) {
  Scenario scenario{.sweeps = kCalls, .codes = {EAGAIN}};
  scenario.act = [] {
    const auto nothing = [](void *) {};
    return psp_threadBeginEx(nothing, 0, nullptr, &(handle = 0), -1, 0) == PSP_OKAY;
  };
  scenario.judge = [](const Run &run) {
    EXPECT_EQ(run.worked, handle != 0);
    EXPECT_NE(run.output.find("Failed to create thread") != std::string::npos, run.worked);
    EXPECT_TRUE(run.worked || run.error == EAGAIN);
  };
  sweep(scenario);
}

}  // namespace
