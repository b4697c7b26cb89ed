// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What a device source needs of its toolkit: the toolkit's runtime or, built for the host by the
// tests, an emulation of blocks, threads and barriers that has the same names.

#ifndef BITFOLD_SRC_DEVICE_DEVICE_H_
#define BITFOLD_SRC_DEVICE_DEVICE_H_

#if defined(__CUDACC__) || defined(__CUDA__)

#include <cuda_runtime.h>

// On `stream`, without dynamic shared memory; `blocks` and `threads` are numbers or dim3.
#define BITFOLD_LAUNCH(kernel, blocks, threads, stream, ...) \
  kernel<<<blocks, threads, 0, static_cast<cudaStream_t>(stream)>>>(__VA_ARGS__)

// Ahead of a loop: all its rounds one after the other, or not.
#define BITFOLD_UNROLL_ALL _Pragma("unroll")
#define BITFOLD_KEEP_ROLLED _Pragma("unroll 1")

#else

#include "support/device_emulation.h"

#define BITFOLD_UNROLL_ALL
#define BITFOLD_KEEP_ROLLED

#endif

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace bitfold {

inline constexpr int kBlockThreads = 512;

// The blocks for one thread per element: (count - 1) / threads + 1, truncating, so that no elements
// get one block, whose threads find nothing to do. So do counts that wrapped to below 0.
inline int BlocksFor(int count, int threads) { return count < 1 ? 1 : (count - 1) / threads + 1; }

// Keeps in mind that something was launched on the calling thread's device.
void NoteDevice();

// A launch that failed ends the process: what was enqueued before it cannot be taken back, so
// nothing computed after it could be trusted. `file` and `line` are what it prints, not where the
// call stands.
inline void RequireLaunched(const char* file, int line) {
  const cudaError_t code = cudaPeekAtLastError();
  if (code == cudaSuccess) return NoteDevice();
  std::fprintf(stderr, "GPUassert: %s %s %d\n", cudaGetErrorString(code), file, line);
  std::exit(static_cast<int>(code));
}

// The elements of one thread of a one-dimensional grid: first(), then one every step(). Counted
// without a sign, since a count near 2^31 and a step add up to more than an int holds.
class GridStride {
 public:
  __device__ static uint32_t first() { return blockIdx.x * blockDim.x + threadIdx.x; }
  __device__ static uint32_t step() { return blockDim.x * gridDim.x; }
  // As an end for the loop; a negative count has no elements.
  __device__ static uint32_t end(int count) { return count > 0 ? static_cast<uint32_t>(count) : 0; }
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_DEVICE_DEVICE_H_
