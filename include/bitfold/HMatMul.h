// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HMatmul: the matrix product, each product added into a limited accumulator.

#ifndef BITFOLD_HMATMUL_H_
#define BITFOLD_HMATMUL_H_

#include <cstdint>

#include "bitfold/datapath.h"
#include "bitfold/datapath_attributes.h"
#include "bitfold/warning.h"
#include "bitfold/weight_sign.h"

namespace bitfold {

// A batch of products, all row-major and one after the other: a has matrices of rows x inner, b of
// inner x cols, out of rows x cols.
template <typename T>
struct MatMulCall {
  const T* a;
  const T* b;
  T* out;
  int32_t rows;
  int32_t inner;
  int32_t cols;
  DatapathAttributes datapath;

  // The matrices of an entry of the batch.
  const T* AOf(int32_t batch_index) const { return a + int64_t{batch_index} * rows * inner; }
  const T* BOf(int32_t batch_index) const { return b + int64_t{batch_index} * inner * cols; }
  T* OutOf(int32_t batch_index) const { return out + int64_t{batch_index} * rows * cols; }
};

// The definition of one entry of the batch, an object per entry. Requires round-to-nearest and no
// flush to zero.
template <typename T>
class MatrixProduct {
 public:
  MatrixProduct(const MatMulCall<T>& call, int32_t batch_index)
      : a_(call.AOf(batch_index)),
        b_(call.BOf(batch_index)),
        out_(call.OutOf(batch_index)),
        rows_(call.rows),
        inner_(call.inner),
        cols_(call.cols),
        datapath_(MakeDatapath<ReciprocalDatapath<T>>(call.datapath)),
        weight_sign_(call.datapath.accumulator_size) {}

  // Computes and writes every element, then warns if a weight needed its sign corrected.
  void Run() {
    for (int32_t row = 0; row < rows_; ++row) {
      for (int32_t column = 0; column < cols_; ++column) DefineOutput(row, column);
    }
    if (weight_corrected_) WarnMatMulWeights();
  }

  // Computes and writes one element: the chain over a row of a and a column of b. Every weight, an
  // element of b, has its sign corrected.
  void DefineOutput(int32_t row, int32_t column) {
    const T* values = a_ + int64_t{row} * inner_;
    T acc = T{0};
    for (int64_t k = 0; k < inner_; ++k) {
      T weight = b_[k * cols_ + column];
      if (weight_sign_.NeedsCorrection(weight)) {
        weight = weight_sign_.Correct(weight);
        weight_corrected_ = true;
      }
      const T product = datapath_.Multiply(values[k], weight);
      acc = datapath_.Accumulate(acc, datapath_.ScaleProduct(product));
    }
    out_[int64_t{row} * cols_ + column] = acc;
  }

 private:
  const T* const a_;
  const T* const b_;
  T* const out_;
  const int32_t rows_;
  const int32_t inner_;
  const int32_t cols_;
  const ReciprocalDatapath<T> datapath_;
  const WeightSign<T> weight_sign_;
  bool weight_corrected_ = false;
};

// One entry of the batch: computes and writes its product and prints its lines.
template <typename T>
void MatrixMultiplication(const MatMulCall<T>& call, int32_t batch_index) {
  MatrixProduct<T>(call, batch_index).Run();
}

}  // namespace bitfold

#endif  // BITFOLD_HMATMUL_H_
