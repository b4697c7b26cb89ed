// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What the device sources use of their toolkit, on the host: blocks one after the other, and in a
// block the threads one after the other, each up to its next barrier. So a run is deterministic and
// sanitizers see every access; races between threads and a device's own numerics are not seen.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_DEVICE_EMULATION_H_
#define BITFOLD_TESTS_CPP_SUPPORT_DEVICE_EMULATION_H_

#include <climits>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

// ---- The toolkit's names -----------------------------------------------------------------------

// NOLINTBEGIN(bugprone-reserved-identifier): the toolkit's.
#define __global__
#define __device__
#define __host__
#define __forceinline__ inline
#define __launch_bounds__(threads, blocks)
// One storage for all blocks, since they run in turn: a block finds what the one before left.
#define __shared__ static
// NOLINTEND(bugprone-reserved-identifier)

struct dim3 {
  unsigned x;
  unsigned y;
  unsigned z;
  // Numbers convert, as in a launch.
  constexpr dim3(unsigned in_x = 1, unsigned in_y = 1, unsigned in_z = 1)  // NOLINT
      : x(in_x), y(in_y), z(in_z) {}
};

// Of the thread that runs.
inline dim3 threadIdx;
inline dim3 blockIdx;
inline dim3 blockDim;
inline dim3 gridDim;

// Returns when all threads of the block have come here. One that ends without ends the process.
void __syncthreads();  // NOLINT(bugprone-reserved-identifier)
// So does this: whether all came with another number than 0.
int __syncthreads_and(int predicate);  // NOLINT(bugprone-reserved-identifier)

using cudaStream_t = struct EmulatedStream*;
enum cudaError_t : int { cudaSuccess = 0, cudaErrorInvalidConfiguration = 9 };

cudaError_t cudaPeekAtLastError();
cudaError_t cudaGetLastError();  // and forgets it
const char* cudaGetErrorString(cudaError_t code);
cudaError_t cudaGetDevice(int* device);
cudaError_t cudaSetDevice(int device);
cudaError_t cudaDeviceSynchronize();
cudaError_t cudaMemsetAsync(void* memory, int byte, size_t bytes, cudaStream_t stream);

#define BITFOLD_LAUNCH(kernel, blocks, threads, stream, ...) \
  ::bitfold::testing::LaunchEmulated(#kernel, blocks, threads, stream, kernel, __VA_ARGS__)

// ---- The tests' side ---------------------------------------------------------------------------

namespace bitfold::testing {

struct EmulatedLaunch {
  std::string kernel;  // as the source writes it
  dim3 grid;
  dim3 block;
  void* stream;
};

struct EmulationOptions {
  // Blocks and threads from the last to the first. No result may depend on it.
  bool is_reversed = false;
  // Of a grid and blocks of one dimension: what a thread does not reach it must get to by steps.
  unsigned most_blocks = UINT_MAX;
  // Called before every block. It may launch too, under an emulation of its own: so it can leave
  // something in shared memory, of which the emulation does not know where it lies.
  std::function<void(const EmulatedLaunch&)> before_block;
  // The launch, counted from 0, that fails, and with what; so does every call that sets memory.
  int failing_launch = -1;
  cudaError_t failure = cudaErrorInvalidConfiguration;
  cudaError_t memset_result = cudaSuccess;
};

// How launches run, and what they were, for the life of the object; then as before. Without any,
// they run and are not recorded.
class DeviceEmulation {
 public:
  explicit DeviceEmulation(EmulationOptions options = {});
  ~DeviceEmulation();
  DeviceEmulation(const DeviceEmulation&) = delete;
  DeviceEmulation& operator=(const DeviceEmulation&) = delete;

  const std::vector<EmulatedLaunch>& launches() const { return launches_; }

  // Of the barriers at which blocks asked whether all threads come with a number other than 0: how
  // many said that they do, and that they do not.
  struct Votes {
    int64_t held = 0;
    int64_t failed = 0;
  };
  Votes votes;

  // Of the calling thread. Each device that was waited for is noted.
  int device = 0;
  std::vector<int> waited_for;
  cudaError_t wait_result = cudaSuccess;

  // The emulation in use.
  static DeviceEmulation& Current();

  // Runs `thread` for every thread, unless the launch is one that the runtime refuses: a grid or a
  // block without threads or above the limits. That leaves an error and does nothing.
  void Launch(const EmulatedLaunch& launch, const std::function<void()>& thread);
  cudaError_t last_error() const { return last_error_; }
  cudaError_t TakeLastError() { return std::exchange(last_error_, cudaSuccess); }
  // What setting memory results in; a failure is the last error, too.
  cudaError_t SetMemory() {
    if (options_.memset_result != cudaSuccess) last_error_ = options_.memset_result;
    return options_.memset_result;
  }

 private:
  struct Unrecorded {};
  explicit DeviceEmulation(Unrecorded) : is_recorded_(false) {}

  EmulationOptions options_;
  bool is_recorded_ = true;
  DeviceEmulation* outer_ = nullptr;
  std::vector<EmulatedLaunch> launches_;
  cudaError_t last_error_ = cudaSuccess;
};

// The arguments are copied once, for all threads.
template <typename... Parameters, typename... Arguments>
void LaunchEmulated(const char* name, dim3 grid, dim3 block, void* stream,
                    void (*kernel)(Parameters...), Arguments... arguments) {
  DeviceEmulation::Current().Launch({name, grid, block, stream}, [=] { kernel(arguments...); });
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_DEVICE_EMULATION_H_
