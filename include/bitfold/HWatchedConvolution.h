// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HWatchedConvolution: HPreparedConvolution, and beside its output what the final sums of the layer
// reach at full width, the definition: as whole numbers that never wrap, of shifted addends and
// weights as they are stored, whatever the accumulator makes of them. They are the final sums of
// HPartialSums.

#ifndef BITFOLD_HWATCHED_CONVOLUTION_H_
#define BITFOLD_HWATCHED_CONVOLUTION_H_

#include <algorithm>
#include <cstdint>
#include <limits>
#include <vector>

#include "bitfold/HPartialSums.h"
#include "bitfold/HPreparedConvolution.h"

namespace bitfold {

// The widths that sums are compared with, each from 1 to 32, in any order.
struct WatchedSizes {
  const int32_t* sizes;
  int32_t count;
};

// What is found, of all sums of a channel together:
//   extremes  [2][channels]: the least and the greatest sum;
//   outside   [sizes][channels]: sums outside of the width.
struct WatchedTables {
  int64_t* extremes;
  int64_t* outside;
};

// Before any sum.
inline void ClearWatched(int64_t channels, int64_t sizes, const WatchedTables& tables) {
  std::fill_n(tables.extremes, channels, std::numeric_limits<int64_t>::max());
  std::fill_n(tables.extremes + channels, channels, std::numeric_limits<int64_t>::min());
  std::fill_n(tables.outside, sizes * channels, 0);
}

// What a layer's bias adds to a channel's sums.
inline int64_t FinalAddend(const PreparedLayer& layer, int32_t channel) {
  if (layer.wide_bias != nullptr) return ScaledAddend(layer.wide_bias[channel], layer.mult_shift);
  return layer.bias == nullptr ? 0 : ScaledAddend(layer.bias[channel], layer.mult_shift);
}

// Adds a sum to the tables.
inline void WatchSum(int64_t sum, int32_t channel, int32_t channels, const WatchedSizes& sizes,
                     const WatchedTables& tables) {
  int64_t* const extremes = tables.extremes + channel;
  extremes[0] = std::min(extremes[0], sum);
  extremes[channels] = std::max(extremes[channels], sum);
  for (int32_t i = 0; i < sizes.count; ++i) {
    const int64_t limit = int64_t{1} << (sizes.sizes[i] - 1);
    tables.outside[int64_t{i} * channels + channel] += sum < -limit || sum >= limit;
  }
}

// Adds the sums of images to the tables. Of the layer its arithmetic but for the shift, its
// multipliers and its requantisation do not count. Requires, beside what the layer does, a shift of
// at most kMostSummedShift, a bias of at most kLargestSummedBias in magnitude, and fewer than
// kMostSummedElements numbers in the padded image.
template <typename In>
void DefineWatchedSums(const PreparedLayer& layer, const In* input, int32_t batch,
                       const WatchedSizes& sizes, const WatchedTables& tables) {
  std::vector<int32_t> padded(static_cast<size_t>(layer.PaddedElements()));
  for (int32_t image = 0; image < batch; ++image) {
    PadImage(layer, input + image * layer.InputElements(), padded.data());
    for (int64_t i = 0; i < layer.OutputElements(); ++i) {
      const auto channel = static_cast<int32_t>(i % layer.out_channels);
      const int64_t sum = DefineWideSum(layer, padded.data(), i / layer.out_channels, channel);
      WatchSum(sum + FinalAddend(layer, channel), channel, layer.out_channels, sizes, tables);
    }
  }
}

// The op; the definition. Adds to the tables.
template <typename In, typename Out>
void DefineWatchedConvolution(const PreparedLayer& layer, const In* input, int32_t batch,
                              Out* output, const WatchedSizes& sizes, const WatchedTables& tables) {
  DefinePreparedConvolution(layer, input, batch, output);
  DefineWatchedSums(layer, input, batch, sizes, tables);
}

}  // namespace bitfold

#endif  // BITFOLD_HWATCHED_CONVOLUTION_H_
