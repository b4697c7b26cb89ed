// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The sign correction of all weights of a call, ahead of its chains.

#ifndef BITFOLD_SRC_CHAIN_CORRECTED_WEIGHTS_H_
#define BITFOLD_SRC_CHAIN_CORRECTED_WEIGHTS_H_

#include <algorithm>
#include <cstdint>
#include <optional>

#include "bitfold/geometry.h"
#include "bitfold/weight_sign.h"
#include "chain/facts.h"
#include "chain/shared_facts.h"
#include "frame/scratch.h"
#include "frame/workers.h"

namespace bitfold {

template <typename T>
struct CorrectedWeights {
  const T* weights;            // null where there was no memory
  bool corrected;              // whether one needed it
  std::optional<Facts> facts;  // where they are known
};

// The weights with their signs corrected, copied only where one needs it. They are looked at once,
// by all workers, where they are whole numbers and none does.
template <typename T>
CorrectedWeights<T> CorrectWeights(const WeightSign<T>& sign, const T* weights, int64_t count,
                                   Workers* workers, Scratch* scratch) {
  const Facts facts = SharedFactsOf(weights, count, workers);
  const auto needs = [&sign](T x) { return sign.NeedsCorrection(x); };
  if (facts.is_whole && !needs(static_cast<T>(facts.max))) return {weights, false, facts};
  if (std::none_of(weights, weights + count, needs)) return {weights, false, facts};
  T* copy = AllocateFor<T>(scratch, count);
  if (copy == nullptr) return {nullptr, true, facts};
  std::transform(weights, weights + count, copy,
                 [&sign](T x) { return sign.NeedsCorrection(x) ? sign.Correct(x) : x; });
  return {copy, true, SharedFactsOf(copy, count, workers)};
}

// Whether a weight whose sign is corrected meets an input under some window: others are not seen.
// Of a depthwise filter.
template <typename T>
bool MeetsCorrectedWeight(const WeightSign<T>& sign, const T* weights, int32_t channels,
                          const WindowAxis& rows, const WindowAxis& columns) {
  const auto is_used = [](const WindowAxis& axis, int32_t tap) {
    for (int32_t output = 0; output < axis.outputs; ++output) {
      if (axis.Contains(axis.Coordinate(output, tap))) return true;
    }
    return false;
  };
  for (int32_t row = 0; row < rows.taps; ++row) {
    for (int32_t column = 0; column < columns.taps; ++column, weights += channels) {
      const bool needs = std::any_of(weights, weights + channels,
                                     [&sign](T x) { return sign.NeedsCorrection(x); });
      if (needs && is_used(rows, row) && is_used(columns, column)) return true;
    }
  }
  return false;
}

}  // namespace bitfold

#endif  // BITFOLD_SRC_CHAIN_CORRECTED_WEIGHTS_H_
