// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The CPU convolution of a batch: one POSIX thread per image, in groups of 20. Knows nothing of
// the runtime, so that it can be tested and sanitised without it.

#ifndef BITFOLD_SRC_CPU_CONVOLUTION_H_
#define BITFOLD_SRC_CPU_CONVOLUTION_H_

#include <pthread.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "bitfold/HConv2D.h"
#include "chain/engine.h"
#include "frame/scratch.h"

namespace bitfold {

inline constexpr int kImageThreads = 20;

// pthread_create's signature; tests pass one that fails.
using CreateThread = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

// The definition of one image's convolution.
template <typename T>
void ConvolveImage(const ConvolutionImage<T>& work);

// The convolutions of a call, as fast as its numbers allow.
template <typename T>
class BatchConvolution {
 public:
  // Of the call that `work` is an image of. Up to kImageThreads images run at the same time.
  BatchConvolution(const ConvolutionImage<T>& work, int32_t filter_images, Scratch* scratch);

  // Computes and writes the outputs of an image and prints its lines.
  void Run(const ConvolutionImage<T>& work) const;

  // How; empty where by the definition.
  std::optional<ChainPlan> plan() const { return engine_ ? engine_->plan() : std::nullopt; }

 private:
  using Engine = ChainEngine<Datapath<T>, T>;

  bool NeedsWarning(const ConvolutionImage<T>& work) const;

  std::unique_ptr<Engine> engine_;
  bool corrects_ = false;  // depthwise: whether the sign of some weight is corrected
};

// A fixed table of 20 records and threads: image i uses slot i mod 20, and the table is reused
// once all its threads have been joined. An image whose thread cannot be created is computed on
// the calling thread instead. Requires what ConvolutionImage requires; strides and dilations have
// at least 3 elements, of which 1 (height) and 2 (width) are used.
template <typename T>
void convolve4DTensorSlow(const T* input, const T* filter, const T* elementwise, T* output,
                          int32_t batch, int32_t in_height, int32_t in_width, int32_t in_channels,
                          int32_t filter_height, int32_t filter_width, int32_t out_channels,
                          int32_t accumulator_size, const std::vector<int32_t>& strides,
                          const std::vector<int32_t>& dilations, Padding padding,
                          int32_t mult_shift, bool use_fp16_acc, bool is_depthwise,
                          int more_than_four_dimensions, Scratch* scratch,
                          CreateThread create = pthread_create);

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_CONVOLUTION_H_
