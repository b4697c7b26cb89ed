// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The printed lines, byte for byte, and the range that leads to them.

#include "bitfold/warning.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

#include "support/capture.h"
#include "support/compare.h"
#include "support/ledger.h"

namespace bitfold {
namespace {

using testing::PrintedBy;
using testing::SameText;

std::string WarningOf(float sum) {
  return PrintedBy([sum] { PrintAccumulatorWarning(sum); });
}

TEST(Warning, AccumulatorLine) {
  EXPECT_EQ(WarningOf(8388607.0f),
            "@@@ WARNING: acc 8388607.000000 is out of bounds <-8388607,8388607>\n");
  EXPECT_EQ(WarningOf(-8388608.0f),
            "@@@ WARNING: acc -8388608.000000 is out of bounds <-8388607,8388607>\n");
  EXPECT_EQ(WarningOf(8388607.5f),
            "@@@ WARNING: acc 8388607.500000 is out of bounds <-8388607,8388607>\n");
  // The double that 3.4e38f widens to, all its digits.
  EXPECT_EQ(WarningOf(3.4e38f),
            "@@@ WARNING: acc 339999995214436424907732413799364296704.000000 is out of bounds "
            "<-8388607,8388607>\n");
  EXPECT_EQ(WarningOf(std::numeric_limits<float>::infinity()),
            "@@@ WARNING: acc inf is out of bounds <-8388607,8388607>\n");
  EXPECT_EQ(WarningOf(-std::numeric_limits<float>::infinity()),
            "@@@ WARNING: acc -inf is out of bounds <-8388607,8388607>\n");
  // The sign of a NaN means nothing.
  EXPECT_TRUE(SameText("@@@ WARNING: acc nan is out of bounds <-8388607,8388607>\n",
                       WarningOf(std::numeric_limits<float>::quiet_NaN()), "NaN"));
}

TEST(Warning, RangeIsClosedBelowAndOpenAbove) {
  const float limit = 8388607.0f;
  EXPECT_TRUE(IsOutOfWarningRange(limit));
  EXPECT_TRUE(IsOutOfWarningRange(std::nextafter(limit, 1e9f)));
  EXPECT_FALSE(IsOutOfWarningRange(std::nextafter(limit, 0.0f)));  // 8388606.5
  EXPECT_FALSE(IsOutOfWarningRange(-limit));
  EXPECT_FALSE(IsOutOfWarningRange(std::nextafter(-limit, 0.0f)));
  EXPECT_TRUE(IsOutOfWarningRange(std::nextafter(-limit, -1e9f)));  // -8388607.5
  EXPECT_FALSE(IsOutOfWarningRange(0.0f));
  EXPECT_FALSE(IsOutOfWarningRange(-0.0f));
  EXPECT_TRUE(IsOutOfWarningRange(3.4e38f));
  EXPECT_TRUE(IsOutOfWarningRange(-std::numeric_limits<float>::infinity()));
  EXPECT_TRUE(IsOutOfWarningRange(std::numeric_limits<float>::quiet_NaN()));
  EXPECT_TRUE(IsOutOfWarningRange(-std::numeric_limits<float>::quiet_NaN()));
}

TEST(Warning, DepthwiseWeightLine) {
  EXPECT_EQ(PrintedBy(PrintDepthwiseWeightWarning),
            "\x1b[1;31mweights should be uint8 for DW, check predecessor has signed output, could "
            "cause degradation\x1b[0m\n");
}

TEST(Warning, MatMulWeightLine) {
  EXPECT_EQ(PrintedBy(PrintMatMulWeightWarning),
            "\x1b[1;31mweights should be uint8 for matmul, check predecessor has signed output, "
            "could cause degradation\x1b[0m\n");
}

}  // namespace
}  // namespace bitfold
