// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The benchmarks of long chains: numbers of a kind, and the path that a call takes as its label.

#ifndef BITFOLD_BENCH_CHAIN_BENCH_H_
#define BITFOLD_BENCH_CHAIN_BENCH_H_

#include <algorithm>
#include <cstdint>
#include <vector>

#include "bitfold/datapath_attributes.h"
#include "chain/plan.h"
#include "scalar_bench.h"

namespace bitfold {

// What the chains are made of. Names and numbers are those of the rows in bench/run.py.
struct ChainNumbers {
  const char* name;
  int low, high;                // of the inputs
  int weight_low, weight_high;  // of the weights
  float unit;                   // floats: what the numbers are multiplied by
  int accumulator_size;
  int8_t mult_shift;
  bool use_fp16_acc;

  // Points into this.
  DatapathAttributes datapath() const { return {accumulator_size, &mult_shift, use_fp16_acc}; }
};

inline constexpr ChainNumbers kBytes = {"bytes", 0, 255, -128, 127, 1, 24, 0, false};
inline constexpr ChainNumbers kFloatBytes = {"bytes", 0, 255, -128, 127, 1, 22, 0, false};

inline const std::vector<ChainNumbers> kInt32Numbers = {
    kBytes,
    {"shorts", -32768, 32767, -32768, 32767, 1, 32, 0, false},
    {"words", -2147483647, 2147483647, -2147483647, 2147483647, 1, 32, 0, false},
    {"bytes, 12 bits", 0, 255, -128, 127, 1, 12, 0, false},
    {"bytes, shift 4", 0, 255, -128, 127, 1, 24, 4, false},
    {"shorts, shift 4", -32768, 32767, -32768, 32767, 1, 32, 4, false}};
inline const std::vector<ChainNumbers> kFloatNumbers = {
    kFloatBytes,
    {"fractions, 12 bits", -128, 127, -128, 127, 0.15625f, 12, 0, false},
    {"bytes, shift 4", 0, 255, -128, 127, 1, 22, 4, false},
    {"half precision", -128, 127, -128, 127, 0.015625f, 22, 0, true}};

template <typename T>
std::vector<T> ChainInput(int64_t count, int low, int high, float unit) {
  std::vector<T> numbers = RandomIntegers<T>(count, low, high);
  for (T& x : numbers) x = static_cast<T>(x * static_cast<T>(unit == 1 ? 1 : unit));
  return numbers;
}

inline const char* PathName(const ChainPlan& plan) {
  switch (plan.path) {
    case ChainPath::kStepwise:
      return "stepwise lanes";
    case ChainPath::kModular:
      return "modular lanes";
    case ChainPath::kRounded:
      return "rounded lanes";
    case ChainPath::kDotShorts:
      return "dot products of shorts";
    case ChainPath::kDotBytes:
      return "dot products of bytes";
    case ChainPath::kDotRemainders:
      return "dot products and remainders";
  }
  return "";
}

}  // namespace bitfold

#endif  // BITFOLD_BENCH_CHAIN_BENCH_H_
