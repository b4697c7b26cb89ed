// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The test oracle of the bilinear resize's accumulation.

#ifndef BITFOLD_TESTS_REFERENCE_BILINEAR_H_
#define BITFOLD_TESTS_REFERENCE_BILINEAR_H_

#include <cstdint>
#include <string>

namespace reference {

// N batch items of S elements: each neighbour (upper left, upper right, bottom left, bottom right)
// times its weight, of which there are S, and a bias. With `float_accumulator` the products are
// summed as they are, in a fixed grouping; otherwise they are scaled and added one by one to the
// bias. Any accumulator_size is taken, negative ones too. Without elements nothing is written. T is
// int32_t or float; `lines` may be null.
template <typename T>
void Bilinear(const T* ul, const T* ur, const T* bl, const T* br, const T* w00, const T* w10,
              const T* w01, const T* w11, int64_t S, int64_t N, int32_t mult_shift, float bias,
              int32_t accumulator_size, bool float_accumulator, T* out, std::string* lines);

}  // namespace reference

#endif  // BITFOLD_TESTS_REFERENCE_BILINEAR_H_
