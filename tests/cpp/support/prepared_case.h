// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// A prepared layer as its tests see it: one case, computed by the oracle, by the definition and by
// the layer that is made once.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_PREPARED_CASE_H_
#define BITFOLD_TESTS_CPP_SUPPORT_PREPARED_CASE_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "bitfold/HPreparedConvolution.h"
#include "cpu/prepared_convolution.h"
#include "reference.h"
#include "reference/wide.h"
#include "support/bits.h"
#include "support/buffer.h"
#include "support/compare.h"
#include "support/requantise_case.h"
#include "support/warnings.h"

namespace bitfold::testing {

template <typename Out>
struct PreparedOutput {
  ExactBuffer<Out> values;
  std::string lines;
};

// An empty bias is none; one multiplier is for all channels.
template <typename In, typename Out>
struct PreparedCase {
  int32_t batch = 1;
  int32_t in_channels = 1;
  int32_t out_channels = 1;
  LayerAxis rows = {1, 1, 1, 1, 0, 0};
  LayerAxis columns = {1, 1, 1, 1, 0, 0};
  bool is_depthwise = false;
  int32_t zero_point = 0;
  std::vector<In> input;
  std::vector<int8_t> filter;
  std::vector<int32_t> bias;
  std::vector<double> multipliers;
  int32_t accumulator_size = 32;
  int32_t mult_shift = 0;
  bool use_fp16_acc = false;
  RequantiseMode mode = {};        // its shift is the one above
  std::vector<int64_t> wide_bias;  // where the accumulator has 64 bits; then there is no other

  int64_t FilterElements() const { return Layer().FilterElements(); }
  int64_t InputElements() const { return batch * Layer().InputElements(); }
  int64_t count() const { return batch * Layer().OutputElements(); }

  // The wrap of such a bias is not that of the whole sum.
  bool HasWideBias() const {
    return std::any_of(bias.begin(), bias.end(), [this](int64_t b) {
      return accumulator_size < 31 && std::abs(b) > int64_t{1} << accumulator_size;
    });
  }

  // Points to the case.
  PreparedLayer Layer() const {
    RequantiseMode requantise = mode;
    requantise.shift = mult_shift;
    return {in_channels,
            out_channels,
            rows,
            columns,
            is_depthwise,
            zero_point,
            filter.data(),
            bias.empty() ? nullptr : bias.data(),
            multipliers.data(),
            multipliers.size() > 1,
            accumulator_size,
            mult_shift,
            use_fp16_acc,
            requantise,
            wide_bias.empty() ? nullptr : wide_bias.data()};
  }

  std::string Inputs(int64_t i) const {
    const auto axis = [](const char* name, const LayerAxis& a) {
      return std::string("\n  ") + name + (a.padding == Padding::kSame ? ", SAME" : ", VALID") +
             Describe(": input", a.input, "taps", a.taps, "stride", a.stride, "dilation",
                      a.dilation, "before", a.before, "after", a.after);
    };
    const auto channel = static_cast<size_t>(i % out_channels);
    return Describe("image", i / Layer().OutputElements(), "position",
                    i % Layer().OutputElements() / out_channels, "channel",
                    static_cast<int64_t>(channel)) +
           "\n  " +
           Describe("batch", batch, "inputs", in_channels, "outputs", out_channels, "depthwise",
                    is_depthwise, "zero point", zero_point, "width", accumulator_size, "shift",
                    mult_shift, "half", use_fp16_acc) +
           axis("rows", rows) + axis("columns", columns) + "\n  " + NameOf(mode.rescaling) +
           Describe(", bias", bias.empty() ? 0 : bias[channel], "wide bias",
                    wide_bias.empty() ? 0 : wide_bias[channel], "zero point", mode.zero_point,
                    "minimum", mode.minimum, "maximum", mode.maximum);
  }

