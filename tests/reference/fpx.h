// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The test oracle of the narrow floating-point format. A value is
// (-1)^sign * 2^(exponent - bias) * mantissa / 2^man_len, where the mantissa holds its leading one,
// and the value whose exponent and mantissa are both 0 is zero.
//
// Mantissa widths of 1 to 24 bits are computed on the value. Any other width is computed on 32-bit
// words: shift counts modulo 32, sums modulo 2^32, and 2^n - 1 as one shifted left by n modulo 32,
// minus one.
//
// A record may be null; counters and lines are then dropped.

#ifndef BITFOLD_TESTS_REFERENCE_FPX_H_
#define BITFOLD_TESTS_REFERENCE_FPX_H_

#include <cstdint>
#include <string>

namespace reference {

// One narrow float, laid out as the C structure of the same fields.
struct Fpx {
  uint8_t exp_len;
  uint8_t man_len;
  uint32_t mantissa;
  uint16_t exponent;
  unsigned sign : 1;
};
static_assert(sizeof(Fpx) == 12, "the sign shares the exponent's word");

// What the functions report beside their result.
struct FpxRecord {
  int32_t float_overflows = 0;    // Conversions from float that saturated.
  int32_t float_underflows = 0;   // Conversions from float that became zero.
  int32_t resize_overflows = 0;   // Resizings that saturated.
  int32_t resize_underflows = 0;  // Resizings below the range, rounded up or not.
  std::string lines;              // Logged messages in order, each with an end of line.
};

// The exponent bias: 11 for 4 exponent bits, 3 for 3. Any other width logs "Wrong Explen" and has
// bias 0.
int32_t FpxBias(int32_t exp_len, FpxRecord* record);

// Sets sign, exponent and mantissa of `x` to the nearest value, ties toward zero, in the widths
// that `x` has. The bias is asked for once, first, for zeros too.
void FpxFromFloat(float value, Fpx* x, FpxRecord* record);

// The value in single precision. The bias is asked for once, and not for a zero.
float FpxToFloat(const Fpx& x, FpxRecord* record);

// Re-quantises to new widths. The computation uses all 16 bits of them, `x` keeps the low 8. The
// bias is asked for twice, first, for zeros too.
void FpxResize(Fpx* x, uint16_t exp_len, uint16_t man_len, FpxRecord* record);

// Brings two values of equal widths to the larger exponent; other pairs stay as they are.
void FpxAlign(Fpx* a, Fpx* b);

// out = a + b. The widths of `out` are read, not set.
void FpxAdd(const Fpx& a, const Fpx& b, Fpx* out, FpxRecord* record);

// out = a * b. The widths of `out` are read, not set. The bias is asked for three times when both
// operands are normalised and alike, else never.
void FpxMultiply(const Fpx& a, const Fpx& b, Fpx* out, FpxRecord* record);

// The `count` lowest binary digits of value, highest first; digits beyond the 32nd are 0.
std::string BinaryDigits(int32_t value, int64_t count);

// Sign, exponent and mantissa in binary, separated by blanks.
std::string FpxBits(const Fpx& x);

// Whole arrays. The first sets the widths of every element; a count of 0 or below does nothing.
void FpxFromFloats(const float* values, int32_t count, uint8_t exp_len, uint8_t man_len, Fpx* out,
                   FpxRecord* record);
void FpxToFloats(const Fpx* values, int32_t count, float* out, FpxRecord* record);
void FpxResizeAll(Fpx* values, int32_t count, uint8_t exp_len, uint8_t man_len, FpxRecord* record);

}  // namespace reference

#endif  // BITFOLD_TESTS_REFERENCE_FPX_H_
