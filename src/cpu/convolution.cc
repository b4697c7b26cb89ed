// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/convolution.h"

#include <algorithm>
#include <array>
#include <exception>

#include "bitfold/HConv2D.h"
#include "bitfold/datapath_attributes.h"
#include "bitfold/warning.h"
#include "bitfold/weight_sign.h"
#include "chain/corrected_weights.h"
#include "frame/floating_point_scope.h"

namespace bitfold {
namespace {

// Whether a tap lies inside the image for some output.
bool IsUsed(const WindowAxis& axis, int32_t tap) {
  for (int32_t output = 0; output < axis.outputs; ++output) {
    if (axis.Contains(axis.Coordinate(output, tap))) return true;
  }
  return false;
}

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
      batch->Run(image);
    } catch (const std::exception&) {
      failure = std::current_exception();
    }
  }
};

// Thread entry; `task` points to an ImageTask<T>.
template <typename T>
void* RunImage(void* task) {
  static_cast<ImageTask<T>*>(task)->Run();
  pthread_exit(nullptr);
}

// Whether no window meets an input: no products, but addends of the elementwise tensor perhaps.
template <typename T>
bool HasNoProducts(const ConvolutionCall<T>& call) {
  return call.InputElements() == 0 || call.FilterElements() == 0;
}

// Of the whole batch.
template <typename T>
int64_t OutputElements(const ConvolutionCall<T>& call) {
  const int32_t rows = getOutputSize(call.rows);
  const int32_t columns = getOutputSize(call.columns);
  if (call.batch < 1 || rows < 1 || columns < 1 || call.out_channels < 1) return 0;
  return int64_t{call.batch} * rows * columns * call.out_channels;
}

// The definition where there are no products, with the taps counted instead of walked: without
// elements there can be 2^31 of them.
template <typename T>
void AddElementwise(const ConvolutionCall<T>& call, int64_t outputs) {
  const DefaultFloatingPointScope scope;
  const int64_t addends = call.elementwise == nullptr ? 0 : CentreTaps{WindowAxis(call.rows)}.count;
  if (addends == 0) {
    std::fill_n(call.output, outputs, T{0});
    return;
  }
  const auto datapath = MakeDatapath<Datapath<T>>(call.datapath);
  for (int64_t o = 0; o < outputs; ++o) {
    T acc = T{0};
    for (int64_t k = 0; k < addends; ++k) acc = datapath.Accumulate(acc, call.elementwise[o]);
    call.output[o] = acc;
  }
}

}  // namespace

template <typename T>
BatchConvolution<T>::BatchConvolution(const ConvolutionCall<T>& call, Scratch* scratch)
    : call_(call) {
  const DefaultFloatingPointScope scope;
  CorrectedWeights<T> weights{call.filter, false, {}};
  if (call.is_depthwise) {
    weights = CorrectWeights(WeightSign<T>(call.datapath.accumulator_size), call.filter,
                             call.filters * call.FilterElements(), scratch);
    if (weights.weights == nullptr) return;
    corrects_ = weights.corrected;
  }
  engine_ = std::make_unique<Engine>(call, weights, std::min(call.batch, kImageThreads), scratch);
  if (!engine_->plan()) engine_.reset();
}

// Weights that meet no input are not seen.
template <typename T>
bool BatchConvolution<T>::NeedsWarning(int32_t image) const {
  if (!corrects_) return false;
  const WeightSign<T> sign(call_.datapath.accumulator_size);
  const WindowAxis rows(call_.rows);
  const WindowAxis columns(call_.columns);
  const int64_t taps = int64_t{rows.taps} * columns.taps;
  const T* weights = call_.filter + call_.FilterOf(image) * call_.FilterElements();
  for (int64_t tap = 0; tap < taps; ++tap, weights += call_.out_channels) {
    const bool corrected = std::any_of(weights, weights + call_.out_channels,
                                       [&sign](T x) { return sign.NeedsCorrection(x); });
    if (corrected && IsUsed(rows, static_cast<int32_t>(tap / columns.taps)) &&
        IsUsed(columns, static_cast<int32_t>(tap % columns.taps))) {
      return true;
    }
  }
  return false;
}

template <typename T>
void BatchConvolution<T>::Run(int32_t image) const {
  const DefaultFloatingPointScope scope;
  if (engine_ == nullptr) return convolveOneImage(call_, image);
  ImageConvolution<T> definition(call_, image);
  engine_->Run(image, image % kImageThreads,
               [&definition](int32_t row, int32_t column, int32_t channel) {
                 definition.DefineOutput(row, column, channel);
               });
  if (NeedsWarning(image)) WarnDepthwiseWeights();
}

template <typename T>
void ComputeConvolution(const ConvolutionCall<T>& call, Scratch* scratch, CreateThread create) {
  const int64_t outputs = OutputElements(call);
  if (outputs == 0) return;
  if (HasNoProducts(call)) return AddElementwise(call, outputs);
  const BatchConvolution<T> convolution(call, scratch);
  BitfoldWarningCounts* const counts = CountsOfThisThread();
  std::array<pthread_t, kImageThreads> threads;
  for (int64_t first = 0; first < call.batch; first += kImageThreads) {
    const int group = static_cast<int>(std::min<int64_t>(call.batch - first, kImageThreads));
    std::array<ImageTask<T>, kImageThreads> tasks;
    std::array<bool, kImageThreads> started{};
    for (int slot = 0; slot < group; ++slot) {
      tasks[slot] = {&convolution, static_cast<int32_t>(first + slot), counts != nullptr};
      started[slot] = create(&threads[slot], nullptr, RunImage<T>, &tasks[slot]) == 0;
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

#define BITFOLD_INSTANTIATE(T)        \
  template class BatchConvolution<T>; \
  template void ComputeConvolution(const ConvolutionCall<T>&, Scratch*, CreateThread);
BITFOLD_INSTANTIATE(int32_t)
BITFOLD_INSTANTIATE(float)
#undef BITFOLD_INSTANTIATE

}  // namespace bitfold
