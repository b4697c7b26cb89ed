// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "decoder_bench.h"

namespace bitfold {
namespace {

template <typename T>
struct HBboxDecoderCase : DecoderData<T> {
  BboxDecoderCall<T> Call(const DatapathAttributes& attributes) {
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
            a + 5 * kDecoderAnchors,
            this->out.data(),
            kDecoderGrid,
            attributes};
  }

  static void Define(const BboxDecoderCall<T>& call, const DetectionRow& row) {
    DefineBboxDecoder(call, row, 0, kDecoderSide * kDecoderAnchors);
  }

  static void Run(const BboxDecoderCall<T>& call) {
    CallingThread workers;
    ComputeBboxDecoder(call, &workers);
  }
};

[[maybe_unused]] const bool registered = RegisterDecoder<HBboxDecoderCase>("HBboxDecoder");

}  // namespace
}  // namespace bitfold
