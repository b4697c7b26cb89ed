// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// A thread of a block that waits at a barrier keeps its stack; the next one then runs on another.
// One that does not wait leaves its stack to the next, so that kernels without barriers run on the
// caller's alone, as a loop.

// The check of jumps knows one stack only.
#undef _FORTIFY_SOURCE

#include "support/device_emulation.h"

#include <setjmp.h>
#include <ucontext.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define BITFOLD_FIBRES_UNDER_ASAN
#elif __has_feature(thread_sanitizer)
#define BITFOLD_FIBRES_UNDER_TSAN
#endif
#elif defined(__SANITIZE_ADDRESS__)
#define BITFOLD_FIBRES_UNDER_ASAN
#elif defined(__SANITIZE_THREAD__)
#define BITFOLD_FIBRES_UNDER_TSAN
#endif

#if defined(BITFOLD_FIBRES_UNDER_ASAN)
#include <sanitizer/common_interface_defs.h>
#elif defined(BITFOLD_FIBRES_UNDER_TSAN)
#include <sanitizer/tsan_interface.h>
#endif

namespace bitfold::testing {
namespace {

// A stack and what stands on it. The sanitizers are told of every switch to another.
class Fibre {
 public:
  // The caller's stack.
  Fibre() = default;
  // One of its own, on which `entry` will run and never end.
  explicit Fibre(void (*entry)()) : stack_(new char[kStackBytes]) {
    notes_.bottom = stack_.get();
    notes_.size = kStackBytes;
    is_new_ = true;
    getcontext(&context_);
    context_.uc_stack.ss_sp = stack_.get();
    context_.uc_stack.ss_size = kStackBytes;
    context_.uc_link = nullptr;
    makecontext(&context_, entry, 0);
#if defined(BITFOLD_FIBRES_UNDER_TSAN)
    notes_.tsan_fibre = __tsan_create_fiber(0);
#endif
  }
  ~Fibre() {
#if defined(BITFOLD_FIBRES_UNDER_TSAN)
    if (stack_ != nullptr) __tsan_destroy_fiber(notes_.tsan_fibre);
#endif
  }
  Fibre(const Fibre&) = delete;
  Fibre& operator=(const Fibre&) = delete;

  // Returns when something switches to this one again.
  void SwitchTo(Fibre* to) {
    to->came_from_ = this;
#if defined(BITFOLD_FIBRES_UNDER_ASAN)
    __sanitizer_start_switch_fiber(&notes_.fake_stack, to->notes_.bottom, to->notes_.size);
#elif defined(BITFOLD_FIBRES_UNDER_TSAN)
    if (stack_ == nullptr) notes_.tsan_fibre = __tsan_get_current_fiber();
    __tsan_switch_to_fiber(to->notes_.tsan_fibre, 0);
#endif
    // Jumps: a context asks the kernel for the signals at every switch. It only begins a stack.
    if (_setjmp(place_) == 0) {
      if (to->is_new_) {
        to->is_new_ = false;
        setcontext(&to->context_);
      }
      _longjmp(to->place_, 1);
    }
    Arrived();
  }

  // What follows every switch, on the stack that was switched to; also the first thing on a new
  // one.
  void Arrived() {
#if defined(BITFOLD_FIBRES_UNDER_ASAN)
    __sanitizer_finish_switch_fiber(notes_.fake_stack, &came_from_->notes_.bottom,
                                    &came_from_->notes_.size);
#endif
  }

  unsigned thread = 0;  // that runs here

 private:
  static constexpr size_t kStackBytes = size_t{256} * 1024;

  // What the sanitizers ask for at a switch.
  struct Notes {
    const void* bottom = nullptr;
    size_t size = 0;
    void* fake_stack = nullptr;
    void* tsan_fibre = nullptr;
  };

  bool is_new_ = false;
  ucontext_t context_ = {};
  jmp_buf place_ = {};
  std::unique_ptr<char[]> stack_;
  Fibre* came_from_ = nullptr;
  Notes notes_;
};

// The threads of one block at a time.
class BlockOfThreads {
 public:
  // The one there is: a new stack's entry takes no argument.
  static BlockOfThreads& Get() {
    static BlockOfThreads block;
    return block;
  }

  void Run(dim3 size, bool is_reversed, const std::function<void()>& thread) {
    size_ = size;
    is_reversed_ = is_reversed;
    run_thread_ = &thread;
    threads_ = size.x * size.y * size.z;
    next_ = ended_ = 0;
    running_ = &caller_;
    RunThreads();
    if (ended_ < threads_) SwitchTo(Next());  // and back when all have ended
  }

  void Wait() {
    waiting_.push_back(running_);
    SwitchTo(Next());
    SetThreadIndex();
  }

  bool WaitForAll(bool holds) {
    is_vote_ = true;
    all_hold_ &= holds;
    Wait();
    return all_held_;
  }

 private:
  BlockOfThreads() = default;

  static void RunFibre() {
    BlockOfThreads& block = Get();
    block.running_->Arrived();
    for (;;) {
      block.RunThreads();
      block.idle_.push_back(block.running_);
      block.SwitchTo(block.Next());
    }
  }

  // As many threads as there are left, the first on every stack up to a barrier.
  void RunThreads() {
    while (next_ < threads_) {
      running_->thread = next_++;
      SetThreadIndex();
      (*run_thread_)();
      ++ended_;
    }
  }

  // What goes on when a thread waits or none is left for its stack.
  Fibre* Next() {
    if (ready_.empty()) {
      if (next_ < threads_) return IdleFibre();
      if (ended_ == threads_) return &caller_;
      RequireAllAtBarrier();
      ready_.assign(waiting_.rbegin(), waiting_.rend());
      waiting_.clear();
      EndVote();
    }
    Fibre* const fibre = ready_.back();
    ready_.pop_back();
    return fibre;
  }

