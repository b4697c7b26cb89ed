// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The long chains of convolution and matrix product, faster than one step after the other and with
// the same bits and printed lines. An object is what is decided once: it looks at the numbers, is
// told about them, or assumes that they are bytes until packing them has told; it decides on a path
// (chain/plan.h), packs the weights and cuts the outputs of an image into blocks. Images then run
// block after block, or several blocks at the same time.

#ifndef BITFOLD_SRC_CHAIN_ENGINE_H_
#define BITFOLD_SRC_CHAIN_ENGINE_H_

#include <atomic>
#include <cstdint>
#include <optional>
#include <vector>

#include "bitfold/convolution_call.h"
#include "bitfold/datapath.h"
#include "bitfold/geometry.h"
#include "chain/chain_image.h"
#include "chain/corrected_weights.h"
#include "chain/dot_convolution.h"
#include "chain/dot_depthwise.h"
#include "chain/lane_sums.h"
#include "chain/output_blocks.h"
#include "chain/plan.h"
#include "chain/stepwise.h"
#include "frame/scratch.h"
#include "frame/slots.h"
#include "frame/workers.h"

namespace bitfold {

// When an engine looks at numbers of which nothing is known.
enum class Look {
  kFirst,         // before it decides
  kWhilePacking,  // having decided as if those were bytes of which the first ones are
};

// What is known of an engine's numbers before they are there.
struct KnownFacts {
  std::optional<Facts> input;
  std::optional<Facts> elementwise;  // where there are such values
  Look look = Look::kFirst;
};

// Who shares the work of an engine.
struct ChainSharing {
  Workers* workers;  // look at the numbers together
  int slots;         // blocks that run at the same time, at most
  int64_t blocks;    // of an image that there should be, if each is worth a thread's while
  int64_t images = INT32_MAX;  // that run at the same time, at most
};

template <typename D, typename T>
class ChainEngine {
 public:
  // The filter of `call` is `weights`. What is not `known` is looked at; the input and the
  // elementwise values of the call, of all its images, may be null where they are, and its output
  // always. What the weights and the datapath's attributes point to stays. A matrix product is a
  // convolution of one row by one tap.
  ChainEngine(const ConvolutionCall<T>& call, const CorrectedWeights<T>& weights,
              const KnownFacts& known, const ChainSharing& sharing, Scratch* scratch);

  // Empty where the definition must do: windows that do not go forward, depthwise filters of less
  // than a panel whose numbers are not narrow, no memory. With Look::kWhilePacking also where there
  // is no plan for bytes, or a weight is none: another look decides.
  const std::optional<ChainPlan>& plan() const { return plan_; }

  // Those of an image, which together are all its outputs. Requires plan(), as what follows.
  const OutputBlocks& blocks() const { return *blocks_; }

  // What runs at the same time has one each: no more than blocks that can.
  int slots() const { return slots_; }

  // The cycles of a block, roughly.
  int64_t BlockCost() const { return ImageCost() / blocks_->count(); }

  // Computes and writes a block, or less. The outputs that may print a line are computed by
  // `define`, in the order of the definition. `slot` < slots() tells apart what runs at the same
  // time.
  void Run(ChainImage<T> image, const OutputBlock& block, int slot,
           const DefineOutput& define) const;

  // Whether all numbers that were met are what they were assumed to be; otherwise nothing that was
  // written counts. Requires that nothing runs.
  bool IsAsAssumed() const { return is_as_assumed_; }

  // All blocks in their order.
  void RunAll(const ChainImage<T>& image, int slot, const DefineOutput& define) const {
    for (int64_t i = 0; i < blocks_->count(); ++i) Run(image, (*blocks_)[i], slot, define);
  }

  // All blocks, which `workers` share; `slots` are the engine's. Returns the outputs that may print
  // a line, in the order of the definition: the caller computes them by it.
  std::vector<int64_t> RunShared(const ChainImage<T>& image, Slots* slots, Workers* workers) const;

  // The numbers of an image of outputs.
  int64_t OutputElements() const {
    return int64_t{rows_.outputs} * columns_.outputs * call_.out_channels;
  }

 private:
  ChainFacts FactsOfCall(const KnownFacts& known) const;
  std::optional<ChainFacts> Assume(const std::optional<Facts>& weights,
                                   const KnownFacts& known) const;
  ChainFacts LookAt(const std::optional<Facts>& weights, const KnownFacts& known,
                    Workers* workers) const;
  int64_t WeightSum() const;

  // Of an image: the products of an output, and all cycles, roughly.
  int64_t ChainLength() const { return call_.FilterElements() / call_.out_channels; }
  int64_t ImageCost() const;

  bool CanCutColumns() const;
  bool CanCutChannels() const;
  OutputBlocks Cut(const ChainSharing& sharing) const;
  void CutInto(const ChainSharing& sharing);

  bool Prepare(const ChainSharing& sharing, Scratch* scratch);
  bool PrepareDots(const ChainSharing& sharing, Scratch* scratch);
  bool PrepareDotDepthwise(const ChainSharing& sharing, Scratch* scratch);
  bool RunsPixels() const { return rows_.outputs == 1 && dot_->IsPixelwise(); }
  int64_t DotWords() const;
  bool RunDots(const ChainImage<T>& image, const OutputBlock& block, int slot) const;

  const D datapath_;
  const WindowAxis rows_;
  const WindowAxis columns_;
  const bool has_centre_;          // a row of taps after which the elementwise values come
  const bool assumes_;             // facts
  const ConvolutionCall<T> call_;  // with the corrected weights
  std::optional<ChainPlan> plan_;
  std::optional<OutputBlocks> blocks_;
  int slots_ = 1;
  std::optional<DotConvolution<T, SumOutput<T>>> dot_;
  int32_t* dot_words_ = nullptr;  // what the slots have of an image, packed
  std::optional<DotDepthwise<T, SumOutput<T>>> dot_depthwise_;
  char* dot_memory_ = nullptr;  // what the slots need for it
  std::optional<LaneSums<T>> sums_;
  std::optional<Stepwise<D, T>> stepwise_;
  mutable std::atomic<bool> is_as_assumed_{true};
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_CHAIN_ENGINE_H_
