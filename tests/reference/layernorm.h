// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The test oracle of the fixed-point layer normalisation: its parameters, its integer primitives
// and the whole op.
//
// Where the library ends the process with an assertion these functions return a status other than
// kOk, and their results are then not to be read. 64-bit shift counts are taken modulo 64, counts
// of 32-bit masks modulo 32. A float that does not fit the integer it is converted to, NaN
// included, becomes that type's smallest number.

#ifndef BITFOLD_TESTS_REFERENCE_LAYERNORM_H_
#define BITFOLD_TESTS_REFERENCE_LAYERNORM_H_

#include <cstdint>

namespace reference {

enum class LayernormStatus : int32_t {
  kOk = 0,
  kShiftAmount = 1,        // shift_amount <= 64
  kRoundBits = 2,          // round_bits <= 64
  kRoundBitsAboveOne = 3,  // round_bits > 1
  kOutputBits = 4,         // output_bits <= 64
  kInputBitLength = 5,     // input_bit_length <= 64
  kSumSquares = 6,     // sum_squares_of_x_minus_zp_times_n < ((uint64_t)1 << N_SUM_SQUARES_BITS)
  kVariance = 7,       // variance > 0, or a variance without a set bit among the low 58
  kVectorSize = 8,     // vector_size <= MAX_VECTOR_SIZE
  kNumVectors = 9,     // (width_size * hight_size) <= MAX_NUM_VECTORS_IN_BATCH
  kNoLeadingOne = 10,  // a search for the leading one of a value that has none
};

// The expression of the assertion behind a status; empty for kOk and kNoLeadingOne.
const char* LayernormFailure(LayernormStatus status);

// The op's scalar inputs after conversion.
struct LayernormParams {
  uint16_t zero_point;
  uint8_t exponent_sub_value;
  uint16_t sum_of_x_mult;
  uint8_t sum_of_x_shift;
  uint8_t sum_of_x_mult_n_shift;
  uint16_t x_squared_mult;
  uint8_t sum_of_x_squares_shift;
  uint32_t epsilon;
  uint16_t mul_act_man;
  uint8_t mul_act_exp;
  uint32_t mul_act_bias;
  bool rms_mode_enable;
  bool activation_ebias_mode;
  bool activation_output_mode;
};

// Fills the fields from 14 input values in the order of the fields. Every input passes through
// single precision, and is then narrowed: the 32-bit fields by way of int64, the others by way of
// int32, so that inputs of 2^31 and above give 0 in these.
LayernormParams ConvertLayernormInputs(const uint32_t* inputs);

// value / 2^shift_amount, floored to round_bits fraction bits and then rounded, halves to even.
LayernormStatus RoundingShift(int64_t value, uint8_t shift_amount, uint8_t round_bits,
                              int64_t* result);

// Limits a value to what output_bits bits hold. The limits are 32-bit numbers.
LayernormStatus SignedClip(int64_t value, uint8_t output_bits, bool is_signed, int64_t* result);

// Sum of the truncated elements minus the zero point, modulo 2^32.
int32_t SumMinusZeroPoint(const float* x, uint16_t count, uint16_t zero_point);

// Sum of mult times the squared elements minus the zero point, modulo 2^64; kSumSquares when that
// is 2^56 or more.
LayernormStatus SumSquaresMinusZeroPoint(const float* x, uint16_t count, uint16_t zero_point,
                                         uint16_t mult, uint64_t* result);

// Index of the highest set bit among the low bit_length ones.
LayernormStatus LeadingOneIndex(uint64_t value, uint8_t bit_length, uint8_t* result);

// The word_bits bits of value from bit leading_one downward, zeros following below bit 0.
uint64_t LeadingOneWord(uint64_t value, uint8_t leading_one, uint8_t word_bits);

// Multiplies, shifts, adds the bias and narrows to 15 bits (wide_output) or 8 bits.
LayernormStatus LayernormActivation(int64_t value, uint16_t mul_act_man, uint8_t mul_act_exp,
                                    uint32_t mul_act_bias, bool wide_output, bool large_shift,
                                    int64_t* result);

// Normalises one vector. `lut` has 256 entries.
LayernormStatus NormaliseVector(const float* x, float* out, int32_t count, const float* lut,
                                const LayernormParams& params);

// Normalises batch x height x width vectors; stops at the first that fails.
LayernormStatus RunLayernorm(const float* in, float* out, int32_t vector_size, int32_t width,
                             int32_t height, int32_t batch, const float* lut,
                             const LayernormParams& params);

// The whole op: checks the limits of the shape first.
LayernormStatus Layernorm(const float* in, float* out, int32_t vector_size, int32_t width,
                          int32_t height, int32_t batch, const float* lut,
                          const LayernormParams& params);

}  // namespace reference

#endif  // BITFOLD_TESTS_REFERENCE_LAYERNORM_H_
