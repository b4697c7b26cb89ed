// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "chain/plan.h"

#include <algorithm>
#include <optional>

#include "bitfold/int32_arithmetic.h"

namespace bitfold {
namespace {

constexpr ChainPlan kStepwise = {ChainPath::kStepwise, 0, 32};

// Sums are exact modulo 2^32 and their warnings cannot come: a float holds every whole number up to
// 2^24, and lines are printed from 2^23 - 1 on.
constexpr int64_t kExactFloat = int64_t{1} << 24;
constexpr int64_t kSilentSum = (int64_t{1} << 23) - 2;

// Whole numbers that the half-precision quantiser leaves as they are, and those that it makes
// numbers below 2^15.
constexpr int64_t kUnchangedHalf = 4096;
constexpr int64_t kLargestWholeHalf = 32763;

// A product that rounding by the addition of 1.5 * 2^23 takes, and one whose quotient by a number
// that is no power of two is rounded right (RoundedSums).
constexpr int64_t kRoundable = int64_t{1} << 22;
constexpr int64_t kRoundableQuotient = int64_t{1} << 19;

// |divisor|, of -2^31 itself.
int32_t Magnitude(int32_t divisor) { return divisor < 0 ? WrapSubtract(0, divisor) : divisor; }

// The largest |w * x|. Facts of int32 keep it below 2^63.
int64_t LargestProduct(const ChainFacts& facts) {
  return facts.input.Magnitude() * facts.weights.Magnitude();
}

// What makes the input unsigned bytes, where input and weights are bytes.
std::optional<int32_t> ByteOffset(const ChainFacts& facts) {
  const Facts& input = facts.input;
  if (!facts.weights.LieIn(INT8_MIN, INT8_MAX)) return std::nullopt;
  if (input.min < INT16_MIN || input.max - input.min > UINT8_MAX) return std::nullopt;
  return static_cast<int32_t>(-input.min);
}

// Whether the magnitudes of all addends of an output add up to at most `most`.
bool SumsAreAtMost(const ChainFacts& facts, int64_t most) {
  const int64_t left = most - facts.elementwise.Magnitude();
  const int64_t input = facts.input.Magnitude();
  return left >= 0 && (input == 0 || facts.weight_sum() <= left / input);
}

// Theorems 2 and 3: sums of `bits` bits, or all of them.
bool IsProven(const ChainFacts& facts, int32_t bits) {
  const int32_t w = facts.accumulator_size;
  const int64_t addend = std::max(LargestProduct(facts), facts.elementwise.Magnitude());
  const int64_t magnitude = int64_t{1} << (bits - 1);  // M, or less
  const bool by_theorem_2 =
      w <= 23 && addend <= 2 * magnitude && magnitude + addend <= kSilentSum + 1;
  return by_theorem_2 || SumsAreAtMost(facts, std::min(magnitude - 1, kSilentSum));
}

HalfAddends HalfAddendsOf(int64_t product) {
  if (product > kLargestWholeHalf) return HalfAddends::kAny;
  return product > kUnchangedHalf ? HalfAddends::kWhole : HalfAddends::kUnchanged;
}

// The narrowest dot products that hold the numbers, or `otherwise`.
ChainPlan Narrowest(const ChainFacts& facts, bool has_bytes, int32_t bits, ChainPath otherwise) {
  if (!facts.packs) return {otherwise, 0, bits};
  const std::optional<int32_t> offset = has_bytes ? ByteOffset(facts) : std::nullopt;
  if (offset) return {ChainPath::kDotBytes, *offset, bits};
  if (facts.weights.LieIn(INT16_MIN, INT16_MAX) && facts.input.LieIn(INT16_MIN, INT16_MAX)) {
    return {ChainPath::kDotShorts, 0, bits};
  }
  return {otherwise, 0, bits};
}

// Scaled products, each less than 2^22, divided by 2^shift where a shift does it. 2^shift times
// their sum is known modulo 2^32: enough for `bits` of the sum, or for all of it where 32 bits hold
// it.
ChainPlan Scaled(const ChainFacts& facts, int32_t shift, int32_t bits) {
  const ChainPlan rounded = {ChainPath::kRounded, 0, bits};
  if (!facts.takes_remainders || !facts.packs) return rounded;
  if (shift < 1 || shift > kMostRemainderShift) return rounded;
  const std::optional<int32_t> offset = ByteOffset(facts);
  if (!offset) return rounded;
  const int64_t most = LargestProduct(facts) + (int64_t{1} << (shift - 1));
  if (bits + shift > 32 && facts.products > INT32_MAX / most) return rounded;
  return {ChainPath::kDotRemainders, *offset, bits, shift};
}

// The shift that divides by a number, 0 where none does.
int32_t ShiftOf(int32_t divisor) {
  if (divisor < 1 || !IsPowerOfTwo(divisor)) return 0;
  return __builtin_ctz(static_cast<uint32_t>(divisor));
}

}  // namespace

bool IsPowerOfTwo(int32_t divisor) {
  const int32_t magnitude = Magnitude(divisor);
  return magnitude != 0 && (magnitude & (magnitude - 1)) == 0;
}

// Theorem 1. From a width of 31 on every int32 addend obeys it. Scaling by a shift makes no product
// larger in magnitude, but for 0 and 1 at most 1.
ChainPlan PlanInt32(const ChainFacts& facts, bool has_bytes) {
  const int32_t w = facts.accumulator_size;
  if (w < 1) return kStepwise;
  const int64_t period = int64_t{1} << w;
  const int64_t product = LargestProduct(facts);
  if (w < 31 && (product > period || facts.elementwise.Magnitude() > period)) return kStepwise;
  const int32_t s = facts.mult_shift;
  if (s == 0) return Narrowest(facts, has_bytes, w, ChainPath::kModular);
  const bool is_float = product <= kExactFloat && facts.input.Magnitude() <= kExactFloat &&
                        facts.weights.Magnitude() <= kExactFloat;
  if (1 <= s && s <= 24 && is_float && product >> s < kRoundable) return Scaled(facts, s, w);
  return {ChainPath::kModular, 0, w};
}

// Whole numbers, of which no product is larger than a float holds. Scaling makes none larger.
ChainPlan PlanFloat(const ChainFacts& facts, bool has_bytes) {
  const int32_t w = facts.accumulator_size;
  const bool is_whole =
      facts.input.is_whole && facts.weights.is_whole && facts.elementwise.is_whole;
  if (!is_whole || w < 1) return kStepwise;
  const int64_t product = LargestProduct(facts);
  if (product > kExactFloat) return kStepwise;
  ChainPlan stepwise = kStepwise;
  if (facts.use_fp16_acc) stepwise.half = HalfAddendsOf(product);
  const int32_t bits = facts.use_fp16_acc ? 32 : std::min<int32_t>(w, 32);
  if (!(facts.use_fp16_acc ? SumsAreAtMost(facts, kUnchangedHalf) : IsProven(facts, bits))) {
    return stepwise;
  }
  const int32_t s = facts.mult_shift;
  if (s == 0) {
    ChainPlan plan = Narrowest(facts, has_bytes, bits, ChainPath::kStepwise);
    if (plan.path != ChainPath::kStepwise) return plan;
    return SumsAreAtMost(facts, kExactFloat) ? ChainPlan{ChainPath::kModular, 0, bits} : stepwise;
  }
  const bool is_exact = IsPowerOfTwo(s);
  const bool is_rounded = is_exact ? product / Magnitude(s) < kRoundable
                                   : facts.divides && product < kRoundableQuotient;
  return is_rounded ? Scaled(facts, ShiftOf(s), bits) : stepwise;
}

}  // namespace bitfold
