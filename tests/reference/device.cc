// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The device oracle. The unfolded image and the rows are written down in their order, one element
// after the other; the product finds its own elements by index.

#include "device.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <string>
#include <vector>

#include "exact.h"
#include "reference.h"

namespace reference {
namespace {

using exact::Difference;
using exact::Round;
using exact::Sum;
using exact::ToFloat;
using exact::Wide;
using exact::Wrap32;

// The side of a tile of the matrix product.
constexpr int64_t kTile = 16;

// Half of an accumulator's span: infinite where single precision cannot hold it.
float HalfSpan(int32_t width) { return Round(std::ldexp(1.0, width - 1)); }

// A line for a sum that is at least 8388607 or below -8388607.
void ReportSum(float sum, std::string* lines) {
  if (lines == nullptr || !(double{sum} >= 8388607.0 || double{sum} < -8388607.0)) return;
  char text[256];
  std::snprintf(text, sizeof(text), "@@@ WARNING: acc %f is out of bounds <%d,%d>\n", double{sum},
                -8388607, 8388607);
  *lines += text;
}

int32_t Initial(int32_t value, bool use_fp16_acc) {
  return use_fp16_acc ? exact::ToInt32(QuantiseHalf(ToFloat(value))) : value;
}

float Initial(float value, bool use_fp16_acc) { return use_fp16_acc ? QuantiseHalf(value) : value; }

// One element of an addition with a feed; every pass adds all addends.
template <typename T>
T Feed(T value, std::initializer_list<T> addends, float feed_repeat, int accumulator_size,
       bool use_fp16_acc, std::string* lines) {
  T acc = Initial(value, use_fp16_acc);
  for (int64_t pass = DevicePasses(feed_repeat); pass > 0; --pass) {
    for (const T addend : addends) {
      acc = DeviceAccumulate(acc, addend, accumulator_size, use_fp16_acc, lines);
    }
  }
  return acc;
}

// The number of positions of an output along each axis, as the product knows it.
int64_t Outputs(const Convolution& c) {
  return int64_t{OutputSize(c.in_height, c.filter_height, c.stride_h, c.dilation_h, c.same)} *
         OutputSize(c.in_width, c.filter_width, c.stride_w, c.dilation_w, c.same);
}

int64_t WindowElements(const Convolution& c) {
  return int64_t{c.filter_height} * c.filter_width * c.in_channels;
}

}  // namespace

int64_t DevicePasses(float feed_repeat) {
  const double repeat = feed_repeat;
  if (!(repeat > 0.0)) return 0;
  if (repeat <= 16777216.0) return static_cast<int64_t>(std::ceil(repeat));
  if (repeat > 2147483648.0) return 2147483648;
  // From 2^24 on a count becomes `repeat` from half way between it and the float below on, or from
  // the count after that where the half way one goes down to the even of the two.
  const double below = std::nextafter(feed_repeat, 0.0F);
  const auto half_way = static_cast<int64_t>(std::ceil((below + repeat) / 2.0));
  return ToFloat(half_way) >= feed_repeat ? half_way : half_way + 1;
}

float DeviceWrap(float sum, int32_t width) {
  const float lowest = -HalfSpan(width);
  const float highest = Difference(HalfSpan(width), 1.0F);
  if (sum > highest) return Sum(Difference(Difference(sum, highest), 1.0F), lowest);
  if (sum < lowest) return Sum(Sum(Difference(sum, lowest), 1.0F), highest);
  return sum;
}

int32_t DeviceAccumulate(int32_t acc, int32_t addend, int32_t width, bool /*use_fp16_acc*/,
                         std::string* /*lines*/) {
  const Wide highest = exact::ToInt32(double{HalfSpan(width)} - 1.0);
  const Wide lowest = exact::ToInt32(-double{HalfSpan(width)});
  const int32_t sum = Wrap32(Wide{acc} + addend);
  if (sum > highest) return Wrap32(sum + (lowest - highest - 1));
  if (sum < lowest) return Wrap32(sum + (highest - lowest + 1));
  return sum;
}

float DeviceAccumulate(float acc, float addend, int32_t width, bool use_fp16_acc,
                       std::string* lines) {
  const float sum = Sum(acc, addend);
  ReportSum(sum, lines);
  if (use_fp16_acc) return QuantiseHalf(Sum(acc, QuantiseHalf(addend)));
  return DeviceWrap(sum, width);
}

template <typename T>
void DeviceAdd(const T* value, const T* elementwise, T factor, float feed_repeat, int mult_shift,
               int accumulator_size, bool use_fp16_acc, int64_t count, T* out, std::string* lines) {
  for (int64_t i = 0; i < count; ++i) {
    const T addend = ScaledProduct(elementwise[i], factor, mult_shift);
    out[i] = Feed(value[i], {addend}, feed_repeat, accumulator_size, use_fp16_acc, lines);
  }
}

template <typename T>
void DeviceBiasAdd(const T* value, const T* bias, T factor, float feed_repeat, int mult_shift,
                   int accumulator_size, bool use_fp16_acc, int64_t count, int64_t channels, T* out,
                   std::string* lines) {
  for (int64_t i = 0; i < count; ++i) {
    const T addend = ScaledProduct(bias[i % channels], factor, mult_shift);
    out[i] = Feed(value[i], {addend}, feed_repeat, accumulator_size, use_fp16_acc, lines);
  }
}

template <typename T>
void DeviceDecomposedBiasAdd(const T* value, const T* bias_a, const T* bias_b, T factor_a,
                             T factor_b, float feed_repeat, int mult_shift, int accumulator_size,
                             bool use_fp16_acc, int64_t count, int64_t channels, T* out,
                             std::string* lines) {
  for (int64_t i = 0; i < count; ++i) {
    const T a = ScaledProduct(bias_a[i % channels], factor_a, mult_shift);
    const T b = ScaledProduct(bias_b[i % channels], factor_b, mult_shift);
    out[i] = Feed(value[i], {a, b}, feed_repeat, accumulator_size, use_fp16_acc, lines);
  }
}

template <typename T>
void DeviceStandaloneAdd(const T* value, const T* elementwise, const T* weights, int mult_shift,
                         int accumulator_size, bool use_fp16_acc, int64_t count, int64_t channels,
                         T* out, std::string* lines) {
  for (int64_t i = 0; i < count; ++i) {
    const T a = ScaledProduct(value[i], weights[i % channels], mult_shift);
    const T b = ScaledProduct(elementwise[i], weights[channels + i % channels], mult_shift);
    out[i] = DeviceAccumulate(a, b, accumulator_size, use_fp16_acc, lines);
  }
}

DeviceUnfolding UnfoldAxis(int32_t input, int32_t filter, int32_t stride, int32_t dilation,
                           bool same) {
  const Wide last_tap = Wide{filter} - 1;
  const Wide padded = Wide{input} + (same ? last_tap : 0);
  const int32_t room = Wrap32(padded - (last_tap * dilation + 1));
  return {same ? static_cast<int32_t>(last_tap / 2) : 0, Wrap32(Wide{room} / stride + 1)};
}

template <typename T>
std::vector<T> DeviceRows(const Convolution& c, const T* filter) {
  std::vector<T> rows;
  for (int64_t oc = 0; oc < c.out_channels; ++oc) {
    for (int64_t kh = 0; kh < c.filter_height; ++kh) {
      for (int64_t ic = 0; ic < c.in_channels; ++ic) {
        for (int64_t kw = 0; kw < c.filter_width; ++kw) {
          const int64_t tap = (kh * c.filter_width + kw) * c.in_channels + ic;
          rows.push_back(filter[tap * c.out_channels + oc]);
        }
      }
    }
  }
  return rows;
}

template <typename T>
std::vector<T> DeviceColumns(const Convolution& c, const T* image) {
  const auto h = UnfoldAxis(c.in_height, c.filter_height, c.stride_h, c.dilation_h, c.same);
  const auto w = UnfoldAxis(c.in_width, c.filter_width, c.stride_w, c.dilation_w, c.same);
  std::vector<T> columns;
  const auto unfold_tap = [&](int64_t kh, int64_t ic, int64_t kw) {
    for (int64_t oh = 0; oh < h.positions; ++oh) {
      for (int64_t ow = 0; ow < w.positions; ++ow) {
        const int32_t row = Wrap32(Wide{oh} * c.stride_h - h.pad + Wide{kh} * c.dilation_h);
        const int32_t column = Wrap32(Wide{ow} * c.stride_w - w.pad + Wide{kw} * c.dilation_w);
        const bool inside = row >= 0 && row < c.in_height && column >= 0 && column < c.in_width;
        const int64_t pixel = int64_t{row} * c.in_width + column;
        columns.push_back(inside ? image[pixel * c.in_channels + ic] : T{0});
      }
    }
  };
  for (int64_t kh = 0; kh < c.filter_height; ++kh) {
    for (int64_t ic = 0; ic < c.in_channels; ++ic) {
      for (int64_t kw = 0; kw < c.filter_width; ++kw) unfold_tap(kh, ic, kw);
    }
  }
  const auto read = static_cast<size_t>(WindowElements(c) * Outputs(c));
  columns.resize(std::max(columns.size(), read), T{0});
  return columns;
}

template <typename T>
void DeviceConvolve(const Convolution& c, const T* input, const T* filter, const T* elementwise,
                    T* output, std::string* lines) {
  const int64_t window = WindowElements(c);
  const int64_t outputs = Outputs(c);
  // Whole tiles, and one even for a window of no element; what lies beyond the window is zero.
  const int64_t chain = kTile * (window > 0 ? (window + kTile - 1) / kTile : 1);
  const std::vector<T> rows = DeviceRows(c, filter);
  for (int64_t image = 0; image < c.batch; ++image) {
    const int64_t pixels = int64_t{c.in_height} * c.in_width;
    const std::vector<T> columns = DeviceColumns(c, input + image * pixels * c.in_channels);
    for (int64_t o = 0; o < outputs * c.out_channels; ++o) {
      const int64_t position = o / c.out_channels;
      const int64_t channel = o % c.out_channels;
      const int64_t at = image * outputs * c.out_channels + o;
      T acc = T{0};
      for (int64_t k = 0; k < chain; ++k) {
        const T a = k < window ? rows[static_cast<size_t>(channel * window + k)] : T{0};
        const T b = k < window ? columns[static_cast<size_t>(k * outputs + position)] : T{0};
        const T product = ScaledProduct(a, b, c.mult_shift);
        acc = DeviceAccumulate(acc, product, c.accumulator_size, c.use_fp16_acc, lines);
      }
      if (elementwise != nullptr) {
        acc = DeviceAccumulate(acc, elementwise[at], c.accumulator_size, c.use_fp16_acc, lines);
      }
      output[at] = acc;
    }
  }
}

template void DeviceAdd<int32_t>(const int32_t*, const int32_t*, int32_t, float, int, int, bool,
                                 int64_t, int32_t*, std::string*);
template void DeviceAdd<float>(const float*, const float*, float, float, int, int, bool, int64_t,
                               float*, std::string*);
template void DeviceBiasAdd<int32_t>(const int32_t*, const int32_t*, int32_t, float, int, int, bool,
                                     int64_t, int64_t, int32_t*, std::string*);
template void DeviceBiasAdd<float>(const float*, const float*, float, float, int, int, bool,
                                   int64_t, int64_t, float*, std::string*);
template void DeviceDecomposedBiasAdd<int32_t>(const int32_t*, const int32_t*, const int32_t*,
                                               int32_t, int32_t, float, int, int, bool, int64_t,
                                               int64_t, int32_t*, std::string*);
template void DeviceDecomposedBiasAdd<float>(const float*, const float*, const float*, float, float,
                                             float, int, int, bool, int64_t, int64_t, float*,
                                             std::string*);
template void DeviceStandaloneAdd<int32_t>(const int32_t*, const int32_t*, const int32_t*, int, int,
                                           bool, int64_t, int64_t, int32_t*, std::string*);
template void DeviceStandaloneAdd<float>(const float*, const float*, const float*, int, int, bool,
                                         int64_t, int64_t, float*, std::string*);
template std::vector<int32_t> DeviceRows<int32_t>(const Convolution&, const int32_t*);
template std::vector<float> DeviceRows<float>(const Convolution&, const float*);
template std::vector<int32_t> DeviceColumns<int32_t>(const Convolution&, const int32_t*);
template std::vector<float> DeviceColumns<float>(const Convolution&, const float*);
template void DeviceConvolve<int32_t>(const Convolution&, const int32_t*, const int32_t*,
                                      const int32_t*, int32_t*, std::string*);
template void DeviceConvolve<float>(const Convolution&, const float*, const float*, const float*,
                                    float*, std::string*);

}  // namespace reference
