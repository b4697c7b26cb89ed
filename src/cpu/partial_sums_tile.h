// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// A tile of outputs whose every partial sum is formed, in lanes of output channels.

#ifndef BITFOLD_SRC_CPU_PARTIAL_SUMS_TILE_H_
#define BITFOLD_SRC_CPU_PARTIAL_SUMS_TILE_H_

#include <cstdint>

#include "cpu/partial_sums_borders.h"
#include "cpu/partial_sums_record.h"

namespace bitfold {

// Columns of outputs in a tile, largest first.
inline constexpr int kSummedPixels[] = {8, 4, 2, 1};
inline constexpr int kMostSummedPixels = 8;

// The chains: for each row, for each channel, for each tap an addend x * w, divided by 2^shift,
// where x is one number for all lanes or, depthwise, one for each. Strides are in numbers; that of
// x from channel to channel is 1, that of w from tap to tap kSumLanes. Depthwise has one channel.
struct SummedTile {
  const int16_t* x;  // of pixel 0
  const int16_t* w;
  int64_t x_pixel;
  int64_t x_row;
  int64_t x_tap;
  int64_t w_row;
  int64_t w_channel;
  int32_t rows;
  int32_t channels;
  int32_t taps;
  int32_t shift;

  int64_t Products() const { return int64_t{rows} * channels * taps; }
};

// Of each pixel and lane the sum; of each lane the least and the greatest partial sum.
struct alignas(64) TileRanges {
  int32_t sums[kMostSummedPixels][kSumLanes];
  int32_t least[kSumLanes];
  int32_t greatest[kSumLanes];
};

// The weights of a segment and a panel, and the offset of the bytes that they meet.
struct SegmentWeights {
  WeightVector* vectors;
  int32_t count;
  int32_t offset;
};

// An output of each lane: how it ended, after so many products, and what was counted on its way, or
// null.
struct EndedOutput {
  const int32_t* sums;
  const OutputCounts* counts;
  int32_t products;
  bool has_bias;  // the last addend
};

struct SummedLoops {
  using Ranges = void (*)(const SummedTile&, TileRanges*);
  Ranges ranges[4][2][2];  // by the number of pixels, whether depthwise, shift != 0
  // Counts the partial sums of pixel 0 that are outside, and the first step with one; `counts` has
  // been cleared.
  void (*count[2])(const SummedTile&, WidthRecord*, OutputCounts*);  // by whether depthwise
  // Takes the ranges of so many pixels into the record. Returns whether a partial sum is outside of
  // the limits, or an end outside of a width.
  bool (*record)(const TileRanges&, int pixels, const SumLimits&, PanelRecord*);

  // Finds the magnitudes of the weights, and the bounds; `before` is the segment before, or null.
  void (*bound)(const SegmentWeights&, const SegmentBounds* before, SegmentBounds*);
  // Puts four rows of numbers together as words, by panels.
  void (*pack_words)(const int8_t* const* rows, int32_t columns, int64_t panel, int32_t* words);
  // Adds an output of one width.
  void (*add_output)(const EndedOutput&, WidthRecord*);
};

// For the target in use.
const SummedLoops& CurrentSummedLoops();

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_PARTIAL_SUMS_TILE_H_
