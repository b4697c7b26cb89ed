// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What the kernels of the two box decoders run: DecodeBoxes of HBboxDecoder.h and of
// HSingleWeightPerProposalBboxDecoder.h over whole tensors, block by block.

#ifndef BITFOLD_SRC_CPU_BOX_DECODERS_H_
#define BITFOLD_SRC_CPU_BOX_DECODERS_H_

#include <cstdint>

#include "bitfold/HBboxDecoder.h"
#include "bitfold/HSingleWeightPerProposalBboxDecoder.h"

namespace bitfold {

// T is int32_t or float; nothing is done where a count is below 1. out shares no memory with the
// inputs.
template <typename T>
void DecodeAllBoxes(const ReciprocalDatapath<T>& datapath, const BoxDecoderInputs<T>& in, int32_t n,
                    int32_t h, int32_t w, int32_t anchors, T* out);

template <typename T>
void DecodeAllBoxes(const ReciprocalDatapath<T>& datapath, const SingleWeightDecoderInputs<T>& in,
                    int32_t n, int32_t h, int32_t w, int32_t anchors, T* out);

// The rows of all images in order: visit(row), a DetectionRow of w positions each.
template <typename Visit>
void ForEachDetectionRow(int32_t n, int32_t h, int32_t w, int32_t anchors, Visit visit) {
  if (w < 1 || anchors < 1) return;
  for (int64_t image = 0; image < n; ++image) {
    for (int64_t row = 0; row < h; ++row) {
      visit(DetectionRow{(image * h + row) * w * 2 * anchors, row * 2 * anchors, anchors});
    }
  }
}

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_BOX_DECODERS_H_
