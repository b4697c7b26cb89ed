// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include <sstream>

#include "bitfold/HMatMul.h"
#include "log.h"

namespace bitfold {

template <typename T>
void MatrixMultiplication(const T* a, T* out, const T* b, int32_t inner, int32_t rows, int32_t cols,
                          int32_t b_rows, int32_t batch_index, int32_t accumulator_size,
                          int32_t mult_shift, bool use_fp16_acc) {
  if (inner != b_rows) {
    std::ostringstream text;
    text << "input and kernel dimensions does not match for matrix mul. dataSizeX=" << inner
         << "\tkernelSizeY=" << b_rows;
    LogError(text.str());
    return;
  }
  const ReciprocalDatapath<T> datapath(accumulator_size, mult_shift, use_fp16_acc);
  const WeightSign<T> weight_sign(accumulator_size);
  const int64_t index = batch_index;
  if (MultiplyMatrices(datapath, weight_sign, a + index * rows * inner, b + index * inner * cols,
                       inner, rows, cols, out + index * rows * cols)) {
    PrintMatMulWeightWarning();
  }
}

template void MatrixMultiplication<int32_t>(const int32_t*, int32_t*, const int32_t*, int32_t,
                                            int32_t, int32_t, int32_t, int32_t, int32_t, int32_t,
                                            bool);
template void MatrixMultiplication<float>(const float*, float*, const float*, int32_t, int32_t,
                                          int32_t, int32_t, int32_t, int32_t, int32_t, bool);

}  // namespace bitfold
