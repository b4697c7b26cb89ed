// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Checks the oracle of the requantisation against results worked out by hand. Prints one line when
// all hold; on the first failure prints what failed and exits with status 1.

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <limits>

#include "requantise.h"
#include "selftest.h"

namespace {

using reference::FixedPoint;
using reference::Requantise;
using reference::RequantiseSettings;
using reference::RequantiseStatus;
using reference::Rounding;
using selftest::Expect;

constexpr int32_t kHalf = 1 << 30;  // the mantissa of 1/2
constexpr int32_t kMost = INT32_MAX;

void ExpectFixed(double multiplier, int64_t mantissa, int64_t exponent) {
  const FixedPoint fixed = reference::ToFixedPoint(multiplier);
  Expect("mantissa", fixed.mantissa, mantissa);
  Expect("exponent", fixed.exponent, exponent);
}

void CheckFixedPoint() {
  ExpectFixed(0.0, 0, 0);
  ExpectFixed(0.5, kHalf, 0);
  ExpectFixed(1.0, kHalf, 1);
  ExpectFixed(0.75, 3 * (kHalf / 2), 0);
  ExpectFixed(1.0 - std::ldexp(1.0, -31), kMost, 0);
  ExpectFixed(1.0 - std::ldexp(1.0, -32), kHalf, 1);      // a tie, carried
  ExpectFixed(1.0 - std::ldexp(3.0, -33), kMost, 0);      // below it
  ExpectFixed(0.5 + std::ldexp(1.0, -32), kHalf + 1, 0);  // a tie
  ExpectFixed(std::ldexp(1.0, -32), kHalf, -31);
  ExpectFixed(std::ldexp(1.0, -33), 0, 0);
  ExpectFixed(std::nextafter(std::ldexp(1.0, -32), 0.0), kHalf, -31);  // carried into range
  ExpectFixed(std::numeric_limits<double>::denorm_min(), 0, 0);
  ExpectFixed(std::numeric_limits<double>::max(), kHalf, 1025);
}

void CheckTwoRoundings() {
  using reference::TwoRoundings;
  Expect("3 / 2", TwoRoundings(3, {kHalf, 0}), 2);
  Expect("-3 / 2", TwoRoundings(-3, {kHalf, 0}), -1);  // halves up in the product
  Expect("-3 / 4", TwoRoundings(-3, {kHalf, -1}), -1);
  Expect("2 / 4", TwoRoundings(2, {kHalf, -1}), 1);
  Expect("-2 / 4", TwoRoundings(-2, {kHalf, -1}), -1);  // away from zero in the quotient
  Expect("1 / 4", TwoRoundings(1, {kHalf, -1}), 1);     // twice rounded up
  Expect("wraps", TwoRoundings(kHalf, {kHalf, 1}), -kHalf);
  Expect("least", TwoRoundings(INT32_MIN, {kMost, 0}), -kMost);
  Expect("least by 31", TwoRoundings(INT32_MIN, {kMost, -31}), -1);
  Expect("by 2^31", TwoRoundings(3, {kHalf, 31}), -kHalf);
}

void CheckShortMultiplier() {
  using reference::ShortMultiplier;
  Expect("3 / 2", ShortMultiplier(3, {kHalf, 0}), 2);
  Expect("-3 / 2", ShortMultiplier(-3, {kHalf, 0}), -1);
  Expect("32767", ShortMultiplier(32768, {kMost, 0}), 32767);
  Expect("15 bits", ShortMultiplier(32768, {kHalf + 32767, 0}), 16384);
  Expect("rounded up", ShortMultiplier(32768, {kHalf + 32768, 0}), 16385);
  Expect("low bits", ShortMultiplier(int64_t{1} << 33, {kHalf, 0}), 0);
  Expect("64 bits", ShortMultiplier(int64_t{1} << 48, {kHalf, -31}), 65536);
  Expect("wraps in 64 bits", ShortMultiplier(INT64_MAX, {kHalf, -31}), 0);
  Expect("low bits of a wrapped product", ShortMultiplier(INT64_MAX, {kMost, 7}), -128);
}

void CheckOneRounding() {
  using reference::OneRounding;
  Expect("1/2", OneRounding(1, 0.5, 0), 1);
  Expect("-1/2", OneRounding(-1, 0.5, 0), -1);
  Expect("below 1/2", OneRounding(1, std::nextafter(0.5, 0.0), 0), 0);
  Expect("3/2", OneRounding(3, 0.25, 1), 2);
  Expect("greatest", OneRounding(INT32_MAX, 1.0, 0), INT32_MAX);
  Expect("too great", OneRounding(INT32_MAX, 2.0, 0), INT32_MIN);
  Expect("rounded to what is too great", OneRounding(INT32_MAX, 1.0 + 3e-10, 0), INT32_MIN);
  Expect("too small", OneRounding(INT32_MIN, 1.5, 0), INT32_MIN);
  Expect("a sum that double rounds", OneRounding(INT64_MAX, std::ldexp(1.0, -33), 0), 1073741824);
  // 3 * (1 / 6 in double precision) rounds to exactly a half.
  Expect("a product that double rounds", OneRounding(3, 1.0 / 6.0, 0), 1);
}

void CheckElement() {
  RequantiseSettings s = {Rounding::kTwo, 0, -3, -10, 20};
  int32_t result = 0;
  const auto run = [&](int64_t sum, double multiplier) {
    return static_cast<int64_t>(Requantise(sum, multiplier, s, &result));
  };
  Expect("status", run(9, 0.5), 0);
  Expect("zero point", result, 2);
  Expect("status", run(-90, 0.5), 0);
  Expect("minimum", result, -10);
  Expect("status", run(90, 0.5), 0);
  Expect("maximum", result, 20);
  s.zero_point = -2;
  Expect("status", run(INT32_MIN, 1.0 - std::ldexp(1.0, -30)), 0);
  Expect("INT32_MIN after the zero point", result, -10);
  s.zero_point = -3;
  Expect("status", run(INT32_MIN, 1.0 - std::ldexp(1.0, -30)), 0);
  Expect("wrapped by the zero point", result, 20);
  Expect("negative", run(1, -0.5), static_cast<int64_t>(RequantiseStatus::kMultiplier));
  Expect("NaN", run(1, std::nan("")), static_cast<int64_t>(RequantiseStatus::kMultiplier));
  Expect("infinite", run(1, INFINITY), static_cast<int64_t>(RequantiseStatus::kMultiplier));
  Expect("exponent", run(1, std::ldexp(1.0, 31)),
         static_cast<int64_t>(RequantiseStatus::kExponent));
  Expect("wide", run(INT64_MAX, 0.5), static_cast<int64_t>(RequantiseStatus::kSums));
  s.shift = 31;
  Expect("exponent", run(1, 1.0), static_cast<int64_t>(RequantiseStatus::kExponent));
  Expect("shifted", run(1, std::ldexp(1.0, -31)), 0);
  s.rounding = Rounding::kShortMultiplier;
  Expect("exponent", run(1, 0.5), static_cast<int64_t>(RequantiseStatus::kExponent));
}

}  // namespace

int main() {
  CheckFixedPoint();
  CheckTwoRoundings();
  CheckShortMultiplier();
  CheckOneRounding();
  CheckElement();
  std::printf("requantise reference: %d checks passed\n", selftest::checks);
  return 0;
}
