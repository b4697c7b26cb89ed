// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The quantiser of the vector loops against the definition: every pattern of the upper 16 bits
// with the lower bits at which a floor or a rounding turns.

#include "vector/quantise_half.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <vector>

#include "bitfold/half_accumulator.h"
#include "support/compare.h"
#include "support/ledger.h"
#include "support/random.h"
#include "support/scale.h"
#include "support/tables.h"

namespace bitfold {
namespace {

::testing::AssertionResult SameAsDefinition(float x) {
  const float expected = f32_to_hf16(x);
  const float actual = QuantiseHalf(x);
  if (testing::SameBits(expected, actual)) return ::testing::AssertionSuccess();
  return testing::Same(expected, actual, "QuantiseHalf", testing::Describe("x", x));
}

// The ends, the middle, and every bit on its own with its neighbours.
std::vector<uint32_t> LowerBits() {
  std::vector<uint32_t> lower = {0x0000, 0xffff, 0x5555, 0xaaaa};
  for (uint32_t bit = 0; bit < 16; ++bit) {
    const uint32_t power = 1u << bit;
    lower.insert(lower.end(), {power, power - 1, (power + 1) & 0xffffu, 0x10000u - power});
  }
  return lower;
}

TEST(QuantiseHalf, Examples) {
  const auto gives = [](float expected, float x) {
    return testing::Same(expected, QuantiseHalf(x), "QuantiseHalf", testing::Describe("x", x));
  };
  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  EXPECT_TRUE(gives(-20000.0f, 40000.0f));
  EXPECT_TRUE(gives(20000.0f, -40000.0f));
  EXPECT_TRUE(gives(307.0f / 1024.0f, 0.3f));
  EXPECT_TRUE(
      gives(0.0f, 0.00049591064453125f));  // 2^-11 + 2^-17: floored to a tie, which goes to 0
  EXPECT_TRUE(gives(-0.0f, -0.0f));
  EXPECT_TRUE(gives(-0.0f, -0.0001f));
  EXPECT_TRUE(gives(0.0f, 1e-45f));
  EXPECT_TRUE(gives(-0.0f, -1e-45f));
  EXPECT_TRUE(gives(kInfinity, kInfinity));
  EXPECT_TRUE(gives(-kInfinity, -kInfinity));
  EXPECT_TRUE(testing::IsNan(QuantiseHalf(std::numeric_limits<float>::quiet_NaN())));
  EXPECT_TRUE(gives(-16384.0f, 8388608.0f));
  EXPECT_TRUE(gives(32768.0f, 32767.99f));  // 15 bits, rounded up to a 16th
}

TEST(QuantiseHalf, EveryUpperPatternWithLowerBits) {
  for (uint32_t upper = 0; upper <= 0xffffu; upper += testing::Step(7)) {
    for (const uint32_t lower : LowerBits()) {
      ASSERT_TRUE(SameAsDefinition(testing::FloatOf(upper << 16 | lower)));
    }
  }
  testing::Ran(testing::Path::kVectorQuantiserAllPrefixes);
}

// In steps of an eighth of the coarsest rounding's half: every floor and every tie of the range.
TEST(QuantiseHalf, FineStepsAroundOneAndTwo) {
  for (uint32_t bits = 0x3f000000u; bits <= 0x40800000u; bits += testing::Step(31) * 64u) {
    for (const uint32_t sign : {0u, 0x80000000u}) {
      for (const uint32_t delta : {0u, 1u, 63u}) {
        ASSERT_TRUE(SameAsDefinition(testing::FloatOf((bits + delta) | sign)));
      }
    }
  }
}

// Zero apart, whose sign does not come back.
TEST(QuantiseHalf, EveryWholeNumber) {
  for (int32_t magnitude = 1; magnitude < 65536; ++magnitude) {
    for (const int32_t whole : {magnitude, -magnitude}) {
      const auto x = static_cast<float>(whole);
      const float expected = f32_to_hf16(x);
      ASSERT_TRUE(testing::SameBits(expected, QuantiseHalfOfWhole(x))) << whole;
      if (magnitude >= 32768) continue;
      ASSERT_TRUE(testing::SameBits(expected, RoundHalfOfWhole(x))) << whole;
    }
  }
  EXPECT_TRUE(testing::SameBits(0.0f, QuantiseHalfOfWhole(0.0f)));
}

TEST(QuantiseHalf, Boundaries) {
  for (const float x : testing::FloatBoundaries()) ASSERT_TRUE(SameAsDefinition(x));
}

TEST(QuantiseHalf, RandomPatterns) {
  testing::Random random(0x4a1f);
  for (int i = 0; i < 2000000 / testing::Step(20); ++i) {
    ASSERT_TRUE(SameAsDefinition(testing::FloatOf(random.Bits())));
  }
}

}  // namespace
}  // namespace bitfold
