// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "decoder_bench.h"

namespace bitfold {
namespace {

template <typename T>
struct SingleWeightCase : DecoderData<T> {
  SingleWeightDecoderInputs<T> Inputs() const {
    const T* a = this->anchors.data();
    return {this->centers.data(),
            this->sizes.data(),
            this->rows.data(),
            this->columns.data(),
            a,
            a + kDecoderAnchors,
            a + 2 * kDecoderAnchors,
            a + 3 * kDecoderAnchors};
  }
};

[[maybe_unused]] const bool registered =
    RegisterDecoder<SingleWeightCase>("HSingleWeightPerProposalBboxDecoder");

}  // namespace
}  // namespace bitfold
