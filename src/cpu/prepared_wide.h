// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The sums of a prepared layer that 32 bits may not hold: dot products of what is stored over
// groups of input channels, each of which 32 bits hold whatever the data, added up in 64 bits.

#ifndef BITFOLD_SRC_CPU_PREPARED_WIDE_H_
#define BITFOLD_SRC_CPU_PREPARED_WIDE_H_

#include <cstdint>
#include <memory>
#include <vector>

#include "bitfold/HPreparedConvolution.h"
#include "chain/dot_convolution.h"
#include "chain/plan.h"
#include "chain/stored_output.h"
#include "chain/sum_output.h"
#include "cpu/exact_sums.h"
#include "frame/scratch.h"
#include "frame/workers.h"

namespace bitfold {

// In is int8_t or int16_t.
template <typename In>
class PreparedWide {
 public:
  // The layer stays, and is not depthwise; the plan is one of dot products without a shift. Packs
  // the weights. Throws std::bad_alloc where there is no memory.
  PreparedWide(const PreparedLayer& layer, const ChainPlan& plan,
               const std::vector<ChannelGroup>& groups);
  PreparedWide(const PreparedWide&) = delete;
  PreparedWide& operator=(const PreparedWide&) = delete;

  // Whether packed rows of the image are not far larger than the image.
  bool Fits() const;

  // Writes the layer's outputs of stored images, whose finish has a wide bias.
  void Run(const In* input, int32_t batch, const StoredOutput& output, Workers* workers) const;

 private:
  using Dots = DotConvolution<In, SumOutput<int32_t>>;

  struct Group {
    int32_t first;  // channel
    std::unique_ptr<Dots> dots;
  };
  struct Buffers;
  struct Block;

  const Dots& FirstDots() const { return *groups_.front().dots; }
  bool IsRow() const { return FirstDots().IsPixelwise(); }
  int64_t LinePositions() const { return IsRow() ? 1 : layer_.columns.outputs(); }
  int64_t StepOf(int64_t lines, int threads) const;
  int64_t WordsOf(int64_t lines) const;
  void AddGroup(const In* input, const Block& block, const Group& group, Buffers* buffers) const;
  void RunBlock(const In* input, const Block& block, const StoredOutput& output,
                Buffers* buffers) const;

  const PreparedLayer& layer_;
  HeapScratch memory_;
  std::vector<Group> groups_;
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_PREPARED_WIDE_H_
