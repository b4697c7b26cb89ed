// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "ops/gpu_device.h"

#include <cstdio>

#include "bitfold/device_lines.h"
#include "device/launchers.h"

#ifdef BITFOLD_GPU

#include "tensorflow/core/framework/device_base.h"
#include "xla/stream_executor/stream.h"

namespace bitfold {

using tensorflow::Tensor;

absl::Status ZeroFill(const GPUDevice& device, Tensor* tensor, int64_t first) {
  const BytesFrom rest(tensor, first);
  if (rest.count == 0) return absl::OkStatus();
  const char* error = ZeroDeviceMemory(device.stream, rest.data, rest.count);
  if (error == nullptr) return absl::OkStatus();
  return absl::InternalError(
      absl::StrCat("Could not zero ", rest.count, " bytes of device memory: ", error));
}

template <>
GPUDevice DeviceOf<GPUDevice>(tensorflow::OpKernelContext* context) {
  return {context->op_device_context()->stream()->platform_specific_handle().stream};
}

}  // namespace bitfold

#endif  // BITFOLD_GPU

int bitfold_flush_device_lines() {
#ifdef BITFOLD_GPU
  const int code = bitfold::WaitForUsedDevices();
#else
  const int code = 0;
#endif
  std::fflush(stdout);
  return code;
}
