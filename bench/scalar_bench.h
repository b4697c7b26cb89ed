// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What the benchmarks of the scalar definitions share. A benchmark is named OP/TYPE/CASE, as its
// row in bench/run.py.

#ifndef BITFOLD_BENCH_SCALAR_BENCH_H_
#define BITFOLD_BENCH_SCALAR_BENCH_H_

#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "bitfold/addition_shape.h"
#include "bitfold/datapath_attributes.h"
#include "frame/workers.h"

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

// A kernel as a function of its call alone, as its definition is one.
template <auto kCompute>
inline constexpr auto kOnCallingThread = [](auto... call) {
  CallingThread workers;
  kCompute(call..., &workers);
};

inline constexpr int kAdditionChannels = 64;
inline constexpr int64_t kAdditionCount = 112 * 112 * kAdditionChannels;

inline constexpr AdditionShape kAdditionShape = {1, 112, 112, kAdditionChannels};

// An addition on 1 x 112 x 112 x 64: Case<T> has Define(attributes, feed_repeat) and Run(the same).
template <typename T, typename Case>
void Addition(benchmark::State& state, int mult_shift, bool use_fp16_acc, bool by_loops) {
  Case data;
  const auto shift = static_cast<int8_t>(mult_shift);
  const DatapathAttributes attributes{24, &shift, use_fp16_acc};
  const float feed_repeat = 1.0f;
  for (auto _ : state) {
    by_loops ? data.Run(attributes, &feed_repeat) : data.Define(attributes, &feed_repeat);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kAdditionCount);
}

template <template <typename> class Case>
bool RegisterAddition(const std::string& op) {
  for (const bool by_loops : {false, true}) {
    const auto add = [&](const std::string& name, auto* run, int shift, bool half) {
      benchmark::RegisterBenchmark((op + name + (by_loops ? " loops" : "")).c_str(), run, shift,
                                   half, by_loops);
    };
    add("/int32/plain", Addition<int32_t, Case<int32_t>>, 0, false);
    add("/int32/shift 2", Addition<int32_t, Case<int32_t>>, 2, false);
    add("/float/plain", Addition<float, Case<float>>, 0, false);
    add("/float/shift 2", Addition<float, Case<float>>, 2, false);
    add("/float/half precision", Addition<float, Case<float>>, 0, true);
  }
  return true;
}

}  // namespace bitfold

#endif  // BITFOLD_BENCH_SCALAR_BENCH_H_
