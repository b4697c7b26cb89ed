// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Convolutions of which every step is made, in the defined order, in lanes of output channels.

#ifndef BITFOLD_SRC_CHAIN_STEPWISE_H_
#define BITFOLD_SRC_CHAIN_STEPWISE_H_

#include <cstdint>
#include <vector>

#include "bitfold/convolution_call.h"
#include "bitfold/geometry.h"
#include "chain/chain_image.h"
#include "chain/lane_filter.h"
#include "chain/lane_windows.h"
#include "chain/output_blocks.h"
#include "chain/plan.h"
#include "frame/scratch.h"

namespace bitfold {

// Requires windows that go forward and, depthwise, at least a panel of channels; of the call the
// sizes alone. D is the datapath of a step.
template <typename D, typename T>
class Stepwise {
 public:
  Stepwise(const ConvolutionCall<T>& call, const D& datapath, HalfAddends half);

  // Takes the filters of a call of these sizes; false where there is no memory.
  bool Prepare(const ConvolutionCall<T>& call, Scratch* scratch) {
    return filter_.Use(call, scratch);
  }

  // Computes and writes a block of an image. The outputs that may print a line are computed by
  // `define`, in their order, after each row.
  void Run(const ChainImage<T>& image, const OutputBlock& block, const DefineOutput& define) const;

 private:
  // Of a row of a block, from a column on: the outputs that may print a line.
  struct Marks {
    int32_t first_column;
    std::vector<char> marks;
  };

  bool RunTile(const ChainImage<T>& image, int32_t row, const LanePlace& place,
               Marks* may_print) const;
  void AddElementwise(const T* addends, const LanePlace& place, int32_t row, T* acc,
                      int32_t* largest) const;
  bool Write(const ChainImage<T>& image, int32_t row, const LanePlace& place, const T* acc,
             const int32_t* largest, Marks* may_print) const;

  int64_t OutputIndex(int32_t row, int32_t column, int32_t channel) const {
    return (int64_t{row} * columns_.outputs + column) * out_channels_ + channel;
  }
  char* MarksFrom(int32_t column, int32_t channel, Marks* may_print) const {
    return may_print->marks.data() + OutputIndex(0, column - may_print->first_column, channel);
  }
  int32_t ChannelsOf(const LanePlace& place) const;

  const D datapath_;
  const HalfAddends half_;
  const WindowAxis rows_;
  const WindowAxis columns_;
  const int32_t centre_;  // the row of taps after which the elementwise values come, or -1
  const int32_t out_channels_;
  const bool is_depthwise_;
  const LaneWindows windows_;
  LaneFilter<T> filter_;
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_CHAIN_STEPWISE_H_