  PreparedOutput<Out> Definition(int offset = 0) const {
    const ExactBuffer<In> in(input, offset);
    PreparedOutput<Out> out{ExactBuffer<Out>(count(), (offset + 1) % 4), ""};
    out.lines = PrintedAndCountedBy(
        [&] { DefinePreparedConvolution(Layer(), in.data(), batch, out.values.data()); });
    return out;
  }

  // The layer has copied what it was made of.
  std::unique_ptr<const PreparedConvolution<In, Out>> Prepare(Workers* workers) const {
    const ExactBuffer<int8_t> own_filter(filter);
    const ExactBuffer<int32_t> own_bias(bias);
    const ExactBuffer<int64_t> own_wide_bias(wide_bias);
    const ExactBuffer<double> own_multipliers(multipliers);
    PreparedLayer layer = Layer();
    layer.filter = own_filter.data();
    layer.bias = bias.empty() ? nullptr : own_bias.data();
    layer.wide_bias = wide_bias.empty() ? nullptr : own_wide_bias.data();
    layer.multipliers = own_multipliers.data();
    return std::make_unique<const PreparedConvolution<In, Out>>(layer, workers);
  }

  PreparedOutput<Out> By(const PreparedConvolution<In, Out>& layer, Workers* workers,
                         int offset = 0) const {
    const ExactBuffer<In> in(input, offset);
    PreparedOutput<Out> out{ExactBuffer<Out>(count(), (offset + 1) % 4), ""};
    out.lines =
        PrintedAndCountedBy([&] { layer.Run(in.data(), batch, out.values.data(), workers); });
    return out;
  }

  PreparedOutput<Out> Oracle() const {
    PreparedOutput<Out> out{ExactBuffer<Out>(count()), ""};
    for (int32_t image = 0; image < batch; ++image) {
      const std::vector<int64_t> sums =
          Layer().IsWide() ? WideOracleSums(image) : NarrowOracleSums(image, &out.lines);
      OracleRequantise(sums, image, &out);
    }
    return out;
  }

  // How many sums differ from those of full width.
  int64_t OracleWrong() const {
    if (Layer().IsWide()) return 0;
    PreparedCase whole = *this;
    whole.use_fp16_acc = false;
    whole.accumulator_size = kWideAccumulator;
    whole.wide_bias.assign(bias.begin(), bias.end());
    int64_t wrong = 0;
    for (int32_t image = 0; image < batch; ++image) {
      std::string lines;
      const std::vector<int64_t> sums = NarrowOracleSums(image, &lines);
      const std::vector<int64_t> exact = whole.WideOracleSums(image);
      for (size_t i = 0; i < sums.size(); ++i) wrong += sums[i] != exact[i];
    }
    return wrong;
  }

 private:
  // The stored numbers of an image less their zero point, zeros around them.
  template <typename T>
  std::vector<T> Surrounded(int32_t image) const {
    const int64_t width = columns.before + int64_t{columns.input} + columns.after;
    const int64_t height = rows.before + int64_t{rows.input} + rows.after;
    std::vector<T> result(static_cast<size_t>(height * width * in_channels));
    for (int64_t r = 0; r < rows.input; ++r) {
      for (int64_t c = 0; c < columns.input; ++c) {
        for (int64_t k = 0; k < in_channels; ++k) {
          const int64_t from = ((image * rows.input + r) * columns.input + c) * in_channels + k;
          const int64_t to = ((r + rows.before) * width + c + columns.before) * in_channels + k;
          result[static_cast<size_t>(to)] =
              static_cast<T>(int32_t{input[static_cast<size_t>(from)]} - zero_point);
        }
      }
    }
    return result;
  }

  // As the convolutions take them: in half precision what products are divided by.
  int32_t OracleShift() const {
    return use_fp16_acc && mult_shift > 0 ? 1 << mult_shift : mult_shift;
  }

