// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/image_threads.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <exception>

#include "bitfold/warning.h"
#include "cpu/convolution.h"

namespace bitfold {
namespace {

// The work of one thread; filled before the thread starts and then its own until it is joined.
template <typename T>
struct ImageTask {
  const BatchConvolution<T>* batch;
  int32_t image;
  bool counts_warnings;  // as the calling thread does
  BitfoldWarningCounts counts{};
  std::exception_ptr failure{};  // of memory, as a rule

  void Run() {
    const WarningScope warnings(counts_warnings ? &counts : nullptr);
    try {
      batch->RunImage(image, image % kImageThreads);
    } catch (const std::exception&) {
      failure = std::current_exception();
    }
  }
};

// Thread entry; `task` points to an ImageTask<T>.
template <typename T>
void* RunTask(void* task) {
  static_cast<ImageTask<T>*>(task)->Run();
  pthread_exit(nullptr);
}

}  // namespace

template <typename T>
void ComputeByImageThreads(const ConvolutionCall<T>& call, Scratch* scratch, CreateThread create) {
  if (ComputeWithoutProducts(call)) return;
  const BatchConvolution<T> convolution(call, std::min(call.batch, kImageThreads), scratch);
  BitfoldWarningCounts* const counts = CountsOfThisThread();
  std::array<pthread_t, kImageThreads> threads;
  for (int64_t first = 0; first < call.batch; first += kImageThreads) {
    const int group = static_cast<int>(std::min<int64_t>(call.batch - first, kImageThreads));
    std::array<ImageTask<T>, kImageThreads> tasks;
    std::array<bool, kImageThreads> started{};
    for (int slot = 0; slot < group; ++slot) {
      tasks[slot] = {&convolution, static_cast<int32_t>(first + slot), counts != nullptr};
      started[slot] = create(&threads[slot], nullptr, RunTask<T>, &tasks[slot]) == 0;
      if (!started[slot]) tasks[slot].Run();
    }
    for (int slot = 0; slot < group; ++slot) {
      if (started[slot]) pthread_join(threads[slot], nullptr);
    }
    if (counts != nullptr) {
      for (const ImageTask<T>& task : tasks) AddCounts(task.counts, counts);
    }
    for (const ImageTask<T>& task : tasks) {
      if (task.failure) std::rethrow_exception(task.failure);
    }
  }
}

template void ComputeByImageThreads(const ConvolutionCall<int32_t>&, Scratch*, CreateThread);
template void ComputeByImageThreads(const ConvolutionCall<float>&, Scratch*, CreateThread);

}  // namespace bitfold
