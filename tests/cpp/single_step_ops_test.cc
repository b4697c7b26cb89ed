// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What bitfold/single_step.h says of the exported steps and those of the ops: where they are the
// same, and that they are not beyond.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <vector>

#include "bitfold/accumulator.h"
#include "bitfold/datapath.h"
#include "bitfold/half_accumulator.h"
#include "bitfold/single_step.h"
#include "support/capture.h"
#include "support/compare.h"
#include "support/random.h"
#include "support/scale.h"
#include "support/tables.h"

namespace bitfold {
namespace {

using testing::Describe;
using testing::PrintedBy;
using testing::Same;

constexpr int64_t kBound = int64_t{1} << 24;

bool IsWithinBound(int64_t x) { return std::llabs(x) <= kBound; }

struct Operands {
  int32_t a;
  int32_t b;
};

// Operands within the bound whose sum is, too: the corners, crossed, and random ones.
std::vector<Operands> OperandsWithinBound() {
  std::vector<int32_t> values = {-16777216, -16777215, -8388609, 8388609, 16777215, 16777216};
  for (const int32_t x : testing::Int32Corners()) {
    if (IsWithinBound(x)) values.push_back(x);
  }
  std::vector<Operands> found;
  for (const int32_t a : values) {
    for (const int32_t b : values) found.push_back({a, b});
  }
  testing::Random random(0x57e9);
  for (int i = 0; i < 4000 / testing::Step(10); ++i) {
    const int64_t bound = int64_t{1} << random.Between(0, 24);
    found.push_back({random.Between(-bound, bound), random.Between(-bound, bound)});
  }
  std::vector<Operands> within;
  for (const Operands& x : found) {
    if (IsWithinBound(int64_t{x.a} + x.b)) within.push_back(x);
  }
  return within;
}

// The steps of all operands at a width; their lines are dropped.
std::vector<int32_t> Steps(const std::vector<Operands>& operands, int32_t width) {
  std::vector<int32_t> results;
  PrintedBy([&] {
    for (const Operands& x : operands) {
      results.push_back(accumulator_int_verification(x.a, x.b, width));
    }
  });
  return results;
}

float FloatStep(int32_t a, int32_t b, int32_t width) {
  float sum = 0.0f;
  PrintedBy([&] {
    sum = Datapath<float>(width, 0, false).Accumulate(static_cast<float>(a), static_cast<float>(b));
  });
  return sum;
}

TEST(SingleStepOps, AccumulatorIsTheOpsWithinTheBound) {
  const std::vector<Operands> operands = OperandsWithinBound();
  for (int32_t width = 1; width <= 32; ++width) {
    const std::vector<int32_t> steps = Steps(operands, width);
    const Datapath<int32_t> on_int32(width, 0, false);
    const AccumulatorLimits<float> limits(width);
    for (size_t i = 0; i < operands.size(); ++i) {
      const auto [a, b] = operands[i];
      const auto inputs = Describe("a", a, "b", b, "width", width);
      ASSERT_TRUE(Same(on_int32.Accumulate(a, b), steps[i], "the step of int32", inputs));
      const float sum = static_cast<float>(a) + static_cast<float>(b);
      ASSERT_TRUE(
          Same(WrapOnce(sum, limits), static_cast<float>(steps[i]), "the step of floats", inputs));
    }
  }
}

// Widths that int32 data does not have.
TEST(SingleStepOps, AccumulatorIsTheFloatOpsAtWiderWidths) {
  const std::vector<Operands> operands = OperandsWithinBound();
  for (const int32_t width : {33, 40, 127, 128, 129, 1000, INT32_MAX}) {
    const std::vector<int32_t> steps = Steps(operands, width);
    const AccumulatorLimits<float> limits(width);
    for (size_t i = 0; i < operands.size(); ++i) {
      const auto [a, b] = operands[i];
      const float sum = static_cast<float>(a) + static_cast<float>(b);
      ASSERT_TRUE(Same(WrapOnce(sum, limits), static_cast<float>(steps[i]), "a wide step",
                       Describe("a", a, "b", b, "width", width)));
    }
  }
}

// The examples of the header, and the first operands beyond the bound.
TEST(SingleStepOps, AccumulatorRoundsBeyondTheBound) {
  const auto step = [](int32_t a, int32_t b, int32_t width) {
    return Steps({{a, b}}, width).front();
  };
  const auto on_int32 = [](int32_t a, int32_t b, int32_t width) {
    return Datapath<int32_t>(width, 0, false).Accumulate(a, b);
  };
  EXPECT_EQ(step(16777217, 0, 32), 16777216);
  EXPECT_EQ(on_int32(16777217, 0, 32), 16777217);
  EXPECT_TRUE(Same(16777216.0f, FloatStep(16777217, 0, 32), "16777217 + 0", ""));
  EXPECT_EQ(step(16777216, 1, 32), 16777216);
  EXPECT_EQ(on_int32(16777216, 1, 32), 16777217);
  EXPECT_EQ(step(-16777216, -1, 32), -16777216);
  EXPECT_EQ(step(-16777216, -2, 24), -1);
  EXPECT_EQ(on_int32(-16777216, -2, 24), -2);
  EXPECT_TRUE(Same(-2.0f, FloatStep(-16777216, -2, 24), "-16777216 - 2", ""));
  // No width: the ops on int32 have the one value 0.
  EXPECT_EQ(step(0, 0, 0), -1);
  EXPECT_EQ(on_int32(0, 0, 0), 0);
}

TEST(SingleStepOps, MultiplierAndShifterAreTheOpsOnInt32) {
  for (const int32_t x : testing::Int32Boundaries()) {
    for (const int32_t y : testing::Int32Corners()) {
      const auto inputs = Describe("x", x, "y", y);
      ASSERT_TRUE(Same(Datapath<int32_t>::Multiply(x, y), multiplier_verification(x, y), "product",
                       inputs));
      ASSERT_TRUE(Same(Datapath<int32_t>(32, y, false).ScaleProduct(x),
                       shifter_int_acc_verification(x, y), "shift", inputs));
    }
  }
}

// Every value that the quantiser gives, but for infinities and NaN: steps of 2^-10 below 2, 12
// significant bits above, and what rounds up to 2^15.
std::vector<float> QuantisedValues() {
  std::vector<float> values = {32768.0f, -32768.0f};
  for (int exponent = 1; exponent <= 15; ++exponent) {
    for (int significand = exponent == 1 ? 0 : 2048; significand < (exponent == 1 ? 2048 : 4096);
         ++significand) {
      const float x =
          std::ldexp(static_cast<float>(significand), exponent == 1 ? -10 : exponent - 12);
      values.push_back(x);
      values.push_back(-x);
    }
  }
  return values;
}

TEST(SingleStepOps, HalfAccumulatorIsTheOpsOnQuantisedValues) {
  std::vector<float> addends = testing::FloatCorners();
  for (const float b : {0.0f, 1.0f, -3.0f, 4095.5f, 16387.0f, -32768.0f, 40000.0f}) {
    addends.push_back(b);
  }
  const std::vector<float> values = QuantisedValues();
  ASSERT_EQ(values.size(), 2 * (2048 * 15 + 1));
  for (size_t i = 0; i < values.size(); i += testing::Step(31)) {
    const float a = values[i];
    if (std::fabs(a) == 32768.0f) continue;
    ASSERT_TRUE(Same(a, f32_to_hf16(a), "a quantised value is", Describe("a", a)));
    for (const float b : addends) {
      const float expected = AccumulateHalf(a, b);
      const float actual = accumulator_fp16_verification(a, b);
      if (testing::SameBits(expected, actual)) continue;
      ASSERT_TRUE(Same(expected, actual, "the step", Describe("a", a, "b", b)));
    }
  }
}

TEST(SingleStepOps, HalfAccumulatorQuantisesTheEdgeAgain) {
  const float edge = 32768.0f;
  EXPECT_TRUE(Same(edge, f32_to_hf16(32767.9f), "an accumulator holds it", ""));
  EXPECT_TRUE(Same(-16380.0f, accumulator_fp16_verification(edge, 4.0f), "the step", ""));
  EXPECT_TRUE(Same(-16384.0f, AccumulateHalf(edge, 4.0f), "the ops", ""));
  EXPECT_TRUE(Same(16384.0f, accumulator_fp16_verification(-edge, 1.0f), "the step", ""));
  EXPECT_TRUE(Same(-32768.0f, AccumulateHalf(-edge, 1.0f), "the ops", ""));
}

}  // namespace
}  // namespace bitfold
