// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HSingleWeightPerProposalBboxDecoder: the corners of detection boxes with one product and one
// addition each.

#ifndef BITFOLD_HSINGLEWEIGHTPERPROPOSALBBOXDECODER_H_
#define BITFOLD_HSINGLEWEIGHTPERPROPOSALBBOXDECODER_H_

#include <cstdint>

#include "bitfold/HBboxDecoder.h"

namespace bitfold {

// As BoxDecoderInputs, with four numbers for each anchor.
template <typename T>
struct SingleWeightDecoderInputs {
  const T* detection_centers;
  const T* detection_w_h;
  const T* y_centers;
  const T* x_centers;
  const T* anchors_height_scale_factor;
  const T* anchors_height_scale_factor_minus;
  const T* anchors_width_scale_factor;
  const T* anchors_width_scale_factor_minus;
};

// The definition of anchors first <= t < first + count of a row. The pairing is crosswise: the y
// corners take the second number of each detection pair, the x corners the first; y_centers and
// x_centers give their first to the minimum corner and their second to the maximum corner.
template <typename T>
void DecodeBoxes(const ReciprocalDatapath<T>& datapath, const SingleWeightDecoderInputs<T>& in,
                 const DetectionRow& row, int64_t first, int64_t count, T* out) {
  const auto corner = [&datapath](T factor, T detection, T centre) {
    const T product = datapath.ScaleProduct(datapath.Multiply(factor, detection));
    return datapath.Accumulate(product, centre);
  };
  for (int64_t t = first; t < first + count; ++t) {
    const int64_t j = t % row.anchors;
    const T* c = in.detection_centers + row.pairs + 2 * t;
    const T* s = in.detection_w_h + row.pairs + 2 * t;
    const T* y = in.y_centers + row.y + 2 * j;
    const T* x = in.x_centers + 2 * t;
    T* box = out + 2 * row.pairs + 4 * t;
    box[0] = corner(in.anchors_height_scale_factor_minus[j], c[1], y[0]);
    box[1] = corner(in.anchors_width_scale_factor_minus[j], c[0], x[0]);
    box[2] = corner(in.anchors_height_scale_factor[j], s[1], y[1]);
    box[3] = corner(in.anchors_width_scale_factor[j], s[0], x[1]);
  }
}

// As HBboxDecoder4DFunctor.
template <typename Device, typename T>
struct HSingleWeightPerProposalBboxDecoder4DFunctor {
  void operator()(const Device& device, const T* detection_centers, const T* detection_w_h,
                  const T* y_centers, const T* x_centers, const T* anchors_height_scale_factor,
                  const T* anchors_height_scale_factor_minus, const T* anchors_width_scale_factor,
                  const T* anchors_width_scale_factor_minus, T* output, int32_t n, int32_t h,
                  int32_t w, int32_t anchors, int32_t accumulator_size, const int8_t* mult_shift,
                  bool use_fp16_acc) const;
};

}  // namespace bitfold

#endif  // BITFOLD_HSINGLEWEIGHTPERPROPOSALBBOXDECODER_H_
