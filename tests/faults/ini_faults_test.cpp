// Faults under the INI store and its updates, and crashes in the middle of them.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <map>

#include "support/faults.h"
#include "support/steps.h"

namespace {

using namespace psp::faults;

// A line longer than a stream's block and a reader's first buffer.
const std::string filler = "f=" + std::string(1500, 'f') + "\r\n";
const std::string old_file = "[s]\r\nn=1\r\n" + filler;
const std::string new_file = "[s]\r\nn=2\r\n" + filler;

FAULT_TEST(IniFaults, FileIsOldOrNewAndAFailedReadIsNoAnswer) {
  static const char *const path = scratch_path("a.ini");
  static const std::u16string wide_path(path, path + strlen(path));
  static psp_status found;
  Scenario scenario{.sweeps = kAllocations | kJumps | kCalls | kShorts | kSystem,
                    .codes = kCommonCodes};
  scenario.act = [] {
    put_file(path, old_file);
    psp_wchar text[10];
    char names[20];
    int32_t number = 1;
    found = psp_iniGetW(wide_path.c_str(), u"s", u"n", text, 10);
    psp_readIniFile(path);
    const psp_status sections = psp_iniGet(path, nullptr, nullptr, names, 10);
    EXPECT_TRUE(sections != PSP_OKAY || memcmp(names, "s\0", 3) == 0);
    const psp_status keys = psp_iniGet(path, "s", nullptr, names, 10);
    EXPECT_TRUE(keys != PSP_OKAY || memcmp(names, "n\0f\0", 5) == 0);
    const psp_status counted = psp_iniInt32W(wide_path.c_str(), u"s", u"n", &number);
    EXPECT_TRUE(number == 1 && sections <= 0 && keys <= 0 && counted <= 0);
    const psp_status status = psp_iniSetW(wide_path.c_str(), u"s", u"n", u"2");
    return found + sections + keys + counted + status == PSP_OKAY;
  };
  scenario.judge = [](const Run &run) {
    const bool is_new = get_file(path) == new_file;
    EXPECT_TRUE(is_new || get_file(path) == old_file);
    EXPECT_TRUE(is_new || !run.worked);
    EXPECT_TRUE(found <= 0 || run.jumped);
    int32_t number = 0;
    EXPECT_EQ(psp_iniInt32(path, "s", "n", &number), PSP_OKAY);
    EXPECT_EQ(number, is_new ? 2 : 1);
  };
  scenario.clean = psp_iniCleanup;
  sweep(scenario);
  // A sync that fails shows in no byte of the file.
  ASSERT_EQ(psp_init(), PSP_OKAY);
  put_file(path, old_file);
  arm({.kind = Kind::kCall, .error = EIO, .only = Os::file_sync});
  const psp_status status = psp_iniSet(path, "s", "n", "2");
  EXPECT_EQ(disarm().faults, 1u);
  EXPECT_EQ(status, PSP_ERR_REPLACEFILE);
  // Another process that has the directory is waited for, but not for ever.
  for (const uint32_t times : {3u, kFromThereOn}) {
    arm({.kind = Kind::kCall,
         .times = times,
         .error = error_of(psp::os::Condition::kSharingViolation),
         .only = Os::file_create_replacement});
    const psp_status waited = psp_iniSet(path, "s", "n", "2");
    EXPECT_EQ(disarm().faults, times == 3 ? 3u : 50u);
    EXPECT_EQ(waited, times == 3 ? PSP_OKAY : PSP_ERR_NOFILE);
  }
  psp_term();
}

// ---- Crashes ------------------------------------------------------------------------------------

// As many fillers as make no, one or a few blocks.
std::string numbered(int number, size_t fillers) {
  return "[s]\r\nn=" + std::to_string(number) + "\r\n" + std::string(fillers, 'f') + "\r\n";
}

// Judges what a crash in the update from 1 to 2 has left: the number. The next update goes through.
int number_after_crash(const char *path, size_t fillers) {
  int32_t number = 0, next = 0;
  psp_readIniFile(path);
  EXPECT_EQ(psp_iniInt32(path, "s", "n", &number), PSP_OKAY);
  EXPECT_TRUE(number == 1 || number == 2);
  EXPECT_EQ(get_file(path), numbered(number, fillers));
  EXPECT_EQ(psp_iniSet(path, "s", "n", "3"), PSP_OKAY);
  EXPECT_TRUE(psp_iniInt32(path, "s", "n", &next) == PSP_OKAY && next == 3);
  return number;
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kKills = 150;  // a fork is dear there
#else
constexpr int kKills = 1000;
#endif

TEST(IniCrashes, KillAtEveryCallLeavesOldOrNewFile) {
  const char *const path = scratch_path("killed.ini"), *const left = scratch_path("_temp_.ini");
  ASSERT_EQ(psp_init(), PSP_OKAY);
  int kills = 0, leaves = 0, updates = 0, changes = 0;
  for (size_t fillers = 0; kills < kKills; fillers = (fillers + 700) % 6000) {
    for (uint32_t call = 1;; ++call) {
      put_file(path, numbered(1, fillers));
      const pid_t child = fork();
      if (child == 0) {
        calls_until_kill = call;
        _exit(psp_iniSet(path, "s", "n", "2"));
      }
      int status = 0;
      ASSERT_EQ(waitpid(child, &status, 0), child);
      if (WIFEXITED(status)) {
        EXPECT_EQ(status, 0);
        break;
      }
      ++kills;
      leaves += std::filesystem::exists(left);
      changes += number_after_crash(path, fillers) == 2;
      ASSERT_FALSE(testing::Test::HasFailure())
          << "at call " << call << " with fillers " << fillers;
      ASSERT_FALSE(std::filesystem::exists(left));
    }
    ++updates;
  }
  std::printf("%d kills in %d updates, %d left a temporary file, %d the new file\n", kills, updates,
              leaves, changes);
  EXPECT_GT(leaves, updates);
  EXPECT_GT(changes, updates);
  psp_term();
}

using Files = std::map<std::string, std::string>;

// Makes the first steps, but of what changed the data not those from `lost` on, which had not
// reached the disk.
void replay(const std::vector<Step> &steps, size_t count, size_t lost, Files *files) {
  std::string open;  // the name of the file that is written
  for (size_t index = 0; index < count; ++index) {
    const Step &step = steps[index];
    const size_t end = static_cast<size_t>(step.offset) + step.data.size();
    if (step.call == Os::file_create_replacement) {
      (*files)[open = step.name] = "";
    } else if (step.call == Os::file_write || step.call == Os::file_write_at) {
      std::string &data = (*files)[open];
      if (index >= lost) continue;
      if (data.size() < end) data.resize(end);
      data.replace(end - step.data.size(), step.data.size(), step.data);
    } else if (step.call == Os::file_cut) {
      if (index < lost) (*files)[open].resize(end);
    } else if (step.call == Os::file_replace) {
      (*files)[step.data] = (*files)[step.name];
      files->erase(step.name);
      open = step.data;
    } else if (step.call == Os::file_remove) {
      files->erase(step.name);
    } else {
      EXPECT_EQ(step.call, Os::file_sync) << "a step that the replay does not know";
    }
  }
}

TEST(IniCrashes, EveryPrefixOfTheStepsOfAnUpdateIsOldOrNewFile) {
  constexpr size_t kFillers = 6000;
  std::filesystem::create_directory(scratch_path("crash"));
  const char *const path = scratch_path("crash/a.ini");
  ASSERT_EQ(psp_init(), PSP_OKAY);
  put_file(path, numbered(1, kFillers));
  std::vector<Step> steps;
  recorded = &steps;
  ASSERT_EQ(psp_iniSet(path, "s", "n", "2"), PSP_OKAY);
  recorded = nullptr;
  int left[3] = {};
  size_t settled = 0;  // before this step all data is on the disk
  for (size_t count = 0; count <= steps.size(); ++count) {
    if (count > 0 && steps[count - 1].call == Os::file_sync) settled = count;
    for (size_t lost = settled; lost <= count; ++lost) {
      Files files = {{path, numbered(1, kFillers)}};
      replay(steps, count, lost, &files);
      std::filesystem::remove_all(scratch_path("crash"));
      std::filesystem::create_directory(scratch_path("crash"));
      for (const auto &[name, data] : files) put_file(name.c_str(), data);
      ++left[number_after_crash(path, kFillers)];
      ASSERT_FALSE(testing::Test::HasFailure())
          << "after " << count << " steps, with data lost from " << lost;
    }
  }
  std::printf("%zu steps, %d crashes left the old file and %d the new one\n", steps.size(), left[1],
              left[2]);
  EXPECT_GT(left[1], 20);
  EXPECT_GT(left[2], 0);
  psp_term();
}

}  // namespace
