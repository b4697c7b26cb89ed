// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The sums of a prepared layer that are no dot products of what is stored: images are widened and
// padded, the chain engine sums them as a plan made beforehand says, and the sums are finished
// while they are in the cache.

#ifndef BITFOLD_SRC_CPU_PREPARED_SUMS_H_
#define BITFOLD_SRC_CPU_PREPARED_SUMS_H_

#include <cstdint>
#include <optional>
#include <vector>

#include "bitfold/HPreparedConvolution.h"
#include "chain/engine.h"
#include "chain/stored_output.h"
#include "frame/scratch.h"
#include "frame/slots.h"
#include "frame/workers.h"

namespace bitfold {

// T is int32_t or, in half precision, float.
template <typename T>
class PreparedSums {
 public:
  // The layer stays, its weights as T with corrected signs are taken. Images have numbers within
  // `input`, and so many as `workers` have threads are summed at the same time.
  PreparedSums(const PreparedLayer& layer, std::vector<T> weights, bool corrects,
               const Facts& input, Workers* workers);
  PreparedSums(const PreparedSums&) = delete;
  PreparedSums& operator=(const PreparedSums&) = delete;

  // How; empty where by the definition.
  std::optional<ChainPlan> plan() const { return engine_.plan(); }

  // Writes the layer's outputs of stored images to `output`, whose finish adds the bias of int32
  // sums; floats get theirs here.
  template <typename In>
  void Run(const In* images, int32_t batch, const StoredOutput& output, Workers* workers) const;

 private:
  struct Buffers;

  void Sum(Buffers* buffers, Workers* workers) const;
  void SumBlocks(const ConvolutionCall<T>& call, Workers* workers) const;
  void AddBias(Buffers* buffers, Workers* workers) const;
  template <typename In>
  void RunImage(const In* image, const StoredOutput& output, Workers* workers) const;

  const PreparedLayer& layer_;
  const int8_t shift_;
  const std::vector<T> filter_;   // as it is stored
  const std::vector<T> weights_;  // with corrected signs
  const std::vector<T> bias_;
  const bool warns_;  // of a corrected sign
  HeapScratch memory_;
  ChainEngine<Datapath<T>, T> engine_;
  mutable Slots slots_;  // of the engine, for all calls
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_PREPARED_SUMS_H_
