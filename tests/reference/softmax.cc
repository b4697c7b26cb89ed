// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The softmax oracle. One vector is done from its maximum to its outputs before the next, which
// leaves the order of the warnings as it is.

#include "softmax.h"

#include <cstdint>
#include <string>
#include <vector>

#include "exact.h"

namespace reference {
namespace {

using exact::FloorModulo;
using exact::PowerOfTwo;
using exact::Wide;

// The sum as the search takes it: 24 bits.
float Narrow(float sum, bool is_variant, std::string* lines) {
  const Wide whole = exact::ToInt64(sum);  // Sums are whole numbers and far below 2^63.
  const Wide modulus = PowerOfTwo(24);
  const bool overflows = whole >= modulus;
  if (!overflows) return sum;
  if (is_variant) return 16777215.0f;
  if (lines != nullptr) *lines += "Warning, the softmax sum has overflowed.\n";
  return exact::ToFloat(FloorModulo(whole, modulus));
}

void NormaliseOne(const float* in, float* out, int32_t count, const uint16_t* exponentials,
                  const SoftmaxRow* rows, bool is_variant, std::string* lines) {
  float max = in[0];
  for (int32_t i = 1; i < count; ++i) {
    if (in[i] > max) max = in[i];
  }
  std::vector<uint16_t> terms;
  float sum = 0.0f;
  for (int32_t i = 0; i < count; ++i) {
    terms.push_back(LookUpExponential(exact::Difference(max, in[i]), exponentials));
    sum = exact::Sum(sum, exact::ToFloat(terms.back()));
  }
  const int32_t inverse = FindInverse(Narrow(sum, is_variant, lines), rows);
  for (int32_t i = 0; i < count; ++i) {
    // 16 bits by 8: the product is below 2^24 and exact in single precision, as is what follows.
    const int32_t product = terms[static_cast<size_t>(i)] * inverse;
    const int32_t scaled = exact::ToInt32(SoftmaxShift(product, 6));
    out[i] = SoftmaxShift(scaled, 10);
  }
}

}  // namespace

void ParseSoftmaxTable(const uint32_t* words, uint16_t* exponentials, SoftmaxRow* rows) {
  for (int k = 0; k < 256; ++k) {
    const Wide row = Wide{words[2 * k + 1]} * PowerOfTwo(32) + words[2 * k];
    exponentials[k] = exact::Low16(row);
    rows[k].sum_value = exact::Low32(row / PowerOfTwo(16) % PowerOfTwo(24));
    rows[k].inv_value = exact::Low8(row / PowerOfTwo(40));
  }
}

uint8_t FindInverse(float sum, const SoftmaxRow* rows) {
  // Both sides are single-precision numbers; comparing them in double precision is exact.
  const double wanted = double{sum};
  int k = 127;
  for (int step = 64; step >= 1; step /= 2) {
    const double at = double{exact::ToFloat(rows[k].sum_value)};
    if (wanted > at) {
      k -= step;
    } else if (wanted < at) {
      k += step;
    }
  }
  const bool next = double{exact::ToFloat(rows[k].sum_value)} > wanted;
  return rows[next ? k + 1 : k].inv_value;
}

float SoftmaxShift(int32_t value, int32_t shift) {
  const Wide count = FloorModulo(shift, 32);
  const Wide divisor = PowerOfTwo(count);
  const Wide down = exact::FloorDivide(value, divisor);
  bool up = false;
  if (count >= 1 && count <= 30) {
    up = exact::DivideHalfEven(value, divisor) > down;
  } else {
    // A shift by 0 takes bit 31 for the half. A tie is decided by whether x AND 2^shift is above 0,
    // which it is not: for 0 the tie is INT32_MIN, and for 31 the sign bit alone is negative.
    const int half_bit = count == 0 ? 31 : 30;
    up = exact::Bit(value, half_bit) && FloorModulo(value, PowerOfTwo(half_bit)) > 0;
  }
  const float floor = exact::ToFloat(down);
  return up ? exact::Sum(floor, 1.0f) : floor;
}

uint16_t LookUpExponential(float distance, const uint16_t* exponentials) {
  for (int k = 255; k >= 0; --k) {
    if (double{distance} >= k) {  // False for NaN.
      return double{distance} < k + 1 ? exponentials[k] : uint16_t{0};
    }
  }
  return 0;
}

void Softmax(const float* in, float* out, int32_t total, int32_t num_vectors,
             const uint32_t* lut_table, bool is_variant, std::string* lines) {
  if (total <= 0 || num_vectors <= 0) return;
  const int32_t count = total / num_vectors;
  if (count == 0) return;
  uint16_t exponentials[256];
  SoftmaxRow rows[256];
  ParseSoftmaxTable(lut_table, exponentials, rows);
  for (int32_t v = 0; v < num_vectors; ++v) {
    const int64_t offset = int64_t{v} * count;
    NormaliseOne(in + offset, out + offset, count, exponentials, rows, is_variant, lines);
  }
}

}  // namespace reference
