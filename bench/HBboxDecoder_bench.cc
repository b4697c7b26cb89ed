// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "decoder_bench.h"

namespace bitfold {
namespace {

template <typename T>
struct HBboxDecoderCase : DecoderData<T> {
  BoxDecoderInputs<T> Inputs() const {
    const T* a = this->anchors.data();
    return {this->centers.data(),
            this->sizes.data(),
            this->rows.data(),
            this->columns.data(),
            a,
            a + kDecoderAnchors,
            a + 2 * kDecoderAnchors,
            a + 3 * kDecoderAnchors,
            a + 4 * kDecoderAnchors,
            a + 5 * kDecoderAnchors};
  }
};

[[maybe_unused]] const bool registered = RegisterDecoder<HBboxDecoderCase>("HBboxDecoder");

}  // namespace
}  // namespace bitfold
