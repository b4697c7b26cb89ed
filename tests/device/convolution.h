// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// A convolution on the device and in plain loops on the host. The loops share the datapath with the
// kernels, but not their geometry: windows, the matrix of unfolded positions and the order of the
// taps are worked out here once more.

#ifndef BITFOLD_TESTS_DEVICE_CONVOLUTION_H_
#define BITFOLD_TESTS_DEVICE_CONVOLUTION_H_

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "addition.h"
#include "bitfold/convolution_call.h"
#include "bitfold/device_convolution.h"

namespace bitfold::device_test {

// One axis: `outputs` wide is the product, `positions` wide what is unfolded.
struct PlainAxis {
  int outputs;
  int positions;
  int pad;

  PlainAxis(int input, int taps, int stride, int dilation, Padding padding) {
    const int extent = (taps - 1) * dilation + 1;
    const int padded = padding == Padding::kSame ? taps - 1 : 0;
    outputs = (padding == Padding::kSame ? input - 1 : input - extent) / stride + 1;
    positions = (padded + input - extent) / stride + 1;
    pad = padded / 2;
  }
};

struct ConvolutionShape {
  int batch;
  int in_h;
  int in_w;
  int in_c;
  int fh;
  int fw;
  int out_c;
  int stride_h;
  int stride_w;
  int dil_h;
  int dil_w;
  Padding padding;

  PlainAxis rows() const { return {in_h, fh, stride_h, dil_h, padding}; }
  PlainAxis columns() const { return {in_w, fw, stride_w, dil_w, padding}; }

  // A call of this shape, with no pointers yet.
  template <typename T>
  ConvolutionCall<T> Call() const {
    ConvolutionCall<T> call{};
    call.batch = batch;
    call.in_channels = in_c;
    call.out_channels = out_c;
    call.rows = {in_h, fh, stride_h, dil_h, padding};
    call.columns = {in_w, fw, stride_w, dil_w, padding};
    call.filters = 1;
    return call;
  }
};

inline std::string Describe(const ConvolutionShape& s) {
  const auto by = [](int a, int b) { return std::to_string(a) + "x" + std::to_string(b); };
  return "input " + by(s.batch, s.in_h) + "x" + by(s.in_w, s.in_c) + " filter " + by(s.fh, s.fw) +
         "x" + by(s.in_c, s.out_c) + " strides " + by(s.stride_h, s.stride_w) + " dilations " +
         by(s.dil_h, s.dil_w) + (s.padding == Padding::kSame ? " SAME" : " VALID");
}

template <typename T>
struct ConvolutionInputs {
  ConvolutionShape shape;
  std::vector<T> input;
  std::vector<T> filter;
  std::vector<T> elementwise;  // none: null

  int64_t positions() const { return int64_t{shape.rows().outputs} * shape.columns().outputs; }
  int64_t outputs() const { return shape.batch * positions() * shape.out_c; }

  // The matrix of the unfolded image, read where its product reads it: row `k` of rows that are
  // as wide as the product. Rows were written as wide as there are positions; zero behind them.
  T Unfolded(int image, int64_t k, int64_t s) const {
    const PlainAxis h_axis = shape.rows();
    const PlainAxis w_axis = shape.columns();
    const int64_t width = int64_t{h_axis.positions} * w_axis.positions;
    const int64_t place = k * positions() + s;
    const int tap = static_cast<int>(place / width);
    if (tap >= shape.fh * shape.in_c * shape.fw) return T{0};
    const int position = static_cast<int>(place % width);
    const int kw = tap % shape.fw;
    const int ic = tap / shape.fw % shape.in_c;
    const int kh = tap / (shape.fw * shape.in_c);
    const int h = position / w_axis.positions * shape.stride_h - h_axis.pad + kh * shape.dil_h;
    const int w = position % w_axis.positions * shape.stride_w - w_axis.pad + kw * shape.dil_w;
    if (h < 0 || h >= shape.in_h || w < 0 || w >= shape.in_w) return T{0};
    const int64_t row = int64_t{image} * shape.in_h + h;
    return input[static_cast<size_t>((row * shape.in_w + w) * shape.in_c + ic)];
  }

  // The filter as a row for each output channel, its taps in the order (kh, ic, kw).
  std::vector<T> Rows() const {
    std::vector<T> all;
    for (int oc = 0; oc < shape.out_c; ++oc) {
      for (int kh = 0; kh < shape.fh; ++kh) {
        for (int ic = 0; ic < shape.in_c; ++ic) {
          for (int kw = 0; kw < shape.fw; ++kw) {
            const int64_t tap = int64_t{kh} * shape.fw + kw;
            all.push_back(filter[static_cast<size_t>((tap * shape.in_c + ic) * shape.out_c + oc)]);
          }
        }
      }
    }
    return all;
  }

