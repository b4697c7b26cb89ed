// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// A tile of outputs whose every partial sum is formed, in lanes of output channels.

#ifndef BITFOLD_SRC_CPU_PARTIAL_SUMS_TILE_H_
#define BITFOLD_SRC_CPU_PARTIAL_SUMS_TILE_H_

#include <cstdint>

#include "cpu/partial_sums_record.h"

namespace bitfold {

inline constexpr int kSummedPixels = 4;  // columns of outputs in a tile, or 1

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

// Of each pixel and lane: the sum, the least and the greatest partial sum.
struct TileRanges {
  int32_t sums[kSummedPixels][kSumLanes];
  int32_t least[kSummedPixels][kSumLanes];
  int32_t greatest[kSummedPixels][kSumLanes];
};

struct SummedLoops {
  using Ranges = void (*)(const SummedTile&, TileRanges*);
  Ranges ranges[2][2][2];  // by whether kSummedPixels, depthwise, shift != 0
  // Counts the partial sums of pixel 0 that are outside, and the first step with one; `counts` has
  // been cleared.
  void (*count[2])(const SummedTile&, WidthRecord*, OutputCounts*);  // by whether depthwise
  // Takes the ranges of so many pixels into the record. Returns whether a partial sum is outside of
  // the limits, or an end outside of a width.
  bool (*record)(const TileRanges&, int pixels, const SumLimits&, PanelRecord*);
};

// For the target in use.
const SummedLoops& CurrentSummedLoops();

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_PARTIAL_SUMS_TILE_H_
