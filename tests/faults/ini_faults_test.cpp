// Faults under the INI store and its updates.
#include <gtest/gtest.h>

#include <cerrno>

#include "support/faults.h"

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

}  // namespace
