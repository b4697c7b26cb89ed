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
  int64_t passes = 1;
  benchmark::DoNotOptimize(passes);  // the op reads it from a tensor
  for (auto _ : state) {
    HAddElements(datapath, value.data(), operand.data(), T{3}, passes, kCount, out.data(),
                 EveryPass{});
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kCount);
}

[[maybe_unused]] const benchmark::internal::Benchmark* const kRegistered[] = {
    benchmark::RegisterBenchmark("HAdd/int32/plain", HAddDefinition<int32_t>, 0),
    benchmark::RegisterBenchmark("HAdd/int32/shift 2", HAddDefinition<int32_t>, 2),
    benchmark::RegisterBenchmark("HAdd/float/plain", HAddDefinition<float>, 0),
    benchmark::RegisterBenchmark("HAdd/float/shift 2", HAddDefinition<float>, 2),
};

}  // namespace
}  // namespace bitfold
