// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Whether the CUDA runtime can use a device, and if not, what to tell.

#ifndef BITFOLD_TESTS_DEVICE_MISSING_DEVICE_H_
#define BITFOLD_TESTS_DEVICE_MISSING_DEVICE_H_

#include <cuda_runtime_api.h>

#include <string>

namespace bitfold::device_test {

// Empty if there is a device.
inline std::string MissingDevice() {
  int driver = 0;
  if (cudaDriverGetVersion(&driver) == cudaSuccess && driver == 0) {
    return "No GPU can be used: there is no CUDA driver here.";
  }
  int count = 0;
  const cudaError_t code = cudaGetDeviceCount(&count);
  if (code == cudaSuccess && count > 0) return "";
  return std::string("No GPU can be used: ") +
         (code == cudaSuccess ? "the CUDA driver lists none" : cudaGetErrorString(code)) + ".";
}

}  // namespace bitfold::device_test

#endif  // BITFOLD_TESTS_DEVICE_MISSING_DEVICE_H_
