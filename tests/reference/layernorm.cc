// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The layer normalisation oracle. Sums and products are exact in 128 bits and reduced once.

#include "layernorm.h"

#include <cstddef>
#include <cstdint>

#include "exact.h"

namespace reference {
namespace {

using exact::FloorDivide;
using exact::FloorModulo;
using exact::PowerOfTwo;
using exact::Wide;
using exact::Wrap32;
using exact::Wrap64;

const Wide kVarianceModulus = PowerOfTwo(58);

// The magnitude as a 64-bit number; that of -2^63 has no place and stays -2^63.
int64_t Magnitude(int64_t value) { return value < 0 ? Wrap64(-Wide{value}) : value; }

// What one vector's elements are normalised with.
struct Scale {
  int64_t mean;    // Subtracted from every element.
  int64_t factor;  // 16 bits.
  int64_t shift;   // To the left when positive; 8 bits, signed.
};

// Looks up the inverse square root of a variance of at least 1 below 2^58.
LayernormStatus LookUpScale(Wide variance, const float* lut, uint8_t exponent_sub_value,
                            Scale* scale) {
  uint8_t top = 0;
  const LayernormStatus status = LeadingOneIndex(exact::Low64(variance), 58, &top);
  if (status != LayernormStatus::kOk) return status;
  const uint64_t word = LeadingOneWord(exact::Low64(variance), top, 16);
  // An even exponent halves evenly, and the word is read as a number below a half.
  const Wide index_word = top % 2 == 0 ? word / 2 : word;
  const size_t row = static_cast<size_t>(FloorModulo(index_word / 256, 256));
  const Wide entry = exact::ToInt32(lut[row]);
  const Wide slope = FloorModulo(FloorDivide(entry, 65536), 256);
  scale->factor = exact::Low16(entry - slope * (index_word % 256));
  scale->shift = exact::Wrap(Wide{exponent_sub_value} - (top + 2) / 2, 8);
  return LayernormStatus::kOk;
}

// Steps up to the first element: sums, mean term, variance, scale.
LayernormStatus FindScale(const float* x, uint16_t count, const float* lut,
                          const LayernormParams& p, Scale* scale) {
  const LayernormStatus ok = LayernormStatus::kOk;
  LayernormStatus status = ok;

  const int32_t sum = p.rms_mode_enable ? 0 : SumMinusZeroPoint(x, count, p.zero_point);
  int64_t rounded = 0;
  if ((status = RoundingShift(sum, p.sum_of_x_shift, 3, &rounded)) != ok) return status;
  int64_t small_sum = 0;
  if ((status = SignedClip(Wrap32(rounded), 20, true, &small_sum)) != ok) return status;

  uint64_t squares = 0;
  status = SumSquaresMinusZeroPoint(x, count, p.zero_point, p.x_squared_mult, &squares);
  if (status != ok) return status;
  int64_t square_term = 0;
  status = RoundingShift(Wrap64(squares), p.sum_of_x_squares_shift, 3, &square_term);
  if (status != ok) return status;

  const int64_t product = Wrap64(Wide{p.sum_of_x_mult} * small_sum);
  if ((status = RoundingShift(product, p.sum_of_x_mult_n_shift, 3, &rounded)) != ok) return status;
  if ((status = SignedClip(rounded, 16, true, &scale->mean)) != ok) return status;

  // The rounded sum is squared, not the mean term. Bits above the 58th are dropped, a sign too.
  const Wide variance = Wide{square_term} + p.epsilon - Wide{small_sum} * small_sum;
  const Wide kept = FloorModulo(variance, kVarianceModulus);
  if (kept == 0) return LayernormStatus::kVariance;
  return LookUpScale(kept, lut, p.exponent_sub_value, scale);
}

}  // namespace

const char* LayernormFailure(LayernormStatus status) {
  switch (status) {
    case LayernormStatus::kShiftAmount:
      return "shift_amount <= 64";
    case LayernormStatus::kRoundBits:
      return "round_bits <= 64";
    case LayernormStatus::kRoundBitsAboveOne:
      return "round_bits > 1";
    case LayernormStatus::kOutputBits:
      return "output_bits <= 64";
    case LayernormStatus::kInputBitLength:
      return "input_bit_length <= 64";
    case LayernormStatus::kSumSquares:
      return "sum_squares_of_x_minus_zp_times_n < ((uint64_t)1 << N_SUM_SQUARES_BITS)";
    case LayernormStatus::kVariance:
      return "variance > 0";
    case LayernormStatus::kVectorSize:
      return "vector_size <= MAX_VECTOR_SIZE";
    case LayernormStatus::kNumVectors:
      return "(width_size * hight_size) <= MAX_NUM_VECTORS_IN_BATCH";
    case LayernormStatus::kOk:
    case LayernormStatus::kNoLeadingOne:
      break;
  }
  return "";
}

LayernormParams ConvertLayernormInputs(const uint32_t* inputs) {
  double value[14];  // The inputs in single precision.
  int32_t narrow[14];
  for (int i = 0; i < 14; ++i) {
    value[i] = double{exact::ToFloat(inputs[i])};
    narrow[i] = exact::ToInt32(value[i]);
  }
  LayernormParams p;
  p.zero_point = exact::Low16(narrow[0]);
  p.exponent_sub_value = exact::Low8(narrow[1]);
  p.sum_of_x_mult = exact::Low16(narrow[2]);
  p.sum_of_x_shift = exact::Low8(narrow[3]);
  p.sum_of_x_mult_n_shift = exact::Low8(narrow[4]);
  p.x_squared_mult = exact::Low16(narrow[5]);
  p.sum_of_x_squares_shift = exact::Low8(narrow[6]);
  p.epsilon = exact::Low32(exact::ToInt64(value[7]));
  p.mul_act_man = exact::Low16(narrow[8]);
  p.mul_act_exp = exact::Low8(narrow[9]);
  p.mul_act_bias = exact::Low32(exact::ToInt64(value[10]));
  p.rms_mode_enable = value[11] != 0.0;
  p.activation_ebias_mode = value[12] != 0.0;
  p.activation_output_mode = value[13] != 0.0;
  return p;
}

LayernormStatus RoundingShift(int64_t value, uint8_t shift_amount, uint8_t round_bits,
                              int64_t* result) {
  if (shift_amount > 64) return LayernormStatus::kShiftAmount;
  if (round_bits > 64) return LayernormStatus::kRoundBits;
  if (round_bits <= 1) return LayernormStatus::kRoundBitsAboveOne;
  const int64_t wide = exact::ShiftRight64(exact::ShiftLeft64(value, round_bits), shift_amount);
  if (round_bits <= 31) {
    *result = static_cast<int64_t>(exact::DivideHalfEven(wide, PowerOfTwo(round_bits)));
    return LayernormStatus::kOk;
  }
  // The fraction and the half it is compared with are 32-bit numbers whose counts wrap: 32 and 64
  // fraction bits leave no fraction at all and a half of -2^31, so that everything is rounded up.
  const Wide fraction = FloorModulo(wide, PowerOfTwo(round_bits % 32));
  const Wide half = exact::OneShifted32(round_bits - 1);
  const int64_t down = exact::ShiftRight64(wide, round_bits);
  const bool is_odd = FloorModulo(down, 2) == 1;
  const bool up = fraction > half || (fraction == half && is_odd);
  *result = up ? Wrap64(Wide{down} + 1) : down;
  return LayernormStatus::kOk;
}

LayernormStatus SignedClip(int64_t value, uint8_t output_bits, bool is_signed, int64_t* result) {
  if (output_bits > 64) return LayernormStatus::kOutputBits;
  const Wide power = exact::OneShifted32(is_signed ? output_bits - 1 : output_bits);
  const int64_t high = Wrap32(power - 1);
  const int64_t low = is_signed ? Wrap32(-power) : 0;
  *result = value;
  if (*result < low) *result = low;
  if (value > high) *result = high;
  return LayernormStatus::kOk;
}

int32_t SumMinusZeroPoint(const float* x, uint16_t count, uint16_t zero_point) {
  Wide sum = 0;
  for (int32_t i = 0; i < count; ++i) sum += Wide{exact::ToInt32(x[i])} - zero_point;
  return Wrap32(sum);
}

LayernormStatus SumSquaresMinusZeroPoint(const float* x, uint16_t count, uint16_t zero_point,
                                         uint16_t mult, uint64_t* result) {
  Wide sum = 0;
  for (int32_t i = 0; i < count; ++i) {
    const Wide difference = Wrap64(Wide{exact::ToInt64(x[i])} - zero_point);
    const Wide square = FloorModulo(difference * difference, PowerOfTwo(64));
    sum = FloorModulo(sum + square * mult, PowerOfTwo(64));
  }
  *result = exact::Low64(sum);
  return sum < PowerOfTwo(56) ? LayernormStatus::kOk : LayernormStatus::kSumSquares;
}

LayernormStatus LeadingOneIndex(uint64_t value, uint8_t bit_length, uint8_t* result) {
  if (bit_length > 64) return LayernormStatus::kInputBitLength;
  Wide rest = Wide{value} % PowerOfTwo(bit_length);
  if (rest == 0) return LayernormStatus::kNoLeadingOne;
  uint8_t index = 0;
  for (; rest > 1; rest /= 2) ++index;
  *result = index;
  return LayernormStatus::kOk;
}

uint64_t LeadingOneWord(uint64_t value, uint8_t leading_one, uint8_t word_bits) {
  const int32_t up = int32_t{word_bits} - (int32_t{leading_one} + 1);
  Wide moved = value;
  for (int32_t i = 0; i < (up >= 0 ? up % 64 : 0); ++i) moved = moved * 2 % PowerOfTwo(64);
  if (up < 0) moved /= PowerOfTwo(-up % 64);
  return exact::Low64(moved % PowerOfTwo(word_bits % 64));
}

LayernormStatus LayernormActivation(int64_t value, uint16_t mul_act_man, uint8_t mul_act_exp,
                                    uint32_t mul_act_bias, bool wide_output, bool large_shift,
                                    int64_t* result) {
  const LayernormStatus ok = LayernormStatus::kOk;
  LayernormStatus status = ok;
  const int64_t product = Wrap64(Wide{mul_act_man} * value);
  const uint8_t shift = exact::Low8(Wide{mul_act_exp} + (large_shift ? 11 : 6));
  int64_t scaled = 0;
  if ((status = RoundingShift(Magnitude(product), shift, 6, &scaled)) != ok) return status;
  if (product < 0) scaled = Wrap64(-Wide{scaled});
  int64_t biased = 0;
  status = SignedClip(Wrap64(Wide{mul_act_bias} + scaled), 19, false, &biased);
  if (status != ok) return status;
  const uint8_t narrowing = wide_output ? 3 : 10;
  int64_t narrowed = 0;
  if ((status = RoundingShift(biased, narrowing, narrowing, &narrowed)) != ok) return status;
  return SignedClip(narrowed, wide_output ? 15 : 8, false, result);
}

LayernormStatus NormaliseVector(const float* x, float* out, int32_t count, const float* lut,
                                const LayernormParams& p) {
  Scale scale;
  LayernormStatus status = FindScale(x, exact::Low16(count), lut, p, &scale);
  if (status != LayernormStatus::kOk) return status;
  for (int32_t i = 0; i < count; ++i) {
    const int64_t element = Wrap32(Wide{exact::ToInt32(x[i])} - p.zero_point);
    const int64_t product = Wrap64((Wide{element} - scale.mean) * scale.factor);
    const int64_t shifted = scale.shift >= 0 ? exact::ShiftLeft64(product, scale.shift)
                                             : exact::ShiftRight64(product, -scale.shift);
    int64_t clipped = 0;
    status = SignedClip(shifted, 31, true, &clipped);
    if (status != LayernormStatus::kOk) return status;
    int64_t activated = 0;
    status = LayernormActivation(clipped, p.mul_act_man, p.mul_act_exp, p.mul_act_bias,
                                 p.activation_output_mode, p.activation_ebias_mode, &activated);
    if (status != LayernormStatus::kOk) return status;
    out[i] = exact::ToFloat(exact::Low16(activated));
  }
  return LayernormStatus::kOk;
}

LayernormStatus RunLayernorm(const float* in, float* out, int32_t vector_size, int32_t width,
                             int32_t height, int32_t batch, const float* lut,
                             const LayernormParams& params) {
  if (batch == 0 || height == 0 || width == 0) return LayernormStatus::kOk;
  int64_t offset = 0;  // The vectors follow each other, the widths innermost.
  for (int32_t b = 0; b < batch; ++b) {
    for (int32_t h = 0; h < height; ++h) {
      for (int32_t w = 0; w < width; ++w) {
        const LayernormStatus status =
            NormaliseVector(in + offset, out + offset, vector_size, lut, params);
        if (status != LayernormStatus::kOk) return status;
        offset += vector_size;
      }
    }
  }
  return LayernormStatus::kOk;
}

LayernormStatus Layernorm(const float* in, float* out, int32_t vector_size, int32_t width,
                          int32_t height, int32_t batch, const float* lut,
                          const LayernormParams& params) {
  if (vector_size > 4096) return LayernormStatus::kVectorSize;
  if (Wrap32(Wide{width} * height) > 1048576) return LayernormStatus::kNumVectors;
  return RunLayernorm(in, out, vector_size, width, height, batch, lut, params);
}

}  // namespace reference
