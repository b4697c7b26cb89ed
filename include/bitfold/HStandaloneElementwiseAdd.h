// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HStandaloneElementwiseAdd: adds two tensors, each multiplied by a weight per channel.

#ifndef BITFOLD_HSTANDALONEELEMENTWISEADD_H_
#define BITFOLD_HSTANDALONEELEMENTWISEADD_H_

#include <cstdint>

#include "bitfold/addition_shape.h"
#include "bitfold/datapath.h"
#include "bitfold/datapath_attributes.h"

namespace bitfold {

// One call. All pointers are to flat buffers in the memory of the op's device.
template <typename T>
struct StandaloneElementwiseAddCall {
  const T* value;
  const T* elementwise;
  const T* weights;
  T* output;
  AdditionShape shape;
  DatapathAttributes attributes;
};

// The op's definition, for first <= i < first + count and c = i mod channels:
//   output[i] = weights[c] * value[i]  +  weights[channels + c] * elementwise[i]
// each product scaled, one addition into the accumulator. The first product is what the accumulator
// holds, so in half-precision mode only the second is quantised before the addition. `value`,
// `elementwise` and `output` hold those elements, `weights` twice the channels, of which there is
// at least one where count >= 1. Requires host memory.
template <typename T>
void DefineStandaloneElementwiseAdd(const StandaloneElementwiseAddCall<T>& call, int64_t first,
                                    int64_t count) {
  const auto datapath = MakeDatapath<Datapath<T>>(call.attributes);
  const int64_t channels = call.shape.d3;
  for (int64_t i = first; i < first + count; ++i) {
    const int64_t c = i % channels;
    const T a = datapath.Multiply(call.weights[c], call.value[i]);
    const T b = datapath.Multiply(call.elementwise[i], call.weights[channels + c]);
    call.output[i] = datapath.Accumulate(datapath.ScaleProduct(a), datapath.ScaleProduct(b));
  }
}

}  // namespace bitfold

#endif  // BITFOLD_HSTANDALONEELEMENTWISEADD_H_
