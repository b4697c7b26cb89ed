// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The CPU convolution of a batch: one POSIX thread per image, in groups of 20. Knows nothing of
// the runtime, so that it can be tested and sanitised without it.

#ifndef BITFOLD_SRC_CONVOLVE_H_
#define BITFOLD_SRC_CONVOLVE_H_

#include <pthread.h>

#include <array>
#include <cstdint>
#include <vector>

#include "bitfold/HConv2D.h"
#include "floating_point_scope.h"

namespace bitfold {

inline constexpr int kImageThreads = 20;

// pthread_create's signature; tests pass one that fails.
using CreateThread = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

template <typename T>
void ConvolveImage(const ConvolutionImage<T>& work) {
  DefaultFloatingPointScope scope;
  ImageConvolution<T>(work).Run();
}

// Thread entry; `work` points to a ConvolutionImage<T>.
template <typename T>
void* convolveOneImage(void* work) {
  ConvolveImage(*static_cast<const ConvolutionImage<T>*>(work));
  pthread_exit(nullptr);
}

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
                          int more_than_four_dimensions, CreateThread create = pthread_create) {
  std::array<ConvolutionImage<T>, kImageThreads> records;
  std::array<pthread_t, kImageThreads> threads;
  for (int32_t first = 0; first < batch; first += kImageThreads) {
    const int group = batch - first < kImageThreads ? batch - first : kImageThreads;
    std::array<bool, kImageThreads> started{};
    for (int slot = 0; slot < group; ++slot) {
      const int32_t image = first + slot;
      records[slot] = {input,         filter,
                       elementwise,   output,
                       batch,         in_height,
                       in_width,      in_channels,
                       filter_height, filter_width,
                       out_channels,  accumulator_size,
                       strides[1],    strides[2],
                       dilations[1],  dilations[2],
                       padding,       mult_shift,
                       use_fp16_acc,  is_depthwise,
                       image,         more_than_four_dimensions != 0 ? image : 0};
      started[slot] = create(&threads[slot], nullptr, convolveOneImage<T>, &records[slot]) == 0;
      if (!started[slot]) ConvolveImage(records[slot]);
    }
    for (int slot = 0; slot < group; ++slot) {
      if (started[slot]) pthread_join(threads[slot], nullptr);
    }
  }
}

}  // namespace bitfold

#endif  // BITFOLD_SRC_CONVOLVE_H_
