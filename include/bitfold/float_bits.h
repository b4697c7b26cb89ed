// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#ifndef BITFOLD_FLOAT_BITS_H_
#define BITFOLD_FLOAT_BITS_H_

#include <cstdint>
#include <cstring>

#include "bitfold/host_device.h"

namespace bitfold {

BITFOLD_HOST_DEVICE inline float FloatOf(int32_t bits) {
  float x;
  std::memcpy(&x, &bits, sizeof x);
  return x;
}

BITFOLD_HOST_DEVICE inline int32_t BitsOf(float x) {
  int32_t bits;
  std::memcpy(&bits, &x, sizeof bits);
  return bits;
}

}  // namespace bitfold

#endif  // BITFOLD_FLOAT_BITS_H_
