// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The multiplier, shifter and accumulator in a row, each step against the oracle.

#include "bitfold/datapath.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include "reference.h"
#include "support/capture.h"
#include "support/compare.h"
#include "support/ledger.h"
#include "support/tables.h"

namespace bitfold {
namespace {

using testing::Describe;
using testing::Same;

template <typename T>
class DatapathTest : public ::testing::Test {};

using Types = ::testing::Types<int32_t, float>;
TYPED_TEST_SUITE(DatapathTest, Types, );

// A feed repeat of 0 leaves the oracle's initial value.
TYPED_TEST(DatapathTest, InitialValue) {
  using T = TypeParam;
  const T zero{};
  for (const bool use_fp16_acc : {false, true}) {
    const Datapath<T> datapath(24, 3, use_fp16_acc);
    for (const T value : testing::Corners<T>()) {
      T expected;
      reference::Add<T>(&value, &zero, zero, 0.0f, 3, 24, use_fp16_acc, 1, &expected, nullptr);
      EXPECT_TRUE(Same(expected, datapath.InitialValue(value), "InitialValue",
                       Describe("value", value, "fp16", use_fp16_acc)));
    }
  }
}

// Multiplied, scaled and accumulated in one pass.
TYPED_TEST(DatapathTest, OnePass) {
  using T = TypeParam;
  for (const bool use_fp16_acc : {false, true}) {
    for (const int32_t width : {8, 24, 32}) {
      for (const int32_t shift : {0, 1, 2, 7, 31, -3}) {
        const Datapath<T> datapath(width, shift, use_fp16_acc);
        for (const T acc : testing::Corners<T>()) {
          for (const T x : testing::Corners<T>()) {
            T expected;
            std::string lines;
            reference::Add<T>(&acc, &x, T{3}, 1.0f, shift, width, use_fp16_acc, 1, &expected,
                              &lines);
            T actual{};
            const std::string printed = testing::PrintedBy([&] {
              actual = datapath.Accumulate(datapath.InitialValue(acc),
                                           datapath.ScaleProduct(datapath.Multiply(T{3}, x)));
            });
            const auto inputs =
                Describe("acc", acc, "x", x, "width", width, "shift", shift, "fp16", use_fp16_acc);
            ASSERT_TRUE(Same(expected, actual, "one pass", inputs));
            ASSERT_TRUE(testing::SameText(lines, printed, inputs));
          }
        }
      }
    }
  }
}

// Multiplied, scaled by the reciprocal and accumulated.
TYPED_TEST(DatapathTest, OnePassByTheReciprocal) {
  using T = TypeParam;
  for (const bool use_fp16_acc : {false, true}) {
    for (const int32_t width : {8, 24, 32}) {
      for (const int32_t shift : {0, 1, 2, 3, 7, 30, 31, 127, -3}) {
        const ReciprocalDatapath<T> datapath(width, shift, use_fp16_acc);
        for (const T acc : testing::Corners<T>()) {
          for (const T x : testing::Corners<T>()) {
            const T product = reference::ReciprocalProduct(x, T{3}, shift);
            std::string lines;
            const T expected = reference::Accumulate(acc, product, width, use_fp16_acc, &lines);
            const auto inputs =
                Describe("acc", acc, "x", x, "width", width, "shift", shift, "fp16", use_fp16_acc);
            const T scaled = datapath.ScaleProduct(datapath.Multiply(x, T{3}));
            ASSERT_TRUE(Same(product, scaled, "the product", inputs));
            T actual{};
            const std::string printed =
                testing::PrintedBy([&] { actual = datapath.Accumulate(acc, scaled); });
            ASSERT_TRUE(Same(expected, actual, "the sum", inputs));
            ASSERT_TRUE(testing::SameText(lines, printed, inputs));
          }
        }
      }
    }
  }
}

// 75 / 30 is a tie, which goes to 2; the rounded reciprocal takes it above.
TEST(Datapath, ReciprocalDiffersFromTheDivision) {
  EXPECT_TRUE(Same(2.0f, Datapath<float>(16, 30, false).ScaleProduct(75.0f), "divided", ""));
  EXPECT_TRUE(
      Same(3.0f, ReciprocalDatapath<float>(16, 30, false).ScaleProduct(75.0f), "multiplied", ""));
  EXPECT_EQ(ReciprocalDatapath<int32_t>(16, 2, false).ScaleProduct(5), 1);  // shifted, as ever
}

TEST(Datapath, Int32NeverPrints) {
  const Datapath<int32_t> datapath(32, 0, false);
  EXPECT_EQ(testing::PrintedBy([&] { datapath.Accumulate(8388607, 1); }), "");
}

// The range test sees the sum before it is quantised, and before it is wrapped.
TEST(Datapath, FloatWarnsOfTheUnquantisedSum) {
  const char line[] = "@@@ WARNING: acc 8388608.000000 is out of bounds <-8388607,8388607>\n";
  float result = 0.0f;
  const Datapath<float> half(24, 0, true);
  EXPECT_EQ(testing::PrintedBy([&] { result = half.Accumulate(8388607.0f, 1.0f); }), line);
  // 0.5 * 2^24: the exponent is held at 15 and the sign flips.
  EXPECT_TRUE(Same(-16384.0f, result, "half precision", ""));
  const Datapath<float> narrow(24, 0, false);
  EXPECT_EQ(testing::PrintedBy([&] { result = narrow.Accumulate(8388607.0f, 1.0f); }), line);
  EXPECT_TRUE(Same(-8388608.0f, result, "24 bits", ""));
  testing::Ran(testing::Path::kAccumulatorWarning);
}

// The two element types differ on purpose: a shift of 2 divides integers by 4 and floats by 2.
TEST(Datapath, ShiftDependsOnTheType) {
  EXPECT_EQ(Datapath<int32_t>(16, 2, false).ScaleProduct(5), 1);  // 1.25
  EXPECT_TRUE(Same(2.0f, Datapath<float>(16, 2, false).ScaleProduct(5.0f), "2.5", ""));
}

TEST(Datapath, HalfPrecisionTruncatesIntegerValues) {
  // 2049 needs 12 significant bits and stays; 4099 needs 13 and is a tie, which goes to 4100.
  EXPECT_EQ(Datapath<int32_t>(24, 0, true).InitialValue(2049), 2049);
  EXPECT_EQ(Datapath<int32_t>(24, 0, true).InitialValue(4099), 4100);
  EXPECT_EQ(Datapath<int32_t>(24, 0, true).InitialValue(40000), -20000);
}

}  // namespace
}  // namespace bitfold
