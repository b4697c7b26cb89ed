// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HCheckedConvolution: HPreparedConvolution, and beside its output how many of its sums are wrong,
// the definition: with their bias and before they are requantised they differ from those of full
// width, the final sums of HWatchedConvolution.

#ifndef BITFOLD_HCHECKED_CONVOLUTION_H_
#define BITFOLD_HCHECKED_CONVOLUTION_H_

#include <cstdint>
#include <vector>

#include "bitfold/HPreparedConvolution.h"
#include "bitfold/HWatchedConvolution.h"

namespace bitfold {

// Returns how many sums of an image differ from what they would be. Requires sums of the layer, and
// what DefineWatchedSums does.
template <typename In>
int64_t DefineWrongSums(const PreparedLayer& layer, const In* image,
                        const std::vector<int32_t>& sums) {
  std::vector<int32_t> padded(static_cast<size_t>(layer.PaddedElements()));
  PadImage(layer, image, padded.data());
  int64_t wrong = 0;
  for (int64_t i = 0; i < layer.OutputElements(); ++i) {
    const auto channel = static_cast<int32_t>(i % layer.out_channels);
    const int64_t sum = DefineWideSum(layer, padded.data(), i / layer.out_channels, channel);
    wrong += sum + FinalAddend(layer, channel) != sums[static_cast<size_t>(i)];
  }
  return wrong;
}

// The op; the definition. Returns how many sums are wrong: none of 64 bits, which nothing wraps.
// Requires what DefineWatchedSums does.
template <typename In, typename Out>
int64_t DefineCheckedConvolution(const PreparedLayer& layer, const In* input, int32_t batch,
                                 Out* output) {
  if (layer.IsWide()) {
    DefinePreparedConvolution(layer, input, batch, output);
    return 0;
  }
  int64_t wrong = 0;
  for (int32_t image = 0; image < batch; ++image) {
    const In* const from = input + image * layer.InputElements();
    const std::vector<int32_t> sums = layer.use_fp16_acc ? DefinePreparedSums<float>(layer, from)
                                                         : DefinePreparedSums<int32_t>(layer, from);
    RequantiseSums(layer, sums, output + image * layer.OutputElements());
    wrong += DefineWrongSums(layer, from, sums);
  }
  return wrong;
}

}  // namespace bitfold

#endif  // BITFOLD_HCHECKED_CONVOLUTION_H_
