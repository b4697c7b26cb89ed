// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The sign correction of all weights of a call, ahead of its chains.

#ifndef BITFOLD_SRC_CHAIN_CORRECTED_WEIGHTS_H_
#define BITFOLD_SRC_CHAIN_CORRECTED_WEIGHTS_H_

#include <algorithm>
#include <cstdint>
#include <optional>

#include "bitfold/weight_sign.h"
#include "chain/facts.h"
#include "frame/scratch.h"

namespace bitfold {

template <typename T>
struct CorrectedWeights {
  const T* weights;            // null where there was no memory
  bool corrected;              // whether one needed it
  std::optional<Facts> facts;  // where they are known
};

// The weights with their signs corrected, copied only where one needs it. They are looked at once
// where they are whole numbers and none does.
template <typename T>
CorrectedWeights<T> CorrectWeights(const WeightSign<T>& sign, const T* weights, int64_t count,
                                   Scratch* scratch) {
  const Facts facts = FactsOf(weights, count);
  const auto needs = [&sign](T x) { return sign.NeedsCorrection(x); };
  if (facts.is_whole && !needs(static_cast<T>(facts.max))) return {weights, false, facts};
  if (std::none_of(weights, weights + count, needs)) return {weights, false, facts};
  T* copy = static_cast<T*>(scratch->Allocate(static_cast<size_t>(count) * sizeof(T)));
  if (copy == nullptr) return {nullptr, true, facts};
  std::transform(weights, weights + count, copy,
                 [&sign](T x) { return sign.NeedsCorrection(x) ? sign.Correct(x) : x; });
  return {copy, true, FactsOf(copy, count)};
}

}  // namespace bitfold

#endif  // BITFOLD_SRC_CHAIN_CORRECTED_WEIGHTS_H_
