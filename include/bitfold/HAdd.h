// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HAdd: adds a scaled tensor into a tensor of accumulator values.

#ifndef BITFOLD_HADD_H_
#define BITFOLD_HADD_H_

#include <cstdint>

#include "bitfold/addition_shape.h"
#include "bitfold/datapath_attributes.h"
#include "bitfold/repeated_addition.h"

namespace bitfold {

// One call. All pointers are to flat buffers in the memory of the op's device; of
// elementwise_factor and elementwise_feed_repeat element 0 is read.
template <typename T>
struct AddCall {
  const T* value;
  const T* elementwise;
  const T* elementwise_factor;
  const float* elementwise_feed_repeat;
  T* output;
  AdditionShape shape;
  DatapathAttributes attributes;
};

// output[i] = value[i] with factor * elementwise[i], scaled, added in every pass of the feed, for
// first <= i < first + count, which all three buffers hold. With EveryPass this loop is the op's
// definition. Requires host memory and a feed repeat of at most kMaxFeedRepeat.
template <typename T, typename Passes>
void DefineAdd(const AddCall<T>& call, int64_t first, int64_t count, Passes add_passes) {
  const auto datapath = MakeDatapath<Datapath<T>>(call.attributes);
  const int64_t passes = FeedRepeatCount(call.elementwise_feed_repeat[0]);
  const T factor = call.elementwise_factor[0];
  for (int64_t i = first; i < first + count; ++i) {
    const T product = datapath.Multiply(factor, call.elementwise[i]);
    call.output[i] = AddRepeatedly(datapath, call.value[i], product, passes, add_passes);
  }
}

}  // namespace bitfold

#endif  // BITFOLD_HADD_H_
