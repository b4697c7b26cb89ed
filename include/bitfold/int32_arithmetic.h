// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// 32-bit two's complement arithmetic as the hardware does it, in defined C++ (rules I1 to I4 of
// docs/arithmetic.md). Signed overflow, shift counts outside 0..31 and conversions of values that
// no int32 holds are undefined in the language; every emulated datapath needs them, so they live
// here and nowhere else.

#ifndef BITFOLD_INT32_ARITHMETIC_H_
#define BITFOLD_INT32_ARITHMETIC_H_

#include <cstdint>

#include "bitfold/host_device.h"

namespace bitfold {

// Sums, differences and products modulo 2^32, read as two's complement.
BITFOLD_HOST_DEVICE constexpr int32_t WrapAdd(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

BITFOLD_HOST_DEVICE constexpr int32_t WrapSubtract(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

BITFOLD_HOST_DEVICE constexpr int32_t WrapMultiply(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
}

// Shifts take their count modulo 32, as the processor's 32-bit shifts do; negative counts too.
BITFOLD_HOST_DEVICE constexpr int32_t ShiftLeft(int32_t x, int32_t count) {
  return static_cast<int32_t>(static_cast<uint32_t>(x) << (static_cast<uint32_t>(count) & 31u));
}

// Arithmetic: the sign bit is copied in (every compiler we build with does so for signed >>).
BITFOLD_HOST_DEVICE constexpr int32_t ShiftRight(int32_t x, int32_t count) {
  return x >> (static_cast<uint32_t>(count) & 31u);
}

// Quotient truncated toward zero. Requires b != 0. INT32_MIN / -1 wraps to INT32_MIN instead of
// trapping.
BITFOLD_HOST_DEVICE constexpr int32_t WrapDivide(int32_t a, int32_t b) {
  return b == -1 ? WrapSubtract(0, a) : a / b;
}

// Truncates toward zero. A value that no int32 holds, and NaN, give INT32_MIN: what the
// processor's conversion instruction gives, and what the 32-bit wrap of the accumulator rests on.
// A float widens to double exactly, so one helper serves both.
BITFOLD_HOST_DEVICE constexpr int32_t TruncateToInt32(double x) {
  // Both bounds are exact in double; the comparisons are false for NaN.
  return (x > -2147483649.0 && x < 2147483648.0) ? static_cast<int32_t>(x) : INT32_MIN;
}

}  // namespace bitfold

#endif  // BITFOLD_INT32_ARITHMETIC_H_
