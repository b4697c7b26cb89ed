// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The requantisation oracle: whole numbers, quotients rounded by division, and double precision
// taken apart into whole numbers and powers of two.

#include "requantise.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "exact.h"

namespace reference {
namespace {

using exact::FloorDivide;
using exact::PowerOfTwo;
using exact::Wide;
using exact::Wrap32;
using exact::Wrap64;

// digits * 2^power, digits not negative.
struct Scaled {
  Wide digits;
  int64_t power;
};

// A finite double that is not negative, in its 53 binary digits where it has any.
Scaled Decode(double value) {
  uint64_t word = 0;
  std::memcpy(&word, &value, sizeof(word));
  const uint64_t fraction_range = uint64_t{1} << 52;
  const auto field = static_cast<int64_t>(word / fraction_range);
  const Wide fraction = static_cast<Wide>(word % fraction_range);
  Scaled s = field == 0 ? Scaled{fraction, -1074} : Scaled{fraction + PowerOfTwo(52), field - 1075};
  while (s.digits != 0 && s.digits < PowerOfTwo(52)) s = {2 * s.digits, s.power - 1};
  return s;
}

// To 53 binary digits, halves to even, as double precision holds a number of its range.
Scaled ToDouble(const Scaled& s) {
  const int excess = exact::BitLength(s.digits) - 53;
  if (excess <= 0) return s;
  return {exact::DivideHalfEven(s.digits, PowerOfTwo(excess)), s.power + excess};
}

// dividend / divisor rounded to nearest, halves away from zero.
Wide DivideHalfAway(Wide dividend, Wide divisor) {
  const Wide magnitude = dividend < 0 ? -dividend : dividend;
  const Wide quotient = FloorDivide(2 * magnitude + divisor, 2 * divisor);
  return dividend < 0 ? -quotient : quotient;
}

}  // namespace

FixedPoint ToFixedPoint(double multiplier) {
  const Scaled s = Decode(multiplier);
  if (s.digits == 0) return {0, 0};
  // 53 digits to 31, halves up.
  Wide mantissa = FloorDivide(s.digits + PowerOfTwo(21), PowerOfTwo(22));
  int64_t exponent = s.power + 53;
  if (mantissa == PowerOfTwo(31)) {
    mantissa = PowerOfTwo(30);
    exponent += 1;
  }
  if (exponent < -31) return {0, 0};
  return {static_cast<int64_t>(mantissa), exponent};
}

int32_t TwoRoundings(int32_t sum, const FixedPoint& multiplier) {
  const int64_t e = multiplier.exponent;
  const int32_t shifted = Wrap32(Wide{sum} * PowerOfTwo(std::max<int64_t>(e, 0)));
  const Wide high =
      FloorDivide(Wide{shifted} * multiplier.mantissa + PowerOfTwo(30), PowerOfTwo(31));
  return Wrap32(DivideHalfAway(high, PowerOfTwo(std::max<int64_t>(-e, 0))));
}

int32_t ShortMultiplier(int64_t sum, const FixedPoint& multiplier) {
  const Wide mantissa =
      std::min(FloorDivide(Wide{multiplier.mantissa} + 32768, 65536), Wide{32767});
  const Wide divisor = PowerOfTwo(15 - multiplier.exponent);
  return Wrap32(FloorDivide(Wrap64(Wide{sum} * mantissa + divisor / 2), divisor));
}

int32_t OneRounding(int64_t sum, double multiplier, int32_t shift) {
  const Scaled a = ToDouble({sum < 0 ? -Wide{sum} : Wide{sum}, 0});
  const Scaled b = Decode(multiplier);
  const Scaled product = ToDouble({a.digits * b.digits, a.power + b.power});
  const int64_t power = product.power + shift;
  Wide magnitude = 0;
  if (product.digits == 0 || power < -60) {
    magnitude = 0;  // below a half
  } else if (power > 32) {
    magnitude = PowerOfTwo(33);  // more than 32 bits hold
  } else if (power >= 0) {
    magnitude = product.digits * PowerOfTwo(power);
  } else {
    magnitude = DivideHalfAway(product.digits, PowerOfTwo(-power));
  }
  const Wide value = sum < 0 ? -magnitude : magnitude;
  const bool fits = value >= INT32_MIN && value <= INT32_MAX;
  return fits ? static_cast<int32_t>(value) : INT32_MIN;
}

RequantiseStatus Requantise(int64_t sum, double multiplier, const RequantiseSettings& settings,
                            int32_t* result) {
  if (!(multiplier >= 0 && multiplier < 2 * 8.98846567431158e307)) {
    return RequantiseStatus::kMultiplier;
  }
  FixedPoint fixed = ToFixedPoint(multiplier);
  if (fixed.mantissa != 0) fixed.exponent += settings.shift;
  int32_t rescaled = 0;
  if (settings.rounding == Rounding::kTwo) {
    if (sum != Wrap32(sum)) return RequantiseStatus::kSums;
    if (fixed.exponent < -31 || fixed.exponent > 31) return RequantiseStatus::kExponent;
    rescaled = TwoRoundings(static_cast<int32_t>(sum), fixed);
  } else if (settings.rounding == Rounding::kShortMultiplier) {
    if (fixed.exponent < -31 || fixed.exponent >= 8) return RequantiseStatus::kExponent;
    rescaled = ShortMultiplier(sum, fixed);
  } else {
    const Scaled s = Decode(multiplier);
    if (s.digits != 0 && s.power + settings.shift > 971) return RequantiseStatus::kExponent;
    rescaled = OneRounding(sum, multiplier, settings.shift);
  }
  const int32_t shifted = Wrap32(Wide{rescaled} + settings.zero_point);
  *result = std::min(std::max(shifted, settings.minimum), settings.maximum);
  return RequantiseStatus::kOk;
}

}  // namespace reference
