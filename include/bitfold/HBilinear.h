// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HBilinear: the four neighbours of each output of a bilinear resize, already gathered, weighed and
// added to a bias.

#ifndef BITFOLD_HBILINEAR_H_
#define BITFOLD_HBILINEAR_H_

#include <cstdint>

#include "bitfold/datapath.h"
#include "bitfold/int32_arithmetic.h"

namespace bitfold {

// The neighbours of every output and, shared by all items of a batch, their weights, in the order
// upper left, upper right, bottom left, bottom right.
template <typename T>
struct BilinearInputs {
  const T* neighbours[4];
  const T* weights[4];
};

// The bias as the accumulator of T takes it.
template <typename T>
T BilinearBias(float bias);
template <>
inline float BilinearBias<float>(float bias) {
  return bias;
}
template <>
inline int32_t BilinearBias<int32_t>(float bias) {
  return TruncateToInt32(bias);
}

// The float mode: no scaling, no limits, no warning, and exactly this grouping. Integers wrap at 32
// bits, so that theirs does not matter.
inline float AddUnlimited(float a, float b, float c, float d, float bias) {
  return ((c + d) + (a + b)) + bias;
}
inline int32_t AddUnlimited(int32_t a, int32_t b, int32_t c, int32_t d, int32_t bias) {
  return WrapAdd(WrapAdd(WrapAdd(c, d), WrapAdd(a, b)), bias);
}

// The definition over elements first <= j < first + count of one item, whose neighbours and outputs
// start at `base`; weights do not depend on the item.
template <typename T>
void HBilinearElements(const ReciprocalDatapath<T>& datapath, const BilinearInputs<T>& in, T bias,
                       bool float_accumulator, int64_t base, int64_t first, int64_t count, T* out) {
  for (int64_t j = first; j < first + count; ++j) {
    T product[4];
    for (int k = 0; k < 4; ++k) {
      product[k] = datapath.Multiply(in.neighbours[k][base + j], in.weights[k][j]);
    }
    if (float_accumulator) {
      out[base + j] = AddUnlimited(product[0], product[1], product[2], product[3], bias);
      continue;
    }
    T acc = bias;
    for (int k = 0; k < 4; ++k) acc = datapath.Accumulate(acc, datapath.ScaleProduct(product[k]));
    out[base + j] = acc;
  }
}

// The whole op over n items of s elements each, which all four neighbours and out hold and, of each
// weight, s. Nothing is written when n or s is 0. For int32 data requires float_accumulator or
// accumulator_size <= 32; other widths, negative ones too, are what the formulas give.
template <typename T>
void run_bilinear(const T* ul, const T* ur, const T* bl, const T* br, const T* w00, const T* w10,
                  const T* w01, const T* w11, T* out, unsigned s, unsigned n, int8_t mult_shift,
                  float bias, int accumulator_size, bool float_accumulator) {
  const ReciprocalDatapath<T> datapath(accumulator_size, mult_shift, false);
  const BilinearInputs<T> in{{ul, ur, bl, br}, {w00, w10, w01, w11}};
  for (int64_t item = 0; item < int64_t{n}; ++item) {
    HBilinearElements(datapath, in, BilinearBias<T>(bias), float_accumulator, item * s, 0, s, out);
  }
}

}  // namespace bitfold

#endif  // BITFOLD_HBILINEAR_H_
