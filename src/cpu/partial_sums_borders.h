// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Sums by dot products of bytes that are looked at where a segment of the chain ends. With s and e
// the sums where it begins and ends, and r the sum of its addends' magnitudes, another dot product,
// every partial sum p inside has s + e - r <= 2p <= s + e + r: where that changes nothing the steps
// are not made.

#ifndef BITFOLD_SRC_CPU_PARTIAL_SUMS_BORDERS_H_
#define BITFOLD_SRC_CPU_PARTIAL_SUMS_BORDERS_H_

#include <cstdint>

#include "cpu/partial_sums_record.h"

namespace bitfold {

inline constexpr int kBorderSizes = 4;
inline constexpr int kBorderPixels = 14;  // columns of outputs in a tile, at most
inline constexpr int kMostSegmentSteps = 64;

// A segment is loud for so many tiles after one in which several pixels might change the extremes.
inline constexpr uint8_t kLoud = 4;

// Four channels' weights of each lane, and their magnitudes, of which 127 is the largest: what one
// of -128 lacks is slack.
struct alignas(64) WeightVector {
  int32_t words[kSumLanes];
  int32_t magnitudes[kSumLanes];
};

// Of a segment and a panel.
struct alignas(64) SegmentBounds {
  // What the offset of the bytes adds to a sum from the first segment to the end of this one.
  int32_t excess[kSumLanes];
  // At least what the sums of magnitudes lack.
  int32_t slack[kSumLanes];
};

// The chain of a tile: rows of taps, of each words of four channels, of each the taps of the row:
//   sum += dot product of the bytes x (no sign) and w (sign).
// A segment is so many words of a row. Strides of x in bytes; behind each word, if they are not the
// same, lie the magnitudes of the numbers that its bytes stand for.
struct BorderTile {
  const uint8_t* x;             // of pixel 0, the first row
  const WeightVector* w;        // [row][word][tap], the first row
  const SegmentBounds* bounds;  // of the first segment of the first row
  const int32_t* excess;        // before it
  int64_t x_pixel;
  int64_t x_row;
  int64_t x_tap;
  int32_t x_word;
  int32_t rows;
  int32_t words;
  int32_t segment_words;
  int32_t taps;
  int32_t channels;
  int32_t offset;  // of the bytes
  // Of each segment from the first of the first row on, whether to step through it at once; so it
  // is where the last ones needed it. Updated.
  uint8_t* loudness;
  // Before it tiles cannot be stepped through: a tap may come before the first addend.
  int32_t first_plain;
  SumLimits narrowest;

  int32_t RowSegments() const { return (words + segment_words - 1) / segment_words; }
  int32_t Segments() const { return rows * RowSegments(); }
};

// Where the sums of a tile have arrived.
struct alignas(64) BorderSums {
  int32_t end[kBorderPixels][kSumLanes];    // with the excess
  int32_t start[kBorderPixels][kSumLanes];  // of the segment that is looked at
  bool changes;                             // the segment that is looked at may change something
  bool is_extended;                         // the extremes have its partial sums already
};

// Which taps of a row a pixel has.
struct PixelTaps {
  int32_t first;
  int32_t count;
};

// A segment of a tile that may change something.
struct SegmentSpot {
  const uint8_t* x;  // of pixel 0, the segment's first word, tap 0
  const WeightVector* w;
  const SegmentBounds* bounds;
  const int32_t* excess_before;  // of the sums where it begins
  const PixelTaps* pixel_taps;
  int64_t x_pixel;
  int64_t x_tap;
  int32_t x_word;
  int32_t pixels;
  int32_t words;
  int32_t taps;      // of a row
  int32_t channels;  // that exist
  int32_t channels_before;
  int32_t offset;  // of the bytes
  bool is_plain;   // after every tap, be it in the image or not, there has been an addend
  uint8_t* loudness;
};

// The widths of a panel, and what is counted of an output: `counts` of pixel 0, `pixel_counts` from
// one to the next.
struct CountedWidths {
  WidthRecord* widths;
  int32_t count;
  SumLimits narrowest;
  OutputCounts* counts;
  int64_t pixel_counts;
};

struct BorderKernels {
  // Goes on from segment `first` until the end of one that may change something, and returns its
  // number. Or to the end, and returns the number of segments: then it has taken the ends into the
  // record, `end` is without excess, and `changes` says whether one is outside of a width.
  using Advance = int32_t (*)(const BorderTile&, PanelRecord*, int32_t first, BorderSums*);
  int pixels[kBorderSizes];          // largest first
  Advance advance[kBorderSizes][2];  // by whether the magnitudes are the numbers of x
  // Takes what happens inside of the segment into the record.
  void (*resolve)(const SegmentSpot&, const BorderSums&, PanelRecord*, const CountedWidths&);
};

// For the target in use; null where it has no dot products of bytes.
const BorderKernels* CurrentBorderKernels();

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_PARTIAL_SUMS_BORDERS_H_
