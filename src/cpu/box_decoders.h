// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What the kernels of the two box decoders run: their definitions over whole tensors, block by
// block, the blocks shared out among the workers.

#ifndef BITFOLD_SRC_CPU_BOX_DECODERS_H_
#define BITFOLD_SRC_CPU_BOX_DECODERS_H_

#include "bitfold/HBboxDecoder.h"
#include "bitfold/HSingleWeightPerProposalBboxDecoder.h"
#include "frame/workers.h"

namespace bitfold {

// T is int32_t or float. The output shares no memory with the inputs.

template <typename T>
void ComputeBboxDecoder(const BboxDecoderCall<T>& call, Workers* workers);

template <typename T>
void ComputeSingleWeightPerProposalBboxDecoder(
    const SingleWeightPerProposalBboxDecoderCall<T>& call, Workers* workers);

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_BOX_DECODERS_H_
