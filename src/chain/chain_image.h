// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#ifndef BITFOLD_SRC_CHAIN_CHAIN_IMAGE_H_
#define BITFOLD_SRC_CHAIN_CHAIN_IMAGE_H_

#include <cstdint>
#include <functional>

#include "bitfold/convolution_call.h"
#include "bitfold/geometry.h"

namespace bitfold {

// An image that runs: where its numbers are, and which of the filters it meets.
template <typename T>
struct ChainImage {
  const T* input;
  const T* elementwise;  // null where there is none
  T* output;
  int32_t filter;
};

// Computes one output of an image by the definition and writes it: element `output`.
using DefineOutput = std::function<void(int64_t output)>;

// How large packed rows of an image of so many numbers may become: rows whose taps lie far apart
// would be far larger than the image.
inline int64_t MostPacked(int64_t numbers) { return 4 * numbers + (int64_t{1} << 20); }

// Whether each output meets one pixel of its own, in the same order.
inline bool IsPixelwise(const ConvolutionAxis& sizes) {
  const WindowAxis axis(sizes);
  return axis.taps == 1 && axis.stride == 1 && axis.first == 0 && axis.outputs == axis.input;
}

// The images of an ordinary call as single rows, where each output meets one pixel of its own: rows
// are full of whole tiles then. If `together`, they are a single row.
template <typename T>
ConvolutionCall<T> AsRowsOfPixels(ConvolutionCall<T> call, bool together) {
  constexpr int32_t kMostPixels = 1 << 29;  // coordinates stay far from 2^31
  if (call.is_depthwise || !IsPixelwise(call.rows) || !IsPixelwise(call.columns)) return call;
  int64_t pixels = int64_t{call.rows.input} * call.columns.input;
  if (pixels > kMostPixels) return call;
  if (together && pixels * call.batch <= kMostPixels) {
    pixels *= call.batch;
    call.batch = 1;
  }
  call.rows = {1, 1, 1, 1, Padding::kValid};
  call.columns = {static_cast<int32_t>(pixels), 1, 1, 1, Padding::kValid};
  return call;
}

}  // namespace bitfold

#endif  // BITFOLD_SRC_CHAIN_CHAIN_IMAGE_H_
