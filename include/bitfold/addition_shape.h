// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#ifndef BITFOLD_ADDITION_SHAPE_H_
#define BITFOLD_ADDITION_SHAPE_H_

#include <cstdint>

#include "bitfold/int32_arithmetic.h"

namespace bitfold {

// The dimensions of an addition's value; a rank of 2 is (d0, 1, 1, d3). The last are the channels.
struct AdditionShape {
  int32_t d0 = 0;
  int32_t d1 = 0;
  int32_t d2 = 0;
  int32_t d3 = 0;

  // The number of elements, in 32-bit arithmetic: below 1 nothing is computed.
  int32_t ElementCount() const { return WrapMultiply(WrapMultiply(d0, d1), WrapMultiply(d2, d3)); }
};

}  // namespace bitfold

#endif  // BITFOLD_ADDITION_SHAPE_H_
