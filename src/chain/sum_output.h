// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Where the sums of a tile of outputs go.

#ifndef BITFOLD_SRC_CHAIN_SUM_OUTPUT_H_
#define BITFOLD_SRC_CHAIN_SUM_OUTPUT_H_

#include <cstdint>

namespace bitfold {

inline constexpr int kPanel = 16;  // lanes that are computed together at least

// The low `bits` bits of each sum, plus its elementwise value, as a number with a sign. Columns lie
// `stride` apart; elementwise may be null.
template <typename T>
struct SumOutput {
  const T* elementwise;
  T* out;
  int64_t stride;
  int32_t channels;  // of the tile's lanes, those that exist
  int32_t bits;      // 1 to 32

  // What is written again is the same.
  static int32_t RepeatedFrom(int32_t) { return 0; }

  // The same for `lanes` channels from `channel` on, of the outputs from `position` on, of which
  // some may have been written before.
  SumOutput At(int64_t position, int32_t channel, int32_t lanes, int32_t = 0) const {
    const int64_t o = position * stride + channel;
    return {elementwise == nullptr ? nullptr : elementwise + o, out + o, stride, lanes, bits};
  }
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_CHAIN_SUM_OUTPUT_H_
