// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The convolution as its tests see it: one case, computed by the oracle, by the definition image by
// image, and by threads of both kinds.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_CONVOLUTION_H_
#define BITFOLD_TESTS_CPP_SUPPORT_CONVOLUTION_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "bitfold/HConv2D.h"
#include "cpu/convolution.h"
#include "cpu/image_threads.h"
#include "reference.h"
#include "support/bits.h"
#include "support/buffer.h"
#include "support/compare.h"
#include "support/random.h"
#include "support/tables.h"
#include "support/warnings.h"

namespace bitfold::testing {

inline int64_t OutHeight(const reference::Convolution& c) {
  return std::max(
      0, reference::OutputSize(c.in_height, c.filter_height, c.stride_h, c.dilation_h, c.same));
}

inline int64_t OutWidth(const reference::Convolution& c) {
  return std::max(
      0, reference::OutputSize(c.in_width, c.filter_width, c.stride_w, c.dilation_w, c.same));
}

inline int64_t OutputCount(const reference::Convolution& c) {
  return c.batch * OutHeight(c) * OutWidth(c) * c.out_channels;
}

inline int64_t InputCount(const reference::Convolution& c) {
  return int64_t{c.batch} * c.in_height * c.in_width * c.in_channels;
}

inline int64_t FilterCount(const reference::Convolution& c) {
  const int64_t channels = c.is_depthwise ? 1 : c.in_channels;
  const int64_t filters = c.filter_per_image ? c.batch : 1;
  return filters * std::max(0, c.filter_height) * std::max(0, c.filter_width) * channels *
         c.out_channels;
}

// Strides, dilations and widths that change nothing; the shapes are the caller's.
inline reference::Convolution Plain(int32_t height, int32_t width, int32_t in_channels,
                                    int32_t filter_height, int32_t filter_width,
                                    int32_t out_channels) {
  reference::Convolution c = {};
  c.batch = 1;
  c.in_height = height;
  c.in_width = width;
  c.in_channels = in_channels;
  c.filter_height = filter_height;
  c.filter_width = filter_width;
  c.out_channels = out_channels;
  c.accumulator_size = 32;
  c.stride_h = c.stride_w = c.dilation_h = c.dilation_w = 1;
  return c;
}

inline std::string Describe(const reference::Convolution& c) {
  return Describe("batch", c.batch, "height", c.in_height, "width", c.in_width, "channels",
                  c.in_channels, "filter_height", c.filter_height, "filter_width", c.filter_width,
                  "out_channels", c.out_channels, "accumulator", c.accumulator_size) +
         "\n  " +
         Describe("stride_h", c.stride_h, "stride_w", c.stride_w, "dilation_h", c.dilation_h,
                  "dilation_w", c.dilation_w, "same", c.same, "shift", c.mult_shift, "fp16",
                  c.use_fp16_acc, "depthwise", c.is_depthwise, "per_image", c.filter_per_image);
}

template <typename T>
struct ConvolutionData {
  std::vector<T> input;
  std::vector<T> filter;
  std::vector<T> elementwise;  // empty: none
};

template <typename T>
ConvolutionData<T> DrawConvolution(Random* random, const reference::Convolution& c, Data data,
                                   bool elementwise) {
  return {DrawMany<T>(random, data, InputCount(c)), DrawMany<T>(random, data, FilterCount(c)),
          DrawMany<T>(random, data, elementwise ? OutputCount(c) : 0)};
}

template <typename T>
struct ConvolutionOutput {
  ExactBuffer<T> values;
  std::string lines;
};

template <typename T>
ConvolutionOutput<T> OracleConvolution(const reference::Convolution& c,
                                       const ConvolutionData<T>& data) {
  ConvolutionOutput<T> out{ExactBuffer<T>(OutputCount(c)), ""};
  reference::Convolve<T>(c, data.input.data(), data.filter.data(),
                         data.elementwise.empty() ? nullptr : data.elementwise.data(),
                         out.values.data(), &out.lines);
  return out;
}

// The record of a call, whose memory and shift, an int8, are the caller's.
template <typename T>
ConvolutionCall<T> CallOf(const reference::Convolution& c, const ConvolutionData<T>& data,
                          T* output, const int8_t* mult_shift) {
  const Padding padding = c.same ? Padding::kSame : Padding::kValid;
  const bool has_filters = c.is_depthwise && c.filter_per_image;
  return {data.input.data(),
          data.filter.data(),
          data.elementwise.empty() ? nullptr : data.elementwise.data(),
          output,
          c.batch,
          c.in_channels,
          c.out_channels,
          {c.in_height, c.filter_height, c.stride_h, c.dilation_h, padding},
          {c.in_width, c.filter_width, c.stride_w, c.dilation_w, padding},
          c.is_depthwise,
          has_filters ? c.batch : 1,
          {c.accumulator_size, mult_shift, c.use_fp16_acc}};
}

// The same for a call whose buffers are misaligned by `offset`.
template <typename T>
class MisalignedCall {
 public:
  MisalignedCall(const reference::Convolution& c, const ConvolutionData<T>& data, int offset)
      : mult_shift_(std::vector<int8_t>{static_cast<int8_t>(c.mult_shift)}),
        input_(data.input, offset),
        filter_(data.filter, (offset + 1) % 4),
        elementwise_(data.elementwise, (offset + 2) % 4),
        call_(CallOf<T>(c, data, nullptr, mult_shift_.data())) {
    call_.input = input_.data();
    call_.filter = filter_.data();
    if (call_.elementwise != nullptr) call_.elementwise = elementwise_.data();
  }
  MisalignedCall(const MisalignedCall&) = delete;
  MisalignedCall& operator=(const MisalignedCall&) = delete;

