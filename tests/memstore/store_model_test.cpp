// The in-memory store against its model, on random operations through the public functions.
#include "support/store_model.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

#include "support/directory_check.h"

namespace {

#ifdef PSP_CHECK_LOCK_ORDER  // a sanitizer build
constexpr int kOperations = 60'000;
#else
constexpr int kOperations = 1'000'000;
#endif

TEST(StoreModel, RandomOperationsAgreeWithAMap) {
  const char *wanted = getenv("PSP_TEST_SEED");
  const auto seed = static_cast<uint32_t>(wanted != nullptr ? atoi(wanted) : 20261124);
  std::mt19937 random(seed);
  int operation = 0;
  ASSERT_EQ(psp_init(), PSP_OKAY);
  psp::tests::StoreModel model([&](uint32_t end) { return static_cast<uint32_t>(random() % end); },
                               [&](bool holds, const char *what) {
                                 ASSERT_TRUE(holds)
                                     << what << ", seed " << seed << ", operation " << operation;
                               });
  while (operation++ < kOperations && !HasFailure()) model.step();
  model.finish();
  // Nobody holds anything any more.
  EXPECT_EQ(psp::memstore::shmcache_mapped_count, 0u);
  psp::memstore::SegmentedFile root;
  ASSERT_TRUE(root.open(psp::memstore::shmheap_default(), 0));
  EXPECT_STREQ(psp::memstore::mdir_check(&root), nullptr);
  root.close();
  psp_term();
}

}  // namespace
