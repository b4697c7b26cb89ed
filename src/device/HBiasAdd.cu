// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HBiasAdd on a GPU.

#include "bitfold/device_datapath.h"
#include "device/device.h"
#include "device/launchers.h"

namespace bitfold {

template <typename T>
__global__ void AddFeedRepeat(const T* value, const T* bias, const T* bias_factor,
                              const float* bias_feed_repeat, T* output, int d0, int d1, int d2,
                              int d3, int /*accumulator_size*/, const int8_t* mult_shift,
                              bool use_fp16_acc, T acc_min, T acc_max) {
  const DeviceDatapath<T> datapath(acc_min, acc_max, mult_shift[0], use_fp16_acc);
  const int count = WrapMultiply(WrapMultiply(d0, d1), WrapMultiply(d2, d3));
  for (uint32_t i = GridStride::first(); i < GridStride::end(count); i += GridStride::step()) {
    const uint32_t channel = i % static_cast<uint32_t>(d3);
    output[i] =
        AddRepeatedlyOnDevice(datapath, datapath.InitialValue(value[i]), bias_feed_repeat[0],
                              datapath.Product(bias[channel], bias_factor[0]));
  }
}

template <typename T>
void LaunchAddFeedRepeat(void* stream, const BiasAddCall<T>& call) {
  const AdditionShape& shape = call.shape;
  const DatapathAttributes& attributes = call.attributes;
  const AccumulatorLimits<T> limits(attributes.accumulator_size);
  BITFOLD_LAUNCH(AddFeedRepeat<T>, BlocksFor(shape.ElementCount(), kBlockThreads), kBlockThreads,
                 stream, call.value, call.bias, call.bias_factor, call.bias_feed_repeat,
                 call.output, shape.d0, shape.d1, shape.d2, shape.d3, attributes.accumulator_size,
                 attributes.mult_shift, attributes.use_fp16_acc, limits.min, limits.max);
  RequireLaunched("src/HBiasAdd", 53);
}

template void LaunchAddFeedRepeat(void*, const BiasAddCall<float>&);
template void LaunchAddFeedRepeat(void*, const BiasAddCall<int32_t>&);

}  // namespace bitfold
