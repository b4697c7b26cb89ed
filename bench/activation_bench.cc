// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include <benchmark/benchmark.h>

#include "bitfold/activation.h"
#include "cpu/activation.h"
#include "scalar_bench.h"

namespace bitfold {
namespace {

constexpr int64_t kPositions = 56 * 56;
constexpr int64_t kChannels = 64;
constexpr int kPoints = 7;

void HActivationUnit(benchmark::State& state, decltype(DefineActivation)* run) {
  const std::vector<int64_t> in = RandomIntegers<int64_t>(kPositions * kChannels, -2000, 2000);
  std::vector<int64_t> x_points;
  for (int p = 0; p < kPoints; ++p) x_points.push_back(500 * (p - kPoints / 2));
  const std::vector<int64_t> offsets(kPoints + 1, 3);
  const std::vector<int64_t> slopes_m = RandomIntegers<int64_t>(kPoints + 1, -64, 64);
  const std::vector<int64_t> slopes_e(kPoints + 1, 10);
  const ActivationGroups groups = {{x_points.data(), kPoints},
                                   {offsets.data(), kPoints + 1},
                                   {slopes_m.data(), kPoints + 1},
                                   {slopes_e.data(), kPoints + 1},
                                   &kChannels,
                                   1};
  ActivationMode mode = {};
  mode.clip_bits = 127;
  std::vector<int32_t> out(in.size());
  for (auto _ : state) {
    run(in.data(), {kPositions, kChannels}, groups, mode, out.data());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kPositions * kChannels);
}

// The definition and the vector loops on the machine's widest target.
[[maybe_unused]] const benchmark::internal::Benchmark* const kRegistered[] = {
    benchmark::RegisterBenchmark("HActivation/int64/56x56x64, 7 breakpoints", HActivationUnit,
                                 DefineActivation),
    benchmark::RegisterBenchmark("HActivation/int64/56x56x64, 7 breakpoints loops", HActivationUnit,
                                 ComputeActivation),
};

}  // namespace
}  // namespace bitfold
