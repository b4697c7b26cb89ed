// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The geometry of a window along one axis, against the oracle: a whole grid of small sizes, and
// the corners of int32.

#include "bitfold/geometry.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <vector>

#include "reference.h"
#include "support/compare.h"
#include "support/random.h"
#include "support/tables.h"

namespace bitfold {
namespace {

using testing::Describe;
using testing::Same;

constexpr Padding kBoth[] = {Padding::kValid, Padding::kSame};

bool IsSame(Padding padding) { return padding == Padding::kSame; }

::testing::AssertionResult SameAsOracle(int32_t input, int32_t filter, int32_t stride,
                                        int32_t dilation, Padding padding) {
  const bool same = IsSame(padding);
  const auto inputs = Describe("input", input, "filter", filter, "stride", stride, "dilation",
                               dilation, "same", same);
  const ConvolutionAxis axis = {input, filter, stride, dilation, padding};
  const auto size = Same(reference::OutputSize(input, filter, stride, dilation, same),
                         getOutputSize(axis), "getOutputSize", inputs);
  if (!size) return size;
  return Same(reference::StartIndex(input, filter, stride, dilation, same),
              getInputStartIndex(axis), "getInputStartIndex", inputs);
}

TEST(Geometry, FilterDimensions) {
  for (const int flag : {0, 1}) {
    EXPECT_EQ(get_filter_dim_height(flag), flag);
    EXPECT_EQ(get_filter_dim_width(flag), flag + 1);
    EXPECT_EQ(get_filter_dim_in_channels(flag), flag + 2);
    EXPECT_EQ(get_filter_dim_out_channels(flag), flag + 3);
  }
}

TEST(Geometry, OutputSizeExamples) {
  EXPECT_EQ(getOutputSize({7, 3, 2, 1, Padding::kValid}), 3);  // (7 - 3) / 2 + 1
  EXPECT_EQ(getOutputSize({7, 3, 2, 1, Padding::kSame}), 4);   // (7 - 1) / 2 + 1
  EXPECT_EQ(EffectiveFilterSize(3, 2), 5);
  EXPECT_EQ(getOutputSize({7, 3, 1, 2, Padding::kValid}), 3);
  // A window larger than the input: -1 / 2 truncates to 0 and leaves one output.
  EXPECT_EQ(getOutputSize({2, 3, 2, 1, Padding::kValid}), 1);
  EXPECT_EQ(getOutputSize({1, 3, 1, 1, Padding::kValid}), -1);
}

TEST(Geometry, StartExamples) {
  EXPECT_EQ(getInputStartIndex({7, 3, 1, 2, Padding::kValid}), 2);
  EXPECT_EQ(getInputStartIndex({5, 3, 1, 1, Padding::kSame}), 0);
  // Pads 1 in all, none of it in front.
  EXPECT_EQ(getInputStartIndex({6, 3, 2, 1, Padding::kSame}), 1);
  // Pads 2 in all; one in front would start at 1, the accelerator starts at 0.
  EXPECT_EQ(getInputStartIndex({9, 5, 3, 1, Padding::kSame}), 0);
}

TEST(Geometry, SmallGridAgainstOracle) {
  for (const Padding padding : kBoth) {
    for (int32_t input = 0; input <= 12; ++input) {
      for (int32_t filter = 0; filter <= 7; ++filter) {
        for (int32_t stride = -3; stride <= 5; ++stride) {
          if (stride == 0) continue;
          for (int32_t dilation = -2; dilation <= 4; ++dilation) {
            ASSERT_TRUE(SameAsOracle(input, filter, stride, dilation, padding));
          }
        }
      }
    }
  }
}

TEST(Geometry, Int32CornersAgainstOracle) {
  const std::vector<int32_t> corners = {
      INT32_MIN, INT32_MIN + 1, -65536,        -2,       -1, 0, 1, 2, 46341,
      65536,     65537,         INT32_MAX - 1, INT32_MAX};
  for (const Padding padding : kBoth) {
    for (const int32_t input : corners) {
      for (const int32_t filter : corners) {
        for (const int32_t stride : corners) {
          if (stride == 0) continue;
          for (const int32_t dilation : corners) {
            ASSERT_TRUE(SameAsOracle(input, filter, stride, dilation, padding));
          }
        }
      }
    }
  }
  // The quotient that no int32 holds wraps instead of trapping: INT32_MIN / -1 + 1.
  EXPECT_EQ(getOutputSize({INT32_MIN, 0, -1, 1, Padding::kValid}), INT32_MIN + 1);
}

// The coordinates that the loops use, against 64-bit arithmetic from the oracle's start.
TEST(Geometry, WindowCoordinates) {
  for (const Padding padding : kBoth) {
    for (int32_t input = 1; input <= 9; ++input) {
      for (int32_t filter = 1; filter <= 5; ++filter) {
        for (int32_t stride = 1; stride <= 3; ++stride) {
          for (int32_t dilation = 0; dilation <= 3; ++dilation) {
            const WindowAxis axis({input, filter, stride, dilation, padding});
            const int64_t start =
                reference::StartIndex(input, filter, stride, dilation, IsSame(padding));
            const int64_t half = ((filter - 1) * dilation + 1) / 2;
            for (int32_t out = 0; out < 4; ++out) {
              for (int32_t tap = 0; tap < filter; ++tap) {
                const int64_t x = start + out * stride - half + tap * dilation;
                ASSERT_EQ(axis.Coordinate(out, tap), x) << input << " " << filter;
                ASSERT_EQ(axis.Contains(axis.Coordinate(out, tap)), 0 <= x && x < input);
              }
            }
          }
        }
      }
    }
  }
}

// One tap after the other.
void ExpectCentreTapsOf(const WindowAxis& axis) {
  int32_t first = -1;
  int64_t count = 0;
  for (int32_t tap = axis.taps - 1; tap >= 0; --tap) {
    if (!axis.IsCentre(tap)) continue;
    first = tap;
    ++count;
  }
  const CentreTaps taps(axis);
  EXPECT_EQ(taps.first, first) << axis.taps << " taps " << axis.dilation << " apart";
  EXPECT_EQ(taps.count, count) << axis.taps << " taps " << axis.dilation << " apart";
}

CentreTaps CentreTapsOf(int32_t taps, int32_t dilation) {
  return CentreTaps(WindowAxis({9, taps, 1, dilation, Padding::kSame}));
}

TEST(Geometry, OneCentreTapOrNone) {
  for (int32_t filter = 1; filter <= 12; ++filter) {
    for (int32_t dilation = 1; dilation <= 6; ++dilation) {
      const bool has_centre = filter % 2 == 1 || dilation == 1;
      EXPECT_EQ(CentreTapsOf(filter, dilation).count, has_centre ? 1 : 0)
          << filter << " " << dilation;
    }
    EXPECT_EQ(CentreTapsOf(filter, 1).first, filter / 2);
    // Undilated taps all lie on one place, which is the centre.
    EXPECT_EQ(CentreTapsOf(filter, 0).count, filter);
  }
}

TEST(Geometry, CentreTapsAsWalkedOneByOne) {
  constexpr int32_t kMin = std::numeric_limits<int32_t>::min();
  constexpr int32_t kMax = std::numeric_limits<int32_t>::max();
  testing::Random random(0xce47);
  std::vector<int32_t> dilations = {0,       1,       2,    3,    4,        5,        6,
                                    -1,      -2,      -3,   -4,   -30000,   1 << 28,  -(1 << 28),
                                    3 << 27, 1 << 30, kMin, kMax, kMin + 1, kMax - 1, kMin / 2};
  for (int i = 0; i < 50; ++i) dilations.push_back(static_cast<int32_t>(random.Bits()));
  for (const int32_t dilation : dilations) {
    for (const int32_t taps : {-1, 0, 1, 2, 3, 4, 5, 7, 8, 9, 16, 31, 100, 4097}) {
      for (const Padding padding : {Padding::kValid, Padding::kSame}) {
        ExpectCentreTapsOf(WindowAxis({9, taps, 1, dilation, padding}));
      }
    }
  }
}

TEST(Geometry, CentreTapsOfTwoBillion) {
  constexpr int32_t kMax = std::numeric_limits<int32_t>::max();
  EXPECT_EQ(CentreTapsOf(kMax, 0).count, kMax);
  EXPECT_EQ(CentreTapsOf(kMax, 1).count, 1);
  EXPECT_EQ(CentreTapsOf(kMax, -1).count, 1);
  EXPECT_EQ(CentreTapsOf(kMax - 1, 2).count, 0);
}

}  // namespace
}  // namespace bitfold
