// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The test oracle of a convolution whose sums have 64 bits.

#ifndef BITFOLD_TESTS_REFERENCE_WIDE_H_
#define BITFOLD_TESTS_REFERENCE_WIDE_H_

#include <cstdint>

#include "reference.h"

namespace reference {

// The layouts are Convolve's; no accumulator wraps. Products are shifted as ShiftInt does it, the
// bias, which may be null, is divided by 2^mult_shift, halves to even. Modulo 2^64.
void ConvolveWide(const Convolution& convolution, const int32_t* input, const int32_t* filter,
                  const int64_t* bias, int64_t* output);

}  // namespace reference

#endif  // BITFOLD_TESTS_REFERENCE_WIDE_H_
