// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Sums by dot products of bytes that are looked at where a segment of the chain ends. Inside of a
// segment they can go no further than the weights and the range of the data allow: where that
// changes nothing the steps are not made.

#ifndef BITFOLD_SRC_CPU_PARTIAL_SUMS_BORDERS_H_
#define BITFOLD_SRC_CPU_PARTIAL_SUMS_BORDERS_H_

#include <cstdint>

#include "cpu/partial_sums_record.h"

namespace bitfold {

inline constexpr int kBorderPixels = 7;  // columns of outputs in a tile, at most
inline constexpr int kBorderPanels = 2;
inline constexpr int kMostSegmentSteps = 64;

// Of a segment and a panel. With s and e the sums where it begins and ends, every partial sum of
// the segment is within [min(s, e) - below, max(s, e) + above].
struct alignas(64) SegmentBounds {
  // What the offset of the bytes adds to a sum from the first segment to the end of this one.
  int32_t excess[kSumLanes];
  int32_t above[kSumLanes];
  int32_t below[kSumLanes];
};

// The chain of a tile: rows of taps, of each words of four channels, of each the taps of the row:
//   sum += dot product of the bytes x (no sign) and w (sign).
// A segment is so many words of a row. Strides of x in bytes, of w in words.
struct BorderTile {
  const uint8_t* x;             // of pixel 0, the first row
  const int32_t* w;             // [row][word][tap][lane] of panel 0, the first row
  const SegmentBounds* bounds;  // of panel 0, the first segment of the first row
  int64_t x_pixel;
  int64_t x_row;
  int64_t x_tap;
  int64_t w_panel;
  int64_t bounds_panel;
  int32_t rows;
  int32_t words;
  int32_t segment_words;
  int32_t taps;

  int32_t RowSegments() const { return (words + segment_words - 1) / segment_words; }
  int32_t Segments() const { return rows * RowSegments(); }
};

// Where the sums of a tile have arrived.
struct alignas(64) BorderSums {
  int32_t end[kBorderPixels][kBorderPanels][kSumLanes];    // with the excess
  int32_t start[kBorderPixels][kBorderPanels][kSumLanes];  // of the segment that is looked at
  // Over the pixels, without the excess, where the segment to come begins.
  int32_t least[kBorderPanels][kSumLanes];
  int32_t greatest[kBorderPanels][kSumLanes];
  uint32_t changes;  // panels in which the segment that is looked at may change something
};

// The partial sums of a segment of one pixel and panel.
struct SegmentSteps {
  const uint8_t* x;
  const int32_t* w;
  int64_t x_tap;
  int32_t offset;  // of the bytes
  int32_t channels;
  int32_t taps;       // of a row
  int32_t first_tap;  // those inside the image
  int32_t end_tap;
};

struct BorderKernels {
  // Goes on from segment `first` until the end of one that may change something, and returns its
  // number, or the number of segments.
  using Advance = int32_t (*)(const BorderTile&, const PanelRecord* panels, int32_t first,
                              BorderSums*);
  int pixels[4];                      // largest first
  Advance advance[4][kBorderPanels];  // by panels - 1
  // Writes the partial sums after `sums`; returns how many.
  int32_t (*step)(const SegmentSteps&, const int32_t* sums, int32_t (*partial)[kSumLanes]);
};

// For the target in use; null where it has no dot products of bytes.
const BorderKernels* CurrentBorderKernels();

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_PARTIAL_SUMS_BORDERS_H_
