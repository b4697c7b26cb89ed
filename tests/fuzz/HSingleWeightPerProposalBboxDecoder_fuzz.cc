// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Fuzzes HSingleWeightPerProposalBboxDecoder against the oracle.

#include <cstddef>
#include <cstdint>

#include "decoder_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return bitfold::testing::FuzzDecoder<bitfold::testing::HSingleWeightDecoderTraits>(data, size);
}
