// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#ifndef BITFOLD_STORED_SCALE_H_
#define BITFOLD_STORED_SCALE_H_

#include <cstdint>

namespace bitfold {

// What stored integers stand for: scale * (stored - zero_point). Requires a finite scale above 0
// and a zero point in their type, that of int16 0.
struct StoredScale {
  float scale;
  int32_t zero_point;
};

}  // namespace bitfold

#endif  // BITFOLD_STORED_SCALE_H_
