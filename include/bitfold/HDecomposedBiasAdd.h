// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HDecomposedBiasAdd: adds a bias that comes in two parts, each with its own factor.

#ifndef BITFOLD_HDECOMPOSEDBIASADD_H_
#define BITFOLD_HDECOMPOSEDBIASADD_H_

#include <cstdint>

#include "bitfold/repeated_addition.h"

namespace bitfold {

// out[i] = value[i] with, in every pass, the part bias_a[i mod channels] * factor_a and then the
// part bias_b[i mod channels] * factor_b, scaled, added, for first <= i < first + count. `value`
// and `out` hold those elements, the biases at least channels; channels >= 1 where count >= 1. With
// EveryPass this loop is the op's definition.
template <typename T, typename Passes>
void HDecomposedBiasAddElements(const Datapath<T>& datapath, const T* value, const T* bias_a,
                                const T* bias_b, T factor_a, T factor_b, int64_t passes,
                                int64_t first, int64_t count, int64_t channels, T* out,
                                Passes add_passes) {
  for (int64_t i = first; i < first + count; ++i) {
    const int64_t c = i % channels;
    const T part_a = datapath.ScaleProduct(datapath.Multiply(factor_a, bias_a[c]));
    const T part_b = datapath.ScaleProduct(datapath.Multiply(bias_b[c], factor_b));
    out[i] = add_passes(datapath, datapath.InitialValue(value[i]), part_a, part_b, passes);
  }
}

// The whole-tensor arithmetic as the kernel calls it; a rank of 2 passes (N, 1, 1, C). Pointers and
// scalars as for HAddElementwise4dFunctor.
template <typename Device, typename T>
struct HAddDecomposedBias4DFunctor {
  void operator()(const Device& device, const T* value, const T* bias_a, const T* bias_b,
                  const T* bias_a_factor, const T* bias_b_factor, const float* bias_feed_repeat,
                  T* output, int d0, int d1, int d2, int d3, int accumulator_size,
                  const int8_t* mult_shift, bool use_fp16_acc) const;
};

}  // namespace bitfold

#endif  // BITFOLD_HDECOMPOSEDBIASADD_H_
