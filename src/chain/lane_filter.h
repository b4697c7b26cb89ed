// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The filters of a call as lanes read them.

#ifndef BITFOLD_SRC_CHAIN_LANE_FILTER_H_
#define BITFOLD_SRC_CHAIN_LANE_FILTER_H_

#include <algorithm>
#include <cstdint>

#include "bitfold/convolution_call.h"
#include "chain/sum_output.h"
#include "frame/scratch.h"

namespace bitfold {

// `rows` rows of output channels, filled up to `lanes` channels with zeros.
template <typename T, typename Out, typename Convert>
void FillUpChannels(const T* filter, int64_t rows, int32_t channels, int32_t lanes, Out* out,
                    Convert convert) {
  for (int64_t row = 0; row < rows; ++row, filter += channels, out += lanes) {
    std::transform(filter, filter + channels, out, convert);
    std::fill(out + channels, out + lanes, Out{0});
  }
}

template <typename T>
class LaneFilter {
 public:
  // The filters of a call where they are, but for those of less than a panel, of which there is
  // one: it is copied. False where there is no memory.
  bool Use(const ConvolutionCall<T>& call, Scratch* scratch) {
    filters_ = call.filter;
    elements_ = call.FilterElements();
    if (call.out_channels >= kPanel) return true;
    return Convert(call, scratch, [](T x) { return x; });
  }

  // Copies of the call's numbers, converted; false where there is no memory.
  template <typename X, typename Conversion>
  bool Convert(const ConvolutionCall<X>& call, Scratch* scratch, Conversion convert) {
    const int32_t lanes = std::max(kPanel, call.out_channels);
    const int64_t rows = call.FilterElements() / call.out_channels;
    elements_ = rows * lanes;
    T* copy = AllocateFor<T>(scratch, call.filters * elements_);
    if (copy == nullptr) return false;
    FillUpChannels(call.filter, call.filters * rows, call.out_channels, lanes, copy, convert);
    filters_ = copy;
    return true;
  }

  const T* Of(int32_t filter) const { return filters_ + filter * elements_; }

 private:
  const T* filters_ = nullptr;
  int64_t elements_ = 0;  // of a filter
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_CHAIN_LANE_FILTER_H_
