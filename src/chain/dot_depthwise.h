// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// A depthwise convolution as dot products modulo 2^32 of narrow numbers. The numbers that the taps
// of a row meet lie side by side in words, so rows of the image are rewritten, as many as a window
// is high.

#ifndef BITFOLD_SRC_CHAIN_DOT_DEPTHWISE_H_
#define BITFOLD_SRC_CHAIN_DOT_DEPTHWISE_H_

#include <cstdint>
#include <vector>

#include "bitfold/convolution_call.h"
#include "bitfold/geometry.h"
#include "chain/dot_tile.h"
#include "chain/plan.h"
#include "frame/scratch.h"

namespace bitfold {

// Requires strides and dilations of at least 1, out_channels <= in_channels and a plan of dot
// products; T is int32_t or float, and its numbers are whole and fit the plan.
template <typename T>
class DotDepthwise {
 public:
  DotDepthwise(const ConvolutionCall<T>& call, const ChainPlan& plan);

  // Whether a row of outputs is long enough for the kernels.
  bool HasWholePeriods() const { return RowWords() >= period_; }

  // The words of the rows that are kept.
  int64_t KeptWords() const { return kept_rows_ * (groups_ * RowWords()); }

  // Packs the weights of all filters and makes room for the rows of each slot; false where there is
  // no memory.
  bool Prepare(const T* filter, int32_t filters, int slots, Scratch* scratch);

  // Rows [first_row, end_row) of an image's outputs, with one of the filters; elementwise may be
  // null. The slots are for calls at the same time.
  void Run(const T* image, int32_t filter, const T* elementwise, T* output, int32_t first_row,
           int32_t end_row, int slot) const;

 private:
  // What an image needs: the rows that are kept, which ones these are, the words that a row of
  // outputs meets and its initial sums.
  struct Slot {
    int32_t* words;
    int32_t* held;
    const int32_t** used;
    int32_t* initial;
  };

  bool IsBytes() const { return plan_.path == ChainPath::kDotBytes; }
  int32_t NumbersInAWord() const { return IsBytes() ? 4 : 2; }
  int64_t RowWords() const { return int64_t{columns_.outputs} * channels_; }
  int64_t WeightRow() const { return int64_t{groups_} * period_; }

  void PackWeights(const T* row, int32_t* words) const;
  void CorrectRow(const int32_t* weights, int32_t* sums) const;
  void PackGroup(const T* row, int32_t group, int32_t* out) const;
  const int32_t* KeepRow(const T* image, int32_t row, const Slot& slot) const;

  const WindowAxis rows_;
  const WindowAxis columns_;
  const int32_t in_channels_;
  const int32_t channels_;  // of the outputs
  const ChainPlan plan_;
  const int32_t groups_;  // words for the taps of a row
  const int32_t period_;  // whole outputs of at least a panel
  const int32_t kept_rows_;
  int32_t* weights_ = nullptr;      // [filter][row][group][lane]
  int32_t* corrections_ = nullptr;  // [filter][row][lane]: takes the input's offset off again
  T* zeros_ = nullptr;              // the numbers of an output outside the image
  std::vector<Slot> slots_;
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_CHAIN_DOT_DEPTHWISE_H_
