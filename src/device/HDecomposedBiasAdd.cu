// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HDecomposedBiasAdd on a GPU.

#include "bitfold/device_datapath.h"
#include "device/device.h"
#include "device/launchers.h"

namespace bitfold {

template <typename T>
__global__ void AddDecomposedFeedRepeat(const T* value, const T* bias_a, const T* bias_b,
                                        const T* bias_a_factor, const T* bias_b_factor,
                                        const float* bias_feed_repeat, T* output, int d0, int d1,
                                        int d2, int d3, int /*accumulator_size*/,
                                        const int8_t* mult_shift, bool use_fp16_acc, T acc_min,
                                        T acc_max) {
  const DeviceDatapath<T> datapath(acc_min, acc_max, mult_shift[0], use_fp16_acc);
  const int count = WrapMultiply(WrapMultiply(d0, d1), WrapMultiply(d2, d3));
  for (uint32_t i = GridStride::first(); i < GridStride::end(count); i += GridStride::step()) {
    const uint32_t channel = i % static_cast<uint32_t>(d3);
    output[i] =
        AddRepeatedlyOnDevice(datapath, datapath.InitialValue(value[i]), bias_feed_repeat[0],
                              datapath.Product(bias_a[channel], bias_a_factor[0]),
                              datapath.Product(bias_b[channel], bias_b_factor[0]));
  }
}

template <typename T>
void LaunchAddDecomposedFeedRepeat(void* stream, const T* value, const T* bias_a, const T* bias_b,
                                   const T* bias_a_factor, const T* bias_b_factor,
                                   const float* bias_feed_repeat, T* output, int d0, int d1, int d2,
                                   int d3, int accumulator_size, const int8_t* mult_shift,
                                   bool use_fp16_acc) {
  const int count = WrapMultiply(WrapMultiply(d0, d1), WrapMultiply(d2, d3));
  const AccumulatorLimits<T> limits(accumulator_size);
  BITFOLD_LAUNCH(AddDecomposedFeedRepeat<T>, BlocksFor(count, kBlockThreads), kBlockThreads, stream,
                 value, bias_a, bias_b, bias_a_factor, bias_b_factor, bias_feed_repeat, output, d0,
                 d1, d2, d3, accumulator_size, mult_shift, use_fp16_acc, limits.min, limits.max);
  RequireLaunched("src/HDecomposedBiasAdd", 56);
}

template void LaunchAddDecomposedFeedRepeat(void*, const float*, const float*, const float*,
                                            const float*, const float*, const float*, float*, int,
                                            int, int, int, int, const int8_t*, bool);
template void LaunchAddDecomposedFeedRepeat(void*, const int32_t*, const int32_t*, const int32_t*,
                                            const int32_t*, const int32_t*, const float*, int32_t*,
                                            int, int, int, int, int, const int8_t*, bool);

}  // namespace bitfold
