// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The narrow floating-point oracle. Mantissas and exponents are held in 64-bit integers, which is
// room enough for every intermediate result but the product of two mantissas.

#include "fpx.h"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>

#include "exact.h"

namespace reference {
namespace {

using exact::Low16;
using exact::Low32;
using exact::Low8;
using exact::Wide;

// 2^count with the count taken modulo 32: the word 1 << count.
int64_t Power32(int64_t count) {
  return static_cast<int64_t>(exact::PowerOfTwo(exact::FloorModulo(count, 32)));
}

// The largest number of `count` binary digits: the word (1 << count) - 1.
int64_t Ones32(int64_t count) { return Power32(count) - 1; }

// The low digits of a number that is not negative: an AND with Ones32(count).
int64_t LowDigits(int64_t value, int64_t count) { return value % Power32(count); }

bool DigitIsSet(int64_t value, int64_t index) { return value / Power32(index) % 2 == 1; }

bool IsZero(const Fpx& x) { return x.exponent == 0 && x.mantissa == 0; }

bool SameWidths(const Fpx& a, const Fpx& b) {
  return a.exp_len == b.exp_len && a.man_len == b.man_len;
}

void SetFields(Fpx* x, int64_t exponent, int64_t mantissa) {
  x->exponent = Low16(exponent);
  x->mantissa = Low32(mantissa);
}

void Log(FpxRecord* record, const std::string& message) {
  if (record != nullptr) record->lines += message + "\n";
}

void Count(FpxRecord* record, int32_t FpxRecord::*counter) {
  if (record != nullptr) record->*counter = exact::Wrap32(Wide{record->*counter} + 1);
}

// A float that is not zero as significand * 2^(exponent - 24), 2^23 <= significand < 2^24 unless
// the float is subnormal.
struct Parts {
  int64_t exponent;
  int64_t significand;
};

// Infinities and NaNs are taken for numbers one octave above the largest finite float, with the
// fraction bits that they carry.
Parts Decompose(float value) {
  Parts parts;
  if (std::isfinite(value)) {
    int exponent = 0;
    const double fraction = std::frexp(std::fabs(double{value}), &exponent);
    parts.exponent = exponent;
    parts.significand = static_cast<int64_t>(fraction * 16777216.0);
    return parts;
  }
  uint32_t bits = 0;
  std::memcpy(&bits, &value, sizeof(bits));
  parts.exponent = 129;
  parts.significand = 8388608 + bits % 8388608;
  return parts;
}

// The mantissa of man_len digits before its range is checked: the nearest integer to
// significand / 2^(24 - man_len), halves down. It may be 2^man_len.
int64_t RoundMantissa(int64_t significand, int64_t man_len) {
  if (man_len >= 1 && man_len <= 24) {
    const int64_t divisor = Power32(24 - man_len);
    const int64_t down = significand / divisor;
    const int64_t rest = significand % divisor;
    return 2 * rest > divisor ? down + 1 : down;
  }
  // The same on words, whose shift counts wrap: the fraction's digits are cut to width, the leading
  // one is set in its place, and what was cut off is compared with a half.
  const int64_t fraction = significand - 8388608;
  int64_t mantissa = LowDigits(fraction / Power32(24 - man_len), man_len);
  if (!DigitIsSet(mantissa, man_len - 1)) mantissa += Power32(man_len - 1);
  if (LowDigits(fraction, 24 - man_len) > Power32(23 - man_len)) mantissa += 1;
  return Low32(mantissa);
}

// The sum of digit man_len - 1 as a half, the next as a quarter and so on, rounded to single
// precision after every digit. With up to 24 digits nothing is ever rounded.
float ReadFraction(int64_t mantissa, int64_t man_len) {
  if (man_len <= 24) {
    const int64_t digits = LowDigits(mantissa, man_len);
    return exact::Round(static_cast<double>(digits) / static_cast<double>(Power32(man_len)));
  }
  float sum = 0.0f;
  double weight = 1.0;
  for (int64_t k = man_len - 1; k >= 0; --k) {
    weight /= 2.0;
    if (DigitIsSet(mantissa, k)) sum = exact::Round(double{sum} + weight);
  }
  return sum;
}

void CheckNormalised(const Fpx& out, const char* where, FpxRecord* record) {
  if (out.mantissa == 0 || DigitIsSet(out.mantissa, int64_t{out.man_len} - 1)) return;
  Log(record, std::string("Possible bug in ") + where + ": " + FpxBits(out));
}

// The low digits of value * 2^shift, where digits beyond the 64th are lost; a negative shift
// divides and drops the rest. Counts are taken modulo 64.
int64_t ShiftProduct(Wide value, int64_t shift, int64_t man_len) {
  if (shift >= 0) {
    for (int64_t i = 0; i < shift % 64; ++i) {
      value = exact::FloorModulo(value * 2, exact::PowerOfTwo(64));
    }
  } else {
    value /= exact::PowerOfTwo((-shift) % 64);
  }
  return static_cast<int64_t>(value % Power32(man_len));
}

// Sets `out` to a difference that is not 0, its leading one moved to digit man_len - 1. When the
// exponent is too small for that, `out` keeps the fields it had.
void Normalise(int64_t difference, int64_t exponent, Fpx* out) {
  const int64_t man_len = out->man_len;
  const int64_t shift = man_len - exact::BitLength(difference);
  if (exponent < shift) return;
  const int64_t moved =
      shift >= 0 ? Low32(Wide{difference} * Power32(shift)) : difference / Power32(-shift);
  SetFields(out, exponent - shift, LowDigits(moved, man_len));
}

}  // namespace

int32_t FpxBias(int32_t exp_len, FpxRecord* record) {
  if (exp_len == 3) return 3;
  if (exp_len == 4) return 11;
  Log(record, "Wrong Explen");
  return 0;
}

void FpxFromFloat(float value, Fpx* x, FpxRecord* record) {
  const int64_t bias = FpxBias(x->exp_len, record);
  const int64_t exp_len = x->exp_len;
  const int64_t man_len = x->man_len;
  x->sign = std::signbit(value) ? 1 : 0;
  if (value == 0.0f) {
    SetFields(x, 0, 0);
    return;
  }
  const Parts parts = Decompose(value);
  if (parts.exponent < -bias) {  // Every subnormal float ends here.
    const bool octave_below = parts.exponent == -bias - 1;
    SetFields(x, 0, octave_below ? Power32(man_len - 1) : 0);
    if (!octave_below) Count(record, &FpxRecord::float_underflows);
    return;
  }
  // The range is checked before the carry of the rounding: a carry out of the top octave is not an
  // overflow, its exponent wraps to 0.
  if (parts.exponent + bias > Ones32(exp_len)) {
    SetFields(x, Ones32(exp_len), Ones32(man_len));
    Count(record, &FpxRecord::float_overflows);
    return;
  }
  int64_t exponent = parts.exponent;
  int64_t mantissa = RoundMantissa(parts.significand, man_len);
  if (mantissa > Ones32(man_len)) {
    mantissa /= 2;
    exponent += 1;
  }
  SetFields(x, LowDigits(exponent + bias, exp_len), LowDigits(mantissa, man_len));
}

float FpxToFloat(const Fpx& x, FpxRecord* record) {
  if (IsZero(x)) return 0.0f;
  const int32_t exponent = int32_t{x.exponent} - FpxBias(x.exp_len, record);
  if (x.man_len == 0) return 0.0f;
  const double magnitude = std::ldexp(1.0, exponent);
  const float scale = exact::Round(x.sign == 1 ? -magnitude : magnitude);
  return exact::Product(scale, ReadFraction(x.mantissa, x.man_len));
}

void FpxResize(Fpx* x, uint16_t exp_len, uint16_t man_len, FpxRecord* record) {
  const int64_t old_bias = FpxBias(x->exp_len, record);
  const int64_t bias = FpxBias(exp_len, record);
  const int64_t dropped = int64_t{x->man_len} - int64_t{man_len};
  const bool was_zero = IsZero(*x);
  x->exp_len = Low8(exp_len);
  x->man_len = Low8(man_len);
  if (was_zero) return;
  int64_t exponent = int64_t{x->exponent} - old_bias;
  if (exponent < -bias) {
    SetFields(x, 0, exponent == -bias - 1 ? Power32(int64_t{man_len} - 1) : 0);
    Count(record, &FpxRecord::resize_underflows);
    return;
  }
  if (exponent + bias > Ones32(exp_len)) {
    SetFields(x, Ones32(exp_len), Ones32(man_len));
    Count(record, &FpxRecord::resize_overflows);
    return;
  }
  // A mantissa that gets wider is divided by 2^(32 - widening): it is lost, and nothing is rounded.
  int64_t mantissa = x->mantissa / Power32(dropped);
  if (dropped > 0) {
    if (LowDigits(x->mantissa, dropped) > Power32(dropped - 1)) mantissa = Low32(mantissa + 1);
    if (mantissa > Ones32(man_len)) {
      mantissa /= 2;
      exponent += 1;
    }
  }
  SetFields(x, LowDigits(exponent + bias, exp_len), LowDigits(mantissa, man_len));
}

void FpxAlign(Fpx* a, Fpx* b) {
  if (!SameWidths(*a, *b)) return;
  Fpx* small = a->exponent < b->exponent ? a : b;
  const Fpx* large = small == a ? b : a;
  const int64_t distance = int64_t{large->exponent} - int64_t{small->exponent};
  SetFields(small, large->exponent, small->mantissa / Power32(distance));
}

void FpxAdd(const Fpx& a, const Fpx& b, Fpx* out, FpxRecord* record) {
  if (!SameWidths(a, b) || !SameWidths(a, *out)) {
    SetFields(out, 0, 0);
    return;
  }
  Fpx left = a;
  Fpx right = b;
  FpxAlign(&left, &right);
  const int64_t man_len = out->man_len;
  int64_t exponent = left.exponent;
  if (left.sign == right.sign) {
    out->sign = left.sign;
    int64_t sum = Low32(Wide{left.mantissa} + right.mantissa);
    if (DigitIsSet(sum, man_len)) {
      sum /= 2;
      exponent += 1;
    }
    SetFields(out, exponent, LowDigits(sum, man_len));
  } else {
    const int64_t difference = int64_t{left.mantissa} - int64_t{right.mantissa};
    out->sign = difference > 0 ? left.sign : right.sign;
    if (difference == 0) {
      SetFields(out, 0, 0);
      return;
    }
    Normalise(difference > 0 ? difference : -difference, exponent, out);
  }
  CheckNormalised(*out, "addition/subtraction", record);
}

void FpxMultiply(const Fpx& a, const Fpx& b, Fpx* out, FpxRecord* record) {
  const Fpx left = a;  // `out` may be one of the operands.
  const Fpx right = b;
  SetFields(out, 0, 0);
  if (!SameWidths(left, right)) return;
  const int64_t man_len = left.man_len;
  if (!DigitIsSet(left.mantissa, man_len - 1) || !DigitIsSet(right.mantissa, man_len - 1)) return;
  const Wide product = Wide{left.mantissa} * right.mantissa;
  out->sign = left.sign != right.sign ? 1 : 0;
  const int64_t length = exact::BitLength(product);
  int64_t exponent = FpxBias(out->exp_len, record);
  exponent += left.exponent - FpxBias(left.exp_len, record);
  exponent += right.exponent - FpxBias(right.exp_len, record);
  if (length < out->man_len + man_len) exponent -= 1;
  SetFields(out, exponent, ShiftProduct(product, out->man_len - length, out->man_len));
  CheckNormalised(*out, "multiplication", record);
}

std::string BinaryDigits(int32_t value, int64_t count) {
  int64_t rest = Low32(value);
  std::string digits;
  for (int64_t i = 0; i < count; ++i) {
    digits.insert(digits.begin(), rest % 2 == 1 ? '1' : '0');
    rest /= 2;
  }
  return digits;
}

std::string FpxBits(const Fpx& x) {
  return BinaryDigits(x.sign, 1) + " " + BinaryDigits(x.exponent, x.exp_len) + " " +
         BinaryDigits(exact::Wrap32(x.mantissa), x.man_len);
}

void FpxFromFloats(const float* values, int32_t count, uint8_t exp_len, uint8_t man_len, Fpx* out,
                   FpxRecord* record) {
  for (int32_t i = 0; i < count; ++i) {
    out[i].exp_len = exp_len;
    out[i].man_len = man_len;
    FpxFromFloat(values[i], &out[i], record);
  }
}

void FpxToFloats(const Fpx* values, int32_t count, float* out, FpxRecord* record) {
  for (int32_t i = 0; i < count; ++i) out[i] = FpxToFloat(values[i], record);
}

void FpxResizeAll(Fpx* values, int32_t count, uint8_t exp_len, uint8_t man_len, FpxRecord* record) {
  for (int32_t i = 0; i < count; ++i) FpxResize(&values[i], exp_len, man_len, record);
}

}  // namespace reference
