// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// An ordinary convolution as dot products modulo 2^32 of narrow numbers: the image padded with
// zeros, the weights packed by panels of output channels.

#ifndef BITFOLD_SRC_CHAIN_DOT_CONVOLUTION_H_
#define BITFOLD_SRC_CHAIN_DOT_CONVOLUTION_H_

#include <cstdint>

#include "bitfold/convolution_call.h"
#include "bitfold/geometry.h"
#include "chain/dot_tile.h"
#include "chain/plan.h"
#include "frame/scratch.h"

namespace bitfold {

// Requires strides and dilations of at least 1 and a plan of dot products; T is int32_t or float,
// and its numbers are whole and fit the plan.
template <typename T>
class DotConvolution {
 public:
  DotConvolution(const ConvolutionCall<T>& call, const ChainPlan& plan);

  // The numbers of a padded image, which dilations can make of any size: at most INT64_MAX.
  int64_t ImageElements() const;

  // Packs the weights and makes room for an image in each slot; false where there is no memory.
  bool Prepare(const T* filter, int slots, Scratch* scratch);

  // One image; elementwise may be null. The slots are for calls at the same time.
  void Run(const T* image, const T* elementwise, T* output, int slot) const;

 private:
  // An axis of the padded image: what lies before the image, and the whole.
  struct PaddedAxis {
    int32_t before;
    int32_t size;
    explicit PaddedAxis(const WindowAxis& axis);
  };

  bool IsBytes() const { return plan_.path == ChainPath::kDotBytes; }
  int32_t NumbersInAWord() const { return IsBytes() ? 4 : 2; }
  int64_t ImageWords() const { return int64_t{padded_rows_.size} * padded_columns_.size * words_; }
  int64_t PanelWords() const { return int64_t{rows_.taps} * columns_.taps * words_ * 16; }

  void PackTap(const T* filter, int64_t tap);
  void SumPanel(int32_t panel);
  void PackImage(const T* image, int32_t* words) const;
  void PackRow(const T* row, int32_t* words) const;
  void RunPanels(const int32_t* words, const T* elementwise, T* output, int32_t panel,
                 int size_index) const;

  const WindowAxis rows_;
  const WindowAxis columns_;
  const int32_t in_channels_;
  const int32_t out_channels_;
  const ChainPlan plan_;
  const PaddedAxis padded_rows_;
  const PaddedAxis padded_columns_;
  const int32_t words_;   // for a position
  const int32_t panels_;  // of output channels
  int32_t* images_ = nullptr;
  int32_t* weights_ = nullptr;
  int32_t* initial_sums_ = nullptr;  // for each lane: takes the input's offset off again
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_CHAIN_DOT_CONVOLUTION_H_
