// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The taps that lie inside the image, and the tiles that cover its outputs.

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "chain/lane_windows.h"
#include "chain/output_blocks.h"
#include "support/bits.h"

namespace bitfold {
namespace {

// Calls visit(axis, inputs) for windows of all kinds, larger than the input too.
template <typename Visit>
void ForEachAxis(Visit visit) {
  for (int32_t input = 1; input <= 20; ++input) {
    for (int32_t taps = 1; taps <= 6; ++taps) {
      for (int32_t stride = 1; stride <= 4; ++stride) {
        for (int32_t dilation = 1; dilation <= 4; ++dilation) {
          for (const Padding padding : {Padding::kValid, Padding::kSame}) {
            visit(ConvolutionAxis{input, taps, stride, dilation, padding},
                  testing::Describe("input", input, "taps", taps, "stride", stride, "dilation",
                                    dilation, "same", padding == Padding::kSame));
          }
        }
      }
    }
  }
}

TEST(ChainWindows, TapsInside) {
  ForEachAxis([](const ConvolutionAxis& sizes, const std::string& inputs) {
    const WindowAxis axis(sizes);
    for (int32_t output = 0; output < axis.outputs; ++output) {
      const TapRange range = TapsInside(axis, output);
      ASSERT_GE(range.count, 0) << inputs;
      for (int32_t tap = 0; tap < axis.taps; ++tap) {
        const bool is_in = range.first <= tap && tap < range.first + range.count;
        ASSERT_EQ(is_in, axis.Contains(axis.Coordinate(output, tap)))
            << inputs << "output=" << output << " tap=" << tap;
      }
    }
  });
}

// Every output of each block is in a tile, none outside, and a tile's columns have its taps.
void CheckTiles(const ConvolutionAxis& columns, int32_t channels, bool is_depthwise,
                const OutputExtent& step, const std::string& inputs) {
  ConvolutionCall<float> call{};
  call.in_channels = channels;
  call.out_channels = channels;
  call.rows = {1, 1, 1, 1, Padding::kValid};
  call.columns = columns;
  call.is_depthwise = is_depthwise;
  const LaneWindows windows(call);
  const WindowAxis axis(columns);
  const OutputBlocks blocks({1, axis.outputs, channels}, step);
  std::vector<int64_t> covered(static_cast<size_t>(axis.outputs * channels), -1);
  for (int64_t b = 0; b < blocks.count(); ++b) {
    const OutputBlock block = blocks[b];
    windows.ForEachTile(block, [&](const LanePlace& place) {
      ASSERT_TRUE(place.pixels == 1 || place.pixels == kTilePixels) << inputs;
      ASSERT_TRUE(place.panels == 1 || place.panels == kTilePanels) << inputs;
      ASSERT_GE(place.column, block.first_column);
      ASSERT_LE(place.column + place.pixels, block.end_column) << inputs;
      ASSERT_GE(place.channel, block.first_channel);
      ASSERT_LE(place.channel + place.panels * kPanel, block.end_channel) << inputs;
      for (int32_t p = place.column; p < place.column + place.pixels; ++p) {
        const TapRange taps = TapsInside(axis, p);
        ASSERT_EQ(taps.count, place.taps.count) << inputs;
        ASSERT_EQ(taps.first, place.taps.first) << inputs;
        for (int32_t c = place.channel; c < place.channel + place.panels * kPanel; ++c) {
          int64_t& by_block = covered[static_cast<size_t>(p * channels + c)];
          ASSERT_TRUE(by_block == -1 || by_block == b) << inputs;
          by_block = b;
        }
      }
    });
  }
  for (size_t i = 0; i < covered.size(); ++i) {
    ASSERT_GE(covered[i], 0) << inputs << "output " << i << " of " << channels << " channels";
  }
}

TEST(ChainWindows, TilesCoverEveryOutput) {
  ForEachAxis([](const ConvolutionAxis& axis, const std::string& inputs) {
    if (getOutputSize(axis) < 1) return;
    for (const int32_t channels : {16, 17, 31, 32, 33, 47, 48, 49, 63, 64, 65, 80, 129}) {
      if (channels > 49 && axis.input % 5 != 0) continue;
      const bool is_depthwise = channels % 2 == 0;
      const OutputExtent all = {1, getOutputSize(axis), channels};
      ASSERT_NO_FATAL_FAILURE(CheckTiles(axis, channels, is_depthwise, all, inputs));
      ASSERT_NO_FATAL_FAILURE(CheckTiles(axis, channels, is_depthwise, {1, 3, channels}, inputs));
      if (channels % kPanel != 0) continue;
      ASSERT_NO_FATAL_FAILURE(CheckTiles(axis, channels, is_depthwise, {1, 5, 16}, inputs));
    }
  });
}

TEST(ChainBlocks, EveryOutputIsInOneBlock) {
  for (const auto& [all, step] : std::vector<std::pair<OutputExtent, OutputExtent>>{
           {{7, 5, 32}, {7, 5, 32}},
           {{7, 5, 32}, {2, 5, 32}},
           {{7, 5, 48}, {3, 5, 32}},
           {{1, 11, 16}, {1, 4, 16}},
           {{1, 2147483000, 16}, {1, 1 << 30, 16}}}) {
    const OutputBlocks blocks(all, step);
    int64_t outputs = 0;
    for (int64_t b = 0; b < blocks.count(); ++b) {
      const OutputBlock block = blocks[b];
      outputs +=
          int64_t{block.rows()} * block.columns() * (block.end_channel - block.first_channel);
      ASSERT_GT(block.rows(), 0);
      ASSERT_GT(block.columns(), 0);
      ASSERT_LE(block.rows(), step.rows);
      ASSERT_LE(block.columns(), step.columns);
      ASSERT_GT(block.end_channel, block.first_channel);
      if (b == 0) continue;
      const OutputBlock before = blocks[b - 1];  // above it, left of it, or of other channels
      ASSERT_TRUE(before.end_row == block.first_row || before.end_column == block.first_column ||
                  before.end_channel == block.first_channel);
    }
    EXPECT_EQ(outputs, int64_t{all.rows} * all.columns * all.channels);
  }
}

}  // namespace
}  // namespace bitfold
