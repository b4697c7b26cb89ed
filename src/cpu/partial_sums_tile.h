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

// What a channel's numbers lie within; 0 is among them.
struct ChannelRange {
  int32_t least;
  int32_t greatest;
};

// The weights of a segment and a panel, [word][tap][lane] of four channels each, and the numbers
// that they meet, less the offset that the bytes have.
struct SegmentWeights {
  const int8_t* weights;
  const ChannelRange* ranges;
  int32_t words;
  int32_t taps;
  int32_t offset;
};

// Where a segment of a pixel and a panel begins and ends, with the excess.
struct SegmentEnds {
  const int32_t* start;
  const int32_t* end;
  const int32_t* excess_before;
  const SegmentBounds* bounds;
};

// Without it: where the segment begins, and what its partial sums lie within.
struct SegmentSums {
  int32_t start[kSumLanes];
  int32_t bottom[kSumLanes];
  int32_t top[kSumLanes];
};

// What a segment may change.
enum class SegmentChange { kNone, kCounts, kExtremes };

// Partial sums, and how many addends came before the first.
struct StepSums {
  const int32_t (*sums)[kSumLanes];
  int32_t count;
  int32_t before;
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

  // Widens the least and the greatest number of each channel.
  void (*channel_ranges)(const int8_t* numbers, int64_t pixels, int32_t channels, int8_t* least,
                         int8_t* greatest);
  // `before` is the segment before, or null.
  void (*bound)(const SegmentWeights&, const SegmentBounds* before, SegmentBounds*);
  SegmentChange (*look)(const SegmentEnds&, const PanelRecord&, SegmentSums*);
  // Whether the sums of a segment are all inside or all outside of a width; `outside` says which.
  bool (*is_whole)(const SegmentSums&, const WidthRecord&, int32_t* outside);
  // Counts `count` steps after `before` others.
  void (*count_whole)(const int32_t* outside, int32_t count, int32_t before, WidthRecord*,
                      OutputCounts*);
  // Takes steps into the extremes; returns whether one is outside of the limits.
  bool (*include)(const StepSums&, const SumLimits&, PanelRecord*);
  void (*count_steps)(const StepSums&, WidthRecord*, OutputCounts*);
  // Takes the ends of so many pixels; returns whether one is outside of a width.
  bool (*end)(const int32_t (*sums)[kSumLanes], int pixels, PanelRecord*);
};

// For the target in use.
const SummedLoops& CurrentSummedLoops();

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_PARTIAL_SUMS_TILE_H_
