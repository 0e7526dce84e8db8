// Faults under paths, directories, temporary names and threads: a failure is told, never a shorter
// answer.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
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
  Scenario scenario{.sweeps = kCalls | kSystem, .codes = kCommonCodes, .kept_blocks = 1};
  scenario.act = [] { return make_temporary_name("/nonexistent"); };
  scenario.judge = [](const Run &run) {
    EXPECT_TRUE(run.worked || memory_fails_too()) << "a refusal is no failure";
  };
  sweep(scenario);
}

struct Call {
  unsigned sweeps;
  bool (*works)();
  const char *comes, *goes;  // by a success and no failure
};

bool exists(const char *name) { return std::filesystem::exists(scratch_path(name)); }

bool iterate() {
  int count = errno = 0;
  psp_pathIter *entries = psp_pathOpen(scratch_path("d"), "*");
  for (uint32_t flag; entries != nullptr && psp_pathNext(entries, &flag) != nullptr;) ++count;
  const psp::os::LastErrorKeeper keeper;
  psp_pathClose(entries);
  return count == 3 && errno == 0;
}

FAULT_TEST(PathFaults, EachCallIsDoneOrToldAsFailed) {
  static constexpr const char *(*at)(const char *) = scratch_path;
  const Call calls[] = {
      {kAllocations | kCalls | kSystem, [] { return take(psp_currdir()); }, {}, {}},
      {kAllocations | kCalls | kSystem, [] { return take(psp_tmpdir(nullptr)); }, {}, {}},
      {kAllocations | kCalls | kSystem, iterate, {}, {}},
      {kCalls | kSystem, [] { return psp_dirCreate(at("n")) == 0; }, "n", {}},
      {kCalls | kSystem, [] { return psp_dirCreateAll(at("n\\m")) == 0; }, "n/m", {}},
      {kCalls | kSystem, [] { return psp_dirRemove(at("e")) == 0; }, {}, "e"},
      {kCalls | kSystem, [] { return psp_fileRemove(at("d/f")) == 0; }, {}, "d/f"},
      {kCalls | kSystem, [] { return psp_fileRename(at("d/f"), at("e/f")) == 0; }, "e/f", "d/f"},
      {kCalls | kSystem, [] { return psp_fileValidate(at("d/f")) == 1; }, {}, {}}};
  for (const Call &call : calls) {
    // Of this code no second choice comes of a temporary directory.
    Scenario scenario{.sweeps = call.sweeps, .act = call.works, .codes = {EMFILE}};
    scenario.kept_blocks = 1;
    scenario.system_codes = {EINTR, EIO, EACCES, EINVAL, EEXIST};  // ENOENT says that it is gone
    scenario.prepare = scenario.clean = [] {
      for (const char *name : {"d", "e", "n"}) std::filesystem::remove_all(at(name));
      for (const char *name : {"d", "e"}) std::filesystem::create_directory(at(name));
      put_file(at("d/f"), "content");
    };
    scenario.judge = [&call](const Run &run) {
      EXPECT_TRUE(call.comes == nullptr || run.worked == exists(call.comes));
      EXPECT_TRUE(call.goes == nullptr || run.worked != exists(call.goes));
      EXPECT_TRUE(run.worked || run.error == expected_error(run));
    };
    sweep(scenario);
  }
}

FAULT_TEST(ThreadFaults, RefusedStartIsToldAndARefusedPriorityIsNot) {
  Scenario scenario{.sweeps = kCalls, .codes = kCommonCodes};
  scenario.act = [] {
    const auto nothing = [](void *) {};
    return psp_threadBeginEx(nothing, 0, nullptr, &(handle = 0), -1, 0) == PSP_OKAY;
  };
  scenario.judge = [](const Run &run) {
    EXPECT_EQ(run.worked, handle != 0);
    EXPECT_NE(run.output.find("Failed to create thread") != std::string::npos, run.worked);
    EXPECT_TRUE(run.worked || run.error == expected_error(run));
  };
  sweep(scenario);
  scenario.sweeps |= kAllocations;  // of a thread whose handle nobody wants
  for (const bool extended : {false, true}) {
    scenario.act = [extended] {
      static std::atomic<psp_threadHandle> runs;
      const auto run = [](void *) { runs = 1, runs.notify_all(); };
      runs = handle = 0;
      const psp_status status = extended ? psp_threadBeginEx(run, 0, nullptr, nullptr, 0, 0)
                                         : psp_threadBegin(run, 0, nullptr);
      if (status != PSP_OKAY) return false;
      runs.wait(0);
      return (handle = runs) != 0;
    };
    sweep(scenario);
  }
}

}  // namespace