  Fibre* IdleFibre() {
    if (idle_.empty()) {
      fibres_.push_back(std::make_unique<Fibre>(&RunFibre));
      return fibres_.back().get();
    }
    Fibre* const fibre = idle_.back();
    idle_.pop_back();
    return fibre;
  }

  void SwitchTo(Fibre* to) {
    Fibre* const from = running_;
    running_ = to;
    if (from != to) from->SwitchTo(to);
  }

  void SetThreadIndex() const {
    const unsigned i = is_reversed_ ? threads_ - 1 - running_->thread : running_->thread;
    threadIdx = dim3(i % size_.x, i / size_.x % size_.y, i / size_.x / size_.y);
  }

  void EndVote() {
    all_held_ = std::exchange(all_hold_, true);
    if (!std::exchange(is_vote_, false)) return;
    DeviceEmulation::Votes& votes = DeviceEmulation::Current().votes;
    ++(all_held_ ? votes.held : votes.failed);
  }

  void RequireAllAtBarrier() const {
    if (waiting_.size() == threads_) return;
    std::fprintf(stderr, "emulated device: %zu of %u threads of a block are at a barrier\n",
                 waiting_.size(), threads_);
    std::abort();
  }

  dim3 size_;
  bool is_reversed_ = false;
  const std::function<void()>* run_thread_ = nullptr;
  unsigned threads_ = 0;
  unsigned next_ = 0;   // thread to be started
  unsigned ended_ = 0;  // threads
  Fibre caller_;
  Fibre* running_ = &caller_;
  std::vector<std::unique_ptr<Fibre>> fibres_;
  std::vector<Fibre*> idle_;
  std::vector<Fibre*> waiting_;  // in the order in which they came to the barrier
  std::vector<Fibre*> ready_;    // to go on from it, the first one last
  // What those that wait came with, and what it was at the barrier before.
  bool is_vote_ = false;
  bool all_hold_ = true;
  bool all_held_ = true;
};

DeviceEmulation* current = nullptr;

// The runtime's limits for one launch.
bool IsValid(const EmulatedLaunch& launch) {
  const dim3& grid = launch.grid;
  const dim3& block = launch.block;
  if (grid.x == 0 || grid.y == 0 || grid.z == 0) return false;
  if (grid.x > INT_MAX || grid.y > 65535 || grid.z > 65535) return false;
  if (block.x == 0 || block.y == 0 || block.z == 0) return false;
  if (block.x > 1024 || block.y > 1024 || block.z > 64) return false;
  return block.x * block.y * block.z <= 1024;
}

}  // namespace

DeviceEmulation::DeviceEmulation(EmulationOptions options)
    : options_(std::move(options)), outer_(std::exchange(current, this)) {}

DeviceEmulation::~DeviceEmulation() {
  if (is_recorded_) current = outer_;
}

DeviceEmulation& DeviceEmulation::Current() {
  static DeviceEmulation unrecorded{Unrecorded{}};
  return current == nullptr ? unrecorded : *current;
}

void DeviceEmulation::Launch(const EmulatedLaunch& launch, const std::function<void()>& thread) {
  const bool fails = static_cast<int>(launches_.size()) == options_.failing_launch;
  if (is_recorded_) launches_.push_back(launch);
  if (fails || !IsValid(launch)) {
    last_error_ = fails ? options_.failure : cudaErrorInvalidConfiguration;
    return;
  }
  dim3 grid = launch.grid;
  if (grid.y * grid.z * launch.block.y * launch.block.z == 1) {
    grid.x = std::min(grid.x, options_.most_blocks);
  }
  const uint64_t blocks = uint64_t{grid.x} * grid.y * grid.z;
  for (uint64_t b = 0; b < blocks; ++b) {
    if (options_.before_block) options_.before_block(launch);
    const uint64_t i = options_.is_reversed ? blocks - 1 - b : b;
    gridDim = grid;
    blockDim = launch.block;
    blockIdx = dim3(static_cast<unsigned>(i % grid.x), static_cast<unsigned>(i / grid.x % grid.y),
                    static_cast<unsigned>(i / grid.x / grid.y));
    BlockOfThreads::Get().Run(launch.block, options_.is_reversed, thread);
  }
}

}  // namespace bitfold::testing

using bitfold::testing::DeviceEmulation;

void __syncthreads() { bitfold::testing::BlockOfThreads::Get().Wait(); }

int __syncthreads_and(int predicate) {
  return bitfold::testing::BlockOfThreads::Get().WaitForAll(predicate != 0) ? 1 : 0;
}

cudaError_t cudaPeekAtLastError() { return DeviceEmulation::Current().last_error(); }

cudaError_t cudaGetLastError() { return DeviceEmulation::Current().TakeLastError(); }

const char* cudaGetErrorString(cudaError_t code) {
  if (code == cudaSuccess) return "no error";
  if (code == cudaErrorInvalidConfiguration) return "invalid configuration argument";
  return "unrecognized error code";
}

cudaError_t cudaGetDevice(int* device) {
  *device = DeviceEmulation::Current().device;
  return cudaSuccess;
}

cudaError_t cudaSetDevice(int device) {
  DeviceEmulation::Current().device = device;
  return cudaSuccess;
}

cudaError_t cudaDeviceSynchronize() {
  DeviceEmulation& emulation = DeviceEmulation::Current();
  emulation.waited_for.push_back(emulation.device);
  return emulation.wait_result;
}

cudaError_t cudaMemsetAsync(void* memory, int byte, size_t bytes, cudaStream_t /*stream*/) {
  const cudaError_t result = DeviceEmulation::Current().SetMemory();
  if (result == cudaSuccess) std::memset(memory, byte, bytes);
  return result;
}
