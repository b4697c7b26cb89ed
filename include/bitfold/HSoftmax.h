// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HSoftmax: the softmax unit's definition, one element after the other (rules X1 to X6 of
// docs/arithmetic.md).

#ifndef BITFOLD_HSOFTMAX_H_
#define BITFOLD_HSOFTMAX_H_

#include <cstddef>
#include <cstdint>
#include <vector>

#include "bitfold/int32_arithmetic.h"
#include "bitfold/int64_arithmetic.h"
#include "bitfold/warning.h"

namespace bitfold {

inline constexpr int kSoftmaxRows = 256;
inline constexpr size_t kSoftmaxTableWords = 512;     // two for each row
inline constexpr float kMaxSoftmaxSum = 16777215.0f;  // 24 bits

// A row of the reciprocal table. The 256 rows are ordered by falling sum_value.
struct SoftmaxSum {
  uint8_t inv_value;   // the reciprocal
  uint32_t sum_value;  // 24 bits: the sum at which the row applies
};

// Unpacks the rows. lut_table holds 512 words; exp_lut and sums have room for 256 entries. A row is
// w1 * 2^32 + w0: the exponential in bits 0 to 15, the sum in 16 to 39, its reciprocal in 40 to 47.
inline void parse_lut_table(const uint32_t* lut_table, size_t /*size*/, uint16_t* exp_lut,
                            SoftmaxSum* sums) {
  for (size_t k = 0; k < kSoftmaxRows; ++k) {
    const uint32_t low = lut_table[2 * k];
    const uint32_t high = lut_table[2 * k + 1];
    exp_lut[k] = static_cast<uint16_t>(low);
    sums[k].sum_value = (low >> 16) | ((high & 0xffu) << 16);
    sums[k].inv_value = static_cast<uint8_t>(high >> 8);
  }
}

// Binary search in the falling sums; the row found, or the next where its sum is above `sum`. A hit
// stops the index, which stays in 0..254 before the last step.
inline uint8_t lut_inv(float sum, const SoftmaxSum* sums) {
  int k = 127;
  for (int step = 64; step >= 1; step /= 2) {
    const float row = static_cast<float>(sums[k].sum_value);
    if (sum > row) {
      k -= step;
    } else if (row > sum) {
      k += step;
    }
  }
  return static_cast<float>(sums[k].sum_value) > sum ? sums[k + 1].inv_value : sums[k].inv_value;
}

// x / 2^shift rounded half to even, the rounding added in single precision. Shift counts are modulo
// 32.
inline float activation_shift_and_banker_rounding(int32_t x, int32_t shift) {
  const int32_t half = ShiftLeft(1, WrapSubtract(shift, 1));
  const float quotient = static_cast<float>(ShiftRight(x, shift));
  if ((x & half) == 0) return quotient + 0.0f;
  const bool above_half = (x & WrapSubtract(half, 1)) > 0;
  const bool odd = (x & ShiftLeft(1, shift)) > 0;
  return quotient + (above_half || odd ? 1.0f : 0.0f);
}

// The exponential for a distance below the maximum. The table ends at 255: what lies further, and
// NaN, has an exponential of 0.
inline uint16_t SoftmaxExponential(const uint16_t* exp_lut, float distance) {
  return distance >= 0.0f && distance < static_cast<float>(kSoftmaxRows)
             ? exp_lut[static_cast<int>(distance)]
             : uint16_t{0};
}

// Whether a sum does not fit the accumulator of 24 bits where it wraps, in the first variant of the
// unit. is_velquin selects the second, which saturates.
inline bool OverflowsSoftmax(float sum, bool is_velquin) {
  return !is_velquin && sum > kMaxSoftmaxSum;
}

// The reciprocal of a sum as the accumulator holds it.
inline float LimitedSoftmaxReciprocal(float sum, const SoftmaxSum* sums, bool is_velquin) {
  if (is_velquin) return lut_inv(sum < kMaxSoftmaxSum ? sum : kMaxSoftmaxSum, sums);
  const int64_t wrapped = TruncateToInt64(sum) & 0xffffff;
  return lut_inv(static_cast<float>(wrapped), sums);
}

// The same, and a sum that wraps says so.
inline float SoftmaxReciprocal(float sum, const SoftmaxSum* sums, bool is_velquin) {
  if (OverflowsSoftmax(sum, is_velquin)) WarnSoftmaxOverflow();
  return LimitedSoftmaxReciprocal(sum, sums, is_velquin);
}

// One element: exponential times reciprocal, rounded by 6 and then by 10 bits.
inline float SoftmaxOutput(uint16_t exponential, float reciprocal) {
  const float product = static_cast<float>(exponential) * reciprocal;
  const float shifted = activation_shift_and_banker_rounding(TruncateToInt32(product), 6);
  return activation_shift_and_banker_rounding(TruncateToInt32(shifted), 10);
}

// The unit over num_vectors vectors of total / num_vectors elements; the definition. lut_table
// holds 512 words. Nothing is done when there is no vector or no element.
inline void run_softmax(const float* in, float* out, int total, int num_vectors,
                        const uint32_t* lut_table, bool is_velquin) {
  if (num_vectors <= 0 || total < num_vectors) return;
  const int size = total / num_vectors;
  uint16_t exp_lut[kSoftmaxRows];
  SoftmaxSum sums[kSoftmaxRows];
  parse_lut_table(lut_table, kSoftmaxTableWords, exp_lut, sums);
  // The warnings of all vectors come before the first output, in the order of the vectors; so do
  // these loops.
  std::vector<float> maximum(static_cast<size_t>(num_vectors));
  std::vector<float> reciprocal(static_cast<size_t>(num_vectors));
  for (int v = 0; v < num_vectors; ++v) {
    const float* x = in + int64_t{v} * size;
    maximum[v] = x[0];
    for (int i = 1; i < size; ++i) {
      if (x[i] > maximum[v]) maximum[v] = x[i];
    }
    float sum = 0.0f;
    for (int i = 0; i < size; ++i) {
      sum += static_cast<float>(SoftmaxExponential(exp_lut, maximum[v] - x[i]));
    }
    reciprocal[v] = SoftmaxReciprocal(sum, sums, is_velquin);
  }
  for (int i = 0; i < num_vectors * size; ++i) {
    const float distance = maximum[i / size] - in[i];
    out[i] = SoftmaxOutput(SoftmaxExponential(exp_lut, distance), reciprocal[i / size]);
  }
}

}  // namespace bitfold

#endif  // BITFOLD_HSOFTMAX_H_
