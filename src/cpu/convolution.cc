// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/convolution.h"

#include <algorithm>
#include <array>

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

template <typename T>
WindowAxis RowsOf(const ConvolutionImage<T>& work) {
  return {work.in_height, work.filter_height, work.stride_h, work.dilation_h, work.padding};
}

template <typename T>
WindowAxis ColumnsOf(const ConvolutionImage<T>& work) {
  return {work.in_width, work.filter_width, work.stride_w, work.dilation_w, work.padding};
}

// The work of one thread.
template <typename T>
struct ImageTask {
  ConvolutionImage<T> image;
  const BatchConvolution<T>* batch;
};

// Thread entry; `task` points to an ImageTask<T>.
template <typename T>
void* convolveOneImage(void* task) {
  const auto& image_task = *static_cast<const ImageTask<T>*>(task);
  image_task.batch->Run(image_task.image);
  pthread_exit(nullptr);
}

}  // namespace

template <typename T>
void ConvolveImage(const ConvolutionImage<T>& work) {
  const DefaultFloatingPointScope scope;
  ImageConvolution<T>(work).Run();
}

template <typename T>
BatchConvolution<T>::BatchConvolution(const ConvolutionImage<T>& work, int32_t filter_images,
                                      Scratch* scratch) {
  const DefaultFloatingPointScope scope;
  ChainCall<T> call{RowsOf(work),     ColumnsOf(work),   work.batch,
                    work.in_channels, work.out_channels, work.is_depthwise,
                    work.input,       work.filter,       1,
                    work.elementwise, work.output};
  if (work.is_depthwise) {
    call.filter_images = filter_images;
    const auto filter = CorrectWeights(WeightSign<T>(work.accumulator_size), work.filter,
                                       filter_images * call.FilterElements(), scratch);
    if (filter.weights == nullptr) return;
    call.filter = filter.weights;
    call.filter_facts = filter.facts;
    corrects_ = filter.corrected;
  }
  const Datapath<T> datapath(work.accumulator_size, work.mult_shift, work.use_fp16_acc);
  engine_ = std::make_unique<Engine>(datapath, call, std::min(work.batch, kImageThreads), scratch);
  if (!engine_->plan()) engine_.reset();
}

// Weights that meet no input are not seen.
template <typename T>
bool BatchConvolution<T>::NeedsWarning(const ConvolutionImage<T>& work) const {
  if (!corrects_) return false;
  const WeightSign<T> sign(work.accumulator_size);
  const WindowAxis rows = RowsOf(work);
  const WindowAxis columns = ColumnsOf(work);
  const int64_t taps = int64_t{rows.taps} * columns.taps;
  for (int64_t tap = 0; tap < taps; ++tap) {
    const T* weights = work.filter + (work.filter_image * taps + tap) * work.out_channels;
    const bool corrected = std::any_of(weights, weights + work.out_channels,
                                       [&sign](T x) { return sign.NeedsCorrection(x); });
    if (corrected && IsUsed(rows, static_cast<int32_t>(tap / columns.taps)) &&
        IsUsed(columns, static_cast<int32_t>(tap % columns.taps))) {
      return true;
    }
  }
  return false;
}

template <typename T>
void BatchConvolution<T>::Run(const ConvolutionImage<T>& work) const {
  if (engine_ == nullptr) return ConvolveImage(work);
  const DefaultFloatingPointScope scope;
  ImageConvolution<T> definition(work);
  engine_->Run(work.image, work.image % kImageThreads,
               [&definition](int32_t row, int32_t column, int32_t channel) {
                 definition.DefineOutput(row, column, channel);
               });
  if (NeedsWarning(work)) PrintDepthwiseWeightWarning();
}

template <typename T>
void convolve4DTensorSlow(const T* input, const T* filter, const T* elementwise, T* output,
                          int32_t batch, int32_t in_height, int32_t in_width, int32_t in_channels,
                          int32_t filter_height, int32_t filter_width, int32_t out_channels,
                          int32_t accumulator_size, const std::vector<int32_t>& strides,
                          const std::vector<int32_t>& dilations, Padding padding,
                          int32_t mult_shift, bool use_fp16_acc, bool is_depthwise,
                          int more_than_four_dimensions, Scratch* scratch, CreateThread create) {
  if (batch < 1) return;
  const bool filter_per_image = more_than_four_dimensions != 0;
  ConvolutionImage<T> work{input,
                           filter,
                           elementwise,
                           output,
                           batch,
                           in_height,
                           in_width,
                           in_channels,
                           filter_height,
                           filter_width,
                           out_channels,
                           accumulator_size,
                           strides[1],
                           strides[2],
                           dilations[1],
                           dilations[2],
                           padding,
                           mult_shift,
                           use_fp16_acc,
                           is_depthwise,
                           0,
                           0};
  const BatchConvolution<T> convolution(work, filter_per_image ? batch : 1, scratch);
  std::array<ImageTask<T>, kImageThreads> records;
  std::array<pthread_t, kImageThreads> threads;
  for (int32_t first = 0; first < batch; first += kImageThreads) {
    const int group = std::min(batch - first, kImageThreads);
    std::array<bool, kImageThreads> started{};
    for (int slot = 0; slot < group; ++slot) {
      work.image = first + slot;
      work.filter_image = filter_per_image ? work.image : 0;
      records[slot] = {work, &convolution};
      started[slot] = create(&threads[slot], nullptr, convolveOneImage<T>, &records[slot]) == 0;
      if (!started[slot]) convolution.Run(work);
    }
    for (int slot = 0; slot < group; ++slot) {
      if (started[slot]) pthread_join(threads[slot], nullptr);
    }
  }
}

#define BITFOLD_INSTANTIATE(T)                                                                    \
  template void ConvolveImage(const ConvolutionImage<T>&);                                        \
  template class BatchConvolution<T>;                                                             \
  template void convolve4DTensorSlow(const T*, const T*, const T*, T*, int32_t, int32_t, int32_t, \
                                     int32_t, int32_t, int32_t, int32_t, int32_t,                 \
                                     const std::vector<int32_t>&, const std::vector<int32_t>&,    \
                                     Padding, int32_t, bool, bool, int, Scratch*, CreateThread);
BITFOLD_INSTANTIATE(int32_t)
BITFOLD_INSTANTIATE(float)
#undef BITFOLD_INSTANTIATE

}  // namespace bitfold
