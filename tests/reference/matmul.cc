// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The matrix multiplication oracle. The weights of one entry are corrected first, all of them;
// that changes no order, since the line that tells of it comes last.

#include "matmul.h"

#include <cstdint>
#include <string>
#include <vector>

#include "reference.h"

namespace reference {

template <typename T>
void MatMul(const T* a, const T* b, int32_t inner, int32_t rows, int32_t cols, int32_t b_rows,
            int32_t batch_index, int32_t accumulator_size, int32_t mult_shift, bool use_fp16_acc,
            T* out, std::string* lines, std::string* log) {
  if (inner != b_rows) {
    if (log != nullptr) {
      *log += "input and kernel dimensions does not match for matrix mul. dataSizeX=" +
              std::to_string(inner) + "\tkernelSizeY=" + std::to_string(b_rows) + "\n";
    }
    return;
  }
  const int64_t entry = batch_index;
  const T* data = a + entry * rows * inner;
  const T* stored = b + entry * inner * cols;
  T* result = out + entry * rows * cols;

  bool corrected = false;
  std::vector<T> weights(stored, stored + int64_t{inner} * cols);
  for (T& weight : weights) {
    // A matrix of no row meets no weight.
    if (rows > 0 && CorrectWeight(accumulator_size, &weight)) corrected = true;
  }
  for (int64_t r = 0; r < rows; ++r) {
    for (int64_t c = 0; c < cols; ++c) {
      T acc = T{0};
      for (int64_t k = 0; k < inner; ++k) {
        const T weight = weights[static_cast<size_t>(k * cols + c)];
        const T product = ReciprocalProduct(data[r * inner + k], weight, mult_shift);
        acc = Accumulate(acc, product, accumulator_size, use_fp16_acc, lines);
      }
      result[r * cols + c] = acc;
    }
  }
  if (corrected && lines != nullptr) {
    *lines += "\033[1;31m";
    *lines +=
        "weights should be uint8 for matmul, check predecessor has signed output, could cause "
        "degradation";
    *lines += "\033[0m\n";
  }
}

template void MatMul<int32_t>(const int32_t*, const int32_t*, int32_t, int32_t, int32_t, int32_t,
                              int32_t, int32_t, int32_t, bool, int32_t*, std::string*,
                              std::string*);
template void MatMul<float>(const float*, const float*, int32_t, int32_t, int32_t, int32_t, int32_t,
                            int32_t, int32_t, bool, float*, std::string*, std::string*);

}  // namespace reference
