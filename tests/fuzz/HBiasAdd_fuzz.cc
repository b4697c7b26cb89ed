// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Fuzzes HBiasAdd against the oracle.

#include <cstddef>
#include <cstdint>

#include "addition_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return bitfold::testing::FuzzAddition<bitfold::testing::HBiasAddTraits>(data, size);
}
