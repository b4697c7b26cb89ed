// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// When the device's product sums bytes, and that it then has the oracle's values and lines. The
// blocks of a product ask at barriers whether all numbers are bytes: once ahead of the tiles of 64
// steps, and once for each, so what was computed how can be read off the answers.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "bitfold/device_convolution.h"
#include "device/launchers.h"
#include "reference/device.h"
#include "support/capture.h"
#include "support/convolution.h"
#include "support/device_emulation.h"
#include "support/ledger.h"

namespace bitfold {
namespace {

using reference::Convolution;
using testing::ConvolutionData;
using testing::DeviceEmulation;
using testing::EmulationOptions;
using testing::Path;
using testing::Ran;
using testing::Random;
using Votes = DeviceEmulation::Votes;

// One tap, so that channels are steps; one output, so that there is one block.
Convolution Chain(int32_t steps, int32_t width) {
  Convolution c = testing::Plain(1, 1, steps, 1, 1, 1);
  c.accumulator_size = width;
  return c;
}

template <typename T>
ConvolutionData<T> DrawBytes(Random* random, const Convolution& c) {
  const auto draw = [random](int64_t count) {
    std::vector<T> values(static_cast<size_t>(count));
    for (T& value : values) value = static_cast<T>(random->Between(-128, 127));
    return values;
  };
  return {draw(testing::InputCount(c)), draw(testing::FilterCount(c)), {}};
}

// What the blocks answered, in the emulation's order of threads; in both orders values and lines
// are the oracle's.
template <typename T>
Votes VotesOf(const Convolution& c, const ConvolutionData<T>& data) {
  std::vector<T> expected(static_cast<size_t>(testing::OutputCount(c)));
  std::string expected_lines;
  reference::DeviceConvolve<T>(c, data.input.data(), data.filter.data(), nullptr, expected.data(),
                               &expected_lines);
  Votes votes;
  for (const bool is_reversed : {true, false}) {
    EmulationOptions options;
    options.is_reversed = is_reversed;
    const DeviceEmulation emulation(options);
    std::vector<T> actual(expected.size());
    const auto mult_shift = static_cast<int8_t>(c.mult_shift);
    const ConvolutionCall<T> call = testing::CallOf(c, data, actual.data(), &mult_shift);
    const DeviceConvolution sizes(call);
    std::vector<T> rows(static_cast<size_t>(sizes.row_elements()));
    std::vector<T> columns(static_cast<size_t>(sizes.column_elements()));
    const std::string lines = testing::PrintedBy([&] {
      LaunchKer2Row(nullptr, call, rows.data());
      LaunchImages<T>(nullptr, call, rows.data(), columns.data());
    });
    EXPECT_TRUE(testing::SameConvolutions(c, expected.data(), actual.data(), "on the device"));
    EXPECT_TRUE(testing::SameLines(expected_lines, lines, testing::Describe(c)));
    votes = emulation.votes;
  }
  return votes;
}

void Expect(const Votes& votes, int64_t held, int64_t failed, const std::string& what) {
  EXPECT_EQ(votes.held, held) << what;
  EXPECT_EQ(votes.failed, failed) << what;
}

template <typename T>
void ExpectWholeTiles(Path path) {
  Random random(0xb17e5);
  for (const int32_t steps : {1, 64, 127, 128, 129, 191, 192, 200}) {
    const Convolution c = Chain(steps, 24);
    const int64_t tiles = steps / 64;
    Expect(VotesOf(c, DrawBytes<T>(&random, c)), tiles < 2 ? 0 : 1 + tiles, 0,
           std::to_string(steps) + " steps");
  }
  for (const int32_t width : {0, 1, 8, 12, 13, 14, 15, 22, 23, 24, 25, 31, 32}) {
    const Convolution c = Chain(128, width);
    Expect(VotesOf(c, DrawBytes<T>(&random, c)), width < 14 ? 0 : 3, 0,
           std::to_string(width) + " bits");
  }
  Convolution scaled = Chain(128, 24);
  scaled.mult_shift = 1;
  Expect(VotesOf(scaled, DrawBytes<T>(&random, scaled)), 0, 0, "scaled");
  Ran(path);
}

TEST(DeviceByteProducts, WholeTilesOfInt32) { ExpectWholeTiles<int32_t>(Path::kDeviceBytesInt32); }

TEST(DeviceByteProducts, WholeTilesOfFloats) {
  ExpectWholeTiles<float>(Path::kDeviceBytesFloat);
  Random random(0xb17e6);
  Convolution half = Chain(128, 24);
  half.use_fp16_acc = true;
  Expect(VotesOf(half, DrawBytes<float>(&random, half)), 0, 0, "half precision");
}

// A number that is no byte, at every step: what comes before its tile was summed as bytes.
template <typename T>
void ExpectOthersToEnd(T other) {
  Random random(0xb17e7);
  constexpr int32_t kSteps = 208;  // three tiles and a rest, which is not asked about
  const Convolution c = Chain(kSteps, 24);
  for (int32_t step = 0; step < kSteps; ++step) {
    ConvolutionData<T> data = DrawBytes<T>(&random, c);
    (random.Flag() ? data.input : data.filter)[static_cast<size_t>(step)] = other;
    const int64_t tile = step / 64;
    Expect(VotesOf(c, data), step < 16 ? 0 : 1 + tile, tile < 3 ? 1 : 0,
           "another number at step " + std::to_string(step));
  }
  Ran(Path::kDeviceBytesLeft);
}

TEST(DeviceByteProducts, OtherNumbersEndThem) {
  ExpectOthersToEnd<int32_t>(128);
  ExpectOthersToEnd<int32_t>(-129);
  ExpectOthersToEnd<float>(0.5f);
  ExpectOthersToEnd<float>(-129.0f);
  ExpectOthersToEnd<float>(NAN);
}

// From 24 bits on a float sum must stay clear of 2^23, and 7 * 64 of the largest products are not.
TEST(DeviceByteProducts, LargeSumsEndThoseOfWideFloats) {
  for (const int32_t width : {23, 24, 40}) {
    const Convolution c = Chain(640, width);
    ConvolutionData<float> data = {
        std::vector<float>(640, -128.0f), std::vector<float>(640, -128.0f), {}};
    Expect(VotesOf(c, data), width == 23 ? 11 : 8, width == 23 ? 0 : 1, "above");
    data.filter.assign(640, 127.0f);
    Expect(VotesOf(c, data), width == 23 ? 11 : 9, width == 23 ? 0 : 1, "below");
  }
  const Convolution c = Chain(640, 24);
  const ConvolutionData<int32_t> data = {
      std::vector<int32_t>(640, -128), std::vector<int32_t>(640, -128), {}};
  Expect(VotesOf(c, data), 11, 0, "integers");
}

// Each block and image for itself.
TEST(DeviceByteProducts, EachBlockForItself) {
  Convolution c = testing::Plain(1, 40, 128, 1, 1, 20);
  c.batch = 2;
  c.accumulator_size = 16;
  Random random(0xb17e8);
  ConvolutionData<int32_t> data = DrawBytes<int32_t>(&random, c);
  // 3 blocks of positions by 2 of channels, 2 images, 3 answers.
  Expect(VotesOf(c, data), 36, 0, "all bytes");
  data.input[128 * (40 + 17) + 20] = 1000;  // in the second image's second block of positions
  Expect(VotesOf(c, data), 32, 2, "all bytes but one");
}

}  // namespace
}  // namespace bitfold
