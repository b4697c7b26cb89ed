// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// How `mult_shift` scales a product before it reaches the accumulator (rules S1 to S3 of
// docs/arithmetic.md). The integer and the float rules differ on purpose: the integer datapath
// shifts by the value, the float ones divide by the value itself, not by 2 to its power. Some units
// have no divider and multiply by the reciprocal instead, which can differ in the last bit.

#ifndef BITFOLD_PRODUCT_SCALING_H_
#define BITFOLD_PRODUCT_SCALING_H_

#include <math.h>

#include <cstdint>

#include "bitfold/host_device.h"
#include "bitfold/int32_arithmetic.h"
#include "bitfold/int64_arithmetic.h"

namespace bitfold {

// Arithmetic right shift with halves to even; a shift of 0 returns x. For shifts 1 to 30 this is
// x / 2^shift rounded half to even.
//
//   x:     ....  k  h  l l l l     k: lowest kept bit, h: highest shifted-out bit, l: the others
//   mask:  0 ..  1  0  1 1 1 1     rounds up when h is 1 and any bit under the mask is
//
// The test of the masked bits is signed, and all counts are modulo 32. Both show at a shift of 31:
// shift + 1 wraps to 0, the mask becomes 0xC0000000, and a negative x never rounds up. Negative
// shifts compute what these formulas give.
BITFOLD_HOST_DEVICE inline int32_t ShiftRoundHalfToEven(int32_t x, int32_t shift) {
  if (shift == 0) return x;
  const int32_t below = WrapSubtract(shift, 1);
  const int32_t mask =
      WrapSubtract(WrapSubtract(ShiftLeft(1, WrapAdd(shift, 1)), 1), ShiftLeft(1, below));
  const int32_t sticky = (mask & x) > 0 ? 1 : 0;
  const int32_t round = sticky & ShiftRight(x, below);
  return WrapAdd(ShiftRight(x, shift), round);
}

// x / 2^shift rounded half to even, of 64 bits and of any sign. Requires 0 <= shift <= 31.
inline int64_t ShiftRoundHalfToEven64(int64_t x, int32_t shift) {
  if (shift == 0) return x;
  const int64_t kept = ShiftRight64(x, shift);
  const int64_t rest = WrapSubtract64(x, ShiftLeft64(kept, shift));
  const int64_t half = int64_t{1} << (shift - 1);
  return kept + (rest > half || (rest == half && kept % 2 != 0) ? 1 : 0);
}

// x / shift rounded to the nearest integer with halves to even; a shift of 0 returns x. Division
// by the value, correctly rounded; negative values divide as they are. A result that rounds to
// zero keeps its sign; NaN and infinities pass.
BITFOLD_HOST_DEVICE inline float DivideRoundHalfToEven(float x, int32_t shift) {
  if (shift == 0) return x;
  return rintf(x / static_cast<float>(shift));
}

// The reciprocal of a shift, correctly rounded; a shift of 0, which scales nothing, has 0.
BITFOLD_HOST_DEVICE inline float ShiftReciprocal(int32_t shift) {
  return shift == 0 ? 0.0f : 1.0f / static_cast<float>(shift);
}

// x * reciprocal rounded to the nearest integer with halves to even, where
// reciprocal = ShiftReciprocal(shift); a shift of 0 returns x. Two roundings before the last: 75 at
// a shift of 30 gives 3 where the quotient, 2.5, gives 2.
BITFOLD_HOST_DEVICE inline float MultiplyRoundHalfToEven(float x, int32_t shift, float reciprocal) {
  if (shift == 0) return x;
  return rintf(x * reciprocal);
}

}  // namespace bitfold

#endif  // BITFOLD_PRODUCT_SCALING_H_