  // The last tile of 16 is filled up with zeros, whose products are added too; the elementwise
  // addend comes after all products.
  std::vector<T> Expected(const Attributes& attributes) const {
    constexpr size_t kTile = 16;
    const DeviceDatapath<T> datapath = MakeDatapath<T>(attributes);
    const std::vector<T> weights = Rows();
    const size_t window = weights.size() / static_cast<size_t>(shape.out_c);
    const size_t padded = (window + kTile - 1) / kTile * kTile;
    std::vector<T> output;
    for (int image = 0; image < shape.batch; ++image) {
      for (int64_t s = 0; s < positions(); ++s) {
        std::vector<T> column(padded, T{0});
        for (size_t k = 0; k < window; ++k) {
          column[k] = Unfolded(image, static_cast<int64_t>(k), s);
        }
        for (size_t oc = 0; oc < static_cast<size_t>(shape.out_c); ++oc) {
          T acc = T{0};
          for (size_t k = 0; k < padded; ++k) {
            const T weight = k < window ? weights[oc * window + k] : T{0};
            acc = datapath.Accumulate(acc, datapath.Product(weight, column[k]));
          }
          if (!elementwise.empty()) acc = datapath.Accumulate(acc, elementwise[output.size()]);
          output.push_back(acc);
        }
      }
    }
    return output;
  }

  std::string Describe(size_t o) const {
    const size_t channels = static_cast<size_t>(shape.out_c);
    const size_t width = static_cast<size_t>(shape.columns().outputs);
    const size_t height = static_cast<size_t>(shape.rows().outputs);
    std::string text = kTypeName<T>;
    text += " " + device_test::Describe(shape) + ", image " +
            std::to_string(o / channels / width / height) + " row " +
            std::to_string(o / channels / width % height) + " column " +
            std::to_string(o / channels % width) + " channel " + std::to_string(o % channels);
    if (!elementwise.empty()) text += " elementwise=" + testing::Show(elementwise[o]);
    return text;
  }
};

// The inputs in device memory, for launches of several attributes.
template <typename T>
class ConvolutionOnDevice {
 public:
  explicit ConvolutionOnDevice(const ConvolutionInputs<T>& inputs)
      : call_(inputs.shape.template Call<T>()),
        sizes_(call_),
        input_(inputs.input),
        filter_(inputs.filter),
        elementwise_(inputs.elementwise),
        rows_(static_cast<size_t>(sizes_.row_elements())),
        columns_(static_cast<size_t>(sizes_.column_elements())),
        mult_shift_(size_t{1}),
        output_(static_cast<size_t>(inputs.outputs())) {
    call_.input = input_.data();
    call_.filter = filter_.data();
    call_.elementwise = elementwise_.data();
  }

  // As the op prepares them: the unfolded image is zeroed only where it is not all written. Here
  // everything else is poisoned, so that a read of what is not written is seen.
  void Prepare(const Attributes& attributes) {
    mult_shift_.Set(static_cast<int8_t>(attributes.mult_shift));
    call_.output = output_.Prepare();
    rows_.FillBytes(0xff);
    columns_.FillBytes(0xff);
    if (sizes_.positions() >= sizes_.outputs()) return;
    is_zeroed_ = ZeroDeviceMemory(Stream(), columns_.data(), columns_.bytes()) == nullptr;
  }

  void Launch(const Attributes& attributes) {
    call_.datapath = {attributes.accumulator_size, mult_shift_.data(), attributes.use_fp16_acc};
    LaunchKer2Row(Stream(), call_, rows_.data());
    LaunchImages<T>(Stream(), call_, rows_.data(), columns_.data());
  }

  std::vector<T> Run(const Attributes& attributes, bool* guard_is_intact) {
    Prepare(attributes);
    Launch(attributes);
    WaitForDevice();
    std::vector<T> output = output_.Take(guard_is_intact);
    *guard_is_intact &= is_zeroed_;
    return output;
  }

 private:
  ConvolutionCall<T> call_;
  DeviceConvolution sizes_;
  Buffer<T> input_;
  Buffer<T> filter_;
  Buffer<T> elementwise_;
  Buffer<T> rows_;
  Buffer<T> columns_;
  Buffer<int8_t> mult_shift_;
  GuardedOutput<T> output_;
  bool is_zeroed_ = true;
};

template <typename T>
ConvolutionInputs<T> DrawConvolution(Random* random, Data data, const ConvolutionShape& shape,
                                     bool has_elementwise) {
  ConvolutionInputs<T> inputs{shape, {}, {}, {}};
  inputs.input =
      DrawMany<T>(random, data, int64_t{shape.batch} * shape.in_h * shape.in_w * shape.in_c);
  inputs.filter =
      DrawMany<T>(random, data, int64_t{shape.fh} * shape.fw * shape.in_c * shape.out_c);
  if (has_elementwise) inputs.elementwise = DrawMany<T>(random, data, inputs.outputs());
  return inputs;
}

}  // namespace bitfold::device_test

#endif  // BITFOLD_TESTS_DEVICE_CONVOLUTION_H_
