// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HBilinear: the four neighbours of each output of a bilinear resize, already gathered, weighed and
// added to a bias.

#ifndef BITFOLD_HBILINEAR_H_
#define BITFOLD_HBILINEAR_H_

#include <cstdint>

#include "bitfold/datapath.h"
#include "bitfold/datapath_attributes.h"
#include "bitfold/int32_arithmetic.h"

namespace bitfold {

// The neighbours of every output and, shared by all items of a batch, their weights, in the order
// upper left, upper right, bottom left, bottom right.
template <typename T>
struct BilinearInputs {
  const T* neighbours[4];
  const T* weights[4];
};

// One call, over `items` items of `item_size` elements each, which all four neighbours and the
// output hold and, of each weight, one item's. For int32 data requires float_accumulator or an
// accumulator_size <= 32; other widths, negative ones too, are what the formulas give. The
// half-precision accumulator is not used.
template <typename T>
struct BilinearCall {
  BilinearInputs<T> inputs;
  T* output;
  unsigned item_size;
  unsigned items;
  float bias;
  bool float_accumulator;
  DatapathAttributes attributes;
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

// The definition over elements first <= j < first + count of one item; weights do not depend on the
// item.
template <typename T>
void DefineBilinear(const BilinearCall<T>& call, int64_t item, int64_t first, int64_t count) {
  const auto datapath = MakeDatapath<ReciprocalDatapath<T>>(call.attributes);
  const T bias = BilinearBias<T>(call.bias);
  const int64_t base = item * call.item_size;
  for (int64_t j = first; j < first + count; ++j) {
    T product[4];
    for (int k = 0; k < 4; ++k) {
      product[k] =
          datapath.Multiply(call.inputs.neighbours[k][base + j], call.inputs.weights[k][j]);
    }
    if (call.float_accumulator) {
      call.output[base + j] = AddUnlimited(product[0], product[1], product[2], product[3], bias);
      continue;
    }
    T acc = bias;
    for (int k = 0; k < 4; ++k) acc = datapath.Accumulate(acc, datapath.ScaleProduct(product[k]));
    call.output[base + j] = acc;
  }
}

// The whole op: the definition, item after item. Without items or elements nothing is written.
template <typename T>
void run_bilinear(const BilinearCall<T>& call) {
  for (int64_t item = 0; item < int64_t{call.items}; ++item) {
    DefineBilinear(call, item, 0, call.item_size);
  }
}

}  // namespace bitfold

#endif  // BITFOLD_HBILINEAR_H_
