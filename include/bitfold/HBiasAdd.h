// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HBiasAdd: adds a scaled bias per channel into a tensor of accumulator values.

#ifndef BITFOLD_HBIASADD_H_
#define BITFOLD_HBIASADD_H_

#include <cstdint>

#include "bitfold/addition_shape.h"
#include "bitfold/datapath_attributes.h"
#include "bitfold/repeated_addition.h"

namespace bitfold {

// One call. All pointers are to flat buffers in the memory of the op's device; of bias_factor and
// bias_feed_repeat element 0 is read.
template <typename T>
struct BiasAddCall {
  const T* value;
  const T* bias;
  const T* bias_factor;
  const float* bias_feed_repeat;
  T* output;
  AdditionShape shape;
  DatapathAttributes attributes;
};

// output[i] = value[i] with bias[i mod channels] * factor, scaled, added in every pass of the feed,
// for first <= i < first + count, which `value` and `output` hold; `bias` holds at least the
// channels, at least one of them where count >= 1. With EveryPass this loop is the op's definition.
// Requires host memory and a feed repeat of at most kMaxFeedRepeat.
template <typename T, typename Passes>
void DefineBiasAdd(const BiasAddCall<T>& call, int64_t first, int64_t count, Passes add_passes) {
  const auto datapath = MakeDatapath<Datapath<T>>(call.attributes);
  const int64_t passes = FeedRepeatCount(call.bias_feed_repeat[0]);
  const T factor = call.bias_factor[0];
  const int64_t channels = call.shape.d3;
  for (int64_t i = first; i < first + count; ++i) {
    const T product = datapath.Multiply(call.bias[i % channels], factor);
    call.output[i] = AddRepeatedly(datapath, call.value[i], product, passes, add_passes);
  }
}

}  // namespace bitfold

#endif  // BITFOLD_HBIASADD_H_
