// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The softmax unit as its tests see it: one case, computed by the oracle, by the definition and by
// the vector loops.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_SOFTMAX_CASE_H_
#define BITFOLD_TESTS_CPP_SUPPORT_SOFTMAX_CASE_H_

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "bitfold/HSoftmax.h"
#include "cpu/softmax.h"
#include "reference/softmax.h"
#include "support/bits.h"
#include "support/buffer.h"
#include "support/warnings.h"

namespace bitfold::testing {

struct SoftmaxRow {
  uint16_t exponential;
  uint32_t sum;
  uint8_t reciprocal;
};

inline std::vector<uint32_t> PackSoftmaxTable(const std::vector<SoftmaxRow>& rows) {
  std::vector<uint32_t> words;
  for (const SoftmaxRow& row : rows) {
    words.push_back(row.exponential | row.sum << 16);
    words.push_back(((row.sum >> 16) & 0xffu) | uint32_t{row.reciprocal} << 8);
  }
  return words;
}

struct SoftmaxCase {
  std::vector<float> in;
  int vectors = 1;
  std::vector<uint32_t> table;
  bool is_velquin = false;

  int count() const { return static_cast<int>(in.size()); }
  int size() const { return vectors > 0 ? count() / vectors : 0; }

  std::string Inputs(int64_t i) const {
    if (i >= count()) return "no elements";
    const int64_t first = size() > 0 ? i - i % size() : 0;
    return Describe("in", in[static_cast<size_t>(i)], "first of its vector",
                    in[static_cast<size_t>(first)], "vectors", vectors, "of", size(), "variant",
                    is_velquin);
  }
};

struct SoftmaxOutput {
  ExactBuffer<float> values;
  std::string lines;
};

// `offset` misaligns the buffers.
template <typename Run>
SoftmaxOutput RunSoftmaxBy(const SoftmaxCase& c, Run run, int offset = 0) {
  const ExactBuffer<float> in(c.in, offset);
  const ExactBuffer<uint32_t> table(c.table, (offset + 1) % 4);
  SoftmaxOutput output{ExactBuffer<float>(c.count(), (offset + 2) % 4), ""};
  output.lines = PrintedAndCountedBy([&] {
    run(in.data(), output.values.data(), c.count(), c.vectors, table.data(), c.is_velquin);
  });
  return output;
}

inline SoftmaxOutput OracleSoftmax(const SoftmaxCase& c) {
  SoftmaxOutput output{ExactBuffer<float>(c.count()), ""};
  reference::Softmax(c.in.data(), output.values.data(), c.count(), c.vectors, c.table.data(),
                     c.is_velquin, &output.lines);
  return output;
}

// Whether a vector's exponentials add up to more than every float below is exact for.
inline bool SumsInOrder(const SoftmaxCase& c) {
  uint16_t exponentials[kSoftmaxRows];
  SoftmaxSum sums[kSoftmaxRows];
  parse_lut_table(c.table.data(), c.table.size(), exponentials, sums);
  for (int v = 0; v < c.vectors && c.size() > 0; ++v) {
    const auto first = c.in.begin() + int64_t{v} * c.size();
    float maximum = *first;
    for (auto x = first; x != first + c.size(); ++x) maximum = *x > maximum ? *x : maximum;
    int64_t sum = 0;
    for (auto x = first; x != first + c.size(); ++x) {
      sum += SoftmaxExponential(exponentials, maximum - *x);
    }
    if (sum > int64_t{1} << 24) return true;
  }
  return false;
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_SOFTMAX_CASE_H_
