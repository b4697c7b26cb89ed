// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/stored_matrices.h"

#include <algorithm>
#include <limits>
#include <type_traits>

#include "vector/target.h"

namespace bitfold {
namespace {

// What is taken off numbers, and of those above max a period, too.
struct SignTerms {
  int32_t zero_point;
  int32_t max;
  int32_t period;
};

// The side of what is transposed together.
constexpr int kSquare = 16;

template <typename T>
struct MatrixLoops {
  T (*largest)(const T*, int64_t);
  void (*correct)(const T*, int64_t, const SignTerms&, int16_t*);
  void (*shift)(const T*, int64_t, int32_t, int16_t*);
  void (*transpose)(const T*, int64_t, int64_t, T*);
  void (*sum_rows)(const T*, int64_t, int64_t, int32_t*);
};

struct AllLoops {
  MatrixLoops<int8_t> bytes;
  MatrixLoops<int16_t> shorts;
};

#define BITFOLD_LOOPS "cpu/stored_matrices_loops.inc"
#define BITFOLD_LOOP_TABLE \
  AllLoops { kMatrixLoopsOf<int8_t>, kMatrixLoopsOf<int16_t> }
#include "vector/vector_loops.inc"

template <typename T>
const MatrixLoops<T>& LoopsOf() {
  if constexpr (std::is_same_v<T, int8_t>) {
    return CurrentLoops().bytes;
  } else {
    return CurrentLoops().shorts;
  }
}

}  // namespace

template <typename T>
void TransposeStored(const T* stored, int64_t rows, int64_t cols, T* out) {
  LoopsOf<T>().transpose(stored, rows, cols, out);
}

template <typename T>
bool CorrectStored(const T* stored, int64_t count, int32_t zero_point,
                   const WeightSign<int32_t>& sign, int16_t* out) {
  const MatrixLoops<T>& loops = LoopsOf<T>();
  const auto needs = [&](T number) { return sign.NeedsCorrection(int32_t{number} - zero_point); };
  if (!needs(std::numeric_limits<T>::max()) || !needs(loops.largest(stored, count))) {
    loops.shift(stored, count, zero_point, out);
    return false;
  }
  const int32_t period = sign.max() - sign.Correct(sign.max());
  loops.correct(stored, count, {zero_point, sign.max(), period}, out);
  return true;
}

template <typename T>
void SumStoredRows(const T* stored, int64_t rows, int64_t cols, int32_t* sums) {
  LoopsOf<T>().sum_rows(stored, rows, cols, sums);
}

template void TransposeStored(const int8_t*, int64_t, int64_t, int8_t*);
template void TransposeStored(const int16_t*, int64_t, int64_t, int16_t*);
#define BITFOLD_INSTANTIATE(T)                                                                   \
  template bool CorrectStored(const T*, int64_t, int32_t, const WeightSign<int32_t>&, int16_t*); \
  template void SumStoredRows(const T*, int64_t, int64_t, int32_t*);
BITFOLD_INSTANTIATE(int8_t)
BITFOLD_INSTANTIATE(int16_t)
#undef BITFOLD_INSTANTIATE

}  // namespace bitfold
