// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HBboxDecoder: the corners of detection boxes from a centre offset, a size and six constants per
// anchor.

#ifndef BITFOLD_HBBOXDECODER_H_
#define BITFOLD_HBBOXDECODER_H_

#include <cstdint>

#include "bitfold/datapath.h"
#include "bitfold/datapath_attributes.h"

namespace bitfold {

// The positions of a decoder's detections and the anchors of each. Where a number is below 1 there
// are none.
struct DetectionGrid {
  int32_t images = 0;
  int32_t rows = 0;
  int32_t columns = 0;
  int32_t anchors = 0;
};

// One call. The inputs are flat arrays: of the detections a (y, x) pair for each anchor of each
// position, of the centres a (minimum, maximum) pair for each anchor of each row or column, of the
// others a number for each anchor. The output's corners come in the order y-min, x-min, y-max,
// x-max, 4 for each anchor.
template <typename T>
struct BboxDecoderCall {
  const T* detection_centers;
  const T* detection_w_h;
  const T* y_centers;
  const T* x_centers;
  const T* anchors_heights;
  const T* anchors_heights_div_2;
  const T* anchors_heights_minus_div_2;
  const T* anchors_widths;
  const T* anchors_widths_div_2;
  const T* anchors_widths_minus_div_2;
  T* output;
  DetectionGrid grid;
  DatapathAttributes attributes;
};

// The anchors of one row of one image, and where they stand in the arrays.
struct DetectionRow {
  int64_t pairs;  // of the row's first anchor in the detections, in elements
  int64_t y;      // of the row's first pair in y_centers
};

// Row `index` of those of all images.
inline DetectionRow DetectionRowAt(const DetectionGrid& grid, int64_t index) {
  const int64_t row_pairs = int64_t{grid.columns} * 2 * grid.anchors;
  return {index * row_pairs, index % grid.rows * 2 * grid.anchors};
}

// How many rows have anchors.
inline int64_t DetectionRows(const DetectionGrid& grid) {
  const bool is_empty = grid.images < 1 || grid.rows < 1 || grid.columns < 1 || grid.anchors < 1;
  return is_empty ? 0 : int64_t{grid.images} * grid.rows;
}

// The rows of all images in order: visit(row).
template <typename Visit>
void ForEachDetectionRow(const DetectionGrid& grid, Visit visit) {
  for (int64_t index = 0; index < DetectionRows(grid); ++index) visit(DetectionRowAt(grid, index));
}

// The definition of anchors first <= t < first + count of a row, counted over its positions. Each
// corner is two additions: the centre product with the size product, then the centre.
template <typename T>
void DefineBboxDecoder(const BboxDecoderCall<T>& call, const DetectionRow& row, int64_t first,
                       int64_t count) {
  const auto datapath = MakeDatapath<ReciprocalDatapath<T>>(call.attributes);
  const auto product = [&datapath](T a, T b) {
    return datapath.ScaleProduct(datapath.Multiply(a, b));
  };
  const auto corner = [&datapath](T centre_product, T size_product, T centre) {
    return datapath.Accumulate(datapath.Accumulate(centre_product, size_product), centre);
  };
  const int64_t anchors = call.grid.anchors;
  for (int64_t t = first; t < first + count; ++t) {
    const int64_t j = t % anchors;
    const T* c = call.detection_centers + row.pairs + 2 * t;
    const T* s = call.detection_w_h + row.pairs + 2 * t;
    const T* y = call.y_centers + row.y + 2 * j;
    const T* x = call.x_centers + 2 * t;
    const T py = product(call.anchors_heights[j], c[0]);
    const T px = product(call.anchors_widths[j], c[1]);
    T* box = call.output + 2 * row.pairs + 4 * t;
    box[0] = corner(py, product(call.anchors_heights_minus_div_2[j], s[0]), y[0]);
    box[1] = corner(px, product(call.anchors_widths_minus_div_2[j], s[1]), x[0]);
    box[2] = corner(py, product(call.anchors_heights_div_2[j], s[0]), y[1]);
    box[3] = corner(px, product(call.anchors_widths_div_2[j], s[1]), x[1]);
  }
}

}  // namespace bitfold

#endif  // BITFOLD_HBBOXDECODER_H_
