// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HBboxDecoder: the corners of detection boxes from a centre offset, a size and six constants per
// anchor.

#ifndef BITFOLD_HBBOXDECODER_H_
#define BITFOLD_HBBOXDECODER_H_

#include <cstdint>

#include "bitfold/datapath.h"

namespace bitfold {

// The inputs as flat arrays: of the detections a (y, x) pair for each anchor of each position, of
// the centres a (minimum, maximum) pair for each anchor of each row or column, of the others a
// number for each anchor.
template <typename T>
struct BoxDecoderInputs {
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
};

// The anchors of one row of one image, and where they stand in the arrays.
struct DetectionRow {
  int64_t pairs;    // of the row's first anchor in the detections, in elements
  int64_t y;        // of the row's first pair in y_centers
  int64_t anchors;  // per position
};

// The definition of anchors first <= t < first + count of a row, counted over its positions. Each
// corner is two additions: the centre product with the size product, then the centre. The corners
// come in the order y-min, x-min, y-max, x-max, 4 for each anchor.
template <typename T>
void DecodeBoxes(const ReciprocalDatapath<T>& datapath, const BoxDecoderInputs<T>& in,
                 const DetectionRow& row, int64_t first, int64_t count, T* out) {
  const auto product = [&datapath](T a, T b) {
    return datapath.ScaleProduct(datapath.Multiply(a, b));
  };
  const auto corner = [&datapath](T centre_product, T size_product, T centre) {
    return datapath.Accumulate(datapath.Accumulate(centre_product, size_product), centre);
  };
  for (int64_t t = first; t < first + count; ++t) {
    const int64_t j = t % row.anchors;
    const T* c = in.detection_centers + row.pairs + 2 * t;
    const T* s = in.detection_w_h + row.pairs + 2 * t;
    const T* y = in.y_centers + row.y + 2 * j;
    const T* x = in.x_centers + 2 * t;
    const T py = product(in.anchors_heights[j], c[0]);
    const T px = product(in.anchors_widths[j], c[1]);
    T* box = out + 2 * row.pairs + 4 * t;
    box[0] = corner(py, product(in.anchors_heights_minus_div_2[j], s[0]), y[0]);
    box[1] = corner(px, product(in.anchors_widths_minus_div_2[j], s[1]), x[0]);
    box[2] = corner(py, product(in.anchors_heights_div_2[j], s[0]), y[1]);
    box[3] = corner(px, product(in.anchors_widths_div_2[j], s[1]), x[1]);
  }
}

// The whole-tensor arithmetic as the kernel calls it, over N x H x W positions of A anchors. Of
// mult_shift element 0 is read. Where a count is below 1 nothing is written.
template <typename Device, typename T>
struct HBboxDecoder4DFunctor {
  void operator()(const Device& device, const T* detection_centers, const T* detection_w_h,
                  const T* y_centers, const T* x_centers, const T* anchors_heights,
                  const T* anchors_heights_div_2, const T* anchors_heights_minus_div_2,
                  const T* anchors_widths, const T* anchors_widths_div_2,
                  const T* anchors_widths_minus_div_2, T* output, int32_t n, int32_t h, int32_t w,
                  int32_t anchors, int32_t accumulator_size, const int8_t* mult_shift,
                  bool use_fp16_acc) const;
};

}  // namespace bitfold

#endif  // BITFOLD_HBBOXDECODER_H_
