// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The oracles of the numeric units behind a C interface, for tests that load them as a shared
// library from Python.
//
// Text: the functions that can report lines take a buffer and its capacity in bytes, and return
// the length of the whole text without its terminator. As much as fits is copied and terminated
// with a zero byte; a length of `capacity` or more tells that the text was cut. The buffer may be
// null with a capacity of 0.
//
// Flags are int32, 0 for false. Functions that can fail return the status of their header file, 0
// for success.
//
// A narrow float has 12 bytes: exp_len at 0 and man_len at 1 (8 bits each), mantissa at 4 (32
// bits), exponent at 8 (16 bits), and the sign in bit 0 of byte 10.
//
// The counters of the narrow floats are 4 int32 values that are added to: overflows and underflows
// of conversions from float, then those of resizings. They may be null.
//
// The parameters of a layer normalisation are 14 int64 values, taken as they are and narrowed to
// the fields' widths; reference_layernorm_fields makes them from the op's inputs, in the same
// order:
//    0 zero_point              1 exponent_sub_value     2 sum_of_x_mult
//    3 sum_of_x_shift          4 sum_of_x_mult_n_shift  5 x_squared_mult
//    6 sum_of_x_squares_shift  7 epsilon                8 mul_act_man
//    9 mul_act_exp            10 mul_act_bias          11 rms_mode_enable
//   12 activation_ebias_mode  13 activation_output_mode
//
// The settings of an activation are 7 int32 values in this order:
//    0 is_8bit_to_16bit_mode  1 is_variant              2 ebias             3 clip_bits
//    4 beta                   5 is_16bit_precision_mode 6 is_signed_output

#include <cstdint>
#include <cstring>
#include <string>

#include "activation.h"
#include "exact.h"
#include "fpx.h"
#include "layernorm.h"
#include "return_text.h"
#include "softmax.h"

using reference::Fpx;

namespace {

int64_t ReturnRecord(const reference::FpxRecord& record, int32_t* counters, char* text,
                     int64_t capacity) {
  const int32_t counts[4] = {record.float_overflows, record.float_underflows,
                             record.resize_overflows, record.resize_underflows};
  for (int i = 0; counters != nullptr && i < 4; ++i) {
    counters[i] = reference::exact::Wrap32(reference::exact::Wide{counters[i]} + counts[i]);
  }
  return ReturnText(record.lines, text, capacity);
}

reference::LayernormParams ReadParams(const int64_t* fields) {
  using reference::exact::Low16;
  using reference::exact::Low32;
  using reference::exact::Low8;
  reference::LayernormParams p;
  p.zero_point = Low16(fields[0]);
  p.exponent_sub_value = Low8(fields[1]);
  p.sum_of_x_mult = Low16(fields[2]);
  p.sum_of_x_shift = Low8(fields[3]);
  p.sum_of_x_mult_n_shift = Low8(fields[4]);
  p.x_squared_mult = Low16(fields[5]);
  p.sum_of_x_squares_shift = Low8(fields[6]);
  p.epsilon = Low32(fields[7]);
  p.mul_act_man = Low16(fields[8]);
  p.mul_act_exp = Low8(fields[9]);
  p.mul_act_bias = Low32(fields[10]);
  p.rms_mode_enable = fields[11] != 0;
  p.activation_ebias_mode = fields[12] != 0;
  p.activation_output_mode = fields[13] != 0;
  return p;
}

reference::ActivationSettings ReadSettings(const int32_t* settings) {
  reference::ActivationSettings s;
  s.is_8bit_to_16bit_mode = settings[0] != 0;
  s.is_variant = settings[1] != 0;
  s.ebias = settings[2];
  s.clip_bits = settings[3];
  s.beta = settings[4];
  s.is_16bit_precision_mode = settings[5] != 0;
  s.is_signed_output = settings[6] != 0;
  return s;
}

int32_t Code(reference::LayernormStatus status) { return static_cast<int32_t>(status); }

}  // namespace

