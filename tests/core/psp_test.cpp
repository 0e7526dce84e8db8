// Start and stop of the library, its modes and version.
#include "psp.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "support/fixtures.h"

namespace {

TEST(Life, StartsNestAndTheLastStopStops) {
  ASSERT_EQ(psp_init(), PSP_OKAY);
  ASSERT_EQ(psp_init(), PSP_OKAY);
  psp_term();
  psp_sync object = psp_syncCreate(PSP_SYNC_EXCL);
  EXPECT_NE(object, PSP_SYNC_NONE);
  psp_term();
  EXPECT_EQ(psp_syncCreate(PSP_SYNC_EXCL), PSP_SYNC_NONE);
  EXPECT_EQ(psp_createTag(0), PSP_TAG_FAILED);
  EXPECT_EQ(psp_alloc(10, nullptr), nullptr);
}

TEST(Life, IndependentUsersStartAndStopAtTheSameTime) {
  psp::tests::in_threads(4, [](int) {
    for (int round = 0; round < 300; ++round) {
      ASSERT_EQ(psp_init(), PSP_OKAY);
      void *block = psp_alloc(100, nullptr);
      ASSERT_NE(block, nullptr);
      psp_enterCritSec();
      psp_exitCritSec();
      psp_freeMem(block, nullptr);
      psp_term();
    }
  });
  EXPECT_EQ(psp_alloc(10, nullptr), nullptr);
}

TEST(Life, VersionIsTheHeaders) {
  uint16_t major = 0, minor = 9, build = 0;
  psp_version(&major, &minor, &build);
  EXPECT_EQ(major, PSP_VERSION_MAJOR);
  EXPECT_EQ(minor, PSP_VERSION_MINOR);
  EXPECT_EQ(build, PSP_VERSION_BUILD);
  build = 0;
  psp_version(nullptr, nullptr, &build);
  EXPECT_EQ(build, 586);
  psp_version(nullptr, nullptr, nullptr);
}

TEST(Modes, StayOnAcrossStops) {
  psp_nodisk();
  for (int life = 0; life < 2; ++life) {
    ASSERT_EQ(psp_init(), PSP_OKAY);
    EXPECT_EQ(psp_fileOpen("/dev/null", PSP_OPEN_READ, 0), nullptr);
    psp_term();
  }
}

TEST(Errors, PrintAndErrnoNeedNoStart) {
  testing::internal::CaptureStdout();
  psp_errPrint("abc");
  psp_errPrint(nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "abc\n\n");
  errno = 77;
  EXPECT_EQ(psp_errno(), 77u);
}

}  // namespace
