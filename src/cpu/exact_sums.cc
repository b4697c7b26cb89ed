// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/exact_sums.h"

#include <algorithm>
#include <cstdlib>
#include <functional>

namespace bitfold {
namespace {

// By output channel: what the sums of one input channel never exceed in magnitude. A scaled product
// is at most the quotient rounded up.
std::vector<int64_t> LargestOfChannel(const PreparedLayer& layer, int32_t channel,
                                      int64_t magnitude) {
  const int32_t depth = layer.is_depthwise ? 1 : layer.in_channels;
  const int64_t below = (int64_t{1} << layer.mult_shift) - 1;
  std::vector<int64_t> largest(static_cast<size_t>(layer.out_channels));
  for (int64_t tap = 0; tap < int64_t{layer.rows.taps} * layer.columns.taps; ++tap) {
    const int8_t* weights = layer.filter + (tap * depth + channel) * layer.out_channels;
    for (int32_t o = 0; o < layer.out_channels; ++o) {
      const int64_t product = std::abs(int32_t{weights[o]}) * magnitude;
      largest[static_cast<size_t>(o)] += (product + below) >> layer.mult_shift;
    }
  }
  return largest;
}

}  // namespace

ExactSums ExactSumsOf(const PreparedLayer& layer, int64_t magnitude) {
  const auto leaves = [](int64_t sum) { return sum > INT32_MAX; };
  ExactSums result;
  result.largest.resize(static_cast<size_t>(layer.out_channels));
  std::vector<int64_t>& sums = result.largest;
  const int32_t channels = layer.is_depthwise ? 1 : layer.in_channels;
  int32_t first = 0;
  for (int32_t channel = 0; channel < channels; ++channel) {
    const std::vector<int64_t> more = LargestOfChannel(layer, channel, magnitude);
    if (std::any_of(more.begin(), more.end(), leaves)) return {};
    std::transform(sums.begin(), sums.end(), more.begin(), sums.begin(), std::plus<>());
    if (std::none_of(sums.begin(), sums.end(), leaves)) continue;
    result.groups.push_back({first, channel});
    first = channel;
    sums = more;
  }
  result.groups.push_back({first, layer.in_channels});
  return result;
}

}  // namespace bitfold
