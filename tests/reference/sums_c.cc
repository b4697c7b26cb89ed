// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The oracles of the split and stand-alone additions, the matrix multiplication and the bilinear
// resize behind a C interface, for tests that load them as a shared library from Python.
//
// Text: the functions that can report lines take a buffer and its capacity in bytes, and return
// the length of the whole text without its terminator. As much as fits is copied and terminated
// with a zero byte; a length of `capacity` or more tells that the text was cut. The buffer may be
// null with a capacity of 0.
//
// Flags are int32, 0 for false.

#include <cstdint>
#include <string>

#include "bilinear.h"
#include "matmul.h"
#include "reference.h"
#include "return_text.h"

namespace {

template <typename T>
int64_t DecomposedBiasAddText(const T* value, const T* bias_a, const T* bias_b, T factor_a,
                              T factor_b, float feed_repeat, int32_t mult_shift,
                              int32_t accumulator_size, int32_t use_fp16_acc, int64_t count,
                              int64_t channels, T* out, char* text, int64_t capacity) {
  std::string lines;
  reference::DecomposedBiasAdd<T>(value, bias_a, bias_b, factor_a, factor_b, feed_repeat,
                                  mult_shift, accumulator_size, use_fp16_acc != 0, count, channels,
                                  out, &lines);
  return ReturnText(lines, text, capacity);
}

template <typename T>
int64_t StandaloneAddText(const T* value, const T* elementwise, const T* weights,
                          int32_t mult_shift, int32_t accumulator_size, int32_t use_fp16_acc,
                          int64_t count, int64_t channels, T* out, char* text, int64_t capacity) {
  std::string lines;
  reference::StandaloneAdd<T>(value, elementwise, weights, mult_shift, accumulator_size,
                              use_fp16_acc != 0, count, channels, out, &lines);
  return ReturnText(lines, text, capacity);
}

template <typename T>
int64_t MatMulText(const T* a, const T* b, int32_t inner, int32_t rows, int32_t cols,
                   int32_t b_rows, int32_t batch_index, int32_t accumulator_size,
                   int32_t mult_shift, int32_t use_fp16_acc, T* out, int64_t* log_length,
                   char* log_text, int64_t log_capacity, char* text, int64_t capacity) {
  std::string lines;
  std::string log;
  reference::MatMul<T>(a, b, inner, rows, cols, b_rows, batch_index, accumulator_size, mult_shift,
                       use_fp16_acc != 0, out, &lines, &log);
  *log_length = ReturnText(log, log_text, log_capacity);
  return ReturnText(lines, text, capacity);
}

template <typename T>
int64_t BilinearText(const T* const* neighbours, const T* const* weights, int64_t S, int64_t N,
                     int32_t mult_shift, float bias, int32_t accumulator_size,
                     int32_t float_accumulator, T* out, char* text, int64_t capacity) {
  std::string lines;
  reference::Bilinear<T>(neighbours[0], neighbours[1], neighbours[2], neighbours[3], weights[0],
                         weights[1], weights[2], weights[3], S, N, mult_shift, bias,
                         accumulator_size, float_accumulator != 0, out, &lines);
  return ReturnText(lines, text, capacity);
}

}  // namespace

extern "C" {

int64_t reference_decomposed_bias_add_float(const float* value, const float* bias_a,
                                            const float* bias_b, float factor_a, float factor_b,
                                            float feed_repeat, int32_t mult_shift,
                                            int32_t accumulator_size, int32_t use_fp16_acc,
                                            int64_t count, int64_t channels, float* out, char* text,
                                            int64_t capacity) {
  return DecomposedBiasAddText<float>(value, bias_a, bias_b, factor_a, factor_b, feed_repeat,
                                      mult_shift, accumulator_size, use_fp16_acc, count, channels,
                                      out, text, capacity);
}

int64_t reference_decomposed_bias_add_int32(const int32_t* value, const int32_t* bias_a,
                                            const int32_t* bias_b, int32_t factor_a,
                                            int32_t factor_b, float feed_repeat, int32_t mult_shift,
                                            int32_t accumulator_size, int32_t use_fp16_acc,
                                            int64_t count, int64_t channels, int32_t* out,
                                            char* text, int64_t capacity) {
  return DecomposedBiasAddText<int32_t>(value, bias_a, bias_b, factor_a, factor_b, feed_repeat,
                                        mult_shift, accumulator_size, use_fp16_acc, count, channels,
                                        out, text, capacity);
}

int64_t reference_standalone_add_float(const float* value, const float* elementwise,
                                       const float* weights, int32_t mult_shift,
                                       int32_t accumulator_size, int32_t use_fp16_acc,
                                       int64_t count, int64_t channels, float* out, char* text,
                                       int64_t capacity) {
  return StandaloneAddText<float>(value, elementwise, weights, mult_shift, accumulator_size,
                                  use_fp16_acc, count, channels, out, text, capacity);
}

int64_t reference_standalone_add_int32(const int32_t* value, const int32_t* elementwise,
                                       const int32_t* weights, int32_t mult_shift,
                                       int32_t accumulator_size, int32_t use_fp16_acc,
                                       int64_t count, int64_t channels, int32_t* out, char* text,
                                       int64_t capacity) {
  return StandaloneAddText<int32_t>(value, elementwise, weights, mult_shift, accumulator_size,
                                    use_fp16_acc, count, channels, out, text, capacity);
}

// The error's text goes to `log_text`, and its length to `log_length`.
int64_t reference_matmul_float(const float* a, const float* b, int32_t inner, int32_t rows,
                               int32_t cols, int32_t b_rows, int32_t batch_index,
                               int32_t accumulator_size, int32_t mult_shift, int32_t use_fp16_acc,
                               float* out, int64_t* log_length, char* log_text,
                               int64_t log_capacity, char* text, int64_t capacity) {
  return MatMulText<float>(a, b, inner, rows, cols, b_rows, batch_index, accumulator_size,
                           mult_shift, use_fp16_acc, out, log_length, log_text, log_capacity, text,
                           capacity);
}

int64_t reference_matmul_int32(const int32_t* a, const int32_t* b, int32_t inner, int32_t rows,
                               int32_t cols, int32_t b_rows, int32_t batch_index,
                               int32_t accumulator_size, int32_t mult_shift, int32_t use_fp16_acc,
                               int32_t* out, int64_t* log_length, char* log_text,
                               int64_t log_capacity, char* text, int64_t capacity) {
  return MatMulText<int32_t>(a, b, inner, rows, cols, b_rows, batch_index, accumulator_size,
                             mult_shift, use_fp16_acc, out, log_length, log_text, log_capacity,
                             text, capacity);
}

// `neighbours` and `weights` are four arrays each, the upper ones before the bottom ones.
int64_t reference_bilinear_float(const float* const* neighbours, const float* const* weights,
                                 int64_t S, int64_t N, int32_t mult_shift, float bias,
                                 int32_t accumulator_size, int32_t float_accumulator, float* out,
                                 char* text, int64_t capacity) {
  return BilinearText<float>(neighbours, weights, S, N, mult_shift, bias, accumulator_size,
                             float_accumulator, out, text, capacity);
}

int64_t reference_bilinear_int32(const int32_t* const* neighbours, const int32_t* const* weights,
                                 int64_t S, int64_t N, int32_t mult_shift, float bias,
                                 int32_t accumulator_size, int32_t float_accumulator, int32_t* out,
                                 char* text, int64_t capacity) {
  return BilinearText<int32_t>(neighbours, weights, S, N, mult_shift, bias, accumulator_size,
                               float_accumulator, out, text, capacity);
}

}  // extern "C"
