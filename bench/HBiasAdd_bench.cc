// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include <benchmark/benchmark.h>

#include "bitfold/HBiasAdd.h"
#include "scalar_bench.h"

namespace bitfold {
namespace {

constexpr int64_t kChannels = 64;
constexpr int64_t kCount = 112 * 112 * kChannels;

template <typename T>
void HBiasAddDefinition(benchmark::State& state, int mult_shift) {
  const std::vector<T> value = RandomIntegers<T>(kCount, -1000, 1000);
  const std::vector<T> bias = RandomIntegers<T>(kChannels, -128, 127);
  std::vector<T> out(kCount);
  const Datapath<T> datapath(24, mult_shift, false);
  for (auto _ : state) {
    HBiasAddElements(datapath, value.data(), bias.data(), T{3}, 1, kCount, kChannels, out.data(),
                     EveryPass{});
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kCount);
}

BENCHMARK_CAPTURE(HBiasAddDefinition<int32_t>, plain, 0)->Name("HBiasAdd/int32/plain");
BENCHMARK_CAPTURE(HBiasAddDefinition<int32_t>, shift, 2)->Name("HBiasAdd/int32/shift 2");
BENCHMARK_CAPTURE(HBiasAddDefinition<float>, plain, 0)->Name("HBiasAdd/float/plain");
BENCHMARK_CAPTURE(HBiasAddDefinition<float>, shift, 2)->Name("HBiasAdd/float/shift 2");

}  // namespace
}  // namespace bitfold
