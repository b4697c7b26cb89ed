// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The test oracle of the addition and convolution operations: an arithmetic model that the tests
// compare with the library on bits, and the steps that the other accumulating oracles take from it.
// It is slow and plain on purpose and shares no code with the library: integers are computed
// exactly in a wide type and reduced modulo 2^32 by arithmetic, single precision is computed in
// double precision and rounded once, and a convolution is a list of addends per output element that
// is folded in order.
//
// Comparing results: -0 and +0 are different, any NaN equals any other NaN. A line that reports a
// NaN shows the sign the processor gave that NaN ("nan" or "-nan"), which carries no meaning.
//
// Conventions shared by all functions:
//  - T is int32_t or float; both are instantiated in reference.cc.
//  - `lines` receives the text that the library writes to standard output, appended line by line,
//    each with its end of line. It may be null, and the text is then dropped.
//  - A conversion to int32 truncates toward zero; NaN and values out of range give INT32_MIN.

#ifndef BITFOLD_TESTS_REFERENCE_REFERENCE_H_
#define BITFOLD_TESTS_REFERENCE_REFERENCE_H_

#include <cstdint>
#include <string>

namespace reference {

// One addition into an integer accumulator of `width` bits, computed in single precision, with
// the warning line for a sum outside [-8388607, 8388607) and one wrap into the range.
int32_t AccumulatorInt(int32_t a, int32_t b, int32_t width, std::string* lines);

// One addition into a half-precision accumulator. `a` is quantised twice.
float AccumulatorHalf(float a, float b);

// The product in 32-bit two's complement.
int32_t Multiply(int32_t a, int32_t b);

// Right shift, halves to even. Counts are taken modulo 32; see reference.cc for 31 and for
// multiples of 32.
int32_t ShiftInt(int32_t x, int32_t shift);

// The shifter in front of a half-precision accumulator: a conversion to float and no shift.
float ShiftHalf(int32_t x);

// Quantisation of a float to what a half-precision accumulator holds.
float QuantiseHalf(float x);

// The steps that the oracles of the other operations share.

// Nearest integer, halves to even. Floats of magnitude 2^23 and above are integers already. A zero
// result keeps the sign of the argument.
float RoundToInteger(float value);

// A product as it enters the accumulator. The integer shifter divides by a power of two, the
// floating-point one by the shift value itself. A shift of 0 leaves the product as it is.
int32_t ScaledProduct(int32_t a, int32_t b, int32_t mult_shift);
float ScaledProduct(float a, float b, int32_t mult_shift);

// The same in the units that hold the reciprocal of the shift value as a float and multiply by it;
// integers are shifted there too.
int32_t ReciprocalProduct(int32_t a, int32_t b, int32_t mult_shift);
float ReciprocalProduct(float a, float b, int32_t mult_shift);

// One addition into the accumulator. Floats in half-precision mode quantise the addend and the sum,
// otherwise the sum is corrected once by the span; either way a sum out of bounds is reported.
// Integers are always corrected by the span and never reported.
int32_t Accumulate(int32_t acc, int32_t addend, int32_t width, bool use_fp16_acc,
                   std::string* lines);
float Accumulate(float acc, float addend, int32_t width, bool use_fp16_acc, std::string* lines);

// Corrects a weight above the signed range of half the accumulator's width in place, and returns
// whether that was needed.
bool CorrectWeight(int32_t width, int32_t* weight);
bool CorrectWeight(int32_t width, float* weight);

// Elementwise addition over `count` elements:
// out[i] = value[i] plus feed_repeat times the shifted (factor * elementwise[i]).
// feed_repeat must not be NaN or +infinity; zero and below add nothing.
template <typename T>
void Add(const T* value, const T* elementwise, T factor, float feed_repeat, int mult_shift,
         int accumulator_size, bool use_fp16_acc, int64_t count, T* out, std::string* lines);

// The same with one addend per channel: element i takes bias[i mod channels].
template <typename T>
void BiasAdd(const T* value, const T* bias, T factor, float feed_repeat, int mult_shift,
             int accumulator_size, bool use_fp16_acc, int64_t count, int64_t channels, T* out,
             std::string* lines);

// The same with a bias in two parts: every pass adds the part of `bias_a`, then that of `bias_b`.
template <typename T>
void DecomposedBiasAdd(const T* value, const T* bias_a, const T* bias_b, T factor_a, T factor_b,
                       float feed_repeat, int mult_shift, int accumulator_size, bool use_fp16_acc,
                       int64_t count, int64_t channels, T* out, std::string* lines);

// The stand-alone adder: both operands have a weight per channel, those of `elementwise` at
// weights[channels] and up. One addition; in half-precision mode only the second operand is
// quantised before it.
template <typename T>
void StandaloneAdd(const T* value, const T* elementwise, const T* weights, int mult_shift,
                   int accumulator_size, bool use_fp16_acc, int64_t count, int64_t channels, T* out,
                   std::string* lines);

// Number of output positions along one axis. 32-bit wrapping arithmetic, truncating division;
// the stride must not be 0.
int32_t OutputSize(int32_t input, int32_t filter, int32_t stride, int32_t dilation, bool same);

// Input coordinate of the centre of the first window along one axis.
int32_t StartIndex(int32_t input, int32_t filter, int32_t stride, int32_t dilation, bool same);

// What a convolution is called with. `same` selects SAME padding, else VALID. With
// `filter_per_image` the filter has a leading dimension of `batch`, which only the depthwise
// convolution looks at.
struct Convolution {
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
  bool same;
  int32_t mult_shift;
  bool use_fp16_acc;
  bool is_depthwise;
  bool filter_per_image;
};

// Convolves all images, in order. `input` and `output` are NHWC, `filter` is HWIO (HWO for the
// depthwise convolution), `elementwise` has the output's layout or is null. The output is
// batch x OutputSize(height) x OutputSize(width) x out_channels. The lines of one image are its
// accumulator warnings in output order, then the depthwise weight warning when it was needed.
template <typename T>
void Convolve(const Convolution& convolution, const T* input, const T* filter, const T* elementwise,
              T* output, std::string* lines);

}  // namespace reference

#endif  // BITFOLD_TESTS_REFERENCE_REFERENCE_H_
