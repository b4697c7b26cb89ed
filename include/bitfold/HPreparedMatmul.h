// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HPreparedMatmul: products of stored matrices, from stored integers to stored integers, the
// definition: HMatmul of the operands less their zero points, then HRequantise.

#ifndef BITFOLD_HPREPARED_MATMUL_H_
#define BITFOLD_HPREPARED_MATMUL_H_

#include <cstdint>
#include <vector>

#include "bitfold/HMatMul.h"
#include "bitfold/HRequantise.h"
#include "bitfold/broadcast.h"
#include "bitfold/prepared_arithmetic.h"

namespace bitfold {

// What all products of a call have in common. Requires sizes of at least 0, operands and products
// of fewer than 2^31 elements, and multipliers, one or, per_channel, one for each column, for which
// the rescaling is defined.
struct PreparedProduct {
  int32_t matrices;  // of the first operand, whose rows follow one another
  int32_t rows;      // of each of them
  int32_t inner;
  int32_t cols;
  bool transpose_first;   // stored as inner x rows
  bool transpose_second;  // stored as cols x inner
  int32_t first_zero_point;
  int32_t second_zero_point;
  const double* multipliers;
  bool per_channel;
  PreparedArithmetic arithmetic;

  int64_t AllRows() const { return int64_t{matrices} * rows; }
  int64_t FirstElements() const { return AllRows() * inner; }
  int64_t SecondElements() const { return int64_t{inner} * cols; }
  int64_t OutputElements() const { return AllRows() * cols; }

  // Where an element is stored: of `row` of all rows, of `column` of the second operand.
  int64_t FirstPlace(int64_t row, int64_t k) const {
    if (!transpose_first) return row * inner + k;
    return row / rows * rows * inner + k * rows + row % rows;
  }
  int64_t SecondPlace(int64_t k, int64_t column) const {
    return transpose_second ? column * inner + k : k * cols + column;
  }
};

// Products for each pair of `pairs`, of which operand 0 is of FirstElements() and operand 1 of
// SecondElements().
template <typename In, typename Out>
struct PreparedMatmulCall {
  const In* first;
  const In* second;
  Out* output;
  const Broadcast* pairs;

  const In* FirstOf(const PreparedProduct& product, int64_t pair) const {
    return first + PlaceInOperand(*pairs, 0, pair) * product.FirstElements();
  }
  const In* SecondOf(const PreparedProduct& product, int64_t pair) const {
    return second + PlaceInOperand(*pairs, 1, pair) * product.SecondElements();
  }
};

// The matrices as HMatmul takes them, in T: int32_t or float.
template <typename T, typename In>
void WidenFirst(const PreparedProduct& product, const In* first, int64_t row, T* out) {
  for (int64_t k = 0; k < product.inner; ++k) {
    out[k] = static_cast<T>(int32_t{first[product.FirstPlace(row, k)]} - product.first_zero_point);
  }
}

template <typename T, typename In>
void WidenSecond(const PreparedProduct& product, const In* second, int64_t k, T* out) {
  for (int64_t c = 0; c < product.cols; ++c) {
    out[c] = static_cast<T>(int32_t{second[product.SecondPlace(k, c)]} - product.second_zero_point);
  }
}

// One pair, in T. Requires round-to-nearest and no flush to zero.
template <typename T, typename In, typename Out>
void DefinePreparedProduct(const PreparedProduct& product, const In* first, const In* second,
                           Out* output) {
  const int8_t shift = product.arithmetic.Shift();
  std::vector<T> a(static_cast<size_t>(product.FirstElements()));
  std::vector<T> b(static_cast<size_t>(product.SecondElements()));
  std::vector<T> sums(static_cast<size_t>(product.OutputElements()));
  for (int64_t row = 0; row < product.AllRows(); ++row) {
    WidenFirst(product, first, row, a.data() + row * product.inner);
  }
  for (int64_t k = 0; k < product.inner; ++k) {
    WidenSecond(product, second, k, b.data() + k * product.cols);
  }
  MatrixMultiplication<T>({a.data(), b.data(), sums.data(), static_cast<int32_t>(product.AllRows()),
                           product.inner, product.cols, product.arithmetic.DatapathWith(&shift)},
                          0);
  const std::vector<int32_t> whole(sums.begin(), sums.end());
  DefineRequantise<int32_t, Out>({whole.data(), output, product.AllRows(), product.cols,
                                  product.multipliers, product.per_channel,
                                  product.arithmetic.requantise});
}

// The op; the definition.
template <typename In, typename Out>
void DefinePreparedMatmul(const PreparedProduct& product, const PreparedMatmulCall<In, Out>& call) {
  for (int64_t pair = 0; pair < CountOf(*call.pairs); ++pair) {
    const In* first = call.FirstOf(product, pair);
    const In* second = call.SecondOf(product, pair);
    Out* output = call.output + pair * product.OutputElements();
    if (product.arithmetic.use_fp16_acc) {
      DefinePreparedProduct<float>(product, first, second, output);
    } else {
      DefinePreparedProduct<int32_t>(product, first, second, output);
    }
  }
}

}  // namespace bitfold

#endif  // BITFOLD_HPREPARED_MATMUL_H_
