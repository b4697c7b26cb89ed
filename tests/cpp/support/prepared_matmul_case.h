// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Products of stored matrices as their tests see them: one case, computed by the oracle, by the
// definition and by what is made for its sizes.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_PREPARED_MATMUL_CASE_H_
#define BITFOLD_TESTS_CPP_SUPPORT_PREPARED_MATMUL_CASE_H_

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "bitfold/HPreparedMatmul.h"
#include "cpu/prepared_matmul.h"
#include "reference/matmul.h"
#include "support/bits.h"
#include "support/buffer.h"
#include "support/compare.h"
#include "support/requantise_case.h"
#include "support/warnings.h"

namespace bitfold::testing {

template <typename Out>
struct MatmulOutput {
  ExactBuffer<Out> values;
  std::string lines;
};

// Leading dimensions of the operands; a second operand of one matrix for all rows has `matrices` of
// the first one.
template <typename In, typename Out>
struct PreparedMatmulCase {
  std::vector<int64_t> fronts[2];
  int32_t matrices = 1;
  int32_t rows = 1;
  int32_t inner = 1;
  int32_t cols = 1;
  bool transpose_first = false;
  bool transpose_second = false;
  int32_t zero_points[2] = {0, 0};
  std::vector<In> first;
  std::vector<In> second;
  std::vector<double> multipliers;  // one, or one for each column
  int32_t accumulator_size = 32;
  bool use_fp16_acc = false;
  RequantiseMode mode = {};

  Broadcast Pairs() const { return MakeBroadcast(fronts[0], fronts[1]); }
  int64_t FirstCount() const { return Count(fronts[0]) * Product().FirstElements(); }
  int64_t SecondCount() const { return Count(fronts[1]) * Product().SecondElements(); }
  int64_t count() const { return CountOf(Pairs()) * Product().OutputElements(); }

  // Points to the case.
  PreparedProduct Product() const {
    return {matrices,
            rows,
            inner,
            cols,
            transpose_first,
            transpose_second,
            zero_points[0],
            zero_points[1],
            multipliers.data(),
            multipliers.size() > 1,
            {accumulator_size, use_fp16_acc, mode}};
  }

  std::string Inputs(int64_t i) const {
    const int64_t of_pair = Product().OutputElements();
    return Describe("pair", i / of_pair, "of", CountOf(Pairs()), "row", i % of_pair / cols,
                    "column", i % cols) +
           "\n  " +
           Describe("matrices", matrices, "rows", rows, "inner", inner, "cols", cols, "transposed",
                    transpose_first, "and", transpose_second, "zero points", zero_points[0], "and",
                    zero_points[1]) +
           "\n  " + NameOf(mode.rescaling) +
           Describe(", width", accumulator_size, "shift", mode.shift, "half", use_fp16_acc,
                    "zero point", mode.zero_point, "minimum", mode.minimum, "maximum",
                    mode.maximum);
  }

  MatmulOutput<Out> Definition(int offset = 0) const {
    return By(offset, [this](const PreparedMatmulCall<In, Out>& call) {
      DefinePreparedMatmul(Product(), call);
    });
  }

  // What was made has copied what it was made of.
  MatmulOutput<Out> By(const PreparedMatmul<In, Out>& matmul, Workers* workers,
                       int offset = 0) const {
    return By(offset, [&](const PreparedMatmulCall<In, Out>& call) { matmul.Run(call, workers); });
  }

  std::unique_ptr<const PreparedMatmul<In, Out>> Prepare() const {
    const ExactBuffer<double> own_multipliers(multipliers);
    PreparedProduct product = Product();
    product.multipliers = own_multipliers.data();
    return std::make_unique<const PreparedMatmul<In, Out>>(product);
  }

  MatmulOutput<Out> Oracle() const {
    MatmulOutput<Out> out{ExactBuffer<Out>(count()), ""};
    for (int64_t pair = 0; pair < CountOf(Pairs()); ++pair) {
      use_fp16_acc ? OraclePair<float>(pair, &out) : OraclePair<int32_t>(pair, &out);
    }
    return out;
  }