extern "C" {

// ---- Narrow floats -----------------------------------------------------------------------------

int64_t reference_fpx_bias(int32_t exp_len, int32_t* bias, char* text, int64_t capacity) {
  reference::FpxRecord record;
  *bias = reference::FpxBias(exp_len, &record);
  return ReturnRecord(record, nullptr, text, capacity);
}

// Writes exp_len, man_len, mantissa, exponent and sign of every element.
int64_t reference_fpx_from_float(const float* values, int32_t count, uint8_t exp_len,
                                 uint8_t man_len, Fpx* out, int32_t* counters, char* text,
                                 int64_t capacity) {
  reference::FpxRecord record;
  reference::FpxFromFloats(values, count, exp_len, man_len, out, &record);
  return ReturnRecord(record, counters, text, capacity);
}

int64_t reference_fpx_to_float(const Fpx* values, int32_t count, float* out, char* text,
                               int64_t capacity) {
  reference::FpxRecord record;
  reference::FpxToFloats(values, count, out, &record);
  return ReturnRecord(record, nullptr, text, capacity);
}

int64_t reference_fpx_resize(Fpx* values, int32_t count, uint16_t exp_len, uint16_t man_len,
                             int32_t* counters, char* text, int64_t capacity) {
  reference::FpxRecord record;
  for (int32_t i = 0; i < count; ++i) reference::FpxResize(&values[i], exp_len, man_len, &record);
  return ReturnRecord(record, counters, text, capacity);
}

void reference_fpx_align(Fpx* a, Fpx* b, int32_t count) {
  for (int32_t i = 0; i < count; ++i) reference::FpxAlign(&a[i], &b[i]);
}

// `out` holds the widths of the results, and what a result that is not written keeps.
int64_t reference_fpx_add(const Fpx* a, const Fpx* b, Fpx* out, int32_t count, char* text,
                          int64_t capacity) {
  reference::FpxRecord record;
  for (int32_t i = 0; i < count; ++i) reference::FpxAdd(a[i], b[i], &out[i], &record);
  return ReturnRecord(record, nullptr, text, capacity);
}

int64_t reference_fpx_multiply(const Fpx* a, const Fpx* b, Fpx* out, int32_t count, char* text,
                               int64_t capacity) {
  reference::FpxRecord record;
  for (int32_t i = 0; i < count; ++i) reference::FpxMultiply(a[i], b[i], &out[i], &record);
  return ReturnRecord(record, nullptr, text, capacity);
}

int64_t reference_fpx_bits(const Fpx* x, char* text, int64_t capacity) {
  return ReturnText(reference::FpxBits(*x), text, capacity);
}

int64_t reference_binary_digits(int32_t value, int64_t count, char* text, int64_t capacity) {
  return ReturnText(reference::BinaryDigits(value, count), text, capacity);
}

// ---- Layer normalisation -----------------------------------------------------------------------

// The expression of the assertion behind a status.
int64_t reference_layernorm_failure(int32_t status, char* text, int64_t capacity) {
  const auto code = static_cast<reference::LayernormStatus>(status);
  return ReturnText(reference::LayernormFailure(code), text, capacity);
}

void reference_layernorm_fields(const uint32_t* inputs, int64_t* fields) {
  const reference::LayernormParams p = reference::ConvertLayernormInputs(inputs);
  const int64_t values[14] = {
      p.zero_point,
      p.exponent_sub_value,
      p.sum_of_x_mult,
      p.sum_of_x_shift,
      p.sum_of_x_mult_n_shift,
      p.x_squared_mult,
      p.sum_of_x_squares_shift,
      p.epsilon,
      p.mul_act_man,
      p.mul_act_exp,
      p.mul_act_bias,
      p.rms_mode_enable,
      p.activation_ebias_mode,
      p.activation_output_mode,
  };
  for (int i = 0; i < 14; ++i) fields[i] = values[i];
}

// Stops at the first value that fails.
int32_t reference_rounding_shift(const int64_t* values, int64_t count, uint8_t shift_amount,
                                 uint8_t round_bits, int64_t* results) {
  reference::LayernormStatus status = reference::LayernormStatus::kOk;
  for (int64_t i = 0; i < count && Code(status) == 0; ++i) {
    status = reference::RoundingShift(values[i], shift_amount, round_bits, &results[i]);
  }
  return Code(status);
}

int32_t reference_signed_clip(int64_t value, uint8_t output_bits, int32_t is_signed,
                              int64_t* result) {
  return Code(reference::SignedClip(value, output_bits, is_signed != 0, result));
}

int32_t reference_sum_minus_zero_point(const float* x, uint16_t count, uint16_t zero_point) {
  return reference::SumMinusZeroPoint(x, count, zero_point);
}

int32_t reference_sum_squares_minus_zero_point(const float* x, uint16_t count, uint16_t zero_point,
                                               uint16_t mult, uint64_t* result) {
  return Code(reference::SumSquaresMinusZeroPoint(x, count, zero_point, mult, result));
}

int32_t reference_leading_one_index(uint64_t value, uint8_t bit_length, uint8_t* result) {
  return Code(reference::LeadingOneIndex(value, bit_length, result));
}

uint64_t reference_leading_one_word(uint64_t value, uint8_t leading_one, uint8_t word_bits) {
  return reference::LeadingOneWord(value, leading_one, word_bits);
}

int32_t reference_layernorm_activation(int64_t value, uint16_t mul_act_man, uint8_t mul_act_exp,
                                       uint32_t mul_act_bias, int32_t wide_output,
                                       int32_t large_shift, int64_t* result) {
  return Code(reference::LayernormActivation(value, mul_act_man, mul_act_exp, mul_act_bias,
                                             wide_output != 0, large_shift != 0, result));
}

int32_t reference_normalise_vector(const float* x, float* out, int32_t count, const float* lut,
                                   const int64_t* params) {
  return Code(reference::NormaliseVector(x, out, count, lut, ReadParams(params)));
}

int32_t reference_layernorm(const float* in, float* out, int32_t vector_size, int32_t width,
                            int32_t height, int32_t batch, const float* lut,
                            const int64_t* params) {
  return Code(
      reference::Layernorm(in, out, vector_size, width, height, batch, lut, ReadParams(params)));
}

// ---- Softmax -----------------------------------------------------------------------------------

// Three arrays of 256 values.
void reference_softmax_table(const uint32_t* lut_table, uint16_t* exponentials, uint8_t* inverses,
                             uint32_t* sums) {
  reference::SoftmaxRow rows[256];
  reference::ParseSoftmaxTable(lut_table, exponentials, rows);
  for (int k = 0; k < 256; ++k) {
    inverses[k] = rows[k].inv_value;
    sums[k] = rows[k].sum_value;
  }
}

void reference_find_inverse(const float* sums, int64_t count, const uint8_t* row_inverses,
                            const uint32_t* row_sums, uint8_t* results) {
  reference::SoftmaxRow rows[256];
  for (int k = 0; k < 256; ++k) rows[k] = {row_inverses[k], row_sums[k]};
  for (int64_t i = 0; i < count; ++i) results[i] = reference::FindInverse(sums[i], rows);
}

void reference_softmax_shift(const int32_t* values, int64_t count, int32_t shift, float* results) {
  for (int64_t i = 0; i < count; ++i) results[i] = reference::SoftmaxShift(values[i], shift);
}

int64_t reference_softmax(const float* in, float* out, int32_t total, int32_t num_vectors,
                          const uint32_t* lut_table, int32_t is_variant, char* text,
                          int64_t capacity) {
  std::string lines;
  reference::Softmax(in, out, total, num_vectors, lut_table, is_variant != 0, &lines);
  return ReturnText(lines, text, capacity);
}

// ---- Activation --------------------------------------------------------------------------------

void reference_bankers_round(const int64_t* values, int64_t count, uint8_t shift,
                             int64_t* results) {
  for (int64_t i = 0; i < count; ++i) results[i] = reference::BankersRound(values[i], shift);
}

int64_t reference_activate(int32_t x, int32_t offset, int32_t slope_m, int32_t slope_e,
                           const int32_t* settings) {
  return reference::Activate(x, offset, slope_m, slope_e, ReadSettings(settings));
}

// `tables` are x_points, offsets, slopes_m and slopes_e; `shapes` their rows and columns in turn.
int32_t reference_activation(const int64_t* in, int64_t positions, int64_t channels,
                             const int64_t* const* tables, const int64_t* shapes,
                             const int64_t* size_splits, int64_t groups, const int32_t* settings,
                             int32_t* out) {
  reference::ActivationTables t;
  t.x_points = {tables[0], shapes[0], shapes[1]};
  t.offsets = {tables[1], shapes[2], shapes[3]};
  t.slopes_m = {tables[2], shapes[4], shapes[5]};
  t.slopes_e = {tables[3], shapes[6], shapes[7]};
  return static_cast<int32_t>(reference::Activation(in, positions, channels, t, size_splits, groups,
                                                    ReadSettings(settings), out));
}

}  // extern "C"
