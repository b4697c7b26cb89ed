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

// One group of all channels, or as many groups as channels.
void HActivationUnit(benchmark::State& state, decltype(DefineActivation)* run, int64_t count) {
  const std::vector<int64_t> in = RandomIntegers<int64_t>(kPositions * kChannels, -2000, 2000);
  const auto entries = static_cast<size_t>(count) * (kPoints + 1);
  std::vector<int64_t> x_points;
  for (int64_t g = 0; g < count; ++g) {
    for (int p = 0; p < kPoints; ++p) x_points.push_back(500 * (p - kPoints / 2) + g);
  }
  const std::vector<int64_t> offsets(entries, 3);
  const std::vector<int64_t> slopes_m =
      RandomIntegers<int64_t>(static_cast<int64_t>(entries), -64, 64);
  const std::vector<int64_t> slopes_e(entries, 10);
  const std::vector<int64_t> size_splits(static_cast<size_t>(count), kChannels / count);
  const ActivationGroups groups = {{x_points.data(), kPoints},
                                   {offsets.data(), kPoints + 1},
                                   {slopes_m.data(), kPoints + 1},
                                   {slopes_e.data(), kPoints + 1},
                                   size_splits.data(),
                                   count};
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
                                 DefineActivation, 1),
    benchmark::RegisterBenchmark("HActivation/int64/56x56x64, 7 breakpoints loops", HActivationUnit,
                                 kOnCallingThread<ComputeActivation>, 1),
    benchmark::RegisterBenchmark("HActivation/int64/56x56x64, a group a channel", HActivationUnit,
                                 DefineActivation, kChannels),
    benchmark::RegisterBenchmark("HActivation/int64/56x56x64, a group a channel loops",
                                 HActivationUnit, kOnCallingThread<ComputeActivation>, kChannels),
};

}  // namespace
}  // namespace bitfold
