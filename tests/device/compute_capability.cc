// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Prints the compute capability of the machine's GPU, such as 61, for the compiler's sake. Without
// a GPU it says so and exits with 2.

#include <cuda_runtime_api.h>

#include <cstdio>
#include <string>

#include "missing_device.h"

int main() {
  const std::string missing = bitfold::device_test::MissingDevice();
  if (!missing.empty()) {
    std::fprintf(stderr, "%s\n", missing.c_str());
    return 2;
  }
  cudaDeviceProp device;
  const cudaError_t code = cudaGetDeviceProperties(&device, 0);
  if (code != cudaSuccess) {
    std::fprintf(stderr, "Reading the device's properties: %s\n", cudaGetErrorString(code));
    return 1;
  }
  std::printf("%d%d\n", device.major, device.minor);
  return 0;
}
