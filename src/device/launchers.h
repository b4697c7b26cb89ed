// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// How the ops reach their device kernels: launchers that need no header of the device's toolkit.
// Each launches on `stream`, a cudaStream_t (null: the default stream), does not wait, and ends the
// process where a launch fails. All other pointers are to device memory; of factors, feed repeats
// and mult_shift element 0 is read there. Dimensions and sizes as for the functor of the same op;
// their product, in 32-bit arithmetic, is the number of elements, of which there may be none.
// Instantiated for float and int32_t.

#ifndef BITFOLD_SRC_DEVICE_LAUNCHERS_H_
#define BITFOLD_SRC_DEVICE_LAUNCHERS_H_

#include <cstddef>
#include <cstdint>

#include "bitfold/device_convolution.h"

namespace bitfold {

// HAdd.cu
template <typename T>
void LaunchAddEwFeedRepeat4D(void* stream, const T* value, const T* elementwise,
                             const T* elementwise_factor, const float* elementwise_feed_repeat,
                             T* output, int d0, int d1, int d2, int d3, int accumulator_size,
                             const int8_t* mult_shift, bool use_fp16_acc);
template <typename T>
void LaunchAddEwFeedRepeat2D(void* stream, const T* value, const T* elementwise,
                             const T* elementwise_factor, const float* elementwise_feed_repeat,
                             T* output, int d0, int d1, int accumulator_size,
                             const int8_t* mult_shift, bool use_fp16_acc);

// HBiasAdd.cu
template <typename T>
void LaunchAddFeedRepeat(void* stream, const T* value, const T* bias, const T* bias_factor,
                         const float* bias_feed_repeat, T* output, int d0, int d1, int d2, int d3,
                         int accumulator_size, const int8_t* mult_shift, bool use_fp16_acc);

// HDecomposedBiasAdd.cu
template <typename T>
void LaunchAddDecomposedFeedRepeat(void* stream, const T* value, const T* bias_a, const T* bias_b,
                                   const T* bias_a_factor, const T* bias_b_factor,
                                   const float* bias_feed_repeat, T* output, int d0, int d1, int d2,
                                   int d3, int accumulator_size, const int8_t* mult_shift,
                                   bool use_fp16_acc);

// HStandaloneElementwiseAdd.cu
template <typename T>
void LaunchAddStandaloneEw(void* stream, const T* value, const T* elementwise, const T* weights,
                           T* output, int d0, int d1, int d2, int d3, int accumulator_size,
                           const int8_t* mult_shift, bool use_fp16_acc);

// HConv2D.cu: the filter as one row for each output channel. `rows` holds sizes.row_elements.
template <typename T>
void LaunchKer2Row(void* stream, const DeviceConvolution& sizes, const T* filter, T* rows);

// HConv2D.cu: each image unfolded and multiplied by the rows, one after the other. `columns` holds
// sizes.column_elements, zero where nothing is unfolded to; elementwise may be null.
template <typename T>
void LaunchImages(void* stream, const DeviceConvolution& sizes, const T* input, const T* rows,
                  const T* elementwise, T* columns, T* output, int accumulator_size,
                  const int8_t* mult_shift, bool use_fp16_acc);

// device_memory.cu: zeroes `bytes` bytes, after what the stream holds. Null, or what failed.
const char* ZeroDeviceMemory(void* stream, void* memory, size_t bytes);

}  // namespace bitfold

#endif  // BITFOLD_SRC_DEVICE_LAUNCHERS_H_
