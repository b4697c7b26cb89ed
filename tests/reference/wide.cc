// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "wide.h"

#include <cstdint>

#include "exact.h"

namespace reference {
namespace {

using exact::Wide;

// The input coordinate of a tap of an output's window along one axis.
int64_t Position(int32_t start, int64_t output, int32_t stride, int64_t tap, int32_t taps,
                 int32_t dilation) {
  const int64_t extent = (int64_t{taps} - 1) * dilation + 1;
  return start - extent / 2 + output * stride + tap * dilation;
}

Wide SumAt(const Convolution& c, const int32_t* input, const int32_t* filter, int64_t oh,
           int64_t ow, int64_t oc) {
  const int32_t start_h =
      StartIndex(c.in_height, c.filter_height, c.stride_h, c.dilation_h, c.same);
  const int32_t start_w = StartIndex(c.in_width, c.filter_width, c.stride_w, c.dilation_w, c.same);
  const int64_t depth = c.is_depthwise ? 1 : c.in_channels;
  Wide sum = 0;
  for (int64_t kh = 0; kh < c.filter_height; ++kh) {
    for (int64_t kw = 0; kw < c.filter_width; ++kw) {
      const int64_t ih = Position(start_h, oh, c.stride_h, kh, c.filter_height, c.dilation_h);
      const int64_t iw = Position(start_w, ow, c.stride_w, kw, c.filter_width, c.dilation_w);
      if (ih < 0 || ih >= c.in_height || iw < 0 || iw >= c.in_width) continue;
      for (int64_t ic = 0; ic < depth; ++ic) {
        const int64_t from = (ih * c.in_width + iw) * c.in_channels + (c.is_depthwise ? oc : ic);
        const int64_t tap = (kh * c.filter_width + kw) * depth + ic;
        const int32_t weight = filter[tap * c.out_channels + oc];
        sum += c.mult_shift == 0 ? Wide{input[from]} * weight
                                 : ShiftInt(Multiply(input[from], weight), c.mult_shift);
      }
    }
  }
  return sum;
}

}  // namespace

void ConvolveWide(const Convolution& c, const int32_t* input, const int32_t* filter,
                  const int64_t* bias, int64_t* output) {
  const int64_t rows = OutputSize(c.in_height, c.filter_height, c.stride_h, c.dilation_h, c.same);
  const int64_t columns = OutputSize(c.in_width, c.filter_width, c.stride_w, c.dilation_w, c.same);
  const int64_t image = static_cast<int64_t>(c.in_height) * c.in_width * c.in_channels;
  for (int64_t i = 0; i < c.batch * rows * columns * c.out_channels; ++i) {
    const int64_t oc = i % c.out_channels;
    const int64_t position = i / c.out_channels;
    const Wide addend = bias == nullptr
                            ? Wide{0}
                            : exact::DivideHalfEven(bias[oc], exact::PowerOfTwo(c.mult_shift));
    const Wide sum = SumAt(c, input + position / columns / rows * image, filter,
                           position / columns % rows, position % columns, oc);
    output[i] = exact::Wrap64(sum + addend);
  }
}

}  // namespace reference
