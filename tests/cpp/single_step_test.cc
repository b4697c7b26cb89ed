// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The exported single steps: worked examples, then the oracle, the printed text included.

#include "bitfold/single_step.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "reference.h"
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

std::string WarningLine(const char* sum) {
  return std::string("@@@ WARNING: acc ") + sum + " is out of bounds <-8388607,8388607>\n";
}

TEST(SingleStep, AccumulatorWarns) {
  int result = 0;
  const auto add = [&result](int a, int b) {
    return PrintedBy([&] { result = accumulator_int_verification(a, b, 32); });
  };
  EXPECT_EQ(add(8388607, 0), WarningLine("8388607.000000"));
  EXPECT_EQ(result, 8388607);
  EXPECT_EQ(add(-8388607, 0), "");
  EXPECT_EQ(result, -8388607);
  EXPECT_EQ(add(-8388608, 0), WarningLine("-8388608.000000"));
  EXPECT_EQ(result, -8388608);
  EXPECT_EQ(add(8388606, 0), "");
  EXPECT_EQ(add(INT32_MAX, INT32_MAX), WarningLine("4294967296.000000"));
}

TEST(SingleStep, AccumulatorWrapsOnce) {
  EXPECT_EQ(accumulator_int_verification(127, 1, 8), -128);
  EXPECT_EQ(accumulator_int_verification(-128, -1, 8), 127);
  EXPECT_EQ(accumulator_int_verification(127, 300, 8), 171);  // 427 - 256
  EXPECT_EQ(accumulator_int_verification(-128, -300, 8), -172);
  EXPECT_EQ(accumulator_int_verification(127, 0, 8), 127);
  EXPECT_EQ(accumulator_int_verification(-128, 0, 8), -128);
}

TEST(SingleStep, Shifter) {
  EXPECT_EQ(shifter_int_acc_verification(5, 1), 2);    // 2.5: the tie goes to 2
  EXPECT_EQ(shifter_int_acc_verification(7, 1), 4);    // 3.5: the tie goes to 4
  EXPECT_EQ(shifter_int_acc_verification(6, 2), 2);    // 1.5: to 2
  EXPECT_EQ(shifter_int_acc_verification(-5, 1), -2);  // -2.5: to -2
  for (const int x : testing::Int32Boundaries()) {
    EXPECT_EQ(shifter_int_acc_verification(x, 0), x);
  }
}

TEST(SingleStep, Multiplier) {
  EXPECT_EQ(multiplier_verification(65536, 65536), 0);
  EXPECT_EQ(multiplier_verification(INT32_MIN, -1), INT32_MIN);
  EXPECT_EQ(multiplier_verification(-7, 6), -42);
}

TEST(SingleStep, HalfAccumulator) {
  EXPECT_TRUE(Same(3.75f, accumulator_fp16_verification(1.5f, 2.25f), "1.5 + 2.25", ""));
  // 32767.9 becomes 32768; quantised again as the first operand it becomes -16384, while as the
  // second it stays and the sum does.
  EXPECT_TRUE(Same(-16384.0f, accumulator_fp16_verification(32767.9f, 0.0f), "first", ""));
  EXPECT_TRUE(Same(-16384.0f, accumulator_fp16_verification(0.0f, 32767.9f), "second", ""));
  EXPECT_TRUE(Same(16384.0f, accumulator_fp16_verification(32767.9f, 32767.9f), "both", ""));
}

// All steps of one width first, then the comparison: a report made during the capture would be lost
// in it.
void AccumulatorAgainstOracle(const std::vector<int32_t>& as, const std::vector<int32_t>& bs,
                              int32_t width) {
  std::vector<int32_t> expected;
  std::vector<int32_t> actual;
  std::string lines;
  for (const int32_t a : as) {
    for (const int32_t b : bs) {
      expected.push_back(reference::AccumulatorInt(a, b, width, &lines));
    }
  }
  const std::string printed = PrintedBy([&] {
    for (const int32_t a : as) {
      for (const int32_t b : bs) actual.push_back(accumulator_int_verification(a, b, width));
    }
  });
  const auto describe = [&](int64_t i) {
    const auto n = static_cast<int64_t>(bs.size());
    return Describe("a", as[static_cast<size_t>(i / n)], "b", bs[static_cast<size_t>(i % n)],
                    "width", width);
  };
  ASSERT_TRUE(testing::SameArrays(expected.data(), actual.data(),
                                  static_cast<int64_t>(expected.size()),
                                  "accumulator_int_verification", describe));
  ASSERT_TRUE(testing::SameText(lines, printed, Describe("width", width)));
}

// Every width the ops take, the narrow ones below them, and widths at which M is infinite or 0.
TEST(SingleStep, AccumulatorAgainstOracle) {
  std::vector<int32_t> widths;
  for (int32_t width = -3; width <= 40; ++width) widths.push_back(width);
  for (const int32_t width : {-1000, -150, 128, 129, 130, 1000, INT32_MIN, INT32_MAX}) {
    widths.push_back(width);
  }
  const auto corners = testing::Int32Corners();
  for (const int32_t width : widths) AccumulatorAgainstOracle(corners, corners, width);
}

TEST(SingleStep, AccumulatorAgainstOracleAtRandom) {
  testing::Random random(0xacc);
  for (int i = 0; i < 1000 / testing::Step(10); ++i) {
    std::vector<int32_t> as;
    std::vector<int32_t> bs;
    for (int k = 0; k < 10; ++k) {
      as.push_back(static_cast<int32_t>(random.Bits()) >> random.Between(0, 31));
      bs.push_back(static_cast<int32_t>(random.Bits()) >> random.Between(0, 31));
    }
    AccumulatorAgainstOracle(as, bs, random.Between(0, 33));
  }
}

TEST(SingleStep, HalfAccumulatorAgainstOracle) {
  const auto values = testing::FloatBoundaries();
  for (const float a : values) {
    for (const float b : values) {
      ASSERT_TRUE(Same(reference::AccumulatorHalf(a, b), accumulator_fp16_verification(a, b),
                       "accumulator_fp16_verification", Describe("a", a, "b", b)));
    }
  }
}

TEST(SingleStep, HalfAccumulatorPrintsNothing) {
  EXPECT_EQ(PrintedBy([] {
              for (const float x : testing::FloatCorners()) accumulator_fp16_verification(x, x);
            }),
            "");
}

TEST(SingleStep, MultiplierAndShiftersAgainstOracle) {
  for (const int32_t x : testing::Int32Boundaries()) {
    ASSERT_TRUE(Same(reference::ShiftHalf(x), shifter_fp16_acc_verification(x),
                     "shifter_fp16_acc_verification", Describe("x", x)));
    for (const int32_t y : testing::Int32Corners()) {
      const auto inputs = Describe("x", x, "y", y);
      ASSERT_TRUE(Same(reference::Multiply(x, y), multiplier_verification(x, y),
                       "multiplier_verification", inputs));
      ASSERT_TRUE(Same(reference::ShiftInt(x, y), shifter_int_acc_verification(x, y),
                       "shifter_int_acc_verification", inputs));
    }
  }
}

}  // namespace
}  // namespace bitfold
