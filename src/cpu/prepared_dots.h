// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The sums of a prepared layer that are dot products of what is stored: strips of images, packed as
// they lie, by weights packed once. Images and blocks of their outputs are shared out.

#ifndef BITFOLD_SRC_CPU_PREPARED_DOTS_H_
#define BITFOLD_SRC_CPU_PREPARED_DOTS_H_

#include <cstdint>
#include <optional>
#include <vector>

#include "bitfold/HPreparedConvolution.h"
#include "chain/dot_convolution.h"
#include "chain/dot_depthwise.h"
#include "chain/plan.h"
#include "chain/stored_output.h"
#include "frame/scratch.h"
#include "frame/workers.h"

namespace bitfold {

// In is int8_t or int16_t.
template <typename In>
class PreparedDots {
 public:
  // The layer stays; the plan is one of dot products.
  PreparedDots(const PreparedLayer& layer, const ChainPlan& plan);
  PreparedDots(const PreparedDots&) = delete;
  PreparedDots& operator=(const PreparedDots&) = delete;

  // Whether packed rows of the image are not far larger than the image.
  bool Fits() const;

  // Packs the weights. Every sum of an output channel begins with its addend, where there are some.
  // Throws std::bad_alloc where there is no memory.
  void Prepare(const std::vector<int32_t>& weights, const int32_t* addends);

  // The same of a layer that is not depthwise, without addends; `workers` share it.
  void Prepare(const int16_t* weights, Workers* workers);

  // Writes the layer's outputs of stored images.
  void Run(const In* input, int32_t batch, const StoredOutput& output, Workers* workers) const;

 private:
  int64_t CostOf(int64_t outputs) const;
  bool CutsWeights(int64_t images, int threads) const;
  void RunPixels(const In* input, int64_t pixels, const StoredOutput& output,
                 Workers* workers) const;
  void RunWindows(const In* input, int32_t batch, const StoredOutput& output,
                  Workers* workers) const;
  void RunDepthwise(const In* input, int32_t batch, const StoredOutput& output,
                    Workers* workers) const;

  const PreparedLayer& layer_;
  HeapScratch memory_;
  std::optional<DotConvolution<In, StoredOutput>> dots_;
  std::optional<DotDepthwise<In, StoredOutput>> depthwise_;
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_PREPARED_DOTS_H_
