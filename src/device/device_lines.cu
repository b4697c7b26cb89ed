// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include <atomic>

#include "device/device.h"
#include "device/launchers.h"

namespace bitfold {
namespace {

// A bit for each device on which something was launched; others are not woken to ask them.
std::atomic<uint64_t> used_devices{0};
constexpr int kMostDevices = 64;

}  // namespace

void NoteDevice() {
  int device = 0;
  if (cudaGetDevice(&device) != cudaSuccess || device >= kMostDevices) return;
  used_devices.fetch_or(uint64_t{1} << device, std::memory_order_relaxed);
}

int WaitForUsedDevices() {
  const uint64_t used = used_devices.load(std::memory_order_relaxed);
  if (used == 0) return cudaSuccess;
  int current = 0;
  cudaError_t failure = cudaGetDevice(&current);
  for (int device = 0; device < kMostDevices; ++device) {
    if ((used >> device & 1) == 0) continue;
    cudaError_t code = cudaSetDevice(device);
    if (code == cudaSuccess) code = cudaDeviceSynchronize();
    if (failure == cudaSuccess) failure = code;
  }
  cudaSetDevice(current);
  return failure;
}

}  // namespace bitfold
