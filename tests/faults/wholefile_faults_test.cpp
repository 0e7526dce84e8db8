// Faults under whole-file operations: a failure loses nothing, a success is one.
#include <gtest/gtest.h>

#include <filesystem>

#include "files/files.h"
#include "support/faults.h"

namespace {

using namespace psp::faults;

const char *from, *to, *moved;

struct Operation {
  unsigned sweeps;
  bool (*works)();
  const char *const *target;
};

const Operation kOperations[] = {
    {kAllocations | kJumps | kCalls | kShorts | kSystem,
     [] { return psp_fileCopy(from, to) == PSP_OKAY && psp_fileCmp(from, to) == PSP_OKAY; }, &to},
    {kCalls | kSystem, [] { return psp_fileMove(from, to) == PSP_OKAY; }, &to},
    {kCalls | kSystem, [] { return psp::files::replace_file(from, to, 0) == PSP_OKAY; }, &to},
    {kAllocations | kJumps | kCalls | kSystem,
     [] { return psp_dirMove(scratch_path("d"), scratch_path("e")) == PSP_OKAY; }, &moved}};

FAULT_TEST(WholeFileFaults, FailureLosesNothingAndSuccessIsOne) {
  from = scratch_path("d/file"), to = scratch_path("to"), moved = scratch_path("e/file");
  const std::string content(2500, 's');
  for (const Operation &operation : kOperations) {
    Scenario scenario{.sweeps = operation.sweeps, .codes = kCommonCodes};
    scenario.prepare = scenario.clean = [&] {
      for (const char *folder : {scratch_path("d"), scratch_path("e")}) {
        std::filesystem::remove_all(folder);
        std::filesystem::create_directory(folder);  // a directory there is no place for a rename
      }
      put_file(from, content);
      put_file(to, content + std::string(1000, 'x'));
    };
    scenario.act = operation.works;
    scenario.judge = [&](const Run &run) {
      // A directory move may fail behind its last file.
      const bool arrived = run.worked || !std::filesystem::exists(from);
      EXPECT_EQ(get_file(arrived ? *operation.target : from), content);
    };
    sweep(scenario);
  }
}

}  // namespace
