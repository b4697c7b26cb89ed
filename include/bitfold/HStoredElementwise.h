// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HStoredElementwise: sums, differences and products of two stored tensors, stored in turn; the
// definition (rules E1 to E4 of docs/arithmetic.md).

#ifndef BITFOLD_HSTOREDELEMENTWISE_H_
#define BITFOLD_HSTOREDELEMENTWISE_H_

#include <algorithm>
#include <cstdint>

#include "bitfold/broadcast.h"
#include "bitfold/int32_arithmetic.h"
#include "bitfold/requantise.h"
#include "bitfold/stored_scale.h"

namespace bitfold {

enum class StoredOperation { kAdd, kSubtract, kMultiply };

// What the kernel's attributes say. Requires minimum <= maximum, both in the type of the elements.
struct StoredElementwiseMode {
  StoredOperation operation;
  StoredScale operands[2];
  StoredScale output;
  int32_t minimum;
  int32_t maximum;
};

// With how many more bits than the stored ones operands of a sum meet in a common scale.
template <typename T>
inline constexpr int32_t kSpareBits = sizeof(T) == 1 ? 20 : 15;

// Rule E1: the common scale is twice the larger one, so that a sum of the two fits.
inline double CommonScale(const StoredElementwiseMode& mode) {
  return 2.0 * double{std::max(mode.operands[0].scale, mode.operands[1].scale)};
}

// What an operand of a sum is multiplied by.
inline double OperandMultiplier(const StoredElementwiseMode& mode, int operand) {
  return double{mode.operands[operand].scale} / CommonScale(mode);
}

// What a sum or a product is multiplied by; of a product in single precision.
template <typename T>
double ResultMultiplier(const StoredElementwiseMode& mode) {
  if (mode.operation == StoredOperation::kMultiply) {
    return double{mode.operands[0].scale * mode.operands[1].scale / mode.output.scale};
  }
  return CommonScale(mode) / (double{1 << kSpareBits<T>} * double{mode.output.scale});
}

// Whether a sum can be multiplied by it: above 0, and below 1 also in 31 bits.
inline bool IsFraction(double multiplier) {
  return multiplier > 0.0 && multiplier < 1.0 - 1.0 / 4294967296.0;
}

// Whether a product can be multiplied by it in two roundings. False for NaN.
inline bool IsProductMultiplier(double multiplier) {
  return multiplier >= 0.0 && multiplier < 2147483648.0;
}

// The mode's multipliers in fixed point.
struct StoredElementwiseMultipliers {
  FixedMultiplier operands[2];
  FixedMultiplier result;
};

// Requires that the multipliers be fractions, or that of a product be one.
template <typename T>
StoredElementwiseMultipliers MultipliersOf(const StoredElementwiseMode& mode) {
  const FixedMultiplier result = QuantiseMultiplier(ResultMultiplier<T>(mode));
  if (mode.operation == StoredOperation::kMultiply) return {{}, result};
  return {{QuantiseMultiplier(OperandMultiplier(mode, 0)),
           QuantiseMultiplier(OperandMultiplier(mode, 1))},
          result};
}

// Rule E2: an operand in the common scale. `sign` is -1 for one that is subtracted, else 1.
template <typename T>
int32_t ScaledOperand(T stored, int32_t zero_point, int32_t sign, FixedMultiplier multiplier) {
  const int32_t centred = sign * (int32_t{stored} - zero_point);
  return RescaleInTwoRoundings(centred * (1 << kSpareBits<T>), multiplier);
}

// Rules E2 to E4: two stored elements to one.
template <typename T>
T StoredElement(T first, T second, const StoredElementwiseMode& mode,
                const StoredElementwiseMultipliers& multipliers) {
  const int32_t zero_points[2] = {mode.operands[0].zero_point, mode.operands[1].zero_point};
  int32_t sum;
  if (mode.operation == StoredOperation::kMultiply) {
    sum = (int32_t{first} - zero_points[0]) * (int32_t{second} - zero_points[1]);
  } else {
    const int32_t sign = mode.operation == StoredOperation::kSubtract ? -1 : 1;
    sum = ScaledOperand(first, zero_points[0], 1, multipliers.operands[0]) +
          ScaledOperand(second, zero_points[1], sign, multipliers.operands[1]);
  }
  const int32_t rescaled = RescaleInTwoRoundings(sum, multipliers.result);
  const int32_t shifted = WrapAdd(rescaled, mode.output.zero_point);
  return static_cast<T>(std::min(std::max(shifted, mode.minimum), mode.maximum));
}

// The operands' elements and how they meet; the output has the common shape.
template <typename T>
struct StoredElementwiseCall {
  const T* operands[2];
  T* output;
  const Broadcast* broadcast;
  StoredElementwiseMode mode;
};

// The op; the definition. T is int8_t or int16_t.
template <typename T>
void DefineStoredElementwise(const StoredElementwiseCall<T>& call) {
  const StoredElementwiseMultipliers multipliers = MultipliersOf<T>(call.mode);
  const Broadcast& broadcast = *call.broadcast;
  for (int64_t i = 0; i < CountOf(broadcast); ++i) {
    call.output[i] =
        StoredElement(call.operands[0][PlaceInOperand(broadcast, 0, i)],
                      call.operands[1][PlaceInOperand(broadcast, 1, i)], call.mode, multipliers);
  }
}

}  // namespace bitfold

#endif  // BITFOLD_HSTOREDELEMENTWISE_H_
