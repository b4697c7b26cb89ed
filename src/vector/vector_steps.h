// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// One addition as the vector loops make it: the rule of the headers, and the largest magnitude of
// the sums, which tells whether a line may have been printed. Called in the code of a target, where
// the compiler makes it part of its loops.

#ifndef BITFOLD_SRC_VECTOR_VECTOR_STEPS_H_
#define BITFOLD_SRC_VECTOR_VECTOR_STEPS_H_

#include <cstdint>

#include "bitfold/datapath.h"
#include "vector/quantise_half.h"

namespace bitfold {

// The magnitude's bits, which rise with it; those of NaN lie above all others.
inline int32_t MagnitudeBits(float x) { return BitsOf(x) & INT32_MAX; }

// Whether a sum of this magnitude may print a line: -8388607, which does not, is taken in for the
// sake of one comparison.
inline bool MayWarn(int32_t magnitude_bits) {
  return magnitude_bits >= MagnitudeBits(static_cast<float>(kWarningLimit));
}

// One addition; *largest is the largest magnitude of all sums so far, as bits.
template <bool kHalf>
inline int32_t Accumulate(const Datapath<int32_t>& datapath, int32_t acc, int32_t addend,
                          int32_t*) {
  return datapath.Accumulate(acc, addend);
}

template <bool kHalf>
inline float Accumulate(const Datapath<float>& datapath, float acc, float addend,
                        int32_t* largest) {
  const float sum = acc + addend;
  const int32_t magnitude = MagnitudeBits(sum);
  *largest = *largest < magnitude ? magnitude : *largest;
  if (!kHalf) return WrapOnce(sum, datapath.limits());
  return QuantiseHalf(acc + QuantiseHalf(addend));
}

}  // namespace bitfold

#endif  // BITFOLD_SRC_VECTOR_VECTOR_STEPS_H_
