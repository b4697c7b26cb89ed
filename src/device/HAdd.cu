// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HAdd on a GPU.

#include "bitfold/device_datapath.h"
#include "device/device.h"
#include "device/launchers.h"

namespace bitfold {
namespace {

// Both kernels: one element after the other, `count` of them.
template <typename T>
__device__ void AddElements(const T* value, const T* elementwise, const T* elementwise_factor,
                            const float* elementwise_feed_repeat, T* output, int count,
                            const DeviceDatapath<T>& datapath) {
  for (uint32_t i = GridStride::first(); i < GridStride::end(count); i += GridStride::step()) {
    output[i] =
        AddRepeatedlyOnDevice(datapath, datapath.InitialValue(value[i]), elementwise_feed_repeat[0],
                              datapath.Product(elementwise[i], elementwise_factor[0]));
  }
}

}  // namespace

template <typename T>
__global__ void AddEwFeedRepeat_4D(const T* value, const T* elementwise,
                                   const T* elementwise_factor,
                                   const float* elementwise_feed_repeat, T* output, int d0, int d1,
                                   int d2, int d3, int /*accumulator_size*/,
                                   const int8_t* mult_shift, bool use_fp16_acc, T acc_min,
                                   T acc_max) {
  const DeviceDatapath<T> datapath(acc_min, acc_max, mult_shift[0], use_fp16_acc);
  AddElements(value, elementwise, elementwise_factor, elementwise_feed_repeat, output,
              WrapMultiply(WrapMultiply(d0, d1), WrapMultiply(d2, d3)), datapath);
}

template <typename T>
__global__ void AddEwFeedRepeat_2D(const T* value, const T* elementwise,
                                   const T* elementwise_factor,
                                   const float* elementwise_feed_repeat, T* output, int d0, int d1,
                                   int /*accumulator_size*/, const int8_t* mult_shift,
                                   bool use_fp16_acc, T acc_min, T acc_max) {
  const DeviceDatapath<T> datapath(acc_min, acc_max, mult_shift[0], use_fp16_acc);
  AddElements(value, elementwise, elementwise_factor, elementwise_feed_repeat, output,
              WrapMultiply(d0, d1), datapath);
}

template <typename T>
void LaunchAddEwFeedRepeat4D(void* stream, const T* value, const T* elementwise,
                             const T* elementwise_factor, const float* elementwise_feed_repeat,
                             T* output, int d0, int d1, int d2, int d3, int accumulator_size,
                             const int8_t* mult_shift, bool use_fp16_acc) {
  const int count = WrapMultiply(WrapMultiply(d0, d1), WrapMultiply(d2, d3));
  const AccumulatorLimits<T> limits(accumulator_size);
  BITFOLD_LAUNCH(AddEwFeedRepeat_4D<T>, BlocksFor(count, kBlockThreads), kBlockThreads, stream,
                 value, elementwise, elementwise_factor, elementwise_feed_repeat, output, d0, d1,
                 d2, d3, accumulator_size, mult_shift, use_fp16_acc, limits.min, limits.max);
  RequireLaunched("src/HAdd", 76);
}

template <typename T>
void LaunchAddEwFeedRepeat2D(void* stream, const T* value, const T* elementwise,
                             const T* elementwise_factor, const float* elementwise_feed_repeat,
                             T* output, int d0, int d1, int accumulator_size,
                             const int8_t* mult_shift, bool use_fp16_acc) {
  const int count = WrapMultiply(d0, d1);
  const AccumulatorLimits<T> limits(accumulator_size);
  BITFOLD_LAUNCH(AddEwFeedRepeat_2D<T>, BlocksFor(count, kBlockThreads), kBlockThreads, stream,
                 value, elementwise, elementwise_factor, elementwise_feed_repeat, output, d0, d1,
                 accumulator_size, mult_shift, use_fp16_acc, limits.min, limits.max);
  RequireLaunched("src/HAdd", 96);
}

template void LaunchAddEwFeedRepeat4D(void*, const float*, const float*, const float*, const float*,
                                      float*, int, int, int, int, int, const int8_t*, bool);
template void LaunchAddEwFeedRepeat4D(void*, const int32_t*, const int32_t*, const int32_t*,
                                      const float*, int32_t*, int, int, int, int, int,
                                      const int8_t*, bool);
template void LaunchAddEwFeedRepeat2D(void*, const float*, const float*, const float*, const float*,
                                      float*, int, int, int, const int8_t*, bool);
template void LaunchAddEwFeedRepeat2D(void*, const int32_t*, const int32_t*, const int32_t*,
                                      const float*, int32_t*, int, int, int, const int8_t*, bool);

}  // namespace bitfold
