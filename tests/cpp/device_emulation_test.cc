// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The emulation itself: that it runs every thread once, in order or in the opposite one, and keeps
// what barriers promise; what it refuses, and what it records.

#include "support/device_emulation.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/device_case.h"

namespace bitfold {
namespace {

using testing::DeviceEmulation;
using testing::EmulatedLaunch;
using testing::EmulationOptions;
using testing::Show;

EmulationOptions Reversed() {
  EmulationOptions options;
  options.is_reversed = true;
  return options;
}

unsigned Linear(const dim3& index, const dim3& extent) {
  return (index.z * extent.y + index.y) * extent.x + index.x;
}

unsigned ThreadOfGrid() {
  return Linear(blockIdx, gridDim) * blockDim.x * blockDim.y * blockDim.z +
         Linear(threadIdx, blockDim);
}

// ---- Kernels -----------------------------------------------------------------------------------

__global__ void Visit(std::vector<unsigned>* visits) { visits->push_back(ThreadOfGrid()); }

// Each thread hands its number on to its neighbour, `rounds` times, through shared memory.
__global__ void HandOn(int rounds, unsigned* out) {
  __shared__ unsigned numbers[1024];
  const unsigned own = Linear(threadIdx, blockDim);
  const unsigned threads = blockDim.x * blockDim.y * blockDim.z;
  unsigned number = ThreadOfGrid();
  for (int round = 0; round < rounds; ++round) {
    numbers[own] = number;
    __syncthreads();
    number = numbers[(own + 1) % threads];
    __syncthreads();
  }
  out[ThreadOfGrid()] = number;
}

// One barrier for all threads, and one for every so many.
__global__ void Diverge(unsigned step) {
  __syncthreads();
  if (threadIdx.x % step == 0) __syncthreads();
}

// What the block before left there, and for the next one its own number.
__global__ void ReadShared(std::vector<int>* seen) {
  __shared__ int left;
  seen->push_back(left);
  left = static_cast<int>(blockIdx.x);
}

__global__ void StepThrough(int count, std::vector<int>* steps) {
  for (int i = static_cast<int>(blockIdx.x * blockDim.x + threadIdx.x); i < count;
       i += static_cast<int>(blockDim.x * gridDim.x)) {
    ++(*steps)[static_cast<size_t>(i)];
  }
}

// ---- Tests -------------------------------------------------------------------------------------

TEST(DeviceEmulation, ThreadsInOrder) {
  const std::vector<dim3> shapes = {{1}, {5}, {4, 3}, {2, 3, 4}};
  for (const dim3& grid : shapes) {
    for (const dim3& block : shapes) {
      std::vector<unsigned> forward;
      BITFOLD_LAUNCH(Visit, grid, block, nullptr, &forward);
      ASSERT_EQ(forward.size(), grid.x * grid.y * grid.z * block.x * block.y * block.z);
      for (unsigned i = 0; i < forward.size(); ++i) ASSERT_EQ(forward[i], i);
      const DeviceEmulation emulation(Reversed());
      std::vector<unsigned> backward;
      BITFOLD_LAUNCH(Visit, grid, block, nullptr, &backward);
      EXPECT_EQ(backward, std::vector<unsigned>(forward.rbegin(), forward.rend()));
    }
  }
}

TEST(DeviceEmulation, BarriersSeparateWritesFromReads) {
  for (const bool is_reversed : {false, true}) {
    for (const dim3 block : {dim3(1), dim3(2), dim3(16, 16), dim3(1024), dim3(3, 5, 7)}) {
      const unsigned threads = block.x * block.y * block.z;
      for (const int rounds : {0, 1, 2, 17}) {
        EmulationOptions options;
        options.is_reversed = is_reversed;
        const DeviceEmulation emulation(options);
        std::vector<unsigned> out(size_t{3} * threads);
        BITFOLD_LAUNCH(HandOn, 3, block, nullptr, rounds, out.data());
        for (unsigned i = 0; i < out.size(); ++i) {
          const unsigned from = i % threads + static_cast<unsigned>(rounds);
          ASSERT_EQ(out[i], i / threads * threads + from % threads);
        }
      }
    }
  }
}

TEST(DeviceEmulation, ABarrierThatSomeThreadsDoNotReachEndsTheProcess) {
  EXPECT_DEATH(BITFOLD_LAUNCH(Diverge, 1, 8, nullptr, 2),
               "emulated device: 4 of 8 threads of a block are at a barrier");
}

TEST(DeviceEmulation, SharedMemoryKeepsWhatWasLeftThere) {
  std::vector<int> seen;
  BITFOLD_LAUNCH(ReadShared, 3, 1, nullptr, &seen);
  EXPECT_EQ(std::vector<int>(seen.begin() + 1, seen.end()), (std::vector<int>{0, 1}));
  // Something else before every block, by a launch that is not recorded here.
  EmulationOptions options;
  int blocks = 0;
  options.before_block = [&](const EmulatedLaunch& launch) {
    EXPECT_EQ(launch.grid.x, 3u);
    ++blocks;
    const DeviceEmulation inner;
    std::vector<int> ignored;
    BITFOLD_LAUNCH(ReadShared, 9, 1, nullptr, &ignored);
    EXPECT_EQ(inner.launches().size(), 1u);
  };
  const DeviceEmulation emulation(options);
  seen.clear();
  BITFOLD_LAUNCH(ReadShared, 3, 1, nullptr, &seen);
  EXPECT_EQ(seen, (std::vector<int>{8, 8, 8}));
  EXPECT_EQ(blocks, 3);
  EXPECT_EQ(emulation.launches().size(), 1u);
}

TEST(DeviceEmulation, FewerBlocksThanAskedFor) {
  for (const unsigned most : {1u, 2u, 9u}) {
    EmulationOptions options;
    options.most_blocks = most;
    const DeviceEmulation emulation(options);
    std::vector<int> steps(1000, 0);
    BITFOLD_LAUNCH(StepThrough, 4, 256, nullptr, 1000, &steps);
    EXPECT_EQ(steps, std::vector<int>(1000, 1));
    EXPECT_EQ(emulation.launches()[0].grid.x, 4u);
  }
}

TEST(DeviceEmulation, RecordsLaunches) {
  int place = 0;
  const DeviceEmulation emulation;
  std::vector<unsigned> visits;
  BITFOLD_LAUNCH(Visit, 2, 3, &place, &visits);
  BITFOLD_LAUNCH(Visit, dim3(2, 3), dim3(4, 5, 6), nullptr, &visits);
  ASSERT_EQ(Show(emulation.launches()), (std::vector<std::string>{"Visit grid 2,1,1 block 3,1,1",
                                                                  "Visit grid 2,3,1 block 4,5,6"}));
  EXPECT_EQ(emulation.launches()[0].stream, &place);
  EXPECT_EQ(emulation.launches()[1].stream, nullptr);
}

TEST(DeviceEmulation, RefusesWhatTheRuntimeRefuses) {
  const struct {
    dim3 grid, block;
    bool is_valid;
  } launches[] = {
      {{1, 65535}, {1}, true},     {{1, 65536}, {1}, false}, {{1, 1, 65536}, {1}, false},
      {{0}, {1}, false},           {{1, 0}, {1}, false},     {{1, 1, 0}, {1}, false},
      {{2147483648u}, {1}, false}, {{1}, {0}, false},        {{1}, {1, 0}, false},
      {{1}, {1, 1, 0}, false},     {{1}, {1024}, true},      {{1}, {1025}, false},
      {{1}, {32, 32}, true},       {{1}, {33, 32}, false},   {{1}, {1, 1, 64}, true},
      {{1}, {1, 1, 65}, false},
  };
  for (const auto& launch : launches) {
    const DeviceEmulation emulation;
    std::vector<unsigned> visits;
    BITFOLD_LAUNCH(Visit, launch.grid, launch.block, nullptr, &visits);
    EXPECT_EQ(!visits.empty(), launch.is_valid) << Show(emulation.launches()[0]);
    EXPECT_EQ(cudaPeekAtLastError(), launch.is_valid ? cudaSuccess : cudaErrorInvalidConfiguration);
    EXPECT_STREQ(cudaGetErrorString(cudaPeekAtLastError()),
                 launch.is_valid ? "no error" : "invalid configuration argument");
  }
  EXPECT_EQ(cudaPeekAtLastError(), cudaSuccess) << "an emulation's errors end with it";
}

TEST(DeviceEmulation, FailsTheLaunchThatItIsToldTo) {
  EmulationOptions options;
  options.failing_launch = 1;
  options.failure = static_cast<cudaError_t>(98);
  const DeviceEmulation emulation(options);
  std::vector<unsigned> visits;
  BITFOLD_LAUNCH(Visit, 1, 1, nullptr, &visits);
  EXPECT_EQ(cudaPeekAtLastError(), cudaSuccess);
  BITFOLD_LAUNCH(Visit, 1, 1, nullptr, &visits);
  EXPECT_EQ(cudaPeekAtLastError(), 98);
  EXPECT_STREQ(cudaGetErrorString(cudaPeekAtLastError()), "unrecognized error code");
  EXPECT_EQ(visits.size(), 1u);
}

}  // namespace
}  // namespace bitfold
