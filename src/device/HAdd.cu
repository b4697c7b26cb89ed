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
void LaunchAddEwFeedRepeat4D(void* stream, const AddCall<T>& call) {
  const AdditionShape& shape = call.shape;
  const DatapathAttributes& attributes = call.attributes;
  const AccumulatorLimits<T> limits(attributes.accumulator_size);
  BITFOLD_LAUNCH(AddEwFeedRepeat_4D<T>, BlocksFor(shape.ElementCount(), kBlockThreads),
                 kBlockThreads, stream, call.value, call.elementwise, call.elementwise_factor,
                 call.elementwise_feed_repeat, call.output, shape.d0, shape.d1, shape.d2, shape.d3,
                 attributes.accumulator_size, attributes.mult_shift, attributes.use_fp16_acc,
                 limits.min, limits.max);
  RequireLaunched("src/HAdd", 76);
}

template <typename T>
void LaunchAddEwFeedRepeat2D(void* stream, const AddCall<T>& call) {
  const AdditionShape& shape = call.shape;
  const DatapathAttributes& attributes = call.attributes;
  const AccumulatorLimits<T> limits(attributes.accumulator_size);
  BITFOLD_LAUNCH(AddEwFeedRepeat_2D<T>, BlocksFor(shape.ElementCount(), kBlockThreads),
                 kBlockThreads, stream, call.value, call.elementwise, call.elementwise_factor,
                 call.elementwise_feed_repeat, call.output, shape.d0, shape.d3,
                 attributes.accumulator_size, attributes.mult_shift, attributes.use_fp16_acc,
                 limits.min, limits.max);
  RequireLaunched("src/HAdd", 96);
}

template void LaunchAddEwFeedRepeat4D(void*, const AddCall<float>&);
template void LaunchAddEwFeedRepeat4D(void*, const AddCall<int32_t>&);
template void LaunchAddEwFeedRepeat2D(void*, const AddCall<float>&);
template void LaunchAddEwFeedRepeat2D(void*, const AddCall<int32_t>&);

}  // namespace bitfold
