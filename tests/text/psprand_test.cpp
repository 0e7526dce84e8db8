// Random numbers: the published sequence to the number, and the forms made of it.
#include <gtest/gtest.h>

#include <random>

#include "psp.h"
#include "support/fixtures.h"

namespace {

using Random = psp::tests::Started;

TEST_F(Random, IsTheReferenceSequence) {
  for (const uint32_t seed : {0u, 1u, 5489u, 0x80000000u, 0xffffffffu}) {
    psp_rand *generator = psp_randCreate(seed);
    std::mt19937 reference(seed != 0 ? seed : 2381394812u);
    for (int draw = 0; draw < 5000; ++draw) {
      ASSERT_EQ(psp_randGetUInt32(generator), reference()) << "seed " << seed << ", draw " << draw;
    }
    // In the middle of a block of draws; 0 stays 0 here.
    psp_randResetSeed(generator, 0);
    reference.seed(0);
    for (int draw = 0; draw < 1000; ++draw) ASSERT_EQ(psp_randGetUInt32(generator), reference());
    psp_randDestroy(generator);
  }
  psp_randResetSeed(nullptr, 1);
}

TEST_F(Random, FormsAreMadeOfOneOrTwoDraws) {
  psp_rand *generator = psp_randCreate(5489);
  std::mt19937 reference(5489);
  for (int round = 0; round < 2000; ++round) {  // over several regenerations, at odd places too
    ASSERT_EQ(psp_randGet(generator), static_cast<int32_t>(reference() & 32767));
    const uint64_t high = reference();
    ASSERT_EQ(psp_randGetUInt64(generator), high << 32 | reference());
    ASSERT_EQ(psp_randGetDouble(generator), reference() / 4294967295.0);
  }
  psp_randDestroy(generator);
}

TEST(RandomLife, NeedsAStartedLibraryToBeMade) { EXPECT_EQ(psp_randCreate(1), nullptr); }

}  // namespace
