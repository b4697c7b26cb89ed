// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#ifndef BITFOLD_CONVOLUTION_CALL_H_
#define BITFOLD_CONVOLUTION_CALL_H_

#include <cstdint>

#include "bitfold/datapath_attributes.h"
#include "bitfold/geometry.h"

namespace bitfold {

// A whole convolution, as every form of it takes it; the pointers are to the memory of the op's
// device. Requires
//   input       to hold batch * rows.input * columns.input * in_channels elements, NHWC;
//   filter      to hold `filters` filters of rows.taps * columns.taps * channels * out_channels
//               elements, HWIO, where channels is in_channels (ordinary) or 1 (depthwise);
//   elementwise to be null or as large as output;
//   output      to hold batch * height * width * out_channels elements, NHWC, where height and
//               width are getOutputSize of rows and columns;
//   depthwise:  out_channels <= in_channels.
template <typename T>
struct ConvolutionCall {
  const T* input;
  const T* filter;
  const T* elementwise;
  T* output;
  int32_t batch;
  int32_t in_channels;
  int32_t out_channels;
  ConvolutionAxis rows;
  ConvolutionAxis columns;
  bool is_depthwise;
  int32_t filters;  // 1, or, depthwise, batch: a filter for each image
  DatapathAttributes datapath;

  // Of one image and of one filter.
  int64_t InputElements() const { return int64_t{rows.input} * columns.input * in_channels; }
  int64_t FilterElements() const {
    return int64_t{rows.taps} * columns.taps * (is_depthwise ? 1 : in_channels) * out_channels;
  }

  // Which of the filters an image meets.
  int32_t FilterOf(int32_t image) const { return filters > 1 ? image : 0; }
};

}  // namespace bitfold

#endif  // BITFOLD_CONVOLUTION_CALL_H_
