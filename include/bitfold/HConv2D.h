// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HConv2d, HConv2dDilation and HDepthWise: the definition of a convolution. The loops below visit
// outputs and taps in the accelerator's order, which the bits and the printed lines depend on;
// nothing faster lives here.

#ifndef BITFOLD_HCONV2D_H_
#define BITFOLD_HCONV2D_H_

#include <cstdint>

#include "bitfold/convolution_call.h"
#include "bitfold/datapath.h"
#include "bitfold/datapath_attributes.h"
#include "bitfold/geometry.h"
#include "bitfold/warning.h"
#include "bitfold/weight_sign.h"

namespace bitfold {

// One image's definition, an object per image. Requires 0 <= image < call.batch, round-to-nearest
// and no flush to zero; the call stays.
template <typename T>
class ImageConvolution {
 public:
  ImageConvolution(const ConvolutionCall<T>& call, int32_t image)
      : call_(call),
        image_(image),
        rows_(call.rows),
        columns_(call.columns),
        datapath_(MakeDatapath<Datapath<T>>(call.datapath)),
        weight_sign_(call.datapath.accumulator_size) {}

  // Computes and writes every output element of the image, then warns if a depthwise
  // weight needed its sign corrected.
  void Run() {
    for (int32_t row = 0; row < rows_.outputs; ++row) {
      for (int32_t column = 0; column < columns_.outputs; ++column) {
        for (int32_t channel = 0; channel < call_.out_channels; ++channel) {
          DefineOutput(row, column, channel);
        }
      }
    }
    if (weight_corrected_) WarnDepthwiseWeights();
  }

  // Computes and writes one output element.
  void DefineOutput(int32_t row, int32_t column, int32_t channel) {
    const int64_t o = OutputIndex(row, column, channel);
    call_.output[o] = OutputElement({row, column, channel}, o);
  }

 private:
  struct Place {
    int32_t row;
    int32_t column;
    int32_t channel;
  };

  // The chain of one output: the filter's rows from the top, the elementwise addend after the
  // centre row, whether or not that row lies in the image.
  T OutputElement(const Place& place, int64_t o) {
    T acc = T{0};
    for (int32_t kh = 0; kh < rows_.taps; ++kh) {
      const int32_t ih = rows_.Coordinate(place.row, kh);
      if (rows_.Contains(ih)) {
        acc = call_.is_depthwise ? AddDepthwiseRow(acc, kh, ih, place)
                                 : AddOrdinaryRow(acc, kh, ih, place);
      }
      if (rows_.IsCentre(kh) && call_.elementwise != nullptr) {
        acc = datapath_.Accumulate(acc, call_.elementwise[o]);  // not scaled by mult_shift
      }
    }
    return acc;
  }

  // Input channels outside, filter columns inside.
  T AddOrdinaryRow(T acc, int32_t kh, int32_t ih, const Place& place) const {
    for (int32_t ic = 0; ic < call_.in_channels; ++ic) {
      for (int32_t kw = 0; kw < columns_.taps; ++kw) {
        const int32_t iw = columns_.Coordinate(place.column, kw);
        if (!columns_.Contains(iw)) continue;
        const int64_t f =
            (FilterTap(kh, kw) * call_.in_channels + ic) * call_.out_channels + place.channel;
        acc = AddProduct(acc, call_.filter[f], call_.input[InputIndex(ih, iw, ic)]);
      }
    }
    return acc;
  }

  // One filter channel per output channel, which reads the input channel of the same number.
  T AddDepthwiseRow(T acc, int32_t kh, int32_t ih, const Place& place) {
    const int64_t taps = int64_t{rows_.taps} * columns_.taps;
    for (int32_t kw = 0; kw < columns_.taps; ++kw) {
      const int32_t iw = columns_.Coordinate(place.column, kw);
      if (!columns_.Contains(iw)) continue;
      const int64_t f =
          (call_.FilterOf(image_) * taps + FilterTap(kh, kw)) * call_.out_channels + place.channel;
      T weight = call_.filter[f];
      if (weight_sign_.NeedsCorrection(weight)) {
        weight = weight_sign_.Correct(weight);
        weight_corrected_ = true;
      }
      acc = AddProduct(acc, weight, call_.input[InputIndex(ih, iw, place.channel)]);
    }
    return acc;
  }

  T AddProduct(T acc, T weight, T value) const {
    return datapath_.Accumulate(acc, datapath_.ScaleProduct(datapath_.Multiply(weight, value)));
  }

  int64_t FilterTap(int32_t kh, int32_t kw) const { return int64_t{kh} * columns_.taps + kw; }

  int64_t InputIndex(int32_t ih, int32_t iw, int32_t ic) const {
    const int64_t row = int64_t{image_} * rows_.input + ih;
    return (row * columns_.input + iw) * call_.in_channels + ic;
  }

  int64_t OutputIndex(int32_t row, int32_t column, int32_t channel) const {
    const int64_t output_row = int64_t{image_} * rows_.outputs + row;
    return (output_row * columns_.outputs + column) * call_.out_channels + channel;
  }

  const ConvolutionCall<T>& call_;
  const int32_t image_;
  const WindowAxis rows_;
  const WindowAxis columns_;
  const Datapath<T> datapath_;
  const WeightSign<T> weight_sign_;
  bool weight_corrected_ = false;
};

// One image: computes and writes its outputs and prints its lines.
template <typename T>
void convolveOneImage(const ConvolutionCall<T>& call, int32_t image) {
  ImageConvolution<T>(call, image).Run();
}

// The whole batch, image after image.
template <typename T>
void convolve4DTensorSlow(const ConvolutionCall<T>& call) {
  for (int32_t image = 0; image < call.batch; ++image) convolveOneImage(call, image);
}

}  // namespace bitfold

#endif  // BITFOLD_HCONV2D_H_
