// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// How the ops reach their device kernels: launchers that need no header of the device's toolkit.
// Each launches on `stream`, a cudaStream_t (null: the default stream), does not wait, and ends the
// process where a launch fails. All other pointers, those of the records too, are to device memory;
// of factors, feed repeats and mult_shift element 0 is read there. There may be no elements.
// Instantiated for float and int32_t.

#ifndef BITFOLD_SRC_DEVICE_LAUNCHERS_H_
#define BITFOLD_SRC_DEVICE_LAUNCHERS_H_

#include <cstddef>
#include <cstdint>

#include "bitfold/HAdd.h"
#include "bitfold/HBiasAdd.h"
#include "bitfold/HDecomposedBiasAdd.h"
#include "bitfold/HStandaloneElementwiseAdd.h"
#include "bitfold/convolution_call.h"

namespace bitfold {

// HAdd.cu: a value of rank 4, and one of rank 2, which is (d0, 1, 1, d3).
template <typename T>
void LaunchAddEwFeedRepeat4D(void* stream, const AddCall<T>& call);
template <typename T>
void LaunchAddEwFeedRepeat2D(void* stream, const AddCall<T>& call);

// HBiasAdd.cu
template <typename T>
void LaunchAddFeedRepeat(void* stream, const BiasAddCall<T>& call);

// HDecomposedBiasAdd.cu
template <typename T>
void LaunchAddDecomposedFeedRepeat(void* stream, const DecomposedBiasAddCall<T>& call);

// HStandaloneElementwiseAdd.cu
template <typename T>
void LaunchAddStandaloneEw(void* stream, const StandaloneElementwiseAddCall<T>& call);

// HConv2D.cu: the filter as one row for each output channel. `rows` holds row_elements of the
// call's DeviceConvolution.
template <typename T>
void LaunchKer2Row(void* stream, const ConvolutionCall<T>& call, T* rows);

// HConv2D.cu: each image unfolded and multiplied by the rows, one after the other. `columns` holds
// column_elements, zero where nothing is unfolded to.
template <typename T>
void LaunchImages(void* stream, const ConvolutionCall<T>& call, const T* rows, T* columns);

// device_memory.cu: zeroes `bytes` bytes, after what the stream holds. Null, or what failed.
const char* ZeroDeviceMemory(void* stream, void* memory, size_t bytes);

// device_lines.cu: until every device on which a launcher launched has done all its work, which
// writes the lines of its kernels to C's standard output. 0, or the code of what failed first.
int WaitForUsedDevices();

}  // namespace bitfold

#endif  // BITFOLD_SRC_DEVICE_LAUNCHERS_H_
