// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HStandaloneElementwiseAdd: adds two tensors, each multiplied by a weight per channel.

#ifndef BITFOLD_HSTANDALONEELEMENTWISEADD_H_
#define BITFOLD_HSTANDALONEELEMENTWISEADD_H_

#include <cstdint>

#include "bitfold/datapath.h"

namespace bitfold {

// The op's definition, for first <= i < first + count and c = i mod channels:
//   out[i] = weights[c] * value[i]  +  weights[channels + c] * elementwise[i]
// each product scaled, one addition into the accumulator. The first product is what the accumulator
// holds, so in half-precision mode only the second is quantised before the addition. `value`,
// `elementwise` and `out` hold those elements, `weights` 2 * channels; channels >= 1 where
// count >= 1.
template <typename T>
void HStandaloneElementwiseAddElements(const Datapath<T>& datapath, const T* value,
                                       const T* elementwise, const T* weights, int64_t first,
                                       int64_t count, int64_t channels, T* out) {
  for (int64_t i = first; i < first + count; ++i) {
    const int64_t c = i % channels;
    const T a = datapath.ScaleProduct(datapath.Multiply(weights[c], value[i]));
    const T b = datapath.ScaleProduct(datapath.Multiply(elementwise[i], weights[channels + c]));
    out[i] = datapath.Accumulate(a, b);
  }
}

// The whole-tensor arithmetic as the kernel calls it; other ranks than 4 pass (d0, 1, 1, d1).
// Pointers as for HAddElementwise4dFunctor.
template <typename Device, typename T>
struct HStandaloneElementwiseAdd4DFunctor {
  void operator()(const Device& device, const T* value, const T* elementwise, const T* weights,
                  T* output, int d0, int d1, int d2, int d3, int accumulator_size,
                  const int8_t* mult_shift, bool use_fp16_acc) const;
};

}  // namespace bitfold

#endif  // BITFOLD_HSTANDALONEELEMENTWISEADD_H_
