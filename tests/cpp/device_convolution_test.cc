// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The device's kernels of the convolution, emulated: worked examples, also of what the CPU does
// otherwise; the rearranged filter, the unfolded image, values and printed text against the oracle,
// over every geometry and every arithmetic; and how they are launched.

#include "bitfold/device_convolution.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "device/device.h"
#include "device/launchers.h"
#include "reference/device.h"
#include "support/convolution.h"
#include "support/device_case.h"
#include "support/device_emulation.h"
#include "support/ledger.h"
#include "support/op_case.h"
#include "support/scale.h"

namespace bitfold {
namespace {

using reference::Convolution;
using testing::ConvolutionData;
using testing::ConvolutionOutput;
using testing::Data;
using testing::DefinedConvolution;
using testing::DeviceEmulation;
using testing::EmulationOptions;
using testing::ExactBuffer;
using testing::Path;
using testing::Plain;
using testing::Ran;
using testing::Same;

// ---- A convolution on the device ---------------------------------------------------------------

DeviceConvolution SizesOf(const Convolution& c) {
  return DeviceConvolution(testing::CallOf<float>(c, {}, nullptr, nullptr));
}

// What the op computes; it refuses what unfolds nothing.
bool IsComputed(const Convolution& c) {
  const DeviceConvolution sizes = SizesOf(c);
  return sizes.rows.outputs > 0 && sizes.columns.outputs > 0 && sizes.rows.positions > 0 &&
         sizes.columns.positions > 0;
}

template <typename T>
struct DeviceOutput {
  ExactBuffer<T> rows;
  ExactBuffer<T> columns;  // of the last image
  ExactBuffer<T> values;
  std::string lines;
};

// As the op does it. What nothing is written to keeps kUnwritten.
template <typename T>
DeviceOutput<T> OnDevice(const Convolution& c, const ConvolutionData<T>& data, int offset = 0,
                         void* stream = nullptr) {
  const DeviceConvolution sizes = SizesOf(c);
  const testing::MisalignedCall<T> misaligned(c, data, offset);
  DeviceOutput<T> out{testing::UnwrittenBuffer<T>(sizes.row_elements(), (offset + 1) % 4),
                      testing::UnwrittenBuffer<T>(sizes.column_elements(), (offset + 2) % 4),
                      testing::UnwrittenBuffer<T>(testing::OutputCount(c), (offset + 3) % 4), ""};
  const ConvolutionCall<T> call = misaligned.To(out.values.data());
  out.lines = testing::PrintedBy([&] {
    LaunchKer2Row(stream, call, out.rows.data());
    if (sizes.positions() < sizes.outputs()) {
      const auto bytes = static_cast<size_t>(out.columns.count()) * sizeof(T);
      ASSERT_EQ(ZeroDeviceMemory(stream, out.columns.data(), bytes), nullptr);
    }
    LaunchImages(stream, call, out.rows.data(), out.columns.data());
  });
  return out;
}

// Fills the tiles of the product with what would show in every result that read it.
template <typename T>
void DirtyTiles() {
  const DeviceEmulation unrecorded;
  const T dirt = static_cast<T>(std::is_same_v<T, float> ? std::numeric_limits<double>::quiet_NaN()
                                                         : 894776661.0);
  const Convolution c = Plain(4, 4, 16, 1, 1, 16);
  const ConvolutionData<T> data = {std::vector<T>(256, dirt), std::vector<T>(256, dirt), {}};
  std::vector<T> rows(256);
  std::vector<T> columns(256);
  std::vector<T> values(256);
  const int8_t mult_shift = 0;
  const ConvolutionCall<T> call = testing::CallOf(c, data, values.data(), &mult_shift);
  LaunchKer2Row(nullptr, call, rows.data());
  LaunchImages<T>(nullptr, call, rows.data(), columns.data());
}

// In order, over dirty tiles; and in the opposite order, the filter and each image in one block.
template <typename T>
std::vector<testing::DeviceRun> ConvolutionRuns() {
  EmulationOptions dirty;
  dirty.before_block = [](const testing::EmulatedLaunch& launch) {
    if (launch.kernel == "matrix_mul_opt_kernel<T>") DirtyTiles<T>();
  };
  EmulationOptions reversed;
  reversed.is_reversed = true;
  reversed.most_blocks = 1;
  return {{"on the device, over dirty tiles", dirty, true},
          {"on the device, reversed", reversed, false}};
}

template <typename T>
ConvolutionOutput<T> DeviceOracle(const Convolution& c, const ConvolutionData<T>& data) {
  ConvolutionOutput<T> out{ExactBuffer<T>(testing::OutputCount(c)), ""};
  reference::DeviceConvolve<T>(c, data.input.data(), data.filter.data(),
                               data.elementwise.empty() ? nullptr : data.elementwise.data(),
                               out.values.data(), &out.lines);
  return out;
}

// Values and lines against the oracle. Threads take turns at each tile, so the lines have no order.
template <typename T>
::testing::AssertionResult Check(const Convolution& c, const ConvolutionData<T>& data,
                                 int offset = 0) {
  const ConvolutionOutput<T> expected = DeviceOracle(c, data);
  for (const testing::DeviceRun& run : ConvolutionRuns<T>()) {
    const DeviceEmulation emulation(run.options);
    const DeviceOutput<T> actual = OnDevice(c, data, offset);
    const auto values =
        testing::SameConvolutions(c, expected.values.data(), actual.values.data(), run.name);
    if (!values) return values;
    const auto lines =
        testing::SameLines(expected.lines, actual.lines, run.name + (" " + testing::Describe(c)));
    if (!lines) return lines;
  }
  return ::testing::AssertionSuccess();
}

// A column of inputs under a filter of as many rows: one output, whose chain is the column.
Convolution Column(int32_t rows, int width, int shift) {
  Convolution c = Plain(rows, 1, 1, rows, 1, 1);
  c.accumulator_size = width;
  c.mult_shift = shift;
  return c;
}

template <typename T>
std::vector<T> ValuesOf(const ExactBuffer<T>& buffer) {
  return {buffer.data(), buffer.data() + buffer.count()};
}

std::string Line(const std::string& sum) {
  return "@@@ WARNING: acc " + sum + ".000000 is out of bounds <-8388607,8388607>\n";
}

// ---- Worked examples ---------------------------------------------------------------------------

TEST(DeviceConvolution, Wraps) {
  EXPECT_EQ(OnDevice<int32_t>(Column(2, 8, 0), {{100, 30}, {1, 1}, {}}).values[0], -126);
  EXPECT_EQ(OnDevice<int32_t>(Column(2, 8, 0), {{100, 30}, {-1, -1}, {}}).values[0], 126);
  const auto out = OnDevice<float>(Column(2, 8, 0), {{100.0f, 30.0f}, {1.0f, 1.0f}, {}});
  EXPECT_TRUE(Same(-126.0f, out.values[0], "130", ""));
}

TEST(DeviceConvolution, ScalesProductsAndNotTheElementwiseValue) {
  EXPECT_EQ(OnDevice<int32_t>(Column(2, 16, 1), {{3, 5}, {1, 1}, {7}}).values[0], 2 + 2 + 7);
  const auto out = OnDevice<float>(Column(1, 16, 4), {{5.0f}, {2.0f}, {0.5f}});
  EXPECT_TRUE(Same(2.5f, out.values[0], "10 / 4 goes to 2", ""));
}

TEST(DeviceConvolution, WarnsInTheOrderOfTheChain) {
  const auto out =
      OnDevice<float>(Column(3, 40, 0), {{8388600.0f, 7.0f, 1.0f}, {1.0f, 1.0f, 1.0f}, {-100.0f}});
  std::string lines = Line("8388607") + Line("8388608");
  for (int zero = 3; zero < 16; ++zero) lines += Line("8388608");
  EXPECT_EQ(out.lines, lines);
  EXPECT_TRUE(Same(8388508.0f, out.values[0], "sum", ""));
}

// The filter is rearranged, and of each image a filter of one tap makes a row for each channel.
TEST(DeviceConvolution, OneTapUnfoldsTheImageChannelByChannel) {
  const Convolution c = Plain(2, 2, 2, 1, 1, 3);
  const auto out = OnDevice<int32_t>(c, {{1, 10, 2, 20, 3, 30, 4, 40}, {1, 2, 3, 4, 5, 6}, {}});
  EXPECT_EQ(ValuesOf(out.rows), (std::vector<int32_t>{1, 4, 2, 5, 3, 6}));
  EXPECT_EQ(ValuesOf(out.columns), (std::vector<int32_t>{1, 2, 3, 4, 10, 20, 30, 40}));
  EXPECT_EQ(ValuesOf(out.values),
            (std::vector<int32_t>{41, 52, 63, 82, 104, 126, 123, 156, 189, 164, 208, 252}));
}

// ---- What the CPU does otherwise ---------------------------------------------------------------

TEST(DeviceConvolution, ElementwiseValueComesLastUnlikeOnTheCpu) {
  // Between the rows the 1 is rounded away beside 4096.
  Convolution half = Column(3, 16, 0);
  half.use_fp16_acc = true;
  const ConvolutionData<float> data = {{4096.0f, 0.0f, -4096.0f}, {1.0f, 1.0f, 1.0f}, {1.0f}};
  EXPECT_TRUE(Same(1.0f, OnDevice(half, data).values[0], "on the device", ""));
  EXPECT_TRUE(Same(0.0f, DefinedConvolution(half, data).values[0], "on the CPU", ""));
  // Between the rows it takes the sum out of bounds.
  const ConvolutionData<float> large = {{8388600.0f, 1.0f, -100.0f}, {1.0f, 1.0f, 1.0f}, {10.0f}};
  EXPECT_EQ(OnDevice(Column(3, 32, 0), large).lines, "");
  EXPECT_EQ(DefinedConvolution(Column(3, 32, 0), large).lines, Line("8388611"));
}

// An even filter whose taps lie apart has no centre row: the CPU leaves the value out.
TEST(DeviceConvolution, ElementwiseValueNeedsNoCentreRow) {
  Convolution c = Column(3, 8, 0);
  c.filter_height = 2;
  c.dilation_h = 2;
  const ConvolutionData<int32_t> data = {{1, 2, 3}, {1, 1}, {27}};
  EXPECT_EQ(OnDevice(c, data).values[0], 31);
  EXPECT_EQ(DefinedConvolution(c, data).values[0], 4);
}

TEST(DeviceConvolution, WindowIsPlacedByItsFirstTapUnlikeTheCpus) {
  Convolution c = Plain(1, 6, 1, 1, 3, 1);
  c.same = true;
  c.stride_w = 2;
  const ConvolutionData<int32_t> data = {{1, 2, 4, 8, 16, 32}, {1, 1, 1}, {}};
  EXPECT_EQ(ValuesOf(OnDevice(c, data).values), (std::vector<int32_t>{3, 14, 56}));
  EXPECT_EQ(ValuesOf(DefinedConvolution(c, data).values), (std::vector<int32_t>{7, 28, 48}));
  // At stride 1 an odd filter's window is the CPU's.
  c.stride_w = 1;
  EXPECT_EQ(ValuesOf(OnDevice(c, data).values), ValuesOf(DefinedConvolution(c, data).values));
}

// Where taps lie apart fewer positions are unfolded than the product has columns, and it reads them
// as if there were as many.
TEST(DeviceConvolution, DilatedSameReadsWhatWasUnfoldedElsewhere) {
  Convolution c = Plain(1, 3, 1, 1, 3, 1);
  c.same = true;
  c.dilation_w = 2;
  const ConvolutionData<int32_t> data = {{1, 2, 3}, {10, 100, 1000}, {}};
  const auto out = OnDevice(c, data);
  EXPECT_EQ(ValuesOf(out.columns), (std::vector<int32_t>{0, 2, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(ValuesOf(out.values), (std::vector<int32_t>{0, 20, 0}));
  EXPECT_EQ(ValuesOf(DefinedConvolution(c, data).values), (std::vector<int32_t>{3100, 200, 310}));
  Ran(Path::kDeviceFewerPositionsThanColumns);
}

// The last tile is filled up with zeros, which are added: a sum still out of range wraps again.
TEST(DeviceConvolution, ZerosOfTheLastTileAreAddedUnlikeOnTheCpu) {
  const ConvolutionData<int32_t> data = {{1000}, {1}, {}};
  EXPECT_EQ(OnDevice(Column(1, 8, 0), data).values[0], -24);
  EXPECT_EQ(DefinedConvolution(Column(1, 8, 0), data).values[0], 744);
  const ConvolutionData<float> large = {{8388608.0f}, {1.0f}, {}};
  std::string lines;
  for (int i = 0; i < 16; ++i) lines += Line("8388608");
  EXPECT_EQ(OnDevice(Column(1, 40, 0), large).lines, lines);
  EXPECT_EQ(DefinedConvolution(Column(1, 40, 0), large).lines, Line("8388608"));
}

// So are the products of taps outside the image.
TEST(DeviceConvolution, TapsOutsideTheImageAreAddedUnlikeOnTheCpu) {
  Convolution c = Plain(1, 1, 1, 17, 1, 1);
  c.same = true;
  c.accumulator_size = 8;
  ConvolutionData<int32_t> data = {{1}, std::vector<int32_t>(17, 0), {}};
  data.filter[8] = 10000;
  // 23 more zeros: 10000 - 24 * 256.
  EXPECT_EQ(OnDevice(c, data).values[0], 3856);
  EXPECT_EQ(DefinedConvolution(c, data).values[0], 9744);
}

TEST(DeviceConvolution, NanPrintsNothingUnlikeOnTheCpu) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const ConvolutionData<float> data = {{nan, 1.0f}, {1.0f, 1.0f}, {}};
  EXPECT_EQ(OnDevice(Column(2, 8, 0), data).lines, "");
  const std::string line = "@@@ WARNING: acc nan is out of bounds <-8388607,8388607>\n";
  EXPECT_TRUE(testing::SameText(line + line, DefinedConvolution(Column(2, 8, 0), data).lines,
                                "on the CPU"));
}

// 16777223 is a tie that goes up, twice.
TEST(DeviceConvolution, WrapDiffersFromTheCpusInTheLastBit) {
  const ConvolutionData<float> data = {{25165830.0f}, {1.0f}, {}};
  // The sum, 8388616, is out of range still and wraps again with the first zero.
  EXPECT_TRUE(Same(-8388600.0f, OnDevice(Column(1, 24, 0), data).values[0], "on the device", ""));
  EXPECT_TRUE(
      Same(8388614.0f, DefinedConvolution(Column(1, 24, 0), data).values[0], "on the CPU", ""));
}

// ---- Against the oracle: every geometry --------------------------------------------------------

template <typename T>
std::vector<int> Widths() {
  if constexpr (std::is_same_v<T, int32_t>) {
    return {0, 1, 8, 24, 31, 32};
  } else {
    return {0, 1, 8, 24, 31, 32, 33, 40, 126, 127, 128, 129, 130};
  }
}

const std::vector<int32_t>& Shifts() {
  static const std::vector<int32_t> shifts = {0,  1,  2,  3,   7,   30,       31,
                                              32, 33, -1, -31, -32, INT8_MAX, INT8_MIN};
  return shifts;
}

std::vector<Convolution> Windows() {
  std::vector<Convolution> windows;
  const auto add = [&windows](int32_t fh, int32_t fw, int32_t sh, int32_t sw, int32_t dh,
                              int32_t dw) {
    Convolution c = Plain(0, 0, 0, fh, fw, 0);
    c.stride_h = sh;
    c.stride_w = sw;
    c.dilation_h = dh;
    c.dilation_w = dw;
    windows.push_back(c);
  };
  for (const int32_t filter : {0, 1, 2, 3, 4, 5}) {
    for (const int32_t stride : {1, 2, 3}) {
      for (const int32_t dilation : {0, 1, 2, 3}) {
        // The other axis is different, so that a mix-up shows.
        add(filter, 3, stride, 1, dilation, 1);
        add(2, filter, 1, stride, 1, dilation);
        add(filter, 4 - filter % 4, stride, 4 - stride, dilation, 2);
      }
    }
  }
  add(3, 3, -1, -2, 1, 1);
  add(3, 2, 1, 1, -1, -2);
  return windows;
}

// Every window with both paddings, on each of the images on which it has something to compute.
template <typename T>
void CrossGeometries() {
  testing::Random random(0xde4c0);
  const std::vector<std::pair<int32_t, int32_t>> images = {{1, 1}, {2, 5}, {4, 4}, {7, 3}, {6, 9}};
  int computed = 0;
  for (Convolution c : Windows()) {
    for (const bool same : {false, true}) {
      for (const auto& image : images) {
        c.in_height = image.first;
        c.in_width = image.second;
        c.same = same;
        if (!IsComputed(c)) continue;
        if (++computed % testing::Step(13) != 0) continue;
        c.in_channels = random.Pick<int32_t>({1, 2, 3});
        c.out_channels = random.Pick<int32_t>({1, 2, 17});
        c.batch = random.Between(1, 2);
        c.accumulator_size = random.Pick(Widths<T>());
        c.mult_shift = random.Flag() ? 0 : random.Pick(Shifts());
        c.use_fp16_acc = random.Between(0, 3) == 0;
        const Data data = random.Pick<Data>({Data::kSmall, Data::kSmall, Data::kFull});
        ASSERT_TRUE(Check(c, testing::DrawConvolution<T>(&random, c, data, random.Flag()),
                          random.Between(0, 3)));
      }
    }
  }
  EXPECT_GT(computed, 1000);
}

TEST(DeviceConvolution, Int32GeometriesCrossed) { CrossGeometries<int32_t>(); }

TEST(DeviceConvolution, FloatGeometriesCrossed) { CrossGeometries<float>(); }

// Channels and positions around the tiles: 16 of them, one more, one less.
template <typename T>
void CrossTiles() {
  testing::Random random(0x711e);
  int computed = 0;
  for (const int32_t in_channels : {1, 15, 16, 17, 20, 33}) {
    for (const int32_t out_channels : {1, 15, 16, 17, 33}) {
      for (const int32_t width : {1, 15, 16, 17, 33}) {
        if (++computed % testing::Step(3) != 0) continue;
        Convolution c = Plain(1, width, in_channels, 1, 1, out_channels);
        c.accumulator_size = 12;
        ASSERT_TRUE(Check(c, testing::DrawConvolution<T>(&random, c, Data::kSmall, random.Flag())));
      }
    }
  }
  Ran(Path::kDeviceTilesOverDirtyMemory);
}

TEST(DeviceConvolution, Int32Tiles) { CrossTiles<int32_t>(); }

TEST(DeviceConvolution, FloatTiles) { CrossTiles<float>(); }

// The buffers between the kernels, of the last of several images.
template <typename T>
void CheckLayouts() {
  testing::Random random(0x1a70);
  for (Convolution c : Windows()) {
    c.in_height = 5;
    c.in_width = 6;
    c.in_channels = 3;
    c.out_channels = 2;
    c.batch = 2;
    c.same = random.Flag();
    if (!IsComputed(c)) continue;
    const auto data = testing::DrawConvolution<T>(&random, c, Data::kSmall, false);
    const auto out = OnDevice(c, data);
    const auto at = [&c](int64_t) { return testing::Describe(c); };
    const auto rows = reference::DeviceRows(c, data.filter.data());
    ASSERT_EQ(out.rows.count(), static_cast<int64_t>(rows.size()));
    ASSERT_TRUE(
        testing::SameArrays(rows.data(), out.rows.data(), out.rows.count(), "the rows", at));
    const auto columns = reference::DeviceColumns(c, data.input.data() + data.input.size() / 2);
    ASSERT_EQ(out.columns.count(), static_cast<int64_t>(columns.size()));
    ASSERT_TRUE(testing::SameArrays(columns.data(), out.columns.data(), out.columns.count(),
                                    "the columns", at));
  }
}

TEST(DeviceConvolution, RowsAndColumns) {
  CheckLayouts<int32_t>();
  CheckLayouts<float>();
}

// ---- Against the oracle: every arithmetic ------------------------------------------------------

std::vector<Convolution> FewGeometries() {
  Convolution odd = Plain(4, 5, 3, 3, 3, 2);
  odd.same = true;
  Convolution strided = Plain(6, 5, 2, 2, 3, 2);
  strided.stride_h = 2;
  strided.dilation_w = 2;
  Convolution images = Plain(1, 5, 2, 1, 2, 17);
  images.batch = 3;
  images.same = true;
  images.dilation_w = 3;
  return {odd, strided, images};
}

template <typename T>
void CrossArithmetic(bool use_fp16_acc) {
  testing::Random random(0xde4a7);
  int computed = 0;
  for (Convolution c : FewGeometries()) {
    for (const int width : Widths<T>()) {
      for (const int32_t shift : Shifts()) {
        if (++computed % testing::Step(3) != 0) continue;
        c.accumulator_size = width;
        c.mult_shift = shift;
        c.use_fp16_acc = use_fp16_acc;
        const Data data = random.Pick<Data>({Data::kSmall, Data::kCorners, Data::kFull});
        ASSERT_TRUE(Check(c, testing::DrawConvolution<T>(&random, c, data, random.Flag())));
      }
    }
  }
}

TEST(DeviceConvolution, Int32ArithmeticCrossed) {
  CrossArithmetic<int32_t>(false);
  CrossArithmetic<int32_t>(true);  // changes nothing: the sum starts from 0
  Ran(Path::kDeviceConvolutionInt32);
}

TEST(DeviceConvolution, FloatArithmeticCrossed) {
  CrossArithmetic<float>(false);
  Ran(Path::kDeviceConvolutionFloat);
}

TEST(DeviceConvolution, HalfPrecisionArithmeticCrossed) {
  CrossArithmetic<float>(true);
  Ran(Path::kDeviceConvolutionHalf);
}

// Every order of the chain gives its own float sum.
TEST(DeviceConvolution, OrderOfTheChainShows) {
  Convolution c = Plain(3, 4, 3, 2, 3, 1);
  c.accumulator_size = 40;
  testing::Random random(0xde0dd);
  for (int i = 0; i < 100; ++i) {
    ConvolutionData<float> data = testing::DrawConvolution<float>(&random, c, Data::kSmall, true);
    for (float& x : data.input) x *= random.Flag() ? 1048576.0f : 0.001f;
    ASSERT_TRUE(Check(c, data));
  }
}

// ---- Launches ----------------------------------------------------------------------------------

TEST(DeviceConvolution, LaunchesInOrder) {
  Convolution c = Plain(9, 7, 5, 3, 2, 17);
  c.batch = 3;
  c.same = true;
  testing::Random random(0x1a);
  const auto data = testing::DrawConvolution<float>(&random, c, Data::kSmall, true);
  int place = 0;
  const DeviceEmulation emulation;
  OnDevice(c, data, 0, &place);
  // 30 * 17 = 510 elements; 63 * 5 = 315; 63 positions and 17 channels by 16.
  std::vector<std::string> expected = {"ker2row_kernel<T> grid 1,1,1 block 512,1,1"};
  for (int image = 0; image < 3; ++image) {
    expected.emplace_back("im2col_kernel<T> grid 1,1,1 block 512,1,1");
    expected.emplace_back("matrix_mul_opt_kernel<T> grid 4,2,1 block 16,16,1");
  }
  EXPECT_EQ(Show(emulation.launches()), expected);
  for (const auto& launch : emulation.launches()) EXPECT_EQ(launch.stream, &place);
}

TEST(DeviceConvolution, GridsOfSeveralBlocks) {
  // 18 * 29 = 522 elements; 16 * 33 * 2 = 1056; 528 positions.
  Convolution c = Plain(16, 33, 2, 3, 3, 29);
  c.same = true;
  const DeviceEmulation emulation;
  testing::Random random(0x6);
  OnDevice(c, testing::DrawConvolution<int32_t>(&random, c, Data::kSmall, false));
  EXPECT_EQ(Show(emulation.launches()),
            (std::vector<std::string>{"ker2row_kernel<T> grid 2,1,1 block 512,1,1",
                                      "im2col_kernel<T> grid 3,1,1 block 512,1,1",
                                      "matrix_mul_opt_kernel<T> grid 33,2,1 block 16,16,1"}));
}

// A filter or an image of no element: one block each, and the elementwise values alone.
TEST(DeviceConvolution, NothingToMultiply) {
  Convolution c = Plain(2, 2, 0, 1, 1, 2);
  const DeviceEmulation emulation;
  const auto out = OnDevice<int32_t>(c, {{}, {}, {1, 2, 3, 4, 5, 6, 7, 8}});
  EXPECT_EQ(ValuesOf(out.values), (std::vector<int32_t>{1, 2, 3, 4, 5, 6, 7, 8}));
  for (const auto& launch : emulation.launches()) EXPECT_EQ(launch.grid.x, 1u);
  c = Plain(2, 2, 1, 0, 1, 2);
  ASSERT_TRUE(IsComputed(c));
  c.accumulator_size = 0;
  testing::Random random(0x0);
  EXPECT_TRUE(Check(c, testing::DrawConvolution<float>(&random, c, Data::kSmall, true)));
}

template <typename T>
void FailLaunches() {
  const Convolution c = Plain(1, 1, 1, 1, 1, 1);
  const ConvolutionData<T> data = {{T{2}}, {T{3}}, {}};
  const char* const places[] = {"src/HConv2D 235", "src/HConv2D 199", "src/HConv2D 250"};
  for (int launch = 0; launch < 3; ++launch) {
    EmulationOptions options;
    options.failing_launch = launch;
    const DeviceEmulation emulation(options);
    EXPECT_EXIT(OnDevice(c, data), ::testing::ExitedWithCode(9),
                testing::LaunchError("invalid configuration argument", places[launch]));
  }
}

TEST(DeviceConvolution, AFailedLaunchEndsTheProcess) {
  FailLaunches<int32_t>();
  FailLaunches<float>();
}

// More rows of blocks than a grid can have.
TEST(DeviceConvolution, AnInvalidGridEndsTheProcess) {
  const Convolution c = Plain(1, 1, 1, 1, 1, kMaxDeviceChannels + 1);
  const ConvolutionData<int32_t> data = {
      {5}, std::vector<int32_t>(static_cast<size_t>(c.out_channels), 3), {}};
  EXPECT_EXIT(OnDevice(c, data), ::testing::ExitedWithCode(9),
              testing::LaunchError("invalid configuration argument", "src/HConv2D 250"));
}

// Only devices that something was launched on are waited for, and the thread keeps its own. Other
// tests launch on device 0.
TEST(DeviceLines, WaitsForTheDevicesOfLaunches) {
  DeviceEmulation emulation;
  for (const int device : {5, 2}) {
    emulation.device = device;
    OnDevice<int32_t>(Plain(1, 1, 1, 1, 1, 1), {{2}, {3}, {}});
  }
  emulation.device = 7;
  EXPECT_EQ(WaitForUsedDevices(), 0);
  if (emulation.waited_for[0] == 0) emulation.waited_for.erase(emulation.waited_for.begin());
  EXPECT_EQ(emulation.waited_for, (std::vector<int>{2, 5}));
  EXPECT_EQ(emulation.device, 7);
  emulation.wait_result = cudaErrorInvalidConfiguration;
  EXPECT_EQ(WaitForUsedDevices(), 9);
  EXPECT_EQ(emulation.device, 7);
}

TEST(DeviceMemory, Zeroes) {
  ExactBuffer<int32_t> buffer = testing::UnwrittenBuffer<int32_t>(5, 0);
  EXPECT_EQ(ZeroDeviceMemory(nullptr, buffer.data(), 4 * sizeof(int32_t)), nullptr);
  EXPECT_EQ(ValuesOf(buffer), (std::vector<int32_t>{0, 0, 0, 0, testing::kUnwritten}));
}

TEST(DeviceMemory, SaysWhatFailed) {
  EmulationOptions options;
  options.memset_result = cudaErrorInvalidConfiguration;
  const DeviceEmulation emulation(options);
  int32_t word = 7;
  EXPECT_STREQ(ZeroDeviceMemory(nullptr, &word, sizeof(word)), "invalid configuration argument");
  EXPECT_EQ(word, 7);
  // The failure is told to the caller alone: launches after it go on.
  const Convolution c = Plain(1, 1, 1, 1, 1, 1);
  EXPECT_EQ(OnDevice<int32_t>(c, {{2}, {3}, {}}).values[0], 6);
}

// Up to the most rows of blocks that a grid has.
TEST(DeviceConvolution, MostChannels) {
  EXPECT_EQ(BlocksFor(kMaxDeviceChannels, 16), 65535);
  EXPECT_EQ(BlocksFor(kMaxDeviceChannels + 1, 16), 65536);
}

}  // namespace
}  // namespace bitfold
