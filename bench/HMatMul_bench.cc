// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "bitfold/HMatMul.h"
#include "chain_bench.h"
#include "cpu/matmul.h"
#include "frame/scratch.h"

namespace bitfold {
namespace {

template <typename T>
void Multiply(benchmark::State& state, int rows, int inner, int cols, ChainNumbers numbers,
              bool is_definition) {
  const std::vector<T> a =
      ChainInput<T>(int64_t{rows} * inner, numbers.low, numbers.high, numbers.unit);
  const std::vector<T> b =
      ChainInput<T>(int64_t{inner} * cols, numbers.weight_low, numbers.weight_high, numbers.unit);
  std::vector<T> out(static_cast<size_t>(rows) * static_cast<size_t>(cols));
  const MatMulCall<T> call = {a.data(), b.data(), out.data(),        rows,
                              inner,    cols,     numbers.datapath()};
  CallingThread workers;
  for (auto _ : state) {
    if (is_definition) {
      MatrixMultiplication(call, 0);
    } else {
      ComputeMatMul(
          call, 1, [] { return std::make_unique<HeapScratch>(); }, &workers);
    }
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * rows * inner * cols);
}

template <typename T>
void Register(const std::string& type, int rows, int inner, int cols, const ChainNumbers& numbers) {
  const std::string name = "HMatmul/" + type + "/" + std::to_string(rows) + "x" +
                           std::to_string(inner) + " by " + std::to_string(inner) + "x" +
                           std::to_string(cols) + ", " + numbers.name;
  const auto add = [&](const std::string& suffix, bool is_definition) {
    benchmark::RegisterBenchmark((name + suffix).c_str(), Multiply<T>, rows, inner, cols, numbers,
                                 is_definition);
  };
  add("", true);
  add(" loops", false);
}

bool RegisterAll() {
  Register<int32_t>("int32", 128, 768, 768, kBytes);
  Register<float>("float", 128, 768, 768, kFloatBytes);
  Register<int32_t>("int32", 1, 1024, 1000, kBytes);
  Register<float>("float", 1, 1024, 1000, kFloatBytes);
  for (const size_t other : {1u, 3u}) {
    Register<float>("float", 128, 768, 768, kFloatNumbers[other]);
  }
  return true;
}

[[maybe_unused]] const bool kRegistered = RegisterAll();

}  // namespace
}  // namespace bitfold
