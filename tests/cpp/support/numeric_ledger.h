// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The paths of the numeric units that the tests must have taken, as ledger.h keeps those of the
// others: a full run fails when one was never taken. Vector loops count where the machine has them.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_NUMERIC_LEDGER_H_
#define BITFOLD_TESTS_CPP_SUPPORT_NUMERIC_LEDGER_H_

#include "chain/plan.h"
#include "target.h"

namespace bitfold::testing {

enum class NumericPath {
  kFpxPairs,
  kFpxOtherWidths,
  kLayerNormPortable,
  kLayerNormAvx2,
  kLayerNormAvx512,
  kLayerNormShiftsLeft,
  kLayerNormShiftsRight,
  kLayerNormElementsByDefinition,
  kLayerNormShiftByDefinition,
  kSoftmaxPortable,
  kSoftmaxAvx2,
  kSoftmaxAvx512,
  kSoftmaxSumInOrder,
  kActivationPortable,
  kActivationAvx2,
  kActivationAvx512,
  kActivationFewPoints,
  kActivationManyPoints,
  kActivationByDefinition,
  kDatapathPortable,
  kDatapathAvx2,
  kDatapathAvx512,
  kBilinearPortable,
  kBilinearAvx2,
  kBilinearAvx512,
  kNmsPortable,
  kNmsAvx2,
  kNmsAvx512,
  kChainReplay,           // outputs in lanes that may print, computed anew
  kChainReplayInOverlap,  // such an output in two tiles
  kChainHalfInRange,      // the half-precision quantiser of AVX-512
  kChainHalfOverflow,     // where it gives up
  kChainNoMemory,         // left to the definition
  kChainSlots,            // images that run at the same time
  kCount
};

void Ran(NumericPath path);

// What the chain engine can take: a path for a kind of numbers and of call, on a target.
enum class ChainNumbers { kInt32, kFloat, kHalf };
enum class ChainForm { kOrdinary, kDepthwise, kMatrices };

void Ran(ChainPath path, ChainNumbers numbers, ChainForm form, Target target);

// The form of the portable loops on a target.
constexpr NumericPath OnTarget(NumericPath portable, Target target) {
  return static_cast<NumericPath>(static_cast<int>(portable) + static_cast<int>(target));
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_NUMERIC_LEDGER_H_
