// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// How the chains of a call may be computed without changing a bit, decided from facts about its
// numbers (theorems 1 to 3 of docs/arithmetic.md).

#ifndef BITFOLD_SRC_CHAIN_PLAN_H_
#define BITFOLD_SRC_CHAIN_PLAN_H_

#include <cstdint>
#include <functional>

#include "chain/facts.h"

namespace bitfold {

enum class ChainPath {
  kStepwise,   // every step in the defined order, in lanes
  kModular,    // sums in lanes that wrap at the end: of int32 modulo 2^32, of floats exact
  kRounded,    // sums modulo 2^32 of scaled products, formed as floats, in lanes
  kDotShorts,  // dot products of 16-bit numbers
  kDotBytes,   // dot products of 8-bit numbers
  // The same, less the remainders that a shift of every product leaves, divided at the end.
  kDotRemainders,
};

// The largest shift of kDotRemainders.
inline constexpr int32_t kMostRemainderShift = 5;

constexpr bool IsDots(ChainPath path) {
  return path == ChainPath::kDotShorts || path == ChainPath::kDotBytes ||
         path == ChainPath::kDotRemainders;
}

constexpr bool IsOfBytes(ChainPath path) {
  return path == ChainPath::kDotBytes || path == ChainPath::kDotRemainders;
}

// What is known of the addends of a half-precision accumulator, and of its sums with them.
enum class HalfAddends {
  kAny,
  kWhole,      // whole numbers, quantised at most 32760 in magnitude: sums are below 2^16
  kUnchanged,  // of at most 4096: to quantise them changes nothing
};

// What a call is, as far as the plan asks.
struct ChainFacts {
  int32_t accumulator_size;
  int32_t mult_shift;
  bool use_fp16_acc;
  bool divides;  // floats: by the shift, not multiplied by its reciprocal
  bool packs;    // dot products are worth packing for: there are outputs enough
  Facts input;
  Facts weights;      // with their signs corrected
  Facts elementwise;  // all 0 where there is none
  // The largest sum of magnitudes of the weights of one output. Asked for only where it decides.
  std::function<int64_t()> weight_sum;
  bool takes_remainders = false;  // ordinary windows, and the instruction set permutes bytes
  int64_t products = 0;           // of one output, where it takes remainders
};

struct ChainPlan {
  ChainPath path;
  // kDotBytes, kDotRemainders: input numbers are stored with this added, so that they are unsigned.
  int32_t input_offset;
  // All paths but the first: the sums are sign-extended from this many bits, 1 to 32.
  int32_t bits;
  int32_t shift = 0;                     // kDotRemainders: 2^shift divides the products
  HalfAddends half = HalfAddends::kAny;  // kStepwise
};

// Of an instruction set with or without dot products of bytes.
ChainPlan PlanInt32(const ChainFacts& facts, bool has_bytes);
ChainPlan PlanFloat(const ChainFacts& facts, bool has_bytes);

// Whether 1 / divisor is exact: it is a power of two or a negative one.
bool IsPowerOfTwo(int32_t divisor);

}  // namespace bitfold

#endif  // BITFOLD_SRC_CHAIN_PLAN_H_
