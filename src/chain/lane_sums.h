// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Convolutions whose sums are only reduced at the end, in lanes of output channels: modulo 2^32, of
// whole floats, or of scaled products that are formed as floats.

#ifndef BITFOLD_SRC_CHAIN_LANE_SUMS_H_
#define BITFOLD_SRC_CHAIN_LANE_SUMS_H_

#include <cstdint>

#include "bitfold/convolution_call.h"
#include "bitfold/geometry.h"
#include "chain/chain_image.h"
#include "chain/lane_filter.h"
#include "chain/lane_tile.h"
#include "chain/lane_windows.h"
#include "chain/output_blocks.h"
#include "chain/plan.h"
#include "frame/scratch.h"

namespace bitfold {

// Requires windows that go forward, kModular or kRounded, and, depthwise, at least a panel of
// channels; of the call the sizes alone.
template <typename T>
class LaneSums {
 public:
  LaneSums(const ConvolutionCall<T>& call, const ChainPlan& plan, int32_t mult_shift);

  // Takes the filters of a call of these sizes, and room for `slots` blocks of up to `columns`
  // columns at the same time; false where there is no memory.
  bool Prepare(const ConvolutionCall<T>& call, int32_t columns, int slots, Scratch* scratch);

  // Computes and writes a block of an image, whose elementwise values count if there are any.
  void Run(const ChainImage<T>& image, const OutputBlock& block, int slot) const;

 private:
  void RunModular(const ChainImage<T>& image, const OutputBlock& block) const;
  void RunPlain(const ChainImage<T>& image, const OutputBlock& block) const;
  void RunRounded(const ChainImage<T>& image, const OutputBlock& block, int slot) const;
  template <typename Begin, typename Add>
  void RunSums(const ChainImage<T>& image, const OutputBlock& block, uint32_t excess, Begin begin,
               Add add) const;
  LaneWindows::RowsOf<float> ConvertRows(const ChainImage<T>& image, int32_t row,
                                         const TapRange& rows, const OutputBlock& block,
                                         int slot) const;
  SumOutput<T> OutputAt(const ChainImage<T>& image, int32_t row, int32_t column,
                        int32_t channel) const;

  const WindowAxis rows_;
  const WindowAxis columns_;
  const int32_t in_channels_;
  const int32_t out_channels_;
  const bool is_depthwise_;
  const ChainPlan plan_;
  const int32_t mult_shift_;
  const LaneWindows windows_;
  LaneFilter<T> filter_;
  LaneFilter<float> rounded_filter_;
  RoundedSums rounded_{};
  float* rounded_rows_ = nullptr;     // int32: what the slots have of an image as floats
  int64_t rounded_row_elements_ = 0;  // of a slot
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_CHAIN_LANE_SUMS_H_
