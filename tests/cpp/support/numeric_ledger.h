// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The paths of the numeric units that the tests must have taken, as ledger.h keeps those of the
// others: a full run fails when one was never taken. Vector loops count where the machine has them.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_NUMERIC_LEDGER_H_
#define BITFOLD_TESTS_CPP_SUPPORT_NUMERIC_LEDGER_H_

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
  kCount
};

void Ran(NumericPath path);

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_NUMERIC_LEDGER_H_
