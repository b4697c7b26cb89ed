// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The test oracle of the additions and the convolution as a GPU computes them. Where it computes
// what a CPU does (products, their scaling, the quantiser, integers), the steps are those of
// reference.h. What differs on purpose: a NaN sum has no line and a NaN feed repeat no pass, feeds
// end, the float wrap goes the way of the integers', and a convolution is a matrix product.
//
// Lines come in the order of the output's elements here; a device keeps no order.

#ifndef BITFOLD_TESTS_REFERENCE_DEVICE_H_
#define BITFOLD_TESTS_REFERENCE_DEVICE_H_

#include <cstdint>
#include <string>
#include <vector>

#include "reference.h"

namespace reference {

// The passes of a feed repeat: the first k of 1, 2, ... that is as a float not below it, and at
// most 2^31; none for NaN and what is not positive.
int64_t DevicePasses(float feed_repeat);

// A float sum brought into the range of `width` bits, once.
float DeviceWrap(float sum, int32_t width);

// One addition into the accumulator.
int32_t DeviceAccumulate(int32_t acc, int32_t addend, int32_t width, bool use_fp16_acc,
                         std::string* lines);
float DeviceAccumulate(float acc, float addend, int32_t width, bool use_fp16_acc,
                       std::string* lines);

// The additions, with the arguments of Add, BiasAdd, DecomposedBiasAdd and StandaloneAdd; every
// feed repeat is allowed. T is int32_t or float.
template <typename T>
void DeviceAdd(const T* value, const T* elementwise, T factor, float feed_repeat, int mult_shift,
               int accumulator_size, bool use_fp16_acc, int64_t count, T* out, std::string* lines);
template <typename T>
void DeviceBiasAdd(const T* value, const T* bias, T factor, float feed_repeat, int mult_shift,
                   int accumulator_size, bool use_fp16_acc, int64_t count, int64_t channels, T* out,
                   std::string* lines);
template <typename T>
void DeviceDecomposedBiasAdd(const T* value, const T* bias_a, const T* bias_b, T factor_a,
                             T factor_b, float feed_repeat, int mult_shift, int accumulator_size,
                             bool use_fp16_acc, int64_t count, int64_t channels, T* out,
                             std::string* lines);
template <typename T>
void DeviceStandaloneAdd(const T* value, const T* elementwise, const T* weights, int mult_shift,
                         int accumulator_size, bool use_fp16_acc, int64_t count, int64_t channels,
                         T* out, std::string* lines);

// What is unfolded along one axis: `positions` windows, the first of which has its first tap `pad`
// in front of the input.
struct DeviceUnfolding {
  int32_t pad;
  int32_t positions;
};
DeviceUnfolding UnfoldAxis(int32_t input, int32_t filter, int32_t stride, int32_t dilation,
                           bool same);

// The filter, HWIO, as a row for each output channel: [out][height][in][width].
template <typename T>
std::vector<T> DeviceRows(const Convolution& convolution, const T* filter);

// One image, unfolded: [height][in][width] of the filter, each with a value for every position,
// zero outside the image. Behind the last one zeros, up to what the product reads.
template <typename T>
std::vector<T> DeviceColumns(const Convolution& convolution, const T* image);

// Convolves all images. The layouts are Convolve's; neither the depthwise form nor a filter for
// each image exists, and what says so in `convolution` is not read. Requires at least one position
// along each axis.
template <typename T>
void DeviceConvolve(const Convolution& convolution, const T* input, const T* filter,
                    const T* elementwise, T* output, std::string* lines);

}  // namespace reference

#endif  // BITFOLD_TESTS_REFERENCE_DEVICE_H_
