// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The device that the CUDA runtime finds.

#include <cuda_runtime_api.h>

#include <cstdio>
#include <cstdlib>

#include "device_runtime.h"
#include "missing_device.h"

namespace bitfold::device_test {

namespace {

// Lines beyond its room are lost. Every sync formats what it holds, so no more than the counted
// launches need.
constexpr size_t kPrintBufferBytes = size_t{2} << 20;

cudaStream_t stream = nullptr;

void Require(cudaError_t code, const char* what) {
  if (code == cudaSuccess) return;
  std::fprintf(stderr, "%s: %s\n", what, cudaGetErrorString(code));
  std::exit(1);
}

std::string Version(int version) {
  return std::to_string(version / 1000) + "." + std::to_string(version % 1000 / 10);
}

}  // namespace

bool OpenDevice(std::string* description) {
  *description = MissingDevice();
  if (!description->empty()) return false;
  cudaDeviceProp device;
  int driver = 0;
  int runtime = 0;
  Require(cudaGetDeviceProperties(&device, 0), "reading the device's properties");
  Require(cudaDriverGetVersion(&driver), "reading the driver's version");
  Require(cudaRuntimeGetVersion(&runtime), "reading the runtime's version");
  Require(cudaSetDevice(0), "selecting the device");
  Require(cudaDeviceSetLimit(cudaLimitPrintfFifoSize, kPrintBufferBytes), "making room for lines");
  Require(cudaStreamCreateWithFlags(&stream, cudaStreamNonBlocking), "making a stream");
  *description = std::string(device.name) + ", compute capability " + std::to_string(device.major) +
                 "." + std::to_string(device.minor) + ", " +
                 std::to_string(device.multiProcessorCount) +
                 " multiprocessors\nDriver: for CUDA " + Version(driver) + "\nRuntime: CUDA " +
                 Version(runtime);
  return true;
}

std::string ErrorText(int code) { return cudaGetErrorString(static_cast<cudaError_t>(code)); }

void* Stream() { return stream; }

void WaitForDevice() { Require(cudaDeviceSynchronize(), "waiting for the device"); }

void* Allocate(size_t bytes) {
  void* memory = nullptr;
  Require(cudaMalloc(&memory, bytes), "allocating device memory");
  return memory;
}

void Free(void* memory) { Require(cudaFree(memory), "freeing device memory"); }

void CopyToDevice(void* device, const void* host, size_t bytes) {
  Require(cudaMemcpyAsync(device, host, bytes, cudaMemcpyHostToDevice, stream),
          "copying to device");
  WaitForDevice();
}

void CopyToHost(void* host, const void* device, size_t bytes) {
  Require(cudaMemcpyAsync(host, device, bytes, cudaMemcpyDeviceToHost, stream), "copying to host");
  WaitForDevice();
}

void CopyOnDevice(void* to, const void* from, size_t bytes) {
  Require(cudaMemcpyAsync(to, from, bytes, cudaMemcpyDeviceToDevice, stream), "copying on device");
}

void Fill(void* device, int byte, size_t bytes) {
  Require(cudaMemsetAsync(device, byte, bytes, stream), "filling device memory");
}

double Milliseconds(const std::function<void()>& work) {
  cudaEvent_t begin;
  cudaEvent_t end;
  Require(cudaEventCreate(&begin), "making an event");
  Require(cudaEventCreate(&end), "making an event");
  Require(cudaEventRecord(begin, stream), "recording an event");
  work();
  Require(cudaEventRecord(end, stream), "recording an event");
  Require(cudaEventSynchronize(end), "waiting for an event");
  float milliseconds = 0.0f;
  Require(cudaEventElapsedTime(&milliseconds, begin, end), "reading a time");
  Require(cudaEventDestroy(begin), "destroying an event");
  Require(cudaEventDestroy(end), "destroying an event");
  return static_cast<double>(milliseconds);
}

}  // namespace bitfold::device_test
