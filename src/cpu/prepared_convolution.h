// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// A layer of a network whose weights never change: what can be known of it is decided once, its
// weights are packed once, and its calls go from stored integers to stored integers.

#ifndef BITFOLD_SRC_CPU_PREPARED_CONVOLUTION_H_
#define BITFOLD_SRC_CPU_PREPARED_CONVOLUTION_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "bitfold/HPreparedConvolution.h"
#include "chain/dot_convolution.h"
#include "chain/layer_finish.h"
#include "chain/plan.h"
#include "frame/scratch.h"
#include "frame/workers.h"

namespace bitfold {

// In and Out are int8_t or int16_t.
template <typename In, typename Out>
class PreparedConvolution {
 public:
  // Copies what the layer points to. Throws std::bad_alloc where there is no memory.
  explicit PreparedConvolution(const PreparedLayer& layer);

  const PreparedLayer& layer() const { return layer_; }

  // How sums are formed.
  const ChainPlan& plan() const { return plan_; }

  // The bits of DefinePreparedConvolution, and its lines: those of an image in their order. Several
  // threads may call it at the same time.
  void Run(const In* input, int32_t batch, Out* output, Workers* workers) const;

 private:
  using Dots = DotConvolution<In, StoredOutput>;

  ChainFacts Facts() const;
  int64_t LargestSum() const;
  void PrepareDots();
  LayerFinishCall FinishCall() const;

  void RunPixels(const In* input, int64_t pixels, Out* output, Workers* workers) const;
  void RunWindows(const In* input, int32_t batch, Out* output, Workers* workers) const;
  template <typename T>
  void RunImage(const In* image, Out* output) const;

  std::vector<int8_t> filter_;
  std::vector<int32_t> bias_;
  std::vector<double> multipliers_;
  std::vector<int32_t> wide_filter_;  // with corrected signs
  bool corrects_ = false;             // the sign of some weight
  int8_t shift_;
  PreparedLayer layer_;  // points to the vectors above
  ChainPlan plan_{};
  HeapScratch memory_;
  std::optional<Dots> dots_;
  std::unique_ptr<LayerFinish> finish_;
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_PREPARED_CONVOLUTION_H_
