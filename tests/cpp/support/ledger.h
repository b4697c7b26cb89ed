// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The paths that the tests must have taken. A test says Ran(...) where it compares a path's
// results; a full run fails when one was never taken.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_LEDGER_H_
#define BITFOLD_TESTS_CPP_SUPPORT_LEDGER_H_

namespace bitfold::testing {

enum class Path {
  kQuantiserAllPrefixes,
  kInt32EveryPass,
  kFloatEveryPass,
  kInt32ProvenAtOnce,      // in range from the start, at least two passes skipped
  kInt32ProvenAfterSteps,  // out of range first, proven later
  kInt32NeverProven,       // an addend above the period
  kFloatProven,
  kHAddInt32,
  kHAddFloat,
  kHAddHalf,
  kHBiasAddInt32,
  kHBiasAddFloat,
  kHBiasAddHalf,
  kConvolutionInt32,
  kConvolutionFloat,
  kConvolutionHalf,
  kDepthwiseInt32,
  kDepthwiseFloat,
  kDepthwiseFilterPerImage,
  kElementwiseAddend,
  kElementwiseWithoutCentre,
  kAccumulatorWarning,
  kDepthwiseWarning,
  kImageThreads,
  kThreadFallbackAll,
  kThreadFallbackSome,
  kFlushedCaller,
  kCount
};

void Ran(Path path);

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_LEDGER_H_
