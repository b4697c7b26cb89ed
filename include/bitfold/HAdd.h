// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HAdd: adds a scaled tensor into a tensor of accumulator values.

#ifndef BITFOLD_HADD_H_
#define BITFOLD_HADD_H_

#include <cstdint>

#include "bitfold/repeated_addition.h"

namespace bitfold {

// out[i] = value[i] with factor * elementwise[i], scaled, added `passes` times, for
// first <= i < first + count. All three buffers hold those elements. With EveryPass this loop is
// the op's definition.
template <typename T, typename Passes>
void HAddElements(const Datapath<T>& datapath, const T* value, const T* elementwise, T factor,
                  int64_t passes, int64_t first, int64_t count, T* out, Passes add_passes) {
  for (int64_t i = first; i < first + count; ++i) {
    const T product = datapath.Multiply(factor, elementwise[i]);
    out[i] = AddRepeatedly(datapath, value[i], product, passes, add_passes);
  }
}

// The whole-tensor arithmetic as the kernel calls it. All pointers are to flat buffers on the
// functor's device; of elementwise_factor, elementwise_feed_repeat and mult_shift element 0 is
// read. The element count is the product of the dimensions in 32-bit arithmetic; below 1 nothing
// is written. The CPU functors require the feed repeat to be at most kMaxFeedRepeat.
template <typename Device, typename T>
struct HAddElementwise4dFunctor {
  void operator()(const Device& device, const T* value, const T* elementwise,
                  const T* elementwise_factor, const float* elementwise_feed_repeat, T* output,
                  int d0, int d1, int d2, int d3, int accumulator_size, const int8_t* mult_shift,
                  bool use_fp16_acc) const;
};

template <typename Device, typename T>
struct HAddElementwise2DFunctor {
  void operator()(const Device& device, const T* value, const T* elementwise,
                  const T* elementwise_factor, const float* elementwise_feed_repeat, T* output,
                  int d0, int d1, int accumulator_size, const int8_t* mult_shift,
                  bool use_fp16_acc) const;
};

}  // namespace bitfold

#endif  // BITFOLD_HADD_H_
