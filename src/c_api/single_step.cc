// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "bitfold/single_step.h"

#include <cstdint>

#include "bitfold/accumulator.h"
#include "bitfold/half_accumulator.h"
#include "bitfold/int32_arithmetic.h"
#include "bitfold/product_scaling.h"
#include "bitfold/warning.h"

static_assert(sizeof(int) == sizeof(int32_t), "the exported functions model 32-bit registers");

// Unlike the kernels' integer accumulator this one sums in single precision and warns. The two
// directions wrap differently on purpose: the lower one adds 2 M through 1 + (2 M - 1), each step
// rounded to single precision.
int accumulator_int_verification(int a, int b, int accumulator_size) {
  const float magnitude = bitfold::AccumulatorMagnitude(accumulator_size);
  const float sum = static_cast<float>(a) + static_cast<float>(b);
  if (bitfold::IsOutOfWarningRange(sum)) bitfold::PrintAccumulatorWarning(sum);
  if (sum > magnitude - 1.0f) {
    return bitfold::TruncateToInt32(sum - (magnitude + magnitude));
  }
  if (-magnitude > sum) {
    return bitfold::TruncateToInt32((1.0f + sum) + (magnitude + (magnitude - 1.0f)));
  }
  return bitfold::TruncateToInt32(sum);
}

// Quantising `a` a second time changes it only at the overflow edge: 32768 becomes -16384.
float accumulator_fp16_verification(float a, float b) {
  const float acc = bitfold::f32_to_hf16(bitfold::f32_to_hf16(a));
  const float addend = bitfold::f32_to_hf16(b);
  return bitfold::f32_to_hf16(addend + acc);
}

int multiplier_verification(int a, int b) { return bitfold::WrapMultiply(a, b); }

float shifter_fp16_acc_verification(int x) { return static_cast<float>(x); }

int shifter_int_acc_verification(int x, int shift) {
  return bitfold::ShiftRoundHalfToEven(x, shift);
}
