// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HConv2d, HConv2dDilation and HDepthWise: the definition of one image's convolution. The loops
// below visit outputs and taps in the accelerator's order, which the bits and the printed lines
// depend on; nothing faster lives here.

#ifndef BITFOLD_HCONV2D_H_
#define BITFOLD_HCONV2D_H_

#include <cstdint>

#include "bitfold/datapath.h"
#include "bitfold/geometry.h"
#include "bitfold/warning.h"
#include "bitfold/weight_sign.h"

namespace bitfold {

// The work of one image thread; filled before the thread starts and only read by it.
// Requires: 0 <= image < batch; strides != 0; mult_shift is an int8 sign-extended;
//   input       holds batch * in_height * in_width * in_channels elements, NHWC;
//   filter      holds filter_height * filter_width * channels * out_channels elements, HWIO, where
//               channels is in_channels (ordinary) or 1 (depthwise); depthwise with a filter per
//               image: that for each image, filter_image < their number;
//   elementwise is null or as large as output;
//   output      holds batch * out_height * out_width * out_channels elements, NHWC, where
//               out_height and out_width are getOutputSize;
//   depthwise:  out_channels <= in_channels.
template <typename T>
struct ConvolutionImage {
  const T* input;
  const T* filter;
  const T* elementwise;
  T* output;
  int32_t batch;
  int32_t in_height;
  int32_t in_width;
  int32_t in_channels;
  int32_t filter_height;
  int32_t filter_width;
  int32_t out_channels;
  int32_t accumulator_size;
  int32_t stride_h;
  int32_t stride_w;
  int32_t dilation_h;
  int32_t dilation_w;
  Padding padding;
  int32_t mult_shift;
  bool use_fp16_acc;
  bool is_depthwise;
  int32_t image;
  int32_t filter_image;
};

// One image's definition, an object per image.
template <typename T>
class ImageConvolution {
 public:
  explicit ImageConvolution(const ConvolutionImage<T>& work)
      : work_(work),
        rows_(work.in_height, work.filter_height, work.stride_h, work.dilation_h, work.padding),
        columns_(work.in_width, work.filter_width, work.stride_w, work.dilation_w, work.padding),
        datapath_(work.accumulator_size, work.mult_shift, work.use_fp16_acc),
        weight_sign_(work.accumulator_size) {}

  // Computes and writes every output element of the image, then prints the red line if a depthwise
  // weight needed its sign corrected.
  void Run() {
    for (int32_t row = 0; row < rows_.outputs; ++row) {
      for (int32_t column = 0; column < columns_.outputs; ++column) {
        for (int32_t channel = 0; channel < work_.out_channels; ++channel) {
          DefineOutput(row, column, channel);
        }
      }
    }
    if (weight_corrected_) PrintDepthwiseWeightWarning();
  }

  // Computes and writes one output element.
  void DefineOutput(int32_t row, int32_t column, int32_t channel) {
    const int64_t o = OutputIndex(row, column, channel);
    work_.output[o] = OutputElement(row, column, channel, o);
  }

 private:
  // The chain of one output: the filter's rows from the top, the elementwise addend after the
  // centre row, whether or not that row lies in the image.
  T OutputElement(int32_t row, int32_t column, int32_t channel, int64_t o) {
    T acc = T{0};
    for (int32_t kh = 0; kh < rows_.taps; ++kh) {
      const int32_t ih = rows_.Coordinate(row, kh);
      if (rows_.Contains(ih)) {
        acc = work_.is_depthwise ? AddDepthwiseRow(acc, kh, ih, column, channel)
                                 : AddOrdinaryRow(acc, kh, ih, column, channel);
      }
      if (rows_.IsCentre(kh) && work_.elementwise != nullptr) {
        acc = datapath_.Accumulate(acc, work_.elementwise[o]);  // not scaled by mult_shift
      }
    }
    return acc;
  }

  // Input channels outside, filter columns inside.
  T AddOrdinaryRow(T acc, int32_t kh, int32_t ih, int32_t column, int32_t channel) const {
    for (int32_t ic = 0; ic < work_.in_channels; ++ic) {
      for (int32_t kw = 0; kw < columns_.taps; ++kw) {
        const int32_t iw = columns_.Coordinate(column, kw);
        if (!columns_.Contains(iw)) continue;
        const int64_t f =
            (FilterTap(kh, kw) * work_.in_channels + ic) * work_.out_channels + channel;
        acc = AddProduct(acc, work_.filter[f], work_.input[InputIndex(ih, iw, ic)]);
      }
    }
    return acc;
  }

  // One filter channel per output channel, which reads the input channel of the same number.
  T AddDepthwiseRow(T acc, int32_t kh, int32_t ih, int32_t column, int32_t channel) {
    const int64_t taps = int64_t{work_.filter_height} * work_.filter_width;
    for (int32_t kw = 0; kw < columns_.taps; ++kw) {
      const int32_t iw = columns_.Coordinate(column, kw);
      if (!columns_.Contains(iw)) continue;
      const int64_t f =
          (work_.filter_image * taps + FilterTap(kh, kw)) * work_.out_channels + channel;
      T weight = work_.filter[f];
      if (weight_sign_.NeedsCorrection(weight)) {
        weight = weight_sign_.Correct(weight);
        weight_corrected_ = true;
      }
      acc = AddProduct(acc, weight, work_.input[InputIndex(ih, iw, channel)]);
    }
    return acc;
  }

  T AddProduct(T acc, T weight, T value) const {
    return datapath_.Accumulate(acc, datapath_.ScaleProduct(datapath_.Multiply(weight, value)));
  }

  int64_t FilterTap(int32_t kh, int32_t kw) const { return int64_t{kh} * work_.filter_width + kw; }

  int64_t InputIndex(int32_t ih, int32_t iw, int32_t ic) const {
    const int64_t row = int64_t{work_.image} * work_.in_height + ih;
    return (row * work_.in_width + iw) * work_.in_channels + ic;
  }

  int64_t OutputIndex(int32_t row, int32_t column, int32_t channel) const {
    const int64_t output_row = int64_t{work_.image} * rows_.outputs + row;
    return (output_row * columns_.outputs + column) * work_.out_channels + channel;
  }

  const ConvolutionImage<T>& work_;
  const WindowAxis rows_;
  const WindowAxis columns_;
  const Datapath<T> datapath_;
  const WeightSign<T> weight_sign_;
  bool weight_corrected_ = false;
};

}  // namespace bitfold

#endif  // BITFOLD_HCONV2D_H_
