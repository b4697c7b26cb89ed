// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include <benchmark/benchmark.h>

#include "bitfold/HMatMul.h"
#include "scalar_bench.h"

namespace bitfold {
namespace {

constexpr int kRows = 32;
constexpr int kSize = 256;

template <typename T>
void HMatMulDefinition(benchmark::State& state, int mult_shift, bool use_fp16_acc) {
  const std::vector<T> a = RandomIntegers<T>(kRows * kSize, 0, 15);
  const std::vector<T> b = RandomIntegers<T>(kSize * kSize, -8, 7);
  std::vector<T> out(kRows * kSize);
  const ReciprocalDatapath<T> datapath(24, mult_shift, use_fp16_acc);
  const WeightSign<T> weight_sign(24);
  for (auto _ : state) {
    MultiplyMatrices(datapath, weight_sign, a.data(), b.data(), kSize, kRows, kSize, out.data());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kRows * kSize * kSize);
}

[[maybe_unused]] const benchmark::internal::Benchmark* const kRegistered[] = {
    benchmark::RegisterBenchmark("HMatmul/int32/plain", HMatMulDefinition<int32_t>, 0, false),
    benchmark::RegisterBenchmark("HMatmul/int32/shift 4", HMatMulDefinition<int32_t>, 4, false),
    benchmark::RegisterBenchmark("HMatmul/float/plain", HMatMulDefinition<float>, 0, false),
    benchmark::RegisterBenchmark("HMatmul/float/shift 4", HMatMulDefinition<float>, 4, false),
    benchmark::RegisterBenchmark("HMatmul/float/half precision", HMatMulDefinition<float>, 0, true),
};

}  // namespace
}  // namespace bitfold
