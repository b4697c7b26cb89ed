// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The paths that the tests must have taken. A test says Ran(...) where it compares a path's
// results; a full run fails when one was never taken. Vector loops count where the machine has
// them.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_LEDGER_H_
#define BITFOLD_TESTS_CPP_SUPPORT_LEDGER_H_

#include "chain/plan.h"
#include "vector/target.h"

namespace bitfold::testing {

enum class Path {
  kQuantiserAllPrefixes,
  kVectorQuantiserAllPrefixes,
  kInt32EveryPass,
  kFloatEveryPass,
  kInt32ProvenAtOnce,      // in range from the start, at least two passes skipped
  kInt32ProvenAfterSteps,  // out of range first, proven later
  kInt32NeverProven,       // an addend above the period
  kInt32ProvenOfTwoAddends,
  kFloatProven,
  kFloatProvenOfTwoAddends,
  kFloatProvenHalf,
  kFloatPrintsInProvenPasses,  // lines among passes that are skipped
  kFloatPassesStopped,
  kHAddInt32,
  kHAddFloat,
  kHAddHalf,
  kHBiasAddInt32,
  kHBiasAddFloat,
  kHBiasAddHalf,
  kHDecomposedBiasAddInt32,
  kHDecomposedBiasAddFloat,
  kHDecomposedBiasAddHalf,
  kHStandaloneElementwiseAddInt32,
  kHStandaloneElementwiseAddFloat,
  kHStandaloneElementwiseAddHalf,
  kReplayInsideABlock,  // a block computed anew by the definition, which prints
  kReplayOfThePartialBlock,
  kReplayOfSeveralBlocks,
  kManyPassesProven,  // by the kernels of the additions, instead of blocks
  kManyFloatPassesProven,
  kPassesCancelled,
  kMatMulInt32,
  kMatMulFloat,
  kMatMulHalf,
  kMatMulWarning,
  kBilinearInt32,
  kBilinearFloat,
  kBilinearUnlimitedInt32,
  kBilinearUnlimitedFloat,
  kBboxDecoderInt32,
  kBboxDecoderFloat,
  kBboxDecoderHalf,
  kSingleWeightDecoderInt32,
  kSingleWeightDecoderFloat,
  kSingleWeightDecoderHalf,
  kNmsLogged,
  kNmsQuiet,
  kNmsQuietLeftToTheDefinition,
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
  kDeviceAdd4DInt32,
  kDeviceAdd4DFloat,
  kDeviceAdd4DHalf,
  kDeviceAdd2DInt32,
  kDeviceAdd2DFloat,
  kDeviceAdd2DHalf,
  kDeviceBiasInt32,
  kDeviceBiasFloat,
  kDeviceBiasHalf,
  kDeviceDecomposedBiasInt32,
  kDeviceDecomposedBiasFloat,
  kDeviceDecomposedBiasHalf,
  kDeviceStandaloneInt32,
  kDeviceStandaloneFloat,
  kDeviceStandaloneHalf,
  kDeviceConvolutionInt32,
  kDeviceConvolutionFloat,
  kDeviceConvolutionHalf,
  kDeviceTilesOverDirtyMemory,       // shared memory that holds something before every block
  kDeviceFewerPositionsThanColumns,  // unfolded, where taps lie apart
  kDeviceFeedEnds,
  kDeviceLaunchFailed,
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

void Ran(Path path);

// What the chain engine can take: a path for a kind of numbers and of call, on a target.
enum class ChainNumbers { kInt32, kFloat, kHalf };
enum class ChainForm { kOrdinary, kDepthwise, kMatrices };

void Ran(ChainPath path, ChainNumbers numbers, ChainForm form, Target target);

// The form of the portable loops on a target.
constexpr Path OnTarget(Path portable, Target target) {
  return static_cast<Path>(static_cast<int>(portable) + static_cast<int>(target));
}

// `bitfold_tests --check-ledger`: judges the marks in a directory, one file of each process. 0
// where nothing is missing or not all tests ran.
int CheckLedger(const char* directory);

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_LEDGER_H_