 private:
  static int64_t Count(const std::vector<int64_t>& sizes) {
    int64_t count = 1;
    for (const int64_t size : sizes) count *= size;
    return count;
  }

  template <typename Run>
  MatmulOutput<Out> By(int offset, Run run) const {
    const ExactBuffer<In> a(first, offset);
    const ExactBuffer<In> b(second, (offset + 2) % 4);
    const Broadcast pairs = Pairs();
    MatmulOutput<Out> out{ExactBuffer<Out>(count(), (offset + 1) % 4), ""};
    out.lines = PrintedAndCountedBy([&] { run({a.data(), b.data(), out.values.data(), &pairs}); });
    return out;
  }

  // Which matrix of an operand a pair has.
  int64_t MatrixOf(int operand, int64_t pair) const {
    const size_t rank = std::max(fronts[0].size(), fronts[1].size());
    const auto size = [&](int of, size_t axis) {
      const size_t missing = rank - fronts[of].size();
      return axis < missing ? int64_t{1} : fronts[of][axis - missing];
    };
    int64_t place = 0;
    int64_t step = 1;
    for (size_t axis = rank; axis-- > 0;) {
      const int64_t common = std::max(size(0, axis), size(1, axis));
      if (size(operand, axis) > 1) place += pair % common * step;
      step *= size(operand, axis);
      pair /= common;
    }
    return place;
  }

  // Matrices of a x b, stored as b x a where they are transposed, one after the other.
  template <typename T>
  static std::vector<T> Plain(const In* stored, int64_t count, int64_t a, int64_t b,
                              bool is_transposed, int32_t zero_point) {
    std::vector<T> out;
    for (int64_t i = 0; i < count * a * b; ++i) {
      const int64_t place =
          i / (a * b) * a * b + (is_transposed ? i % b * a + i / b % a : i % (a * b));
      out.push_back(static_cast<T>(int32_t{stored[place]} - zero_point));
    }
    return out;
  }

  template <typename T>
  void OraclePair(int64_t pair, MatmulOutput<Out>* out) const {
    const int32_t all_rows = matrices * rows;
    const std::vector<T> a = Plain<T>(first.data() + MatrixOf(0, pair) * all_rows * inner, matrices,
                                      rows, inner, transpose_first, zero_points[0]);
    const std::vector<T> b = Plain<T>(second.data() + MatrixOf(1, pair) * inner * cols, 1, inner,
                                      cols, transpose_second, zero_points[1]);
    std::vector<T> sums(static_cast<size_t>(all_rows) * static_cast<size_t>(cols));
    const int32_t shift = use_fp16_acc && mode.shift > 0 ? 1 << mode.shift : mode.shift;
    reference::MatMul<T>(a.data(), b.data(), inner, all_rows, cols, inner, 0, accumulator_size,
                         shift, use_fp16_acc, sums.data(), &out->lines, nullptr);
    RequantiseCase<int32_t, Out> requantised;
    requantised.sums.assign(sums.begin(), sums.end());
    requantised.channels = cols;
    requantised.multipliers = multipliers;
    requantised.mode = mode;
    const ExactBuffer<Out> values = requantised.Oracle();
    std::copy_n(values.data(), sums.size(),
                out->values.data() + pair * static_cast<int64_t>(sums.size()));
  }
};

// Values, and lines in their order.
template <typename In, typename Out>
::testing::AssertionResult SameMatmul(const PreparedMatmulCase<In, Out>& c,
                                      const MatmulOutput<Out>& expected,
                                      const MatmulOutput<Out>& actual, const std::string& path) {
  const auto values = SameArrays(expected.values.data(), actual.values.data(), c.count(), path,
                                 [&c](int64_t i) { return c.Inputs(i); });
  if (!values) return values;
  return SameText(expected.lines, actual.lines, path + c.Inputs(0));
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_PREPARED_MATMUL_CASE_H_
