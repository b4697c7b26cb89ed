// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The GPU as the ops with device kernels meet it.

#ifndef BITFOLD_SRC_OPS_GPU_DEVICE_H_
#define BITFOLD_SRC_OPS_GPU_DEVICE_H_

#include "frame/op_frame.h"

namespace bitfold {

// The op's stream, a cudaStream_t.
struct GPUDevice {
  void* stream;
};

template <>
GPUDevice DeviceOf<GPUDevice>(tensorflow::OpKernelContext* context);

// Zeroes the elements of a device's tensor from `first` on, after what the stream holds.
absl::Status ZeroFill(const GPUDevice& device, tensorflow::Tensor* tensor, int64_t first);

}  // namespace bitfold

#endif  // BITFOLD_SRC_OPS_GPU_DEVICE_H_
