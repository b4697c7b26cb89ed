// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The half-precision quantiser and its addition, against the oracle: every upper half of a float
// with the lower halves at which one of the two roundings turns.

#include "bitfold/half_accumulator.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>

#include "reference.h"
#include "support/compare.h"
#include "support/ledger.h"
#include "support/random.h"
#include "support/scale.h"
#include "support/tables.h"

namespace bitfold {
namespace {

using testing::Describe;
using testing::FloatOf;
using testing::Same;

::testing::AssertionResult SameAsOracle(uint32_t bits) {
  const float x = FloatOf(bits);
  return Same(reference::QuantiseHalf(x), f32_to_hf16(x), "f32_to_hf16", Describe("x", x));
}

TEST(HalfAccumulator, Examples) {
  // 2^-11 is half of the step 2^-10: the tie goes to the even 0; 3 * 2^-11 goes to the even 2.
  EXPECT_TRUE(Same(0.0f, f32_to_hf16(0.00048828125f), "2^-11", ""));
  EXPECT_TRUE(Same(0.001953125f, f32_to_hf16(0.00146484375f), "3 * 2^-11", ""));
  EXPECT_TRUE(Same(1.5f, f32_to_hf16(1.5f), "1.5", ""));
  // The significand rounds up to 1, which makes 2^15 without overflow.
  EXPECT_TRUE(Same(32768.0f, f32_to_hf16(32767.9f), "32767.9", ""));
  // 0.6103515625 * 2^16: the exponent is held at 15 and the sign flips.
  EXPECT_TRUE(Same(-20000.0f, f32_to_hf16(40000.0f), "40000", ""));
  EXPECT_TRUE(Same(20000.0f, f32_to_hf16(-40000.0f), "-40000", ""));
}

// Above a tie by less than 2^-16, the floor drops the excess and the tie goes to even; below a
// negative tie the floor keeps a whole 2^-16, and the value rounds away.
TEST(HalfAccumulator, RoundsTwice) {
  EXPECT_TRUE(Same(0.0f, f32_to_hf16(std::ldexp(524289.0f, -30)), "2^-11 + 2^-30", ""));
  EXPECT_TRUE(Same(-0.0009765625f, f32_to_hf16(std::ldexp(-524289.0f, -30)), "negative", ""));
  // 2 + 2^-11 + 2^-16: in the 12-bit range the tie unit is 2^-11 and the floor's is 2^-16.
  EXPECT_TRUE(SameAsOracle(testing::BitsOf(2.0f + std::ldexp(1.0f, -11) + std::ldexp(1.0f, -16))));
}

TEST(HalfAccumulator, SpecialValues) {
  const float infinity = std::numeric_limits<float>::infinity();
  EXPECT_TRUE(Same(0.0f, f32_to_hf16(0.0f), "0", ""));
  EXPECT_TRUE(Same(-0.0f, f32_to_hf16(-0.0f), "-0", ""));
  EXPECT_TRUE(Same(0.0f, f32_to_hf16(FloatOf(1)), "smallest subnormal", ""));
  // Floors to -2^-16, which rounds to zero and keeps the sign.
  EXPECT_TRUE(Same(-0.0f, f32_to_hf16(-FloatOf(1)), "largest negative subnormal", ""));
  EXPECT_TRUE(Same(infinity, f32_to_hf16(infinity), "infinity", ""));
  EXPECT_TRUE(Same(-infinity, f32_to_hf16(-infinity), "-infinity", ""));
  EXPECT_TRUE(testing::IsNan(f32_to_hf16(std::numeric_limits<float>::quiet_NaN())));
  EXPECT_TRUE(Same(-32768.0f, f32_to_hf16(std::numeric_limits<float>::max()), "largest", ""));
}

// All 65536 upper halves. The lower ones: none, one, around the middle, all; then around the tie
// (0x0800) and the floor's grain (0x003f) of the range with 12 significant bits.
TEST(HalfAccumulator, EveryPrefixAgainstOracle) {
  constexpr uint32_t kLower[] = {0x0000, 0x0001, 0x7fff, 0x8000, 0xffff, 0x07ff, 0x0800,
                                 0x0801, 0x083f, 0x0840, 0x17c0, 0x17ff, 0x1800, 0x183f};
  for (uint32_t upper = 0; upper < 65536; upper += testing::Step(7)) {
    for (const uint32_t lower : kLower) ASSERT_TRUE(SameAsOracle(upper << 16 | lower));
  }
  testing::Ran(testing::Path::kQuantiserAllPrefixes);
}

TEST(HalfAccumulator, RandomBitsAgainstOracle) {
  testing::Random random(0x4a1f);
  for (int i = 0; i < 300000 / testing::Step(10); ++i) ASSERT_TRUE(SameAsOracle(random.Bits()));
}

// From 2 on a power of two is its own quantisation up to 2^14; 2^15 and above overflow: m is 0.5,
// and 0.5 * 2^15 with the sign flipped remains.
TEST(HalfAccumulator, EveryPower) {
  for (int e = -10; e <= 127; ++e) {
    for (const float sign : {1.0f, -1.0f}) {
      const float x = sign * std::ldexp(1.0f, e);
      const float expected = e <= 14 ? x : sign * -16384.0f;
      EXPECT_TRUE(Same(expected, f32_to_hf16(x), "power", Describe("x", x)));
    }
  }
}

// What has been quantised stays as it is, but for 32768, which only rounding up produces and which
// overflows the second time.
TEST(HalfAccumulator, QuantisingAgainChangesOnlyTheOverflowEdge) {
  for (uint64_t bits = 0; bits < (uint64_t{1} << 32); bits += 4099 * testing::Step(7)) {
    const float once = f32_to_hf16(FloatOf(static_cast<uint32_t>(bits)));
    const float twice = f32_to_hf16(once);
    const float expected = std::fabs(once) == 32768.0f ? -once / 2.0f : once;
    ASSERT_TRUE(Same(expected, twice, "twice", Describe("once", once)));
  }
}

TEST(HalfAccumulator, AdditionQuantisesAddendAndSum) {
  const auto values = testing::FloatBoundaries();
  for (const float acc : values) {
    for (const float addend : values) {
      // Single-precision addition of two floats in double, rounded once, is the sum itself.
      const double wide = static_cast<double>(acc) + reference::QuantiseHalf(addend);
      ASSERT_TRUE(Same(reference::QuantiseHalf(static_cast<float>(wide)),
                       AccumulateHalf(acc, addend), "AccumulateHalf",
                       Describe("acc", acc, "addend", addend)));
    }
  }
}

}  // namespace
}  // namespace bitfold
