// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#ifndef BITFOLD_SRC_CPU_BILINEAR_H_
#define BITFOLD_SRC_CPU_BILINEAR_H_

#include <cstdint>

namespace bitfold {

// What the kernel of HBilinear runs: run_bilinear (HBilinear.h), block by block. T is int32_t or
// float; out shares no memory with the inputs.
template <typename T>
void RunBilinear(const T* ul, const T* ur, const T* bl, const T* br, const T* w00, const T* w10,
                 const T* w01, const T* w11, T* out, unsigned s, unsigned n, int8_t mult_shift,
                 float bias, int accumulator_size, bool float_accumulator);

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_BILINEAR_H_
