// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Outputs of a depthwise convolution as dot products modulo 2^32. What the taps of many outputs
// meet lies side by side, and is put together as words in registers: of four taps' bytes or of two
// taps' shorts.

#ifndef BITFOLD_SRC_CHAIN_DOT_ROW_H_
#define BITFOLD_SRC_CHAIN_DOT_ROW_H_

#include <cstdint>

#include "chain/sum_output.h"

namespace bitfold {

// The most outputs of a row that are computed together.
inline constexpr int kRowBlock = 64;

// A row of outputs. The sum of output i, of `length`, is
//   initial[i % period] + the products over k < taps of x[k][i] and tap k of w[i % period].
// kRowBlock numbers of a tap can be read, however short the row. What fills up the taps of the last
// word is in x, too, any of them; in w it is 0. Number is uint8_t or int16_t; weights are signed.
template <typename Number>
struct DotRow {
  const Number* const* x;
  const int32_t* w;        // [word][lane]
  const int32_t* initial;  // [lane]
  int64_t length;
  int32_t period;  // at least kRowBlock
  int32_t lanes;   // at least period + kRowBlock - 1: beyond a period they are the first again
  int32_t taps;
};

// Of the output the stride and the channels do not count. Where there are no dot products of bytes
// their kernel is null.
template <typename T>
struct DotRowKernels {
  void (*bytes)(const DotRow<uint8_t>&, const SumOutput<T>&);
  void (*shorts)(const DotRow<int16_t>&, const SumOutput<T>&);
};

// For the target in use. T is int32_t or float.
template <typename T>
const DotRowKernels<T>& CurrentDotRowKernels();

}  // namespace bitfold

#endif  // BITFOLD_SRC_CHAIN_DOT_ROW_H_
