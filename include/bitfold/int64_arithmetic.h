// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// 64-bit two's complement arithmetic and unsigned 32-bit shifts as the hardware does them, in
// defined C++ (rules I5 to I7 of docs/arithmetic.md): the counterpart of int32_arithmetic.h.

#ifndef BITFOLD_INT64_ARITHMETIC_H_
#define BITFOLD_INT64_ARITHMETIC_H_

#include <cstdint>
#include <limits>

#include "bitfold/host_device.h"

namespace bitfold {

// Sums, differences and products modulo 2^64, read as two's complement.
BITFOLD_HOST_DEVICE constexpr int64_t WrapAdd64(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}

BITFOLD_HOST_DEVICE constexpr int64_t WrapSubtract64(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
}

BITFOLD_HOST_DEVICE constexpr int64_t WrapMultiply64(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) * static_cast<uint64_t>(b));
}

// |x| as the hardware forms it: that of -2^63 is -2^63.
BITFOLD_HOST_DEVICE constexpr int64_t WrapAbsolute64(int64_t x) {
  return x < 0 ? WrapSubtract64(0, x) : x;
}

// Shifts take their count modulo the width; negative counts too.
BITFOLD_HOST_DEVICE constexpr int64_t ShiftLeft64(int64_t x, int64_t count) {
  return static_cast<int64_t>(static_cast<uint64_t>(x) << (static_cast<uint64_t>(count) & 63u));
}

BITFOLD_HOST_DEVICE constexpr int64_t ShiftRight64(int64_t x, int64_t count) {
  return x >> (static_cast<uint64_t>(count) & 63u);
}

BITFOLD_HOST_DEVICE constexpr uint64_t ShiftLeftUnsigned64(uint64_t x, int32_t count) {
  return x << (static_cast<uint32_t>(count) & 63u);
}

BITFOLD_HOST_DEVICE constexpr uint64_t ShiftRightUnsigned64(uint64_t x, int32_t count) {
  return x >> (static_cast<uint32_t>(count) & 63u);
}

BITFOLD_HOST_DEVICE constexpr uint32_t ShiftLeftUnsigned(uint32_t x, int32_t count) {
  return x << (static_cast<uint32_t>(count) & 31u);
}

BITFOLD_HOST_DEVICE constexpr uint32_t ShiftRightUnsigned(uint32_t x, int32_t count) {
  return x >> (static_cast<uint32_t>(count) & 31u);
}

// Truncates toward zero. A value that no int64 holds, and NaN, give INT64_MIN.
BITFOLD_HOST_DEVICE constexpr int64_t TruncateToInt64(double x) {
  return (x >= -9223372036854775808.0 && x < 9223372036854775808.0)
             ? static_cast<int64_t>(x)
             : std::numeric_limits<int64_t>::min();
}

}  // namespace bitfold

#endif  // BITFOLD_INT64_ARITHMETIC_H_
