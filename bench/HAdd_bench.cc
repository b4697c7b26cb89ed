// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include <benchmark/benchmark.h>

#include "bitfold/HAdd.h"
#include "scalar_bench.h"

namespace bitfold {
namespace {

constexpr int64_t kCount = 112 * 112 * 64;

template <typename T>
void HAddDefinition(benchmark::State& state, int mult_shift) {
  const std::vector<T> value = RandomIntegers<T>(kCount, -1000, 1000);
  const std::vector<T> operand = RandomIntegers<T>(kCount, -128, 127);
  std::vector<T> out(kCount);
  const Datapath<T> datapath(24, mult_shift, false);
  for (auto _ : state) {
    HAddElements(datapath, value.data(), operand.data(), T{3}, 1, kCount, out.data(), EveryPass{});
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kCount);
}

BENCHMARK_CAPTURE(HAddDefinition<int32_t>, plain, 0)->Name("HAdd/int32/plain");
BENCHMARK_CAPTURE(HAddDefinition<int32_t>, shift, 2)->Name("HAdd/int32/shift 2");
BENCHMARK_CAPTURE(HAddDefinition<float>, plain, 0)->Name("HAdd/float/plain");
BENCHMARK_CAPTURE(HAddDefinition<float>, shift, 2)->Name("HAdd/float/shift 2");

}  // namespace
}  // namespace bitfold
