// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What threads share that sum a layer by dot products of bytes.

#ifndef BITFOLD_SRC_CPU_PARTIAL_SUMS_DOT_LAYER_H_
#define BITFOLD_SRC_CPU_PARTIAL_SUMS_DOT_LAYER_H_

#include <cstdint>
#include <vector>

#include "cpu/partial_sums_borders.h"
#include "cpu/partial_sums_dots.h"
#include "cpu/partial_sums_record.h"
#include "cpu/partial_sums_tile.h"
#include "cpu/partial_sums_windows.h"

namespace bitfold {

// Requires what SumByDots does.
class SummedDotLayer {
 public:
  SummedDotLayer(const BytesCall& of, const PartialSumsTables& tables);

  int64_t RowVectors() const { return int64_t{words} * windows.columns.taps; }
  int64_t PanelVectors() const { return windows.rows.taps * RowVectors(); }
  int64_t PanelSegments() const { return int64_t{windows.rows.taps} * row_segments; }
  int32_t Offset() const { return call.input_zero_point + 128; }
  // Whether the bytes are the magnitudes of the numbers.
  bool HasOwnMagnitudes() const { return Offset() == 0; }

  const BytesCall call;
  const RecordLayout layout;
  const SumWindows windows;
  const SumUnits units;
  const SumRecord begins;
  const BorderKernels& kernels;
  const SummedLoops& loops;
  const int32_t words;  // of a pixel
  const int32_t segment_words;
  const int32_t row_segments;
  std::vector<WeightVector> weights;  // [panel][row][word][column]
  std::vector<SegmentBounds> bounds;  // [panel][row][segment]
  std::vector<PixelTaps> taps;        // of each column of outputs

 private:
  void PackWeights();
  void Bound();
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_PARTIAL_SUMS_DOT_LAYER_H_
