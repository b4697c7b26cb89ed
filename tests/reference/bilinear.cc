// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The bilinear oracle.

#include "bilinear.h"

#include <array>
#include <cstdint>
#include <string>

#include "exact.h"
#include "reference.h"

namespace reference {
namespace {

// The bias in the type of the data; integers truncate it.
void ConvertBias(float bias, float* converted) { *converted = bias; }
void ConvertBias(float bias, int32_t* converted) { *converted = exact::ToInt32(double{bias}); }

// The plain sum: the bottom pair, plus the upper pair, plus the bias. Each sum of floats is rounded
// of itself; the wraps of integers commute, so one at the end is enough.
float PlainSum(const std::array<float, 4>& products, float bias) {
  const float upper = exact::Sum(products[0], products[1]);
  const float bottom = exact::Sum(products[2], products[3]);
  return exact::Sum(exact::Sum(bottom, upper), bias);
}

int32_t PlainSum(const std::array<int32_t, 4>& products, int32_t bias) {
  exact::Wide sum = bias;
  for (const int32_t product : products) sum += product;
  return exact::Wrap32(sum);
}

}  // namespace

template <typename T>
void Bilinear(const T* ul, const T* ur, const T* bl, const T* br, const T* w00, const T* w10,
              const T* w01, const T* w11, int64_t S, int64_t N, int32_t mult_shift, float bias,
              int32_t accumulator_size, bool float_accumulator, T* out, std::string* lines) {
  const std::array<const T*, 4> neighbours = {ul, ur, bl, br};
  const std::array<const T*, 4> weights = {w00, w10, w01, w11};
  const int32_t shift = float_accumulator ? 0 : mult_shift;
  T start = T{0};
  ConvertBias(bias, &start);
  for (int64_t n = 0; n < N; ++n) {
    for (int64_t j = 0; j < S; ++j) {
      const int64_t i = n * S + j;
      std::array<T, 4> products = {};
      for (size_t k = 0; k < 4; ++k) {
        products[k] = ReciprocalProduct(neighbours[k][i], weights[k][j], shift);
      }
      if (float_accumulator) {
        out[i] = PlainSum(products, start);
        continue;
      }
      T acc = start;
      for (const T product : products) {
        acc = Accumulate(acc, product, accumulator_size, false, lines);
      }
      out[i] = acc;
    }
  }
}

template void Bilinear<int32_t>(const int32_t*, const int32_t*, const int32_t*, const int32_t*,
                                const int32_t*, const int32_t*, const int32_t*, const int32_t*,
                                int64_t, int64_t, int32_t, float, int32_t, bool, int32_t*,
                                std::string*);
template void Bilinear<float>(const float*, const float*, const float*, const float*, const float*,
                              const float*, const float*, const float*, int64_t, int64_t, int32_t,
                              float, int32_t, bool, float*, std::string*);

}  // namespace reference
