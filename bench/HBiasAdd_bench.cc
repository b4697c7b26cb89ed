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
  int64_t passes = 1;
  benchmark::DoNotOptimize(passes);  // the op reads it from a tensor
  for (auto _ : state) {
    HBiasAddElements(datapath, value.data(), bias.data(), T{3}, passes, kCount, kChannels,
                     out.data(), EveryPass{});
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kCount);
}

[[maybe_unused]] const benchmark::internal::Benchmark* const kRegistered[] = {
    benchmark::RegisterBenchmark("HBiasAdd/int32/plain", HBiasAddDefinition<int32_t>, 0),
    benchmark::RegisterBenchmark("HBiasAdd/int32/shift 2", HBiasAddDefinition<int32_t>, 2),
    benchmark::RegisterBenchmark("HBiasAdd/float/plain", HBiasAddDefinition<float>, 0),
    benchmark::RegisterBenchmark("HBiasAdd/float/shift 2", HBiasAddDefinition<float>, 2),
};

}  // namespace
}  // namespace bitfold
