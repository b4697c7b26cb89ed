// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The resampler as its tests see it.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_BILINEAR_CASE_H_
#define BITFOLD_TESTS_CPP_SUPPORT_BILINEAR_CASE_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "bitfold/HBilinear.h"
#include "cpu/bilinear.h"
#include "reference/bilinear.h"
#include "support/bits.h"
#include "support/op_case.h"

namespace bitfold::testing {

// The implicit copy of an array has names of its own, which clang-tidy takes for names here.
template <typename T>
struct BilinearCase {  // NOLINT(bugprone-reserved-identifier)
  using Element = T;
  static constexpr const char* kName = "HBilinear";

  unsigned items = 1;
  std::vector<T> neighbours[4];  // [items, size]
  std::vector<T> weights[4];     // [size]
  int8_t mult_shift = 0;
  float bias = 0.0f;
  int accumulator_size = 32;
  bool float_accumulator = false;

  unsigned size() const { return static_cast<unsigned>(weights[0].size()); }
  int64_t count() const { return int64_t{items} * size(); }

  std::optional<Path> Loops() const {
    return float_accumulator ? Path::kBilinearPortable : Path::kDatapathPortable;
  }

  std::string Inputs(int64_t i) const {
    std::string text = Describe("shift", int{mult_shift}, "bias", bias, "width", accumulator_size,
                                "float mode", float_accumulator);
    for (int k = 0; k < 4; ++k) {
      text += Describe("neighbour", neighbours[k][static_cast<size_t>(i)], "weight",
                       weights[k][static_cast<size_t>(i % size())]);
    }
    return text;
  }

  void Oracle(T* out, std::string* lines) const {
    reference::Bilinear<T>(neighbours[0].data(), neighbours[1].data(), neighbours[2].data(),
                           neighbours[3].data(), weights[0].data(), weights[1].data(),
                           weights[2].data(), weights[3].data(), size(), items, mult_shift, bias,
                           accumulator_size, float_accumulator, out, lines);
  }

  void Define(int offset, T* out) const { With(offset, run_bilinear<T>, out); }
  void Run(int offset, Workers* workers, T* out) const {
    With(
        offset, [=](const BilinearCall<T>& call) { ComputeBilinear(call, workers); }, out);
  }

 private:
  template <typename How>
  void With(int offset, How how, T* out) const {
    const auto n =
        Misaligned<T>({&neighbours[0], &neighbours[1], &neighbours[2], &neighbours[3]}, offset);
    const auto w = Misaligned<T>({&weights[0], &weights[1], &weights[2], &weights[3]}, offset + 1);
    how({{{n[0].data(), n[1].data(), n[2].data(), n[3].data()},
          {w[0].data(), w[1].data(), w[2].data(), w[3].data()}},
         out,
         size(),
         items,
         bias,
         float_accumulator,
         {accumulator_size, &mult_shift, false}});
  }
};

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_BILINEAR_CASE_H_
