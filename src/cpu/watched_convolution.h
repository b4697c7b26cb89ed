// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// A prepared layer whose final sums are looked at: on its tiles where these hold them, else on
// those of the same layer at full width beside it.

#ifndef BITFOLD_SRC_CPU_WATCHED_CONVOLUTION_H_
#define BITFOLD_SRC_CPU_WATCHED_CONVOLUTION_H_

#include <cstdint>
#include <optional>
#include <vector>

#include "bitfold/HWatchedConvolution.h"
#include "chain/sum_watch.h"
#include "cpu/prepared_convolution.h"
#include "frame/workers.h"

namespace bitfold {

// Where sums are looked at.
enum class WatchForm {
  kTiles,       // of the layer
  kBeside,      // of the layer at full width, which is computed, too
  kDefinition,  // sum by sum
};

// In and Out are int8_t or int16_t.
template <typename In, typename Out>
class WatchedConvolution {
 public:
  // Takes what the layer points to; the sizes stay. Throws std::bad_alloc where there is no memory.
  WatchedConvolution(const PreparedLayer& layer, const WatchedSizes& sizes, Workers* workers);
  WatchedConvolution(const WatchedConvolution&) = delete;
  WatchedConvolution& operator=(const WatchedConvolution&) = delete;

  // Of which no pointer and no accumulator counts.
  const PreparedLayer& layer() const { return layer_.layer(); }

  WatchForm form() const;

  // What DefineWatchedConvolution writes, prints and adds to the tables. Requires images. Several
  // threads may call it at the same time.
  void Run(const In* input, int32_t batch, Out* output, const WatchedTables& tables,
           Workers* workers) const;

 private:
  void PrepareBeside(const PreparedLayer& layer, Workers* workers);
  void RunBeside(const In* input, int32_t batch, SumWatch* watch, Workers* workers) const;
  void RunDefinition(const In* input, int32_t batch, const WatchedTables& tables,
                     Workers* workers) const;

  const WatchedSizes sizes_;
  const PreparedConvolution<In, Out> layer_;
  std::optional<PreparedConvolution<In, int8_t>> beside_;
  std::optional<WatchLimits> limits_;       // but for the definition
  const PreparedLayer* defined_ = nullptr;  // of which the definition computes the sums, or null
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_WATCHED_CONVOLUTION_H_
