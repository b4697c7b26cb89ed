// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HPreparedConvolution: a layer of a quantised network from stored integers to stored integers, the
// definition: the sums of HConv2d, HConv2dDilation or HDepthWise, then HBiasAdd, then HRequantise;
// or sums of 64 bits, which no accumulator wraps.

#ifndef BITFOLD_HPREPARED_CONVOLUTION_H_
#define BITFOLD_HPREPARED_CONVOLUTION_H_

#include <algorithm>
#include <cstdint>
#include <vector>

#include "bitfold/HBiasAdd.h"
#include "bitfold/HConv2D.h"
#include "bitfold/HRequantise.h"
#include "bitfold/convolution_call.h"
#include "bitfold/datapath_attributes.h"
#include "bitfold/geometry.h"
#include "bitfold/int64_arithmetic.h"
#include "bitfold/prepared_arithmetic.h"
#include "bitfold/product_scaling.h"

namespace bitfold {

// One axis of a layer's windows: they lie as the padding says in the input's rows and the zeros
// before and after these. What SAME windows meet beyond is no addend, as a zero is: of sums outside
// the accumulator's range that makes a difference.
struct LayerAxis {
  int32_t input;
  int32_t taps;
  int32_t stride;
  int32_t dilation;
  int32_t before;
  int32_t after;
  Padding padding = Padding::kValid;

  int32_t padded() const { return input + before + after; }
  ConvolutionAxis OfPadded() const { return {padded(), taps, stride, dilation, padding}; }
  int32_t outputs() const { return getOutputSize(OfPadded()); }
};

// The windows over the input itself, whose first taps may lie outside.
inline WindowAxis WindowOf(const LayerAxis& axis) {
  WindowAxis window(axis.OfPadded());
  window.input = axis.input;
  window.first -= axis.before;
  return window;
}

// The accumulator_size of sums of 64 bits.
inline constexpr int32_t kWideAccumulator = 64;

// A layer and what it is made of. Requires
//   axes        of one padding and at least one output; sizes of at least 1, zeros around of at
//               least 0, and sums of all that stay below 2^30;
//   filter      HWIO, or, depthwise, HWO, numbers of 8 bits with a sign;
//   bias        null or of out_channels;
//   multipliers one or, per_channel, out_channels, for which the rescaling is defined; two
//               roundings or, of any sums, one of the others;
//   depthwise:  out_channels <= in_channels;
//   wide sums:  one of the other roundings, no half precision, the wide bias instead of the other,
//               and a shift from 0 to 31.
struct PreparedLayer {
  int32_t in_channels;
  int32_t out_channels;
  LayerAxis rows;
  LayerAxis columns;
  bool is_depthwise;
  int32_t zero_point;  // of the input
  const int8_t* filter;
  const int32_t* bias;
  const double* multipliers;
  bool per_channel;
  int32_t accumulator_size;
  int32_t mult_shift;  // by bits; in half precision products are divided by 2^mult_shift
  bool use_fp16_acc;   // on float sums
  RequantiseMode requantise;
  const int64_t* wide_bias = nullptr;

  bool IsWide() const { return accumulator_size == kWideAccumulator; }
  int64_t FilterElements() const {
    return int64_t{rows.taps} * columns.taps * (is_depthwise ? 1 : in_channels) * out_channels;
  }
  int64_t InputElements() const { return int64_t{rows.input} * columns.input * in_channels; }
  int64_t PaddedElements() const { return int64_t{rows.padded()} * columns.padded() * in_channels; }
  int64_t Positions() const { return int64_t{rows.outputs()} * columns.outputs(); }
  int64_t OutputElements() const { return Positions() * out_channels; }

