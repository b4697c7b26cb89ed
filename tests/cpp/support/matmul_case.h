// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The matrix product as its tests see it: all entries of a batch.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_MATMUL_CASE_H_
#define BITFOLD_TESTS_CPP_SUPPORT_MATMUL_CASE_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "bitfold/HMatMul.h"
#include "cpu/matmul.h"
#include "frame/scratch.h"
#include "frame/workers.h"
#include "reference/matmul.h"
#include "support/bits.h"
#include "support/op_case.h"

namespace bitfold::testing {

template <typename T>
struct MatMulCase {
  using Element = T;
  static constexpr const char* kName = "HMatMul";

  int32_t batch = 1;
  int32_t rows = 1;
  int32_t inner = 1;
  int32_t cols = 1;
  std::vector<T> a;  // [batch, rows, inner]
  std::vector<T> b;  // [batch, inner, cols]
  int32_t accumulator_size = 32;
  int32_t mult_shift = 0;
  bool use_fp16_acc = false;

  int64_t a_count() const { return int64_t{batch} * rows * inner; }
  int64_t b_count() const { return int64_t{batch} * inner * cols; }
  int64_t count() const { return int64_t{batch} * rows * cols; }
  std::optional<Path> Loops() const { return std::nullopt; }

  std::string Inputs(int64_t i) const {
    const int64_t row = i / cols;
    std::string text = Describe("rows", rows, "inner", inner, "cols", cols, "shift", mult_shift,
                                "width", accumulator_size, "fp16", use_fp16_acc);
    for (int64_t k = 0; k < inner && k < 8; ++k) {
      const int64_t weight = (row / rows * inner + k) * cols + i % cols;
      text += Describe("a", a[static_cast<size_t>(row * inner + k)], "b",
                       b[static_cast<size_t>(weight)]);
    }
    return text;
  }

  void Oracle(T* out, std::string* lines) const {
    for (int32_t i = 0; i < batch; ++i) {
      reference::MatMul<T>(a.data(), b.data(), inner, rows, cols, inner, i, accumulator_size,
                           mult_shift, use_fp16_acc, out, lines, nullptr);
    }
  }

  // The record of a call, whose memory and shift, an int8, are the caller's.
  MatMulCall<T> CallOf(const T* left, const T* right, T* out, const int8_t* shift) const {
    return {left, right, out, rows, inner, cols, {accumulator_size, shift, use_fp16_acc}};
  }

  void Define(int offset, T* out) const {
    const auto in = Misaligned<T>({&a, &b}, offset);
    const auto shift = static_cast<int8_t>(mult_shift);
    const MatMulCall<T> call = CallOf(in[0].data(), in[1].data(), out, &shift);
    for (int32_t i = 0; i < batch; ++i) MatrixMultiplication(call, i);
  }

  void Run(int offset, Workers* workers, T* out) const {
    const auto in = Misaligned<T>({&a, &b}, offset);
    const auto shift = static_cast<int8_t>(mult_shift);
    const MatMulCall<T> call = CallOf(in[0].data(), in[1].data(), out, &shift);
    ComputeMatMul(
        call, batch, [] { return std::make_unique<HeapScratch>(); }, workers);
  }
};

// Its dot products differ on all of them.
template <typename T>
std::vector<NamedTarget> TargetsOf(const MatMulCase<T>&) {
  return AllTargets();
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_MATMUL_CASE_H_
