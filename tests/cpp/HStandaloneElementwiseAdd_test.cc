// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HStandaloneElementwiseAdd: worked examples; the definition against the oracle over every
// attribute, printed text included; and the kernel on every target against the definition.

#include "bitfold/HStandaloneElementwiseAdd.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/addition.h"
#include "support/addition_suite.h"

namespace bitfold {
namespace {

using testing::Addition;
using testing::HStandaloneElementwiseAddTraits;
using testing::Output;
using testing::Same;

// One element of each operand, with weights 1.
template <typename T>
Output<T> Add(T a, T b, int shift, int width, bool use_fp16_acc = false) {
  Addition<T> c;
  c.value = {a};
  c.operand = {b};
  c.second = {T{1}, T{1}};
  c.mult_shift = shift;
  c.accumulator_size = width;
  c.use_fp16_acc = use_fp16_acc;
  return testing::RunAddition<HStandaloneElementwiseAddTraits>(c);
}

TEST(HStandaloneElementwiseAdd, FoldsOnce) {
  EXPECT_EQ(Add<int32_t>(100, 28, 0, 8).values[0], -128);
  EXPECT_EQ(Add<int32_t>(200, 200, 0, 8).values[0], 144);  // 400 - 256
  EXPECT_TRUE(Same(144.0f, Add<float>(200.0f, 200.0f, 0, 8).values[0], "float", ""));
}

TEST(HStandaloneElementwiseAdd, ShiftRoundsHalfToEven) {
  EXPECT_EQ(Add<int32_t>(3, 0, 1, 16).values[0], 2);    // 1.5
  EXPECT_EQ(Add<int32_t>(1, 0, 1, 16).values[0], 0);    // 0.5
  EXPECT_EQ(Add<int32_t>(-3, 0, 1, 16).values[0], -2);  // -1.5
  EXPECT_EQ(Add<int32_t>(0, 5, 1, 16).values[0], 2);    // 2.5
  EXPECT_EQ(Add<int32_t>(3, 5, 0, 16).values[0], 8);
  EXPECT_EQ(Add<int32_t>(5, 5, 1, 16).values[0], 4);  // each product on its own
}

TEST(HStandaloneElementwiseAdd, FloatDividesByTheShift) {
  EXPECT_TRUE(Same(2.0f, Add<float>(5.0f, 0.0f, 2, 16).values[0], "2.5", ""));
  EXPECT_TRUE(Same(2.0f, Add<float>(0.0f, 5.0f, 2, 16).values[0], "2.5", ""));
  EXPECT_TRUE(Same(5.25f, Add<float>(5.0f, 0.25f, 0, 16).values[0], "no shift", ""));
  // The quotient 2.5 goes to 2; by the reciprocal it would be 3.
  EXPECT_TRUE(Same(2.0f, Add<float>(75.0f, 0.0f, 30, 16).values[0], "75 / 30", ""));
}

TEST(HStandaloneElementwiseAdd, WarnsFromTheUpperBoundOn) {
  EXPECT_EQ(Add<float>(8388606.0f, 1.0f, 0, 32).lines,
            "@@@ WARNING: acc 8388607.000000 is out of bounds <-8388607,8388607>\n");
  EXPECT_EQ(Add<float>(-8388606.0f, -1.0f, 0, 32).lines, "");
  // In half precision the sum that is tested is of the unquantised operands.
  EXPECT_EQ(Add<float>(8388606.0f, 1.0f, 0, 32, true).lines,
            "@@@ WARNING: acc 8388607.000000 is out of bounds <-8388607,8388607>\n");
  EXPECT_EQ(Add<int32_t>(8388606, 1, 0, 32).lines, "");
}

TEST(HStandaloneElementwiseAdd, HalfPrecisionQuantisesTheSecondOperandAlone) {
  EXPECT_TRUE(Same(-20000.0f, Add<float>(0.0f, 40000.0f, 0, 16, true).values[0], "h(b)", ""));
  EXPECT_TRUE(Same(307.0f / 1024.0f, Add<float>(0.3f, 0.0f, 0, 16, true).values[0], "0.3", ""));
  // 40000 - 10000 is 30000, in range; a quantised 40000 would be -20000.
  EXPECT_TRUE(Same(30000.0f, Add<float>(40000.0f, -10000.0f, 0, 16, true).values[0], "a", ""));
}

TEST(HStandaloneElementwiseAdd, IntegersIgnoreHalfPrecision) {
  EXPECT_EQ(Add<int32_t>(40000, 1, 0, 24, true).values[0], 40001);
}

TEST(HStandaloneElementwiseAdd, WeightsPerChannelOfEachOperand) {
  Addition<int32_t> c;
  c.value = {1, 1, 1, 1, 1, 1, 1};
  c.operand = {1, 2, 3, 4, 5, 6, 7};
  c.second = {100, 200, 300, 1, -1, 2};
  const auto out = testing::RunAddition<HStandaloneElementwiseAddTraits>(c);
  const std::vector<int32_t> expected = {101, 198, 306, 104, 195, 312, 107};
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(out.values[static_cast<int64_t>(i)], expected[i]) << i;
  }
}

}  // namespace

namespace testing {

// Against the oracle and the definition.
INSTANTIATE_TYPED_TEST_SUITE_P(HStandaloneElementwiseAdd, AdditionSuite,
                               HStandaloneElementwiseAddTraits);

}  // namespace testing
}  // namespace bitfold
