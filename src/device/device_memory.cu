// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "device/device.h"
#include "device/launchers.h"

namespace bitfold {

const char* ZeroDeviceMemory(void* stream, void* memory, size_t bytes) {
  const cudaError_t code = cudaMemsetAsync(memory, 0, bytes, static_cast<cudaStream_t>(stream));
  if (code == cudaSuccess) return nullptr;
  cudaGetLastError();  // or the next launch, which has nothing to do with it, would end the process
  return cudaGetErrorString(code);
}

}  // namespace bitfold
