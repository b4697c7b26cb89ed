// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The datapath as the device's kernels compute it and the sizes of their convolution, each step
// against the oracle; and what they do otherwise than the CPU, with both results.

#include "bitfold/device_datapath.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "bitfold/datapath.h"
#include "bitfold/device_convolution.h"
#include "reference/device.h"
#include "support/capture.h"
#include "support/compare.h"
#include "support/ledger.h"
#include "support/random.h"
#include "support/scale.h"
#include "support/tables.h"

namespace bitfold {

// Counts its additions, so that a feed of any length is short.
template <>
class DeviceDatapath<uint32_t> {
 public:
  uint32_t Accumulate(uint32_t acc, uint32_t addend) const { return acc + addend; }
};

namespace {

using testing::Describe;
using testing::Path;
using testing::PrintedBy;
using testing::Ran;
using testing::Same;

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

const std::vector<int>& FloatWidths() {
  static const std::vector<int> widths = {0,  1,  2,  8,  16,  24,  25,  26,  31,
                                          32, 33, 40, 64, 126, 127, 128, 129, 130};
  return widths;
}

template <typename T>
std::vector<int> WidthsOf() {
  if constexpr (std::is_same_v<T, float>) {
    return FloatWidths();
  } else {
    return {0, 1, 2, 8, 16, 24, 31, 32};
  }
}

// As the launchers make it.
template <typename T>
DeviceDatapath<T> DatapathOf(int width, int shift, bool use_fp16_acc) {
  const AccumulatorLimits<T> limits(width);
  return {limits.min, limits.max, shift, use_fp16_acc};
}

// ---- Where a device differs --------------------------------------------------------------------

TEST(DeviceDatapath, WarningRangeIsTheCpusButForNan) {
  for (const float sum : testing::FloatBoundaries()) {
    EXPECT_EQ(IsOutOfDeviceWarningRange(sum), IsOutOfWarningRange(sum) && !testing::IsNan(sum))
        << testing::Show(sum);
  }
  EXPECT_TRUE(IsOutOfDeviceWarningRange(8388607.0f));
  EXPECT_FALSE(IsOutOfDeviceWarningRange(8388606.5f));
  EXPECT_FALSE(IsOutOfDeviceWarningRange(-8388607.0f));
  EXPECT_TRUE(IsOutOfDeviceWarningRange(-8388607.5f));
  EXPECT_TRUE(IsOutOfDeviceWarningRange(kInfinity));
  EXPECT_TRUE(IsOutOfDeviceWarningRange(-kInfinity));
  EXPECT_FALSE(IsOutOfDeviceWarningRange(kNan));
  EXPECT_FALSE(IsOutOfDeviceWarningRange(-kNan));
}

TEST(DeviceDatapath, NanPrintsNothingUnlikeTheCpu) {
  for (const bool use_fp16_acc : {false, true}) {
    const auto on_device = DatapathOf<float>(24, 0, use_fp16_acc);
    const Datapath<float> on_cpu(24, 0, use_fp16_acc);
    EXPECT_EQ(PrintedBy([&] { on_device.Accumulate(kNan, 1.0f); }), "");
    EXPECT_TRUE(testing::SameText("@@@ WARNING: acc nan is out of bounds <-8388607,8388607>\n",
                                  PrintedBy([&] { on_cpu.Accumulate(kNan, 1.0f); }), "on the CPU"));
  }
}

// The sums that differ, in their last bit or altogether.
TEST(DeviceDatapath, WrapDiffersFromTheCpusForLargeSums) {
  const struct {
    float sum;
    int width;
    float on_device, on_cpu;
  } cases[] = {
      {130.0f, 8, -126.0f, -126.0f},
      {-130.0f, 8, 126.0f, 126.0f},
      {25165828.0f, 24, 8388612.0f, 8388612.0f},
      // Less 8388607 that is 16777223, a tie that goes up to 16777224; so does that less 1.
      {25165830.0f, 24, 8388616.0f, 8388614.0f},
      {-25165830.0f, 24, -8388613.0f, -8388614.0f},
      {16777218.0f, 1, 16777215.0f, 16777216.0f},
      {-16777218.0f, 1, -16777215.0f, -16777216.0f},
      // No float holds the period of 128 bits: 2^127 + 2^126.
      {2.55211775e38f, 128, -8.50705917e37f, -kInfinity},
      {kInfinity, 128, kInfinity, kNan},
      {kInfinity, 129, kInfinity, kInfinity},
      {kNan, 8, kNan, kNan},
  };
  for (const auto& c : cases) {
    const AccumulatorLimits<float> limits(c.width);
    const auto inputs = Describe("sum", c.sum, "width", c.width);
    EXPECT_TRUE(Same(c.on_device, WrapOnDevice(c.sum, limits.min, limits.max), "device", inputs));
    EXPECT_TRUE(Same(c.on_cpu, WrapOnce(c.sum, limits), "CPU", inputs));
  }
}

// ---- Against the oracle ------------------------------------------------------------------------

TEST(DeviceDatapath, WrapAgainstOracle) {
  testing::Random random(0x3a9);
  for (const int width : FloatWidths()) {
    const AccumulatorLimits<float> limits(width);
    std::vector<float> sums = testing::FloatBoundaries();
    for (const float bound : {limits.min, limits.max}) {
      for (const float scale : {1.0f, 1.5f, 2.0f, 3.0f, 4.0f}) {
        testing::InsertWithNeighbours(bound * scale, &sums);
      }
    }
    for (int i = 0; i < 2000; ++i) sums.push_back(testing::FloatOf(random.Bits()));
    for (const float sum : sums) {
      ASSERT_TRUE(Same(reference::DeviceWrap(sum, width), WrapOnDevice(sum, limits.min, limits.max),
                       "WrapOnDevice", Describe("sum", sum, "width", width)));
    }
  }
}

template <typename T>
class DeviceDatapathTest : public ::testing::Test {};

using Types = ::testing::Types<int32_t, float>;
TYPED_TEST_SUITE(DeviceDatapathTest, Types, );

// A feed repeat of 0 leaves the oracle's initial value.
TYPED_TEST(DeviceDatapathTest, InitialValue) {
  using T = TypeParam;
  for (const bool use_fp16_acc : {false, true}) {
    const auto datapath = DatapathOf<T>(24, 3, use_fp16_acc);
    for (const T value : testing::Corners<T>()) {
      T expected{};
      reference::DeviceAdd<T>(&value, &value, T{1}, 0.0f, 3, 24, use_fp16_acc, 1, &expected,
                              nullptr);
      EXPECT_TRUE(Same(expected, datapath.InitialValue(value), "InitialValue",
                       Describe("value", value, "fp16", use_fp16_acc)));
    }
  }
}

TYPED_TEST(DeviceDatapathTest, Product) {
  using T = TypeParam;
  const std::vector<T> corners = testing::Corners<T>();
  for (int shift = INT8_MIN; shift <= INT8_MAX; shift += testing::Step(5)) {
    const auto datapath = DatapathOf<T>(24, shift, false);
    for (const T a : corners) {
      for (const T b : corners) {
        ASSERT_TRUE(Same(reference::ScaledProduct(a, b, shift), datapath.Product(a, b), "Product",
                         Describe("a", a, "b", b, "shift", shift)));
      }
    }
  }
}

TYPED_TEST(DeviceDatapathTest, Accumulate) {
  using T = TypeParam;
  const std::vector<T> corners = testing::Corners<T>();
  for (const bool use_fp16_acc : {false, true}) {
    for (const int width : WidthsOf<T>()) {
      const auto datapath = DatapathOf<T>(width, 0, use_fp16_acc);
      std::string expected_lines;
      const std::string lines = PrintedBy([&] {
        for (const T acc : corners) {
          for (const T addend : corners) {
            const T expected =
                reference::DeviceAccumulate(acc, addend, width, use_fp16_acc, &expected_lines);
            ASSERT_TRUE(
                Same(expected, datapath.Accumulate(acc, addend), "Accumulate",
                     Describe("acc", acc, "addend", addend, "width", width, "fp16", use_fp16_acc)));
          }
        }
      });
      ASSERT_TRUE(testing::SameText(expected_lines, lines, Describe("width", width)));
    }
  }
}

// Both addends in each pass, one after the other.
TYPED_TEST(DeviceDatapathTest, PassesOfOneAndOfTwoAddends) {
  using T = TypeParam;
  testing::Random random(0x9a5);
  for (int i = 0; i < 2000; ++i) {
    const int width = random.Pick(WidthsOf<T>());
    const bool use_fp16_acc = random.Flag();
    const auto datapath = DatapathOf<T>(width, 0, use_fp16_acc);
    const testing::Data data = random.Flag() ? testing::Data::kSmall : testing::Data::kCorners;
    const std::vector<T> x = testing::DrawMany<T>(&random, data, 3);
    const float repeat = random.Pick<float>({0.0f, -1.0f, kNan, 0.5f, 1.0f, 2.5f, 3.0f, 17.0f});
    T expected = x[0];
    std::string expected_lines;
    for (int64_t pass = 0; pass < reference::DevicePasses(repeat); ++pass) {
      for (const T addend : {x[1], x[2]}) {
        expected =
            reference::DeviceAccumulate(expected, addend, width, use_fp16_acc, &expected_lines);
      }
    }
    T actual{};
    const std::string lines =
        PrintedBy([&] { actual = AddRepeatedlyOnDevice(datapath, x[0], repeat, x[1], x[2]); });
    const auto inputs = Describe("acc", x[0], "first", x[1], "second", x[2], "repeat", repeat,
                                 "width", width, "fp16", use_fp16_acc);
    ASSERT_TRUE(Same(expected, actual, "AddRepeatedlyOnDevice", inputs));
    ASSERT_TRUE(testing::SameText(expected_lines, lines, inputs));
  }
}

// ---- Feeds -------------------------------------------------------------------------------------

uint32_t Passes(float feed_repeat) {
  return AddRepeatedlyOnDevice(DeviceDatapath<uint32_t>(), 0u, feed_repeat, 1u);
}

TEST(DeviceFeed, PassesAreCountedAsFloats) {
  const struct {
    float feed_repeat;
    uint32_t passes;
  } cases[] = {{0.0f, 0},
               {-0.0f, 0},
               {-2.5f, 0},
               {-kInfinity, 0},
               {kNan, 0},
               {-kNan, 0},
               {1e-45f, 1},
               {0.5f, 1},
               {1.0f, 1},
               {1.00000012f, 2},
               {2.5f, 3},
               {3.0f, 3},
               {17.0f, 17},
               {1e6f, 1000000},
               {16777216.0f, 16777216},
               {16777218.0f, 16777218},
               // 2^24 + 3 rounds up to 2^24 + 4.
               {16777220.0f, 16777219}};
  for (const auto& c : cases) {
    EXPECT_EQ(Passes(c.feed_repeat), c.passes) << testing::Show(c.feed_repeat);
    EXPECT_EQ(reference::DevicePasses(c.feed_repeat), c.passes) << testing::Show(c.feed_repeat);
  }
}

// The longest of all, with a pass of one instruction.
TEST(DeviceFeed, EndsWhereNoCountReachesIt) {
  EXPECT_EQ(kMaxDevicePasses, 2147483648u);
  EXPECT_EQ(Passes(kInfinity), 2147483648u);
  EXPECT_EQ(reference::DevicePasses(kInfinity), 2147483648);
  EXPECT_EQ(reference::DevicePasses(3e9f), 2147483648);
  Ran(Path::kDeviceFeedEnds);
}

TEST(DeviceFeed, CountsAgainstOracle) {
  for (const float repeat :
       {0.0f, -0.0f, -1.0f, kNan, 1e-45f, 0.5f, 1.0f, 64.0f, 64.5f, 65.0f, 1e6f, 16777216.0f,
        16777218.0f, 16777220.0f, 2147483520.0f, 2147483648.0f, 3e9f, kInfinity, -kInfinity}) {
    EXPECT_EQ(DeviceFeedRepeatCount(repeat), reference::DevicePasses(repeat))
        << testing::Show(repeat);
  }
}

// Integers make no more passes than it takes to prove the rest.
TEST(DeviceFeed, ManyIntegerPassesAgainstOracle) {
  testing::Random random(0x3fee);
  for (int i = 0; i < 3000; i += testing::Step(7)) {
    const int width = random.Pick(WidthsOf<int32_t>());
    const auto datapath = DatapathOf<int32_t>(width, 0, false);
    const testing::Data data = random.Flag() ? testing::Data::kSmall : testing::Data::kCorners;
    const std::vector<int32_t> x = testing::DrawMany<int32_t>(&random, data, 3);
    const float repeat = random.Pick<float>({63.5f, 64.0f, 64.5f, 65.0f, 100.0f, 1000.25f});
    const auto inputs = Describe("acc", x[0], "first", x[1], "second", x[2], "width", width);
    int32_t one = x[0];
    int32_t two = x[0];
    for (int64_t pass = 0; pass < reference::DevicePasses(repeat); ++pass) {
      one = reference::DeviceAccumulate(one, x[1], width, false, nullptr);
      two = reference::DeviceAccumulate(two, x[1], width, false, nullptr);
      two = reference::DeviceAccumulate(two, x[2], width, false, nullptr);
    }
    ASSERT_TRUE(
        Same(one, AddRepeatedlyOnDevice(datapath, x[0], repeat, x[1]), "one addend", inputs));
    ASSERT_TRUE(Same(two, AddRepeatedlyOnDevice(datapath, x[0], repeat, x[1], x[2]), "two addends",
                     inputs));
  }
}

// 2^31 passes at once: 5 + 3 * 2^31 is 5 modulo 2^24, and 2^31 more than that modulo 2^32.
TEST(DeviceFeed, TheMostIntegerPassesTakeNoTime) {
  for (int i = 0; i < 1000000; ++i) {
    ASSERT_EQ(AddRepeatedlyOnDevice(DatapathOf<int32_t>(24, 0, false), 5, kInfinity, 3), 5);
    ASSERT_EQ(AddRepeatedlyOnDevice(DatapathOf<int32_t>(32, 0, false), 5, kInfinity, 3),
              INT32_MIN + 5);
  }
}

// ---- The sizes of a convolution ----------------------------------------------------------------

Padding PaddingOf(bool same) { return same ? Padding::kSame : Padding::kValid; }

TEST(DeviceConvolutionSizes, AxisAgainstOracle) {
  const std::vector<int32_t> inputs = {0, 1, 2, 3, 5, 6, 9, 16, 1000003, INT32_MAX};
  const std::vector<int32_t> filters = {0, 1, 2, 3, 4, 5, 7, 65536, INT32_MAX};
  const std::vector<int32_t> steps = {-65536, -3, -2, -1, 0, 1, 2, 3, 65536, INT32_MAX, INT32_MIN};
  for (const int32_t input : inputs) {
    for (const int32_t filter : filters) {
      for (const int32_t stride : steps) {
        if (stride == 0) continue;
        for (const int32_t dilation : steps) {
          for (const bool same : {false, true}) {
            const DeviceWindowAxis axis({input, filter, stride, dilation, PaddingOf(same)});
            const auto expected = reference::UnfoldAxis(input, filter, stride, dilation, same);
            const auto where = Describe("input", input, "filter", filter, "stride", stride,
                                        "dilation", dilation, "same", same);
            ASSERT_TRUE(Same(expected.pad, axis.pad_before, "pad_before", where));
            ASSERT_TRUE(Same(expected.positions, axis.positions, "positions", where));
            ASSERT_TRUE(Same(reference::OutputSize(input, filter, stride, dilation, same),
                             axis.outputs, "outputs", where));
            ASSERT_EQ(axis.input, input);
            ASSERT_EQ(axis.taps, filter);
            ASSERT_EQ(axis.stride, stride);
            ASSERT_EQ(axis.dilation, dilation);
          }
        }
      }
    }
  }
}

TEST(DeviceConvolutionSizes, FewerPositionsThanOutputsWhereTapsLieApart) {
  for (const int32_t dilation : {1, 2, 3}) {
    const DeviceWindowAxis axis({9, 3, 1, dilation, Padding::kSame});
    EXPECT_EQ(axis.outputs, 9);
    EXPECT_EQ(axis.positions, 11 - 2 * dilation);
    EXPECT_EQ(axis.pad_before, 1);
    const DeviceWindowAxis valid({9, 3, 1, dilation, Padding::kValid});
    EXPECT_EQ(valid.outputs, valid.positions);
    EXPECT_EQ(valid.pad_before, 0);
  }
}

struct Channels {
  int32_t in;
  int32_t out;
};

DeviceConvolution SizesOf(int32_t batch, Channels channels, const ConvolutionAxis& rows,
                          const ConvolutionAxis& columns) {
  ConvolutionCall<float> call{};
  call.batch = batch;
  call.in_channels = channels.in;
  call.out_channels = channels.out;
  call.rows = rows;
  call.columns = columns;
  return DeviceConvolution(call);
}

TEST(DeviceConvolutionSizes, Products) {
  const DeviceConvolution sizes =
      SizesOf(2, {3, 5}, {9, 3, 1, 2, Padding::kSame}, {8, 4, 2, 1, Padding::kSame});
  EXPECT_EQ(sizes.window(), 3 * 4 * 3);
  EXPECT_EQ(sizes.outputs(), 9 * 4);
  EXPECT_EQ(sizes.positions(), 7 * 4);
  EXPECT_EQ(sizes.unfolded(), 7 * 4 * 3);
  EXPECT_EQ(sizes.row_elements(), 36 * 5);
  EXPECT_EQ(sizes.column_elements(), 36 * 36);
  EXPECT_TRUE(sizes.HasOutputs());
  // More positions than outputs: all are unfolded.
  const DeviceConvolution near =
      SizesOf(1, {1, 1}, {5, 3, 1, 0, Padding::kSame}, {1, 1, 1, 1, Padding::kSame});
  EXPECT_EQ(near.outputs(), 5);
  EXPECT_EQ(near.positions(), 7);
  EXPECT_EQ(near.column_elements(), 3 * 7);
  // Beyond 32 bits.
  const DeviceConvolution large =
      SizesOf(1, {4, 8}, {65536, 256, 1, 1, Padding::kSame}, {65536, 256, 1, 1, Padding::kSame});
  EXPECT_EQ(large.outputs(), int64_t{1} << 32);
  EXPECT_EQ(large.unfolded(), int64_t{1} << 34);
  EXPECT_EQ(large.row_elements(), int64_t{1} << 21);
  EXPECT_EQ(large.column_elements(), int64_t{1} << 50);
}

// However many positions there are: more than 32 bits hold, here.
TEST(DeviceConvolutionSizes, WithoutTapsNothingIsUnfolded) {
  const ConvolutionAxis axis = {65536, 0, 1, 1, Padding::kValid};
  const DeviceConvolution sizes = SizesOf(1, {3, 1}, axis, axis);
  EXPECT_GT(sizes.positions(), int64_t{1} << 32);
  EXPECT_EQ(sizes.unfolded(), 0);
  EXPECT_EQ(sizes.column_elements(), 0);
}

// Two axes without positions have a product above 0, so each is looked at.
TEST(DeviceConvolutionSizes, AxisWithoutPositions) {
  const ConvolutionAxis some = {9, 3, 1, 2, Padding::kSame};
  const ConvolutionAxis none = {3, 3, 1, 3, Padding::kSame};
  const ConvolutionAxis below = {2, 3, 1, 4, Padding::kSame};
  EXPECT_EQ(DeviceWindowAxis(none).positions, -1);
  EXPECT_EQ(DeviceWindowAxis(below).positions, -4);
  EXPECT_EQ(SizesOf(1, {1, 1}, some, some).AxisWithoutPositions(), nullptr);
  const DeviceConvolution rows = SizesOf(1, {1, 1}, none, some);
  EXPECT_EQ(rows.AxisWithoutPositions(), &rows.rows);
  const DeviceConvolution columns = SizesOf(1, {1, 1}, some, below);
  EXPECT_EQ(columns.AxisWithoutPositions(), &columns.columns);
  const DeviceConvolution both = SizesOf(1, {1, 1}, none, below);
  EXPECT_GT(both.positions(), 0);
  EXPECT_EQ(both.AxisWithoutPositions(), &both.rows);
}

TEST(DeviceConvolutionSizes, NothingToCompute) {
  const ConvolutionAxis axis = {4, 3, 1, 1, Padding::kValid};
  const ConvolutionAxis none = {2, 3, 1, 1, Padding::kValid};
  const ConvolutionAxis below = {1, 3, 1, 1, Padding::kValid};
  EXPECT_TRUE(SizesOf(1, {1, 1}, axis, axis).HasOutputs());
  EXPECT_TRUE(SizesOf(1, {0, 1}, axis, axis).HasOutputs());
  EXPECT_FALSE(SizesOf(0, {1, 1}, axis, axis).HasOutputs());
  EXPECT_FALSE(SizesOf(1, {1, 0}, axis, axis).HasOutputs());
  EXPECT_FALSE(SizesOf(1, {1, 1}, none, axis).HasOutputs());
  EXPECT_FALSE(SizesOf(1, {1, 1}, axis, none).HasOutputs());
  EXPECT_FALSE(SizesOf(1, {1, 1}, below, axis).HasOutputs());
}

}  // namespace
}  // namespace bitfold
