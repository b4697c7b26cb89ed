// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include <sstream>
#include <type_traits>

#include "bitfold/HMatMul.h"
#include "chain/corrected_weights.h"
#include "chain/engine.h"
#include "frame/log.h"
#include "frame/scratch.h"

namespace bitfold {
namespace {

template <typename T>
struct Matrices {
  const T* a;
  const T* b;
  T* out;
  int32_t inner;
  int32_t rows;
  int32_t cols;
};

// The datapath as the engine knows it: integers have one for all products.
template <typename T>
using ChainDatapath =
    std::conditional_t<std::is_same_v<T, float>, ReciprocalDatapath<float>, Datapath<int32_t>>;

// A row of the image for the rows of a, of which each has one tap. False where the definition must
// do; *corrected as there.
template <typename T>
bool MultiplyByEngine(const ReciprocalDatapath<T>& datapath, const WeightSign<T>& sign,
                      const Matrices<T>& m, Scratch* scratch, bool* corrected) {
  if (m.rows < 1 || m.cols < 1 || m.inner < 1) return false;
  const auto b = CorrectWeights(sign, m.b, int64_t{m.inner} * m.cols, scratch);
  *corrected = b.corrected;
  if (b.weights == nullptr) return false;
  const WindowAxis one(1, 1, 1, 1, Padding::kValid);
  const WindowAxis rows(m.rows, 1, 1, 1, Padding::kValid);
  const ChainCall<T> call{one, rows,      1, m.inner, m.cols, false,
                          m.a, b.weights, 1, nullptr, m.out,  b.facts};
  const ChainEngine<ChainDatapath<T>, T> engine(datapath, call, 1, scratch);
  if (!engine.plan()) return false;
  engine.Run(0, 0, [&](int32_t, int32_t row, int32_t column) {
    bool again = false;
    m.out[int64_t{row} * m.cols + column] = MultiplyRowByColumn(
        datapath, sign, m.a + int64_t{row} * m.inner, m.b + column, m.inner, m.cols, &again);
  });
  return true;
}

}  // namespace

template <typename T>
void MatrixMultiplication(const T* a, T* out, const T* b, int32_t inner, int32_t rows, int32_t cols,
                          int32_t b_rows, int32_t batch_index, int32_t accumulator_size,
                          int32_t mult_shift, bool use_fp16_acc, Scratch* scratch) {
  if (inner != b_rows) {
    std::ostringstream text;
    text << "input and kernel dimensions does not match for matrix mul. dataSizeX=" << inner
         << "\tkernelSizeY=" << b_rows;
    LogError(text.str());
    return;
  }
  const ReciprocalDatapath<T> datapath(accumulator_size, mult_shift, use_fp16_acc);
  const WeightSign<T> sign(accumulator_size);
  const int64_t index = batch_index;
  const Matrices<T> m{a + index * rows * inner,
                      b + index * inner * cols,
                      out + index * rows * cols,
                      inner,
                      rows,
                      cols};
  bool corrected = false;
  if (!MultiplyByEngine(datapath, sign, m, scratch, &corrected)) {
    corrected = MultiplyMatrices(datapath, sign, m.a, m.b, inner, rows, cols, m.out);
  }
  if (corrected) PrintMatMulWeightWarning();
}

template void MatrixMultiplication<int32_t>(const int32_t*, int32_t*, const int32_t*, int32_t,
                                            int32_t, int32_t, int32_t, int32_t, int32_t, int32_t,
                                            bool, Scratch*);
template void MatrixMultiplication<float>(const float*, float*, const float*, int32_t, int32_t,
                                          int32_t, int32_t, int32_t, int32_t, int32_t, bool,
                                          Scratch*);

}  // namespace bitfold
