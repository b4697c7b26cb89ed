// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The arithmetic that the oracles of the numeric units are written in: integers are exact in a wide
// type and reduced to a machine width by division, single precision is computed in double precision
// and rounded once, and shifts are multiplications and divisions by powers of two. No function here
// shifts or masks a machine word.

#ifndef BITFOLD_TESTS_REFERENCE_EXACT_H_
#define BITFOLD_TESTS_REFERENCE_EXACT_H_

#include <cstdint>

namespace reference {
namespace exact {

using Wide = __int128;

// 2^count for 0 <= count <= 126.
inline Wide PowerOfTwo(Wide count) {
  Wide power = 1;
  for (Wide i = 0; i < count; ++i) power *= 2;
  return power;
}

// Quotient rounded toward minus infinity; the divisor is positive.
inline Wide FloorDivide(Wide dividend, Wide divisor) {
  Wide quotient = dividend / divisor;
  if (quotient * divisor > dividend) quotient -= 1;
  return quotient;
}

// The remainder that belongs to FloorDivide: 0 <= result < divisor. Also what an AND with
// divisor - 1 gives when the divisor is a power of two.
inline Wide FloorModulo(Wide dividend, Wide divisor) {
  return dividend - FloorDivide(dividend, divisor) * divisor;
}

// Quotient rounded to the nearest integer, halves to even; the divisor is positive.
inline Wide DivideHalfEven(Wide dividend, Wide divisor) {
  const Wide down = FloorDivide(dividend, divisor);
  const Wide twice_rest = 2 * FloorModulo(dividend, divisor);
  const bool is_odd = FloorModulo(down, 2) == 1;
  return twice_rest > divisor || (twice_rest == divisor && is_odd) ? down + 1 : down;
}

// The two's complement number of `bits` bits (1 to 64) that is congruent to `value`.
inline int64_t Wrap(Wide value, int bits) {
  Wide rest = FloorModulo(value, PowerOfTwo(bits));
  if (rest >= PowerOfTwo(bits - 1)) rest -= PowerOfTwo(bits);
  return static_cast<int64_t>(rest);
}

inline int64_t Wrap64(Wide value) { return Wrap(value, 64); }
inline int32_t Wrap32(Wide value) { return static_cast<int32_t>(Wrap(value, 32)); }

// The low bits of `value` as an unsigned number.
inline uint8_t Low8(Wide value) { return static_cast<uint8_t>(FloorModulo(value, 256)); }
inline uint16_t Low16(Wide value) { return static_cast<uint16_t>(FloorModulo(value, 65536)); }
inline uint32_t Low32(Wide value) {
  return static_cast<uint32_t>(FloorModulo(value, PowerOfTwo(32)));
}
inline uint64_t Low64(Wide value) {
  return static_cast<uint64_t>(FloorModulo(value, PowerOfTwo(64)));
}

// Bit `index` of `value` in two's complement of unlimited width.
inline bool Bit(Wide value, int index) {
  return FloorModulo(FloorDivide(value, PowerOfTwo(index)), 2) == 1;
}

// Shifts of a 64-bit value: the count is taken modulo 64, the left shift drops what leaves the
// word, the right shift keeps the sign.
inline int64_t ShiftLeft64(int64_t value, Wide count) {
  return Wrap64(Wide{value} * PowerOfTwo(FloorModulo(count, 64)));
}
inline int64_t ShiftRight64(int64_t value, Wide count) {
  return static_cast<int64_t>(FloorDivide(value, PowerOfTwo(FloorModulo(count, 64))));
}

// What the int 1 << count is, the count taken modulo 32: a power of two, or INT32_MIN.
inline int32_t OneShifted32(Wide count) { return Wrap32(PowerOfTwo(FloorModulo(count, 32))); }

// The AND of two 64-bit values, one bit at a time.
inline int64_t And64(int64_t a, int64_t b) {
  Wide sum = 0;
  for (int i = 0; i < 64; ++i) {
    if (Bit(a, i) && Bit(b, i)) sum += PowerOfTwo(i);
  }
  return Wrap64(sum);
}

// Number of binary digits of a value that is not negative; 0 for 0.
inline int BitLength(Wide value) {
  int length = 0;
  for (; value > 0; value /= 2) ++length;
  return length;
}

// Conversions of a floating-point number truncate toward zero. What the type cannot hold, NaN
// included, becomes the type's smallest number.
inline int32_t ToInt32(double value) {
  const bool fits = value > -2147483649.0 && value < 2147483648.0;  // False for NaN.
  return fits ? static_cast<int32_t>(value) : INT32_MIN;
}
inline int64_t ToInt64(double value) {
  const bool fits = value >= -9223372036854775808.0 && value < 9223372036854775808.0;
  return fits ? static_cast<int64_t>(value) : INT64_MIN;
}

// Single precision: the operation is formed in double precision and rounded once more, to nearest
// even. A product of two 24-bit significands is exact in double precision, and rounding a sum to 53
// bits first does no harm because 53 >= 2 * 24 + 2.
inline float Round(double value) { return static_cast<float>(value); }
// The nearest float to an integer of at most 53 bits.
inline float ToFloat(Wide value) { return Round(static_cast<double>(value)); }
inline float Sum(float a, float b) { return Round(double{a} + double{b}); }
inline float Difference(float a, float b) { return Round(double{a} - double{b}); }
inline float Product(float a, float b) { return Round(double{a} * double{b}); }

}  // namespace exact
}  // namespace reference

#endif  // BITFOLD_TESTS_REFERENCE_EXACT_H_
