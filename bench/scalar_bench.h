// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What the benchmarks of the scalar definitions share. A benchmark is named OP/TYPE/CASE, as its
// row in bench/run.py.

#ifndef BITFOLD_BENCH_SCALAR_BENCH_H_
#define BITFOLD_BENCH_SCALAR_BENCH_H_

#include <cstdint>
#include <random>
#include <vector>

namespace bitfold {

// Whole numbers in [low, high], the same in every run.
template <typename T>
std::vector<T> RandomIntegers(int64_t count, int low, int high) {
  std::mt19937 generator(2026);
  std::uniform_int_distribution<int> distribution(low, high);
  std::vector<T> values(static_cast<size_t>(count));
  for (T& value : values) value = static_cast<T>(distribution(generator));
  return values;
}

}  // namespace bitfold

#endif  // BITFOLD_BENCH_SCALAR_BENCH_H_
