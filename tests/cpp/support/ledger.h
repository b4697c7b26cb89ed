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
  kVectorQuantiserAllPrefixes,
  kInt32EveryPass,
  kFloatEveryPass,
  kInt32ProvenAtOnce,      // in range from the start, at least two passes skipped
  kInt32ProvenAfterSteps,  // out of range first, proven later
  kInt32NeverProven,       // an addend above the period
  kInt32ProvenOfTwoAddends,
  kFloatProven,
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
  kCount
};

void Ran(Path path);

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_LEDGER_H_
