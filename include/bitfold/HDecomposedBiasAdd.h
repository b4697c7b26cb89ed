// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HDecomposedBiasAdd: adds a bias that comes in two parts, each with its own factor.

#ifndef BITFOLD_HDECOMPOSEDBIASADD_H_
#define BITFOLD_HDECOMPOSEDBIASADD_H_

#include <cstdint>

#include "bitfold/addition_shape.h"
#include "bitfold/datapath_attributes.h"
#include "bitfold/repeated_addition.h"

namespace bitfold {

// One call. All pointers are to flat buffers in the memory of the op's device; of the factors and
// bias_feed_repeat element 0 is read.
template <typename T>
struct DecomposedBiasAddCall {
  const T* value;
  const T* bias_a;
  const T* bias_b;
  const T* bias_a_factor;
  const T* bias_b_factor;
  const float* bias_feed_repeat;
  T* output;
  AdditionShape shape;
  DatapathAttributes attributes;
};

// output[i] = value[i] with, in every pass of the feed, the part bias_a[i mod channels] * factor_a
// and then the part bias_b[i mod channels] * factor_b, scaled, added, for first <= i < first +
// count. What the buffers hold and what is required as for DefineBiasAdd. With EveryPass this loop
// is the op's definition.
template <typename T, typename Passes>
void DefineDecomposedBiasAdd(const DecomposedBiasAddCall<T>& call, int64_t first, int64_t count,
                             Passes add_passes) {
  const auto datapath = MakeDatapath<Datapath<T>>(call.attributes);
  const int64_t passes = FeedRepeatCount(call.bias_feed_repeat[0]);
  const T factor_a = call.bias_a_factor[0];
  const T factor_b = call.bias_b_factor[0];
  const int64_t channels = call.shape.d3;
  for (int64_t i = first; i < first + count; ++i) {
    const int64_t c = i % channels;
    const T product_a = datapath.Multiply(factor_a, call.bias_a[c]);
    const T product_b = datapath.Multiply(call.bias_b[c], factor_b);
    call.output[i] =
        add_passes(datapath, datapath.InitialValue(call.value[i]), datapath.ScaleProduct(product_a),
                   datapath.ScaleProduct(product_b), passes);
  }
}

}  // namespace bitfold

#endif  // BITFOLD_HDECOMPOSEDBIASADD_H_
