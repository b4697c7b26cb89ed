// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The host in place of a device, for the emulation of blocks and threads. Allocations have their
// exact size, so that sanitizers see a kernel that reads or writes beyond one.

#include <chrono>
#include <cstdlib>
#include <cstring>

#include "device_runtime.h"
#include "support/device_emulation.h"

namespace bitfold::device_test {

bool OpenDevice(std::string* description) {
  *description = "an emulation on the host";
  return true;
}

std::string ErrorText(int code) { return cudaGetErrorString(static_cast<cudaError_t>(code)); }

void* Stream() { return nullptr; }

void WaitForDevice() {}

void* Allocate(size_t bytes) {
  void* memory = std::malloc(bytes);
  if (memory == nullptr) std::abort();
  return memory;
}

void Free(void* memory) { std::free(memory); }

void CopyToDevice(void* device, const void* host, size_t bytes) {
  std::memcpy(device, host, bytes);
}

void CopyToHost(void* host, const void* device, size_t bytes) { std::memcpy(host, device, bytes); }

void CopyOnDevice(void* to, const void* from, size_t bytes) { std::memcpy(to, from, bytes); }

void Fill(void* device, int byte, size_t bytes) { std::memset(device, byte, bytes); }

double Milliseconds(const std::function<void()>& work) {
  const auto begin = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin)
      .count();
}

}  // namespace bitfold::device_test
