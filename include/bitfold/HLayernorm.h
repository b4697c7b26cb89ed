// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HLayernorm: the layer normalisation unit's definition in fixed point (rules L1 to L7 of
// docs/arithmetic.md): the sums of a vector, its mean and variance terms, the inverse square root
// by table, the scaling of each element and the activation stage.

#ifndef BITFOLD_HLAYERNORM_H_
#define BITFOLD_HLAYERNORM_H_

#include <cstdint>

#include "bitfold/assertion.h"
#include "bitfold/int32_arithmetic.h"
#include "bitfold/int64_arithmetic.h"

#define BITFOLD_LAYERNORM_ASSERT(condition, expression, function) \
  BITFOLD_ASSERT(condition, expression, "src/HLayernorm", function)

namespace bitfold {

inline constexpr int LUT_DEPTH = 256;
inline constexpr int MAX_VECTOR_SIZE = 4096;
inline constexpr int MAX_NUM_VECTORS_IN_BATCH = 1048576;
inline constexpr int N_SUM_SQUARES_BITS = 56;

// The widths of the unit's numbers in bits.
inline constexpr uint8_t kLayerNormSumBits = 20;         // the rounded sum, signed
inline constexpr uint8_t kLayerNormMeanBits = 16;        // the mean term, signed
inline constexpr uint8_t kLayerNormVarianceBits = 58;    // the variance term, unsigned
inline constexpr uint8_t kLayerNormWordBits = 16;        // what indexes the table
inline constexpr uint8_t kLayerNormNormalizedBits = 31;  // an element before the stage, signed
inline constexpr uint8_t kLayerNormBiasedBits = 19;      // with the stage's bias, unsigned

// The fraction bits that the rounding shifts of the sums and of the activation stage look at.
inline constexpr uint8_t kLayerNormSumRoundBits = 3;
inline constexpr uint8_t kLayerNormActivationRoundBits = 6;

// The activation stage's last step: a rounding shift of all its fraction bits, and a clip.
struct LayerNormOutput {
  uint8_t shift;
  uint8_t bits;  // unsigned
};
inline constexpr LayerNormOutput kLayerNormOutput8 = {10, 8};
inline constexpr LayerNormOutput kLayerNormOutput16 = {3, 15};

// What configures the unit; each field is filled from the op's input of the same name, in the order
// of the inputs.
struct LayerNormParams {
  uint16_t zero_point;            // subtracted from every element
  uint8_t exponent_sub_value;     // base of the normalising shift
  uint16_t sum_of_x_mult;         // multiplier of the rounded sum: the mean term
  uint8_t sum_of_x_shift;         // shift of the sum
  uint8_t sum_of_x_mult_n_shift;  // shift of the mean term
  uint16_t x_squared_mult;        // factor of the sum of squares, as a rule the vector's length
  uint8_t sum_of_x_squares_shift;
  uint32_t epsilon;             // added to the variance term
  uint16_t mul_act_man;         // activation stage: multiplier,
  uint8_t mul_act_exp;          //   shift,
  uint32_t mul_act_bias;        //   bias
  bool rms_mode_enable;         // the mean counts as 0
  bool activation_ebias_mode;   // activation stage: the larger shift,
  bool activation_output_mode;  //   16-bit output instead of 8-bit
};

// value / 2^shift_amount rounded half to even, after its bits below round_bits fraction bits have
// been dropped. 1 < round_bits <= 64, shift_amount <= 64; in practice round_bits <= 31, since the
// masks are formed in 32 bits. Shift counts are modulo 64.
inline int64_t right_shift_bankers_rounding(int64_t value, uint8_t shift_amount,
                                            uint8_t round_bits) {
  constexpr char kFunction[] = "int64_t right_shift_bankers_rounding(int64_t, uint8_t, uint8_t)";
  BITFOLD_LAYERNORM_ASSERT(shift_amount <= 64, "shift_amount <= 64", kFunction);
  BITFOLD_LAYERNORM_ASSERT(round_bits <= 64, "round_bits <= 64", kFunction);
  BITFOLD_LAYERNORM_ASSERT(round_bits > 1, "round_bits > 1", kFunction);
  const int64_t fixed = ShiftRight64(ShiftLeft64(value, round_bits), shift_amount);
  const int64_t fraction = fixed & int64_t{WrapSubtract(ShiftLeft(1, round_bits), 1)};
  const int64_t half = int64_t{ShiftLeft(1, round_bits - 1)};
  const int64_t quotient = ShiftRight64(fixed, round_bits);
  const bool odd = (ShiftRight64(fixed, round_bits) & 1) != 0;
  const bool up = fraction > half || (fraction == half && odd);
  return up ? WrapAdd64(quotient, 1) : quotient;
}

// Limits to output_bits <= 64 bits; the limits are formed in 32-bit arithmetic and sign-extended,
// so 32 unsigned bits allow 0 alone.
inline int64_t signed_clip(int64_t value, uint8_t output_bits, bool is_signed) {
  BITFOLD_LAYERNORM_ASSERT(output_bits <= 64, "output_bits <= 64",
                           "int64_t signed_clip(int64_t, uint8_t, bool)");
  const int32_t span = ShiftLeft(1, is_signed ? output_bits - 1 : int32_t{output_bits});
  const int64_t high = int64_t{WrapSubtract(span, 1)};
  const int64_t low = is_signed ? int64_t{WrapSubtract(0, span)} : 0;
  if (value > high) return high;
  return value > low ? value : low;
}

// An element as the unit reads it: truncated, minus the zero point.
inline int32_t LayerNormElement(float x, uint16_t zero_point) {
  return WrapSubtract(TruncateToInt32(x), zero_point);
}

// The sum of n elements modulo 2^32, in any order.
inline int32_t get_sum_of_x_minus_zp(const float* x, uint16_t n, uint16_t zero_point) {
  int32_t sum = 0;
  for (int i = 0; i < n; ++i) sum = WrapAdd(sum, LayerNormElement(x[i], zero_point));
  return sum;
}

inline bool IsSumOfSquares(uint64_t sum) { return sum < uint64_t{1} << N_SUM_SQUARES_BITS; }

inline uint64_t CheckedSumOfSquares(uint64_t sum) {
  BITFOLD_LAYERNORM_ASSERT(
      IsSumOfSquares(sum),
      "sum_squares_of_x_minus_zp_times_n < ((uint64_t)1 << N_SUM_SQUARES_BITS)",
      "uint64_t get_sum_squares_of_x_minus_zp_times_n(const float*, uint16_t, uint16_t, uint16_t)");
  return sum;
}

// The sum of mult * element^2 modulo 2^64, which must lie below 2^56. Elements are truncated to 64
// bits here, to 32 in the sum.
inline uint64_t get_sum_squares_of_x_minus_zp_times_n(const float* x, uint16_t n,
                                                      uint16_t zero_point, uint16_t mult) {
  uint64_t sum = 0;
  for (int i = 0; i < n; ++i) {
    const uint64_t element =
        static_cast<uint64_t>(TruncateToInt64(x[i])) - static_cast<uint64_t>(zero_point);
    sum += element * element * mult;
  }
  return CheckedSumOfSquares(sum);
}

// The index of the highest set bit below input_bit_length <= 64. One must be set; without one the
// result is 0.
inline uint8_t get_leading_one_index(uint64_t value, uint8_t input_bit_length) {
  BITFOLD_LAYERNORM_ASSERT(input_bit_length <= 64, "input_bit_length <= 64",
                           "uint8_t get_leading_one_index(uint64_t, uint8_t)");
  for (int32_t index = input_bit_length - 1; index > 0; --index) {
    if ((ShiftRightUnsigned64(value, index) & 1u) != 0) return static_cast<uint8_t>(index);
  }
  return 0;
}

// The word_bits bits from the leading one down, left-aligned; lower bits are truncated.
inline uint64_t get_leading_one_indexed_word(uint64_t value, uint8_t leading_one_index,
                                             uint8_t word_bits) {
  const uint64_t mask = ShiftLeftUnsigned64(1, word_bits) - 1;
  const int32_t length = leading_one_index + 1;
  return (word_bits >= length ? ShiftLeftUnsigned64(value, word_bits - length)
                              : ShiftRightUnsigned64(value, length - word_bits)) &
         mask;
}

// The activation stage's first shift, an 8-bit value.
inline uint8_t LayerNormActivationShift(uint8_t mul_act_exp, bool activation_ebias_mode) {
  return static_cast<uint8_t>(mul_act_exp + (activation_ebias_mode ? 11 : 6));
}

// Multiply, shift, bias and clip: 0..32767 in 16-bit mode, 0..255 in 8-bit mode. Rounding is done
// on the magnitude.
inline int64_t layernorm_activation_unit(int64_t value, uint16_t mul_act_man, uint8_t mul_act_exp,
                                         uint32_t mul_act_bias, bool activation_output_mode,
                                         bool activation_ebias_mode) {
  const int64_t product = WrapMultiply64(mul_act_man, value);
  const uint8_t shift = LayerNormActivationShift(mul_act_exp, activation_ebias_mode);
  int64_t scaled =
      right_shift_bankers_rounding(WrapAbsolute64(product), shift, kLayerNormActivationRoundBits);
  if (product < 0) scaled = WrapSubtract64(0, scaled);
  const int64_t biased = signed_clip(WrapAdd64(mul_act_bias, scaled), kLayerNormBiasedBits, false);
  // Not negative after the clip, so its magnitude is itself.
  const LayerNormOutput output = activation_output_mode ? kLayerNormOutput16 : kLayerNormOutput8;
  return signed_clip(right_shift_bankers_rounding(biased, output.shift, output.shift), output.bits,
                     false);
}

// What a vector's sums come to: how each of its elements is scaled.
struct LayerNormScale {
  int64_t mean;    // the mean term, 16 bits signed
  int64_t factor;  // the inverse square root, 16 bits unsigned
  int8_t shift;    // left by it, right where negative
};

// What indexes the table of inverse square roots: the 16 bits from the leading one down, halved
// where its index is even, since the square root halves exponents.
inline int32_t InverseSquareRootWord(uint64_t variance, uint8_t leading) {
  const auto word =
      static_cast<int32_t>(get_leading_one_indexed_word(variance, leading, kLayerNormWordBits));
  return leading % 2 == 0 ? word >> 1 : word;
}

// 16 bits: the table's entry, lowered by its slope as often as the word's low byte says.
inline int64_t InverseSquareRootFactor(int32_t entry, int32_t word) {
  const int32_t slope = (entry >> 16) & 255;
  return WrapSubtract(entry, slope * (word & 255)) & 65535;
}

// As an 8-bit value.
inline int8_t InverseSquareRootShift(uint8_t exponent_sub_value, uint8_t leading) {
  return static_cast<int8_t>(exponent_sub_value - (leading + 2) / 2);
}

// The inverse square root of a variance term below 2^58 and not 0.
inline void SetInverseSquareRoot(uint64_t variance, const float* lut, uint8_t exponent_sub_value,
                                 LayerNormScale* scale) {
  const uint8_t leading = get_leading_one_index(variance, kLayerNormVarianceBits);
  const int32_t word = InverseSquareRootWord(variance, leading);
  scale->factor = InverseSquareRootFactor(TruncateToInt32(lut[(word >> 8) & 255]), word);
  scale->shift = InverseSquareRootShift(exponent_sub_value, leading);
}

// The rounded sum of a vector: 20 bits, signed. In RMS mode the sum counts as 0.
inline int64_t RoundedSum(int32_t sum, const LayerNormParams& params) {
  const int64_t shifted = right_shift_bankers_rounding(
      params.rms_mode_enable ? 0 : sum, params.sum_of_x_shift, kLayerNormSumRoundBits);
  return signed_clip(static_cast<int32_t>(static_cast<uint32_t>(shifted)), kLayerNormSumBits, true);
}

// The mean term of a rounded sum: 16 bits, signed.
inline int64_t LayerNormMean(int64_t rounded_sum, const LayerNormParams& params) {
  return signed_clip(
      right_shift_bankers_rounding(params.sum_of_x_mult * rounded_sum, params.sum_of_x_mult_n_shift,
                                   kLayerNormSumRoundBits),
      kLayerNormMeanBits, true);
}

// The 58 bits of a vector's variance term, from its rounded sum and its checked sum of squares. The
// rounded sum is squared, not the mean term.
inline uint64_t LayerNormVariance(int64_t rounded_sum, uint64_t sum_of_squares,
                                  const LayerNormParams& params) {
  const int64_t squares = right_shift_bankers_rounding(
      static_cast<int64_t>(sum_of_squares), params.sum_of_x_squares_shift, kLayerNormSumRoundBits);
  const int64_t variance = squares + int64_t{params.epsilon} - rounded_sum * rounded_sum;
  return static_cast<uint64_t>(variance) & ((uint64_t{1} << kLayerNormVarianceBits) - 1);
}

// What the elements of a vector are scaled by, from its rounded sum and its variance term. lut
// holds 256 entries. A variance whose 58 bits are all zero ends the process as a variance of zero
// does: no leading one could be found.
inline LayerNormScale GetLayerNormScale(int64_t rounded_sum, uint64_t variance, const float* lut,
                                        const LayerNormParams& params) {
  LayerNormScale scale;
  scale.mean = LayerNormMean(rounded_sum, params);
  BITFOLD_LAYERNORM_ASSERT(
      variance != 0, "variance > 0",
      "void normalize_vector(const float*, float*, int32_t, const float*, const LayerNormParams&)");
  SetInverseSquareRoot(variance, lut, params.exponent_sub_value, &scale);
  return scale;
}

// One element: minus the mean, times the factor, shifted, clipped, through the activation stage.
inline uint16_t NormalizedInteger(int32_t element, const LayerNormScale& scale,
                                  const LayerNormParams& params) {
  const int64_t centred = int64_t{element} - scale.mean;
  const int64_t product = centred * scale.factor;
  const int64_t shifted = scale.shift >= 0 ? ShiftLeft64(product, scale.shift)
                                           : ShiftRight64(product, -int64_t{scale.shift});
  const int64_t activated = layernorm_activation_unit(
      signed_clip(shifted, kLayerNormNormalizedBits, true), params.mul_act_man, params.mul_act_exp,
      params.mul_act_bias, params.activation_output_mode, params.activation_ebias_mode);
  return static_cast<uint16_t>(activated);
}

inline float NormalizeElement(float x, const LayerNormScale& scale, const LayerNormParams& params) {
  return static_cast<float>(
      NormalizedInteger(LayerNormElement(x, params.zero_point), scale, params));
}

// One vector of n elements; the definition. The sums are formed for n = 0 too.
inline void normalize_vector(const float* x, float* out, int32_t n, const float* lut,
                             const LayerNormParams& params) {
  const uint16_t count = static_cast<uint16_t>(n);
  const int64_t rounded_sum =
      RoundedSum(get_sum_of_x_minus_zp(x, count, params.zero_point), params);
  const uint64_t squares =
      get_sum_squares_of_x_minus_zp_times_n(x, count, params.zero_point, params.x_squared_mult);
  const uint64_t variance = LayerNormVariance(rounded_sum, squares, params);
  const LayerNormScale scale = GetLayerNormScale(rounded_sum, variance, lut, params);
  for (int32_t i = 0; i < n; ++i) out[i] = NormalizeElement(x[i], scale, params);
}

// Of a tensor [batch, height, width, vector_size].
struct LayerNormShape {
  int vector_size;
  int width;
  int height;
  int batch;

  // Requires that int64 holds it.
  int64_t vectors() const { return int64_t{batch} * height * width; }
};

// Every vector of the tensor, in the order of memory.
inline void run_layernorm(const float* in, float* out, const LayerNormShape& shape,
                          const float* lut, const LayerNormParams& params) {
  const int64_t size = shape.vector_size;
  for (int64_t v = 0; v < shape.vectors(); ++v) {
    normalize_vector(in + v * size, out + v * size, shape.vector_size, lut, params);
  }
}

}  // namespace bitfold

#endif  // BITFOLD_HLAYERNORM_H_
