// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The test oracle of the fixed-point softmax.

#ifndef BITFOLD_TESTS_REFERENCE_SOFTMAX_H_
#define BITFOLD_TESTS_REFERENCE_SOFTMAX_H_

#include <cstdint>
#include <string>

namespace reference {

// One row of the reciprocal table: from sum_value upward the reciprocal is inv_value.
struct SoftmaxRow {
  uint8_t inv_value;
  uint32_t sum_value;
};

// Unpacks 512 words into 256 exponentials and 256 rows.
void ParseSoftmaxTable(const uint32_t* words, uint16_t* exponentials, SoftmaxRow* rows);

// The reciprocal of a sum: a search of seven steps in 256 rows of decreasing sum_value. The search
// also defines what rows out of order or alike give; a NaN finds row 127.
uint8_t FindInverse(float sum, const SoftmaxRow* rows);

// value / 2^shift, halves to even, where the rounding is an addition in single precision. Shift
// counts are taken modulo 32; see softmax.cc for 0 and 31.
float SoftmaxShift(int32_t value, int32_t shift);

// The exponential of a distance below the maximum: that of the truncated distance, and 0 for
// distances of 256 and above and for NaN.
uint16_t LookUpExponential(float distance, const uint16_t* exponentials);

// The whole op on num_vectors vectors of total / num_vectors elements; total must be a multiple of
// num_vectors. A vector's maximum starts at its first element and moves to an element that is
// greater. The variant saturates a sum of more than 24 bits, the other wraps it and appends the
// warning to `lines`, which may be null. Vectors without elements do nothing.
void Softmax(const float* in, float* out, int32_t total, int32_t num_vectors,
             const uint32_t* lut_table, bool is_variant, std::string* lines);

}  // namespace reference

#endif  // BITFOLD_TESTS_REFERENCE_SOFTMAX_H_
