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
#include "chain/layer_finish.h"
#include "chain/plan.h"
#include "chain/sum_watch.h"
#include "cpu/exact_sums.h"
#include "cpu/prepared_dots.h"
#include "cpu/prepared_sums.h"
#include "cpu/prepared_wide.h"
#include "frame/workers.h"

namespace bitfold {

// How sums of 64 bits are formed.
enum class WideSums {
  kNone,        // the layer's have 32
  kNarrow,      // in 32 bits: no data bring them beyond these
  kWideBias,    // likewise, but for the bias, which is added in 64 bits
  kGroups,      // of sums over groups of input channels
  kDefinition,  // one step after the other
};

// Whether tiles of sums should be what they would be at full width, where a layer can have it so,
// even if fewer bits were cheaper.
enum class SumsOfTiles { kCheapest, kWhole };

// In and Out are int8_t or int16_t.
template <typename In, typename Out>
class PreparedConvolution {
 public:
  // Takes what the layer points to. As many parts as `workers` have threads run at the same time.
  // Throws std::bad_alloc where there is no memory.
  PreparedConvolution(const PreparedLayer& layer, Workers* workers,
                      SumsOfTiles sums = SumsOfTiles::kCheapest);
  PreparedConvolution(const PreparedConvolution&) = delete;
  PreparedConvolution& operator=(const PreparedConvolution&) = delete;

  // Of which no pointer and no accumulator counts.
  const PreparedLayer& layer() const { return layer_; }

  // How sums are formed; empty where by the definition.
  const std::optional<ChainPlan>& plan() const { return plan_; }

  WideSums wide_sums() const { return wide_sums_; }

  // The bits of DefinePreparedConvolution, and its lines: those of an image in their order. Several
  // threads may call it at the same time.
  // Where tiles are whole a watch of `tiles()` sees their sums.
  void Run(const In* input, int32_t batch, Out* output, Workers* workers,
           SumWatch* watch = nullptr) const;

  // Whether tiles have the sums of full width, but for the addends. Only where it was asked for.
  bool has_whole_tiles() const { return has_whole_tiles_; }
  WatchedTiles tiles() const { return wide_ ? WatchedTiles::kWide : WatchedTiles::kNarrow; }

  // For each channel what is added to whole tiles afterwards, of a bias of at most 2^62.
  const std::vector<int64_t>& addends() const { return addends_; }

  // What the definition needs of the layer, where that computes it; else null.
  const PreparedLayer* kept() const { return kept_ == nullptr ? nullptr : &kept_->layer; }

 private:
  // What the definition needs of a layer.
  struct Kept {
    PreparedLayer layer;
    std::vector<int8_t> filter;
    std::vector<int64_t> bias;
    std::vector<double> multipliers;

    explicit Kept(const PreparedLayer& from);
  };

  void Prepare(Workers* workers);
  bool Narrow(const ExactSums& exact, std::vector<int32_t>* bias);
  void PrepareWide(const ExactSums& exact);
  Facts InputFacts() const;
  ChainFacts FactsWith(const std::vector<int32_t>& weights) const;
  int64_t LargestSum(const std::vector<int32_t>& weights) const;
  bool HasNarrowBias() const;
  int64_t LargestOutcome() const;
  void PrepareDots(const std::vector<int32_t>& weights);
  template <typename T>
  void PrepareSums(std::optional<PreparedSums<T>>* sums, std::vector<T> weights, bool corrects,
                   Workers* workers);
  LayerFinishCall FinishCall() const;
  void KeepWhole(const std::vector<int32_t>& weights, bool corrects);
  void KeepAddends(const LayerFinishCall& finish);

  const SumsOfTiles wished_;
  PreparedLayer layer_;  // once prepared its sizes alone
  WideSums wide_sums_ = WideSums::kNone;
  std::optional<ChainPlan> plan_;
  std::optional<PreparedDots<In>> dots_;
  std::optional<PreparedSums<int32_t>> sums_;
  std::optional<PreparedSums<float>> halves_;
  std::optional<PreparedWide<In>> wide_;
  std::unique_ptr<const Kept> kept_;
  std::unique_ptr<LayerFinish> finish_;
  bool has_whole_tiles_ = false;
  std::vector<int64_t> addends_;
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_PREPARED_CONVOLUTION_H_