  ConvolutionCall<T> To(T* output) const {
    ConvolutionCall<T> call = call_;
    call.output = output;
    return call;
  }

 private:
  const ExactBuffer<int8_t> mult_shift_;
  const ExactBuffer<T> input_;
  const ExactBuffer<T> filter_;
  const ExactBuffer<T> elementwise_;
  ConvolutionCall<T> call_;
};

// The definition, image after image on this thread; `offset` misaligns the buffers.
template <typename T>
ConvolutionOutput<T> DefinedConvolution(const reference::Convolution& c,
                                        const ConvolutionData<T>& data, int offset = 0) {
  const MisalignedCall<T> call(c, data, offset);
  ConvolutionOutput<T> out{ExactBuffer<T>(OutputCount(c), (offset + 3) % 4), ""};
  out.lines = PrintedAndCountedBy([&] { convolve4DTensorSlow(call.To(out.values.data())); });
  return out;
}

template <typename T>
ConvolutionOutput<T> ThreadedConvolution(const reference::Convolution& c,
                                         const ConvolutionData<T>& data, CreateThread create) {
  ConvolutionOutput<T> out{ExactBuffer<T>(OutputCount(c)), ""};
  HeapScratch scratch;
  const auto mult_shift = static_cast<int8_t>(c.mult_shift);
  const ConvolutionCall<T> call = CallOf<T>(c, data, out.values.data(), &mult_shift);
  out.lines = PrintedAndCountedBy([&] { ComputeByImageThreads(call, &scratch, create); });
  return out;
}

template <typename T>
ConvolutionOutput<T> SharedConvolution(const reference::Convolution& c,
                                       const ConvolutionData<T>& data, Workers* workers) {
  ConvolutionOutput<T> out{ExactBuffer<T>(OutputCount(c)), ""};
  HeapScratch scratch;
  const auto mult_shift = static_cast<int8_t>(c.mult_shift);
  const ConvolutionCall<T> call = CallOf<T>(c, data, out.values.data(), &mult_shift);
  out.lines = PrintedAndCountedBy([&] { ComputeConvolution(call, &scratch, workers); });
  return out;
}

template <typename T>
::testing::AssertionResult SameConvolutions(const reference::Convolution& c, const T* expected,
                                            const T* actual, const std::string& path) {
  return SameArrays(expected, actual, OutputCount(c), path, [&c](int64_t i) {
    const int64_t column = i / c.out_channels;
    const int64_t row = column / OutWidth(c);
    return Describe("image", row / OutHeight(c), "row", row % OutHeight(c), "column",
                    column % OutWidth(c), "channel", i % c.out_channels) +
           "\n  " + Describe(c);
  });
}

// The definition against the oracle: values and printed text.
template <typename T>
::testing::AssertionResult CheckConvolution(const reference::Convolution& c,
                                            const ConvolutionData<T>& data, int offset = 0) {
  const ConvolutionOutput<T> expected = OracleConvolution(c, data);
  const ConvolutionOutput<T> actual = DefinedConvolution(c, data, offset);
  const auto values =
      SameConvolutions(c, expected.values.data(), actual.values.data(), "convolve4DTensorSlow");
  if (!values) return values;
  return SameText(expected.lines, actual.lines, "convolve4DTensorSlow " + Describe(c));
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_CONVOLUTION_H_
