// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The sign correction of all weights of a call, ahead of its chains.

#ifndef BITFOLD_SRC_CHAIN_CORRECTED_WEIGHTS_H_
#define BITFOLD_SRC_CHAIN_CORRECTED_WEIGHTS_H_

#include <algorithm>
#include <cstdint>

#include "bitfold/weight_sign.h"
#include "chain/scratch.h"

namespace bitfold {

// The weights with their signs corrected: `weights` itself where none needs it, null where there is
// no memory. *corrected tells whether one needed it.
template <typename T>
const T* CorrectedWeights(const WeightSign<T>& sign, const T* weights, int64_t count,
                          Scratch* scratch, bool* corrected) {
  int needed = 0;
  for (int64_t i = 0; i < count; ++i) needed |= sign.NeedsCorrection(weights[i]) ? 1 : 0;
  *corrected = needed != 0;
  if (!*corrected) return weights;
  T* copy = static_cast<T*>(scratch->Allocate(static_cast<size_t>(count) * sizeof(T)));
  if (copy == nullptr) return nullptr;
  std::transform(weights, weights + count, copy,
                 [&sign](T x) { return sign.NeedsCorrection(x) ? sign.Correct(x) : x; });
  return copy;
}

}  // namespace bitfold

#endif  // BITFOLD_SRC_CHAIN_CORRECTED_WEIGHTS_H_
