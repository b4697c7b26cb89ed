// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The convolution of one image: worked examples; then the definition against the oracle, once over
// every geometry with the arithmetic drawn, once over every arithmetic on a few geometries.

#include "bitfold/HConv2D.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "support/convolution.h"
#include "support/ledger.h"
#include "support/scale.h"

namespace bitfold {
namespace {

using reference::Convolution;
using testing::ConvolutionData;
using testing::Data;
using testing::DefinedConvolution;
using testing::Path;
using testing::Plain;
using testing::Ran;
using testing::Same;

const char kRedLine[] =
    "\033[1;31mweights should be uint8 for DW, check predecessor has signed output, could cause "
    "degradation\033[0m\n";

// A column of inputs under a filter of as many rows: one output, whose chain is the column.
Convolution Column(int32_t rows, int width, int shift) {
  Convolution c = Plain(rows, 1, 1, rows, 1, 1);
  c.accumulator_size = width;
  c.mult_shift = shift;
  return c;
}

// ---- Worked examples ---------------------------------------------------------------------------

TEST(HConv2D, Int32Wraps) {
  EXPECT_EQ(DefinedConvolution<int32_t>(Column(2, 8, 0), {{100, 30}, {1, 1}, {}}).values[0], -126);
  EXPECT_EQ(DefinedConvolution<int32_t>(Column(2, 8, 0), {{100, 30}, {-1, -1}, {}}).values[0], 126);
}

TEST(HConv2D, Int32RoundsEveryProduct) {
  struct {
    int32_t product, rounded;
  } const cases[] = {
      {3, 2},    // 1.5: the tie goes to 2
      {5, 2},    // 2.5 to 2
      {-3, -2},  // -1.5 to -2
      {-1, 0},   // -0.5 to 0
  };
  for (const auto& c : cases) {
    EXPECT_EQ(DefinedConvolution<int32_t>(Column(1, 16, 1), {{c.product}, {1}, {}}).values[0],
              c.rounded);
  }
  // Each product rounds on its own: 1.5 + 1.5 is 2 + 2.
  EXPECT_EQ(DefinedConvolution<int32_t>(Column(2, 16, 1), {{3, 3}, {1, 1}, {}}).values[0], 4);
}

TEST(HConv2D, FloatDividesByTheShift) {
  // 10 / 4 = 2.5: the tie goes to 2.
  const auto out = DefinedConvolution<float>(Column(1, 16, 4), {{5.0f}, {2.0f}, {}});
  EXPECT_TRUE(Same(2.0f, out.values[0], "10 / 4", ""));
}

TEST(HConv2D, FloatWarns) {
  const auto above = DefinedConvolution<float>(Column(1, 32, 0), {{8388607.0f}, {1.0f}, {}});
  EXPECT_EQ(above.lines, "@@@ WARNING: acc 8388607.000000 is out of bounds <-8388607,8388607>\n");
  const auto below = DefinedConvolution<float>(Column(1, 32, 0), {{-8388607.0f}, {1.0f}, {}});
  EXPECT_EQ(below.lines, "");
}

TEST(HConv2D, DepthwiseWeightIsReadAsSigned) {
  Convolution c = Column(2, 16, 0);
  c.is_depthwise = true;
  const auto out = DefinedConvolution<int32_t>(c, {{3, 1}, {200, 127}, {}});
  EXPECT_EQ(out.values[0], 3 * (200 - 256) + 127);
  EXPECT_EQ(out.lines, kRedLine);
  EXPECT_EQ(DefinedConvolution<int32_t>(c, {{3, 1}, {127, -128}, {}}).lines, "");
  const auto real = DefinedConvolution<float>(c, {{3.0f, 1.0f}, {200.0f, 127.0f}, {}});
  EXPECT_TRUE(Same(-41.0f, real.values[0], "float", ""));
  EXPECT_EQ(real.lines, kRedLine);
  Ran(Path::kDepthwiseWarning);
}

// Only weights that meet an input count: the second one would need its sign corrected, but lies
// outside under every window.
TEST(HConv2D, DepthwiseWeightOutsideTheImageIsNotSeen) {
  Convolution c = Plain(1, 1, 1, 3, 1, 1);
  c.same = true;
  c.accumulator_size = 16;
  c.is_depthwise = true;
  EXPECT_EQ(DefinedConvolution<int32_t>(c, {{5}, {200, 3, 200}, {}}).lines, "");
}

// The elementwise value is not shifted, and comes between the centre row and the row below.
TEST(HConv2D, ElementwiseAddendInItsPlace) {
  // 100 / 2 + 100 / 2 = 100, + 27 = 127, - 50: in place nothing leaves 8 bits.
  EXPECT_EQ(
      DefinedConvolution<int32_t>(Column(3, 8, 1), {{100, 100, -100}, {1, 1, 1}, {27}}).values[0],
      77);
  const auto out = DefinedConvolution<float>(
      Column(3, 32, 0), {{8388600.0f, 1.0f, -100.0f}, {1.0f, 1.0f, 1.0f}, {10.0f}});
  EXPECT_EQ(out.lines, "@@@ WARNING: acc 8388611.000000 is out of bounds <-8388607,8388607>\n");
  EXPECT_TRUE(Same(8388511.0f, out.values[0], "sum", ""));
  Ran(Path::kElementwiseAddend);
}

// Two taps that lie two apart have none in the middle.
TEST(HConv2D, ElementwiseNeedsACentreRow) {
  Convolution c = Column(3, 8, 0);
  c.filter_height = 2;
  c.dilation_h = 2;
  EXPECT_EQ(DefinedConvolution<int32_t>(c, {{1, 2, 3}, {1, 1}, {27}}).values[0], 4);
  Ran(Path::kElementwiseWithoutCentre);
}

// The centre row may lie outside the image and brings its addend all the same.
TEST(HConv2D, ElementwiseWhoseCentreRowLiesOutside) {
  Convolution c = Plain(3, 1, 1, 4, 1, 1);
  c.same = true;
  c.stride_h = 2;
  c.dilation_h = 1;
  testing::Random random(0xe1e);
  EXPECT_TRUE(testing::CheckConvolution(
      c, testing::DrawConvolution<int32_t>(&random, c, Data::kSmall, true)));
  Convolution undilated = Column(3, 16, 0);
  undilated.dilation_h = 0;  // every tap is the centre tap: three addends
  EXPECT_EQ(DefinedConvolution<int32_t>(undilated, {{1, 2, 4}, {1, 1, 1}, {10, 0, 0}}).values[0],
            33);
}

TEST(HConv2D, WindowLargerThanTheImage) {
  // (2 - 3) / 2 + 1 = 1: one output, whose third row lies outside.
  Convolution c = Plain(2, 2, 1, 3, 3, 1);
  c.stride_h = c.stride_w = 2;
  ASSERT_EQ(testing::OutputCount(c), 1);
  const auto out = DefinedConvolution<int32_t>(
      c, {{1, 2, 3, 4}, {1, 10, 100, 1000, 10000, 100000, 7, 7, 7}, {}});
  EXPECT_EQ(out.values[0], 1 + 20 + 3000 + 40000);
}

TEST(HConv2D, FilterWithoutRowsGivesZero) {
  Convolution c = Plain(2, 2, 1, 0, 1, 1);
  const auto n = static_cast<size_t>(testing::OutputCount(c));
  ASSERT_GT(n, 0u);
  const ConvolutionData<float> data = {{1.0f, 2.0f, 3.0f, 4.0f}, {}, std::vector<float>(n, 9.0f)};
  const auto out = DefinedConvolution<float>(c, data);
  for (size_t i = 0; i < n; ++i) {
    EXPECT_TRUE(Same(0.0f, out.values[static_cast<int64_t>(i)], "no rows", ""));
  }
}

// ---- Every geometry ----------------------------------------------------------------------------

struct Window {
  int32_t filter_height, filter_width, stride_h, stride_w, dilation_h, dilation_w;
};

std::vector<Window> Windows() {
  std::vector<Window> windows;
  for (const int32_t filter : {0, 1, 2, 3, 4, 5}) {
    for (const int32_t stride : {1, 2, 3}) {
      for (const int32_t dilation : {0, 1, 2, 3}) {
        // The other axis is different, so that a mix-up shows.
        windows.push_back({filter, 3, stride, 1, dilation, 1});
        windows.push_back({2, filter, 1, stride, 1, dilation});
        windows.push_back({filter, 4 - filter % 4, stride, 4 - stride, dilation, 2});
      }
    }
  }
  windows.push_back({3, 3, -1, -2, 1, 1});
  windows.push_back({3, 2, 1, 1, -1, -2});
  return windows;
}

std::vector<int> WidthsOf(int32_t) { return {0, 1, 8, 16, 24, 32}; }
std::vector<int> WidthsOf(float) { return {0, 1, 8, 16, 24, 26, 32, 40}; }

template <typename T>
void RunGeometry(Convolution c, testing::Random* random) {
  c.accumulator_size = random->Pick(WidthsOf(T{}));
  c.mult_shift = random->Pick<int32_t>({0, 0, 1, 4, 31, -3});
  c.use_fp16_acc = random->Flag();
  const Data data = random->Pick<Data>({Data::kSmall, Data::kSmall, Data::kFull});
  ASSERT_TRUE(testing::CheckConvolution(
      c, testing::DrawConvolution<T>(random, c, data, random->Flag()), random->Between(0, 3)));
}

template <typename T>
void CrossGeometries(bool is_depthwise) {
  testing::Random random(is_depthwise ? 0xd3 : 0xc0);
  const std::vector<std::pair<int32_t, int32_t>> images = {{1, 1}, {2, 5}, {4, 4}, {7, 3}, {6, 9}};
  int turn = 0;
  for (const auto& image : images) {
    for (const Window& w : Windows()) {
      for (const bool same : {false, true}) {
        // Depthwise filters with fewer channels than the input read the first ones.
        for (const int32_t out_channels : {1, 2, 3}) {
          if (++turn % testing::Step(7) != 0) continue;
          Convolution c = Plain(image.first, image.second, is_depthwise ? 3 : 2, w.filter_height,
                                w.filter_width, out_channels);
          c.batch = 2;
          c.stride_h = w.stride_h;
          c.stride_w = w.stride_w;
          c.dilation_h = w.dilation_h;
          c.dilation_w = w.dilation_w;
          c.same = same;
          c.is_depthwise = is_depthwise;
          c.filter_per_image = random.Flag();
          if (!is_depthwise && c.filter_per_image) c.filter_per_image = random.Flag();
          ASSERT_NO_FATAL_FAILURE(RunGeometry<T>(c, &random));
        }
      }
    }
  }
}

TEST(HConv2D, Int32GeometriesCrossed) {
  CrossGeometries<int32_t>(false);
  Ran(Path::kConvolutionInt32);
}

TEST(HConv2D, FloatGeometriesCrossed) {
  CrossGeometries<float>(false);
  Ran(Path::kConvolutionFloat);
}

TEST(HConv2D, DepthwiseInt32GeometriesCrossed) {
  CrossGeometries<int32_t>(true);
  Ran(Path::kDepthwiseInt32);
}

TEST(HConv2D, DepthwiseFloatGeometriesCrossed) {
  CrossGeometries<float>(true);
  Ran(Path::kDepthwiseFloat);
}

// ---- Every arithmetic --------------------------------------------------------------------------

std::vector<Convolution> FewGeometries() {
  Convolution ordinary = Plain(5, 4, 3, 3, 3, 2);
  ordinary.same = true;
  Convolution strided = Plain(6, 5, 2, 2, 3, 2);
  strided.stride_h = 2;
  strided.dilation_w = 2;
  Convolution depthwise = Plain(4, 5, 3, 3, 2, 3);
  depthwise.is_depthwise = true;
  Convolution per_image = Plain(4, 4, 3, 3, 3, 2);
  per_image.batch = 3;
  per_image.same = true;
  per_image.is_depthwise = true;
  per_image.filter_per_image = true;
  return {ordinary, strided, depthwise, per_image};
}

template <typename T>
void CrossArithmetic(bool use_fp16_acc) {
  testing::Random random(0xa717);
  int turn = 0;
  for (Convolution c : FewGeometries()) {
    for (const int width : WidthsOf(T{})) {
      for (const int shift : {0, 1, 4, 31, -3, 127, -128}) {
        for (const bool elementwise : {false, true}) {
          for (const Data data : {Data::kSmall, Data::kCorners, Data::kFull}) {
            if (++turn % testing::Step(5) != 0) continue;
            c.accumulator_size = width;
            c.mult_shift = shift;
            c.use_fp16_acc = use_fp16_acc;
            ASSERT_TRUE(testing::CheckConvolution(
                c, testing::DrawConvolution<T>(&random, c, data, elementwise)));
          }
        }
      }
    }
    if (c.filter_per_image) Ran(Path::kDepthwiseFilterPerImage);
  }
}

TEST(HConv2D, Int32ArithmeticCrossed) {
  CrossArithmetic<int32_t>(false);
  CrossArithmetic<int32_t>(true);  // changes nothing: the sum starts from 0
}

TEST(HConv2D, FloatArithmeticCrossed) { CrossArithmetic<float>(false); }

TEST(HConv2D, HalfPrecisionArithmeticCrossed) {
  CrossArithmetic<float>(true);
  Ran(Path::kConvolutionHalf);
}

// Every order of the loops gives its own float sum: a chain whose value depends on the order.
TEST(HConv2D, OrderOfTheChainShows) {
  Convolution c = Plain(2, 2, 2, 2, 2, 1);
  c.accumulator_size = 40;
  testing::Random random(0x0dde2);
  for (int i = 0; i < 200; ++i) {
    ConvolutionData<float> data = testing::DrawConvolution<float>(&random, c, Data::kSmall, true);
    for (float& x : data.input) x *= random.Flag() ? 1048576.0f : 0.001f;
    ASSERT_TRUE(testing::CheckConvolution(c, data));
  }
}

}  // namespace
}  // namespace bitfold
