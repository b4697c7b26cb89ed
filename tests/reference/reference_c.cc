// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The test oracle behind a C interface, for tests that load it as a shared library from Python.
//
// Text: the functions that can report lines take a buffer and its capacity in bytes, and return
// the length of the whole text without its terminator. As much as fits is copied and terminated
// with a zero byte; a length of `capacity` or more tells that the text was cut. The buffer may be
// null with a capacity of 0.
//
// Flags are int32, 0 for false.
//
// A convolution's parameters are 17 int32 values in this order:
//    0 batch              1 in_height      2 in_width       3 in_channels
//    4 filter_height      5 filter_width   6 out_channels   7 accumulator_size
//    8 stride_h           9 stride_w      10 dilation_h    11 dilation_w
//   12 same              13 mult_shift    14 use_fp16_acc  15 is_depthwise
//   16 filter_per_image

#include <cstdint>
#include <cstring>
#include <string>

#include "reference.h"
#include "return_text.h"
#include "wide.h"

namespace {

reference::Convolution ReadParameters(const int32_t* p) {
  reference::Convolution c;
  c.batch = p[0];
  c.in_height = p[1];
  c.in_width = p[2];
  c.in_channels = p[3];
  c.filter_height = p[4];
  c.filter_width = p[5];
  c.out_channels = p[6];
  c.accumulator_size = p[7];
  c.stride_h = p[8];
  c.stride_w = p[9];
  c.dilation_h = p[10];
  c.dilation_w = p[11];
  c.same = p[12] != 0;
  c.mult_shift = p[13];
  c.use_fp16_acc = p[14] != 0;
  c.is_depthwise = p[15] != 0;
  c.filter_per_image = p[16] != 0;
  return c;
}

template <typename T>
int64_t AddText(const T* value, const T* elementwise, T factor, float feed_repeat,
                int32_t mult_shift, int32_t accumulator_size, int32_t use_fp16_acc, int64_t count,
                T* out, char* text, int64_t capacity) {
  std::string lines;
  reference::Add<T>(value, elementwise, factor, feed_repeat, mult_shift, accumulator_size,
                    use_fp16_acc != 0, count, out, &lines);
  return ReturnText(lines, text, capacity);
}

template <typename T>
int64_t BiasAddText(const T* value, const T* bias, T factor, float feed_repeat, int32_t mult_shift,
                    int32_t accumulator_size, int32_t use_fp16_acc, int64_t count, int64_t channels,
                    T* out, char* text, int64_t capacity) {
  std::string lines;
  reference::BiasAdd<T>(value, bias, factor, feed_repeat, mult_shift, accumulator_size,
                        use_fp16_acc != 0, count, channels, out, &lines);
  return ReturnText(lines, text, capacity);
}

template <typename T>
int64_t ConvolveText(const int32_t* parameters, const T* input, const T* filter,
                     const T* elementwise, T* output, char* text, int64_t capacity) {
  std::string lines;
  reference::Convolve<T>(ReadParameters(parameters), input, filter, elementwise, output, &lines);
  return ReturnText(lines, text, capacity);
}

}  // namespace

extern "C" {

int64_t reference_accumulator_int(int32_t a, int32_t b, int32_t width, int32_t* result, char* text,
                                  int64_t capacity) {
  std::string lines;
  *result = reference::AccumulatorInt(a, b, width, &lines);
  return ReturnText(lines, text, capacity);
}

float reference_accumulator_half(float a, float b) { return reference::AccumulatorHalf(a, b); }

int32_t reference_multiply(int32_t a, int32_t b) { return reference::Multiply(a, b); }

int32_t reference_shift_int(int32_t x, int32_t shift) { return reference::ShiftInt(x, shift); }

float reference_shift_half(int32_t x) { return reference::ShiftHalf(x); }

float reference_quantise_half(float x) { return reference::QuantiseHalf(x); }

int32_t reference_output_size(int32_t input, int32_t filter, int32_t stride, int32_t dilation,
                              int32_t same) {
  return reference::OutputSize(input, filter, stride, dilation, same != 0);
}

int32_t reference_start_index(int32_t input, int32_t filter, int32_t stride, int32_t dilation,
                              int32_t same) {
  return reference::StartIndex(input, filter, stride, dilation, same != 0);
}

int64_t reference_add_float(const float* value, const float* elementwise, float factor,
                            float feed_repeat, int32_t mult_shift, int32_t accumulator_size,
                            int32_t use_fp16_acc, int64_t count, float* out, char* text,
                            int64_t capacity) {
  return AddText<float>(value, elementwise, factor, feed_repeat, mult_shift, accumulator_size,
                        use_fp16_acc, count, out, text, capacity);
}

int64_t reference_add_int32(const int32_t* value, const int32_t* elementwise, int32_t factor,
                            float feed_repeat, int32_t mult_shift, int32_t accumulator_size,
                            int32_t use_fp16_acc, int64_t count, int32_t* out, char* text,
                            int64_t capacity) {
  return AddText<int32_t>(value, elementwise, factor, feed_repeat, mult_shift, accumulator_size,
                          use_fp16_acc, count, out, text, capacity);
}

int64_t reference_bias_add_float(const float* value, const float* bias, float factor,
                                 float feed_repeat, int32_t mult_shift, int32_t accumulator_size,
                                 int32_t use_fp16_acc, int64_t count, int64_t channels, float* out,
                                 char* text, int64_t capacity) {
  return BiasAddText<float>(value, bias, factor, feed_repeat, mult_shift, accumulator_size,
                            use_fp16_acc, count, channels, out, text, capacity);
}

int64_t reference_bias_add_int32(const int32_t* value, const int32_t* bias, int32_t factor,
                                 float feed_repeat, int32_t mult_shift, int32_t accumulator_size,
                                 int32_t use_fp16_acc, int64_t count, int64_t channels,
                                 int32_t* out, char* text, int64_t capacity) {
  return BiasAddText<int32_t>(value, bias, factor, feed_repeat, mult_shift, accumulator_size,
                              use_fp16_acc, count, channels, out, text, capacity);
}

int64_t reference_convolve_float(const int32_t* parameters, const float* input, const float* filter,
                                 const float* elementwise, float* output, char* text,
                                 int64_t capacity) {
  return ConvolveText<float>(parameters, input, filter, elementwise, output, text, capacity);
}

int64_t reference_convolve_int32(const int32_t* parameters, const int32_t* input,
                                 const int32_t* filter, const int32_t* elementwise, int32_t* output,
                                 char* text, int64_t capacity) {
  return ConvolveText<int32_t>(parameters, input, filter, elementwise, output, text, capacity);
}

// `bias` may be null.
void reference_convolve_wide(const int32_t* parameters, const int32_t* input, const int32_t* filter,
                             const int64_t* bias, int64_t* output) {
  reference::ConvolveWide(ReadParameters(parameters), input, filter, bias, output);
}

}  // extern "C"
