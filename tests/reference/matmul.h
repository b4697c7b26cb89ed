// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The test oracle of the matrix multiplication.

#ifndef BITFOLD_TESTS_REFERENCE_MATMUL_H_
#define BITFOLD_TESTS_REFERENCE_MATMUL_H_

#include <cstdint>
#include <string>

namespace reference {

// Batch entry `batch_index` of a [batch, rows, inner] times b [batch, b_rows, cols]; all three
// pointers are to the first entry. Every weight is corrected; a call that needed it ends with the
// red line. When `inner` and `b_rows` differ nothing is written and `log`, which may be null as
// `lines` may, receives the error's text and an end of line. T is int32_t or float.
template <typename T>
void MatMul(const T* a, const T* b, int32_t inner, int32_t rows, int32_t cols, int32_t b_rows,
            int32_t batch_index, int32_t accumulator_size, int32_t mult_shift, bool use_fp16_acc,
            T* out, std::string* lines, std::string* log);

}  // namespace reference

#endif  // BITFOLD_TESTS_REFERENCE_MATMUL_H_
