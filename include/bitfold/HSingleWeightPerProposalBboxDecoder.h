// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HSingleWeightPerProposalBboxDecoder: the corners of detection boxes with one product and one
// addition each.

#ifndef BITFOLD_HSINGLEWEIGHTPERPROPOSALBBOXDECODER_H_
#define BITFOLD_HSINGLEWEIGHTPERPROPOSALBBOXDECODER_H_

#include <cstdint>

#include "bitfold/HBboxDecoder.h"
#include "bitfold/datapath.h"
#include "bitfold/datapath_attributes.h"

namespace bitfold {

// As BboxDecoderCall, with four numbers for each anchor.
template <typename T>
struct SingleWeightPerProposalBboxDecoderCall {
  const T* detection_centers;
  const T* detection_w_h;
  const T* y_centers;
  const T* x_centers;
  const T* anchors_height_scale_factor;
  const T* anchors_height_scale_factor_minus;
  const T* anchors_width_scale_factor;
  const T* anchors_width_scale_factor_minus;
  T* output;
  DetectionGrid grid;
  DatapathAttributes attributes;
};

// The definition of anchors first <= t < first + count of a row. The pairing is crosswise: the y
// corners take the second number of each detection pair, the x corners the first; y_centers and
// x_centers give their first to the minimum corner and their second to the maximum corner.
template <typename T>
void DefineSingleWeightPerProposalBboxDecoder(const SingleWeightPerProposalBboxDecoderCall<T>& call,
                                              const DetectionRow& row, int64_t first,
                                              int64_t count) {
  const auto datapath = MakeDatapath<ReciprocalDatapath<T>>(call.attributes);
  const auto corner = [&datapath](T factor, T detection, T centre) {
    const T product = datapath.ScaleProduct(datapath.Multiply(factor, detection));
    return datapath.Accumulate(product, centre);
  };
  const int64_t anchors = call.grid.anchors;
  for (int64_t t = first; t < first + count; ++t) {
    const int64_t j = t % anchors;
    const T* c = call.detection_centers + row.pairs + 2 * t;
    const T* s = call.detection_w_h + row.pairs + 2 * t;
    const T* y = call.y_centers + row.y + 2 * j;
    const T* x = call.x_centers + 2 * t;
    T* box = call.output + 2 * row.pairs + 4 * t;
    box[0] = corner(call.anchors_height_scale_factor_minus[j], c[1], y[0]);
    box[1] = corner(call.anchors_width_scale_factor_minus[j], c[0], x[0]);
    box[2] = corner(call.anchors_height_scale_factor[j], s[1], y[1]);
    box[3] = corner(call.anchors_width_scale_factor[j], s[0], x[1]);
  }
}

}  // namespace bitfold

#endif  // BITFOLD_HSINGLEWEIGHTPERPROPOSALBBOXDECODER_H_
