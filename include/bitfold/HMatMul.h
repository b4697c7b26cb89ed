// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HMatmul: the matrix product, each product added into a limited accumulator.

#ifndef BITFOLD_HMATMUL_H_
#define BITFOLD_HMATMUL_H_

#include <cstdint>

#include "bitfold/datapath.h"
#include "bitfold/warning.h"
#include "bitfold/weight_sign.h"

namespace bitfold {

class Scratch;

// One element of a product: the chain over a row of `inner` elements of a and a column of b, whose
// elements lie `cols` apart. Every weight, an element of b, has its sign corrected; sets *corrected
// where one needed it.
template <typename T>
T MultiplyRowByColumn(const ReciprocalDatapath<T>& datapath, const WeightSign<T>& weight_sign,
                      const T* row, const T* column, int32_t inner, int32_t cols, bool* corrected) {
  T acc = T{0};
  for (int64_t k = 0; k < inner; ++k) {
    T weight = column[k * cols];
    if (weight_sign.NeedsCorrection(weight)) {
      weight = weight_sign.Correct(weight);
      *corrected = true;
    }
    const T product = datapath.Multiply(row[k], weight);
    acc = datapath.Accumulate(acc, datapath.ScaleProduct(product));
  }
  return acc;
}

// One matrix of the batch, all row-major: out[rows, cols] = a[rows, inner] * b[inner, cols].
// Returns whether a weight needed its sign corrected.
template <typename T>
bool MultiplyMatrices(const ReciprocalDatapath<T>& datapath, const WeightSign<T>& weight_sign,
                      const T* a, const T* b, int32_t inner, int32_t rows, int32_t cols, T* out) {
  bool corrected = false;
  for (int64_t r = 0; r < rows; ++r) {
    for (int64_t c = 0; c < cols; ++c) {
      out[r * cols + c] =
          MultiplyRowByColumn(datapath, weight_sign, a + r * inner, b + c, inner, cols, &corrected);
    }
  }
  return corrected;
}

// Entry batch_index of the batch, as the op computes it: a holds matrices of rows x inner, b of
// inner x cols, out of rows x cols, one after the other. Where inner and b_rows differ, logs an
// error and leaves out as it is. Prints one red line if a weight needed its sign corrected.
// MultiplyMatrices is the definition; this has its bits and lines, with memory from `scratch`.
template <typename T>
void MatrixMultiplication(const T* a, T* out, const T* b, int32_t inner, int32_t rows, int32_t cols,
                          int32_t b_rows, int32_t batch_index, int32_t accumulator_size,
                          int32_t mult_shift, bool use_fp16_acc, Scratch* scratch);

}  // namespace bitfold

#endif  // BITFOLD_HMATMUL_H_