  int8_t Shift() const { return ShiftOfDatapath(mult_shift, use_fp16_acc); }
};

// An image as the convolutions take it: numbers less their zero point, surrounded by zeros. `out`
// holds PaddedElements().
template <typename In, typename T>
void PadImage(const PreparedLayer& layer, const In* image, T* out) {
  const int64_t row = int64_t{layer.columns.padded()} * layer.in_channels;
  const int64_t used = int64_t{layer.columns.input} * layer.in_channels;
  const int64_t before = int64_t{layer.columns.before} * layer.in_channels;
  std::fill_n(out, layer.PaddedElements(), T{0});
  out += layer.rows.before * row + before;
  for (int32_t r = 0; r < layer.rows.input; ++r, image += used, out += row) {
    std::transform(image, image + used, out,
                   [&layer](In x) { return static_cast<T>(int32_t{x} - layer.zero_point); });
  }
}

// The convolution of one padded image.
template <typename T>
ConvolutionCall<T> ConvolutionOf(const PreparedLayer& layer, const int8_t* shift) {
  return {nullptr,
          nullptr,
          nullptr,
          nullptr,
          1,
          layer.in_channels,
          layer.out_channels,
          layer.rows.OfPadded(),
          layer.columns.OfPadded(),
          layer.is_depthwise,
          1,
          {layer.accumulator_size, shift, layer.use_fp16_acc}};
}

// The sums of an image with their bias, in T: int32_t or, in half precision, float.
template <typename T, typename In>
std::vector<int32_t> DefinePreparedSums(const PreparedLayer& layer, const In* image) {
  const int8_t shift = layer.Shift();
  std::vector<T> padded(static_cast<size_t>(layer.PaddedElements()));
  std::vector<T> sums(static_cast<size_t>(layer.OutputElements()));
  const std::vector<T> filter(layer.filter, layer.filter + layer.FilterElements());
  PadImage(layer, image, padded.data());
  ConvolutionCall<T> call = ConvolutionOf<T>(layer, &shift);
  call.input = padded.data();
  call.filter = filter.data();
  call.output = sums.data();
  convolveOneImage(call, 0);
  if (layer.bias != nullptr) {
    const std::vector<T> bias(layer.bias, layer.bias + layer.out_channels);
    const T factor = T{1};
    const float once = 1.0f;
    const auto value = sums;
    DefineBiasAdd<T>({value.data(), bias.data(), &factor, &once, sums.data(),
                      AdditionShape{1, 1, 1, layer.out_channels}, call.datapath},
                     0, layer.OutputElements(), EveryPass{});
  }
  return {sums.begin(), sums.end()};
}

// The outputs of an image's sums, of int32_t or int64_t.
template <typename Sum, typename Out>
void RequantiseSums(const PreparedLayer& layer, const std::vector<Sum>& sums, Out* output) {
  DefineRequantise<Sum, Out>({sums.data(), output, layer.Positions(), layer.out_channels,
                              layer.multipliers, layer.per_channel, layer.requantise});
}

// A sum of 64 bits, of a padded image: products as the convolutions scale them.
inline int64_t DefineWideSum(const PreparedLayer& layer, const int32_t* padded, int64_t position,
                             int32_t channel) {
  const WindowAxis rows(layer.rows.OfPadded());
  const WindowAxis columns(layer.columns.OfPadded());
  const int32_t depth = layer.is_depthwise ? 1 : layer.in_channels;
  int64_t sum = 0;
  for (int32_t kh = 0; kh < rows.taps; ++kh) {
    const int32_t row = rows.Coordinate(static_cast<int32_t>(position / columns.outputs), kh);
    for (int32_t kw = 0; rows.Contains(row) && kw < columns.taps; ++kw) {
      const int32_t column =
          columns.Coordinate(static_cast<int32_t>(position % columns.outputs), kw);
      if (!columns.Contains(column)) continue;
      const int64_t pixel = (int64_t{row} * columns.input + column) * layer.in_channels;
      const int32_t* data = padded + pixel + (layer.is_depthwise ? channel : 0);
      const int64_t tap = (int64_t{kh} * columns.taps + kw) * depth;
      for (int32_t c = 0; c < depth; ++c) {
        const auto weight = int32_t{layer.filter[(tap + c) * layer.out_channels + channel]};
        sum += ShiftRoundHalfToEven(data[c] * weight, layer.mult_shift);
      }
    }
  }
  return sum;
}

// One image of a layer of wide sums.
template <typename In, typename Out>
void DefineWideImage(const PreparedLayer& layer, const In* image, Out* output) {
  std::vector<int32_t> padded(static_cast<size_t>(layer.PaddedElements()));
  std::vector<int64_t> sums(static_cast<size_t>(layer.OutputElements()));
  PadImage(layer, image, padded.data());
  for (int64_t i = 0; i < layer.OutputElements(); ++i) {
    const auto channel = static_cast<int32_t>(i % layer.out_channels);
    const int64_t sum = DefineWideSum(layer, padded.data(), i / layer.out_channels, channel);
    const int64_t bias = layer.wide_bias == nullptr ? 0 : layer.wide_bias[channel];
    sums[static_cast<size_t>(i)] = WrapAdd64(sum, ShiftRoundHalfToEven64(bias, layer.mult_shift));
  }
  RequantiseSums(layer, sums, output);
}

// The op; the definition.
template <typename In, typename Out>
void DefinePreparedConvolution(const PreparedLayer& layer, const In* input, int32_t batch,
                               Out* output) {
  for (int32_t image = 0; image < batch; ++image) {
    const In* from = input + image * layer.InputElements();
    Out* to = output + image * layer.OutputElements();
    if (layer.IsWide()) {
      DefineWideImage(layer, from, to);
    } else if (layer.use_fp16_acc) {
      RequantiseSums(layer, DefinePreparedSums<float>(layer, from), to);
    } else {
      RequantiseSums(layer, DefinePreparedSums<int32_t>(layer, from), to);
    }
  }
}

}  // namespace bitfold

#endif  // BITFOLD_HPREPARED_CONVOLUTION_H_