  reference::Convolution OracleConvolution() const {
    reference::Convolution c = {};
    c.batch = 1;
    c.in_height = rows.before + rows.input + rows.after;
    c.in_width = columns.before + columns.input + columns.after;
    c.in_channels = in_channels;
    c.filter_height = rows.taps;
    c.filter_width = columns.taps;
    c.out_channels = out_channels;
    c.accumulator_size = accumulator_size;
    c.same = rows.padding == Padding::kSame;
    c.stride_h = rows.stride;
    c.stride_w = columns.stride;
    c.dilation_h = rows.dilation;
    c.dilation_w = columns.dilation;
    c.mult_shift = OracleShift();
    c.use_fp16_acc = use_fp16_acc;
    c.is_depthwise = is_depthwise;
    return c;
  }

  template <typename T>
  std::vector<int64_t> OracleSums(int32_t image, std::string* lines) const {
    const int64_t count = Layer().OutputElements();
    const std::vector<T> data = Surrounded<T>(image);
    const std::vector<T> weights(filter.begin(), filter.end());
    std::vector<T> sums(static_cast<size_t>(count));
    reference::Convolve<T>(OracleConvolution(), data.data(), weights.data(), nullptr, sums.data(),
                           lines);
    if (!bias.empty()) {
      const std::vector<T> addends(bias.begin(), bias.end());
      const std::vector<T> before = sums;
      reference::BiasAdd<T>(before.data(), addends.data(), T{1}, 1.0f, OracleShift(),
                            accumulator_size, use_fp16_acc, count, out_channels, sums.data(),
                            lines);
    }
    return {sums.begin(), sums.end()};
  }

  std::vector<int64_t> NarrowOracleSums(int32_t image, std::string* lines) const {
    return use_fp16_acc ? OracleSums<float>(image, lines) : OracleSums<int32_t>(image, lines);
  }

  std::vector<int64_t> WideOracleSums(int32_t image) const {
    const std::vector<int32_t> data = Surrounded<int32_t>(image);
    const std::vector<int32_t> weights(filter.begin(), filter.end());
    std::vector<int64_t> sums(static_cast<size_t>(Layer().OutputElements()));
    reference::ConvolveWide(OracleConvolution(), data.data(), weights.data(),
                            wide_bias.empty() ? nullptr : wide_bias.data(), sums.data());
    return sums;
  }

  void OracleRequantise(const std::vector<int64_t>& sums, int32_t image,
                        PreparedOutput<Out>* out) const {
    const int64_t count = Layer().OutputElements();
    const reference::RequantiseSettings settings = {OracleRounding(mode.rescaling), mult_shift,
                                                    mode.zero_point, mode.minimum, mode.maximum};
    for (int64_t i = 0; i < count; ++i) {
      const double multiplier =
          multipliers[multipliers.size() > 1 ? static_cast<size_t>(i % out_channels) : 0];
      int32_t result = 0;
      const auto status =
          reference::Requantise(sums[static_cast<size_t>(i)], multiplier, settings, &result);
      EXPECT_EQ(status, reference::RequantiseStatus::kOk) << Inputs(image * count + i);
      out->values[image * count + i] = static_cast<Out>(result);
    }
  }
};

// Values, and lines: of several images in any order where they may run at the same time.
template <typename In, typename Out>
::testing::AssertionResult SamePrepared(const PreparedCase<In, Out>& c,
                                        const PreparedOutput<Out>& expected,
                                        const PreparedOutput<Out>& actual, const std::string& path,
                                        bool is_in_order) {
  const auto values = SameArrays(expected.values.data(), actual.values.data(), c.count(), path,
                                 [&c](int64_t i) { return c.Inputs(i); });
  if (!values) return values;
  return is_in_order || c.batch == 1 ? SameText(expected.lines, actual.lines, path + c.Inputs(0))
                                     : SameLines(expected.lines, actual.lines, path + c.Inputs(0));
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_PREPARED_CASE_H_
