// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The CPU convolution of a batch, whose images and blocks of outputs several threads share. Knows
// nothing of the runtime, so that it can be tested and sanitised without it.

#ifndef BITFOLD_SRC_CPU_CONVOLUTION_H_
#define BITFOLD_SRC_CPU_CONVOLUTION_H_

#include <cstdint>
#include <optional>
#include <vector>

#include "bitfold/convolution_call.h"
#include "bitfold/datapath.h"
#include "chain/engine.h"
#include "frame/scratch.h"
#include "frame/workers.h"

namespace bitfold {

// The convolutions of a call, as fast as its numbers allow.
template <typename T>
class BatchConvolution {
 public:
  // For Run, which `workers` share. What the call points to stays, as does the scratch.
  BatchConvolution(const ConvolutionCall<T>& call, Workers* workers, Scratch* scratch,
                   Look look = Look::kFirst);

  // For RunImage, of which up to `slots` run at the same time.
  BatchConvolution(const ConvolutionCall<T>& call, int slots, Scratch* scratch);

  // Computes and writes all outputs and prints all lines: those of an image in their order. With
  // Look::kWhilePacking false, with nothing printed and outputs that do not count, where another
  // look must decide.
  bool Run() const;

  // The same for an image, on the calling thread.
  void RunImage(int32_t image, int slot) const;

  // How; empty where by the definition.
  std::optional<ChainPlan> plan() const { return engine_ ? engine_->plan() : std::nullopt; }

  // Into what images are cut, where they are; null otherwise.
  const OutputBlocks* blocks() const {
    return engine_ && cuts_images_ ? &engine_->blocks() : nullptr;
  }

 private:
  using Engine = ChainEngine<Datapath<T>, T>;

  void Decide(const ChainSharing& sharing, Look look, Scratch* scratch);
  int64_t UnitsOfImage() const;
  int64_t UnitCost() const;
  void RunUnit(int64_t unit, int slot, std::vector<int64_t>* may_print) const;
  void Replay(std::vector<std::vector<int64_t>>* may_print) const;
  ChainImage<T> ImageOf(int32_t image) const;
  void Define(int32_t image, int64_t output) const;
  void Warn(int32_t image) const;

  const ConvolutionCall<T> call_;
  const ConvolutionCall<T> rows_of_pixels_;  // the same where that is possible
  Workers* const workers_ = nullptr;
  const Look look_ = Look::kFirst;
  int slots_ = 0;             // units that run at the same time
  bool cuts_images_ = false;  // units are blocks, not whole images
  std::optional<Engine> engine_;
  std::vector<char> corrected_;  // depthwise: the filters with a weight whose sign is corrected
};

// The whole batch where no window meets an input: false, with nothing done, where one does.
template <typename T>
bool ComputeWithoutProducts(const ConvolutionCall<T>& call);

// The bits and lines of convolve4DTensorSlow; lines of different images may come in any order.
// Throws the first exception of a part, with the outputs incomplete.
template <typename T>
void ComputeConvolution(const ConvolutionCall<T>& call, Scratch* scratch, Workers* workers);

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_CONVOLUTION_H_
