// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Floats to the narrow format (rule F1 of docs/arithmetic.md), for every width of it.

#include <cmath>
#include <string>
#include <vector>

#include "bitfold/fpx.h"
#include "proofs/enumerate/enumeration.h"
#include "proofs/enumerate/exact.h"

namespace bitfold::enumeration {
namespace {

int ExponentBits(const Setting& setting) { return setting.number / 100; }
int MantissaBits(const Setting& setting) { return setting.number % 100; }

// Fields and what was counted.
Word Pack(uint64_t sign, uint64_t exponent, uint64_t mantissa, bool overflows, bool underflows) {
  const uint64_t counted = (overflows ? 2 : 0) + (underflows ? 1 : 0);
  return mantissa | exponent << 32 | sign << 48 | counted << 49;
}

// In whole numbers: value = digits / 2^24 * 2^e, of which the digits above 2^(24 - m) stay.
Word NarrowOf(const Setting& setting, float x, float) {
  const uint32_t bits = Bits(x);
  const uint64_t sign = bits >> 31;
  const int m = MantissaBits(setting);
  const int64_t bias = ExponentBits(setting) == 4 ? 11 : 3;
  const int64_t top = ExponentBits(setting) == 4 ? 15 : 7;
  const uint64_t ones = (uint64_t{1} << m) - 1;
  if (!IsFinite(bits)) return Pack(sign, static_cast<uint64_t>(top), ones, true, false);
  const Exact number = Decoded(bits);
  if (number.digits == 0) return Pack(sign, 0, 0, false, false);
  const int64_t field = number.exponent + Length(number.digits) + bias;
  if (field == -1) return Pack(sign, 0, uint64_t{1} << (m - 1), false, false);
  if (field < 0) return Pack(sign, 0, 0, false, true);
  if (field > top) return Pack(sign, static_cast<uint64_t>(top), ones, true, false);
  // Digits are 24 here: a subnormal number is below the range.
  const int dropped = 24 - m;
  const uint64_t rest = number.digits & ((uint64_t{1} << dropped) - 1);
  uint64_t mantissa = (number.digits >> dropped) + (2 * rest > uint64_t{1} << dropped ? 1 : 0);
  auto exponent = static_cast<uint64_t>(field);
  if (mantissa > ones) {
    mantissa /= 2;
    exponent = exponent == static_cast<uint64_t>(top) ? 0 : exponent + 1;
  }
  return Pack(sign, exponent, mantissa, false, false);
}

// With what was counted meanwhile.
Word Shipped(const Setting& setting, float x, float) {
  FPX narrow = {};
  narrow.exp_len = static_cast<uint8_t>(ExponentBits(setting));
  narrow.man_len = static_cast<uint8_t>(MantissaBits(setting));
  const int32_t overflows = g_32toX_of;
  const int32_t underflows = g_32toX_uf;
  float32_toX(x, &narrow);
  return Pack(narrow.sign, narrow.exponent, narrow.mantissa, g_32toX_of != overflows,
              g_32toX_uf != underflows);
}

// A tie rounds up.
Word WithTiesUp(const Setting& setting, float x, float acc) {
  const uint32_t tie = uint32_t{1} << (24 - MantissaBits(setting)) >> 1;
  const bool is_tie = tie != 0 && (Bits(x) & (2 * tie - 1)) == tie && IsFinite(Bits(x));
  return Shipped(setting, is_tie ? Float(Bits(x) + 1) : x, acc);
}

// A carry at the top saturates.
Word WithSaturatedCarry(const Setting& setting, float x, float acc) {
  const Word word = Shipped(setting, x, acc);
  const bool is_carried = std::fabs(x) >= 1.0f && (word >> 32 & 0xffff) == 0;
  return is_carried ? NarrowOf(setting, std::copysign(HUGE_VALF, x), acc) : word;
}

}  // namespace

std::vector<Enumeration> NarrowFloats() {
  Enumeration table = {"F1",
                       "truncates ties, saturates, and wraps a carry at the top exponent",
                       EveryFloat(),
                       {},
                       Each("definition", NarrowOf),
                       {},
                       {}};
  for (const int exponent_bits : {3, 4}) {
    for (int bits = 1; bits <= 24; ++bits) {
      const std::string name =
          std::to_string(exponent_bits) + " and " + std::to_string(bits) + " bits";
      table.settings.push_back({name, 100 * exponent_bits + bits});
    }
  }
  table.forms = {Each("float32_toX", Shipped)};
  table.controls = {Each("ties up", WithTiesUp), Each("a carry saturates", WithSaturatedCarry)};
  return {table};
}

}  // namespace bitfold::enumeration
