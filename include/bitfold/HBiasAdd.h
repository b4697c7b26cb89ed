// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HBiasAdd: adds a scaled bias per channel into a tensor of accumulator values.

#ifndef BITFOLD_HBIASADD_H_
#define BITFOLD_HBIASADD_H_

#include <cstdint>

#include "bitfold/repeated_addition.h"

namespace bitfold {

// out[i] = value[i] with bias[i mod channels] * factor, scaled, added `passes` times, for
// first <= i < first + count. `value` and `out` hold those elements, `bias` at least channels;
// channels >= 1 where count >= 1. With EveryPass this loop is the op's definition.
template <typename T, typename Passes>
void HBiasAddElements(const Datapath<T>& datapath, const T* value, const T* bias, T factor,
                      int64_t passes, int64_t first, int64_t count, int64_t channels, T* out,
                      Passes add_passes) {
  for (int64_t i = first; i < first + count; ++i) {
    const T product = datapath.Multiply(bias[i % channels], factor);
    out[i] = AddRepeatedly(datapath, value[i], product, passes, add_passes);
  }
}

// The whole-tensor arithmetic as the kernel calls it; a rank of 2 passes (N, 1, 1, C). Pointers and
// scalars as for HAddElementwise4dFunctor.
template <typename Device, typename T>
struct HAddBias4DFunctor {
  void operator()(const Device& device, const T* value, const T* bias, const T* bias_factor,
                  const float* bias_feed_repeat, T* output, int d0, int d1, int d2, int d3,
                  int accumulator_size, const int8_t* mult_shift, bool use_fp16_acc) const;
};

}  // namespace bitfold

#endif  // BITFOLD_HBIASADD_H_
