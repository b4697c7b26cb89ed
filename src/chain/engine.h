// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The long chains of convolution and matrix product, faster than one step after the other and with
// the same bits and printed lines. An object is a call: it looks at all numbers once, decides on a
// path (chain/plan.h), packs the weights, and then computes image after image, on several threads
// where the caller has them.

#ifndef BITFOLD_SRC_CHAIN_ENGINE_H_
#define BITFOLD_SRC_CHAIN_ENGINE_H_

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "bitfold/convolution_call.h"
#include "bitfold/datapath.h"
#include "bitfold/geometry.h"
#include "chain/corrected_weights.h"
#include "chain/dot_convolution.h"
#include "chain/dot_depthwise.h"
#include "chain/lane_windows.h"
#include "chain/plan.h"
#include "frame/scratch.h"

namespace bitfold {

// Computes one output by the definition and writes it.
using DefineOutput = std::function<void(int32_t row, int32_t column, int32_t channel)>;

template <typename D, typename T>
class ChainEngine {
 public:
  // The filter of `call` is `weights`. Up to `slots` images are computed at the same time. What the
  // two point to stays. A matrix product is a convolution of one row by one tap.
  ChainEngine(const ConvolutionCall<T>& call, const CorrectedWeights<T>& weights, int slots,
              Scratch* scratch);

  // Empty where the definition must do: windows that do not go forward, depthwise filters of less
  // than a panel whose numbers are not narrow, no memory.
  const std::optional<ChainPlan>& plan() const { return plan_; }

  // Computes and writes the outputs of an image. Those that may print a line are computed by
  // `define`, in the order of the definition. `slot` < slots tells apart what runs at the same
  // time. Requires plan().
  void Run(int32_t image, int slot, const DefineOutput& define) const;

 private:
  ChainFacts LookAt(const std::optional<Facts>& weights) const;
  int64_t WeightSum() const;
  bool Prepare(int slots, Scratch* scratch);
  bool PrepareLanes(Scratch* scratch);
  bool PrepareRounded(int slots, Scratch* scratch);

  int64_t DotWords() const;
  void RunDots(int32_t image, int slot) const;
  void RunModular(int32_t image) const;
  void RunPlainSums(int32_t image) const;
  void RunRounded(int32_t image, int slot) const;
  void RunStepwise(int32_t image, const DefineOutput& define) const;
  bool RunStepwiseTile(int32_t image, int32_t row, const LanePlace& place,
                       std::vector<char>* may_print) const;
  template <typename Begin, typename Add>
  void RunSums(int32_t image, uint32_t excess, Begin begin, Add add) const;

  const T* InputOf(int32_t image) const { return call_.input + image * call_.InputElements(); }
  T* OutputOf(int32_t image) const { return call_.output + image * OutputElements(); }
  const T* ElementwiseOf(int32_t image) const {
    return call_.elementwise == nullptr ? nullptr : call_.elementwise + image * OutputElements();
  }
  int64_t OutputElements() const {
    return int64_t{rows_.outputs} * columns_.outputs * call_.out_channels;
  }
  // The numbers that a row of outputs meets.
  int64_t WindowElements() const { return rows_.taps * windows_.InRow(); }
  int64_t OutputIndex(int32_t row, int32_t column, int32_t channel) const {
    return (int64_t{row} * columns_.outputs + column) * call_.out_channels + channel;
  }

  const D datapath_;
  const WindowAxis rows_;
  const WindowAxis columns_;
  const int32_t centre_;           // the row of taps after which the elementwise values come, or -1
  const ConvolutionCall<T> call_;  // with the corrected weights
  const LaneWindows windows_;
  std::optional<ChainPlan> plan_;
  std::optional<DotConvolution<T, SumOutput<T>>> dot_;
  int32_t* dot_words_ = nullptr;  // what the slots have of an image, packed
  std::optional<DotDepthwise<T>> dot_depthwise_;
  const T* lane_filter_ = nullptr;  // its output channels filled up to a panel
  int64_t lane_filter_elements_ = 0;
  RoundedSums rounded_{};
  float* rounded_filter_ = nullptr;
  float* rounded_rows_ = nullptr;  // int32: what the slots have of an image as floats
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_CHAIN_ENGINE_H_
