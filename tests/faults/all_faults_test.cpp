// The sweeps together, and the proof that they left out nothing that can fail.
#include <gtest/gtest.h>

#include "support/faults.h"

TEST(AllFaults, EveryAllocationAndEveryFallibleFunctionFailed) {
  EXPECT_EQ(psp::faults::run_all_and_list_unfailed(PSP_SOURCES), std::vector<std::string>());
  EXPECT_EQ(psp::faults::print_table_and_list_missing(PSP_HEADER), std::vector<std::string>());
}
