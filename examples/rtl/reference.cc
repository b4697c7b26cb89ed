// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What the test bench compares with and C alone has no form for: the accumulators at every width,
// and a half-precision one as the 16 bits of the unit's register. The bench calls the multiplier
// and the shifter of bitfold/single_step.h as they are.

#include <cmath>
#include <cstdint>

#include "bitfold/accumulator.h"
#include "bitfold/half_accumulator.h"
#include "bitfold/single_step.h"

namespace {

constexpr int kFractionBits = 11;

// The register's value, as half_accumulator.sv has it.
float ValueOf(uint16_t code) {
  const int exponent = (code >> kFractionBits) & 15;
  const int fraction = code & ((1 << kFractionBits) - 1);
  const int significand = exponent == 0 ? fraction : (1 << kFractionBits) + fraction;
  const float x = std::ldexp(static_cast<float>(significand), exponent == 0 ? -10 : exponent - 11);
  return (code >> 15) != 0 ? -x : x;
}

uint16_t RegisterOf(float x) {
  const float magnitude = std::fabs(x);
  const int exponent = magnitude < 2.0f ? 0 : std::ilogb(magnitude);
  const auto significand =
      static_cast<uint32_t>(std::ldexp(magnitude, exponent == 0 ? 10 : kFractionBits - exponent));
  const uint32_t fraction = significand & ((1u << kFractionBits) - 1);
  const uint32_t sign = std::signbit(x) ? 1u << 15 : 0u;
  return static_cast<uint16_t>(sign | static_cast<uint32_t>(exponent) << kFractionBits | fraction);
}

}  // namespace

extern "C" {

// One addition into an accumulator of `width` bits.
int reference_accumulate(int acc, int addend, int width) {
  return bitfold::Accumulate(acc, addend, bitfold::AccumulatorLimits<int32_t>(width));
}

// One addition of a product into a half-precision accumulator, from register to register.
uint16_t reference_accumulate_half(uint16_t acc, int product) {
  const float addend = shifter_fp16_acc_verification(product);
  return RegisterOf(bitfold::AccumulateHalf(ValueOf(acc), addend));
}

}  // extern "C"
