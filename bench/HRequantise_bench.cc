// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include <benchmark/benchmark.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "bitfold/HRequantise.h"
#include "cpu/requantise.h"
#include "frame/workers.h"
#include "scalar_bench.h"

namespace bitfold {
namespace {

constexpr int64_t kPositions = 112 * 112;
constexpr int64_t kChannels = 64;

template <typename T, typename Out>
void Requantise(benchmark::State& state, Rescaling rescaling, bool by_loops) {
  const std::vector<T> sums = RandomIntegers<T>(kPositions * kChannels, -1000000, 1000000);
  std::vector<double> multipliers;
  for (int64_t c = 0; c < kChannels; ++c) {
    multipliers.push_back(1e-4 / static_cast<double>(c + 1));
  }
  std::vector<Out> output(sums.size());
  const RequantiseMode mode = {rescaling, 0, 3, std::numeric_limits<Out>::min(),
                               std::numeric_limits<Out>::max()};
  const RequantiseCall<T, Out> call = {sums.data(),        output.data(), kPositions, kChannels,
                                       multipliers.data(), true,          mode};
  CallingThread workers;
  for (auto _ : state) {
    by_loops ? ComputeRequantise(call, &workers) : DefineRequantise(call);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kPositions * kChannels);
}

bool Register() {
  for (const bool by_loops : {false, true}) {
    const auto add = [&](const std::string& name, auto* run, Rescaling rescaling) {
      benchmark::RegisterBenchmark(("HRequantise/" + name + (by_loops ? " loops" : "")).c_str(),
                                   run, rescaling, by_loops);
    };
    add("int32/two roundings", Requantise<int32_t, int8_t>, Rescaling::kTwoRoundings);
    add("int32/short multiplier", Requantise<int32_t, int8_t>, Rescaling::kShortMultiplier);
    add("int32/one rounding", Requantise<int32_t, int8_t>, Rescaling::kOneRounding);
    add("int64/short multiplier", Requantise<int64_t, int16_t>, Rescaling::kShortMultiplier);
    add("int64/one rounding", Requantise<int64_t, int16_t>, Rescaling::kOneRounding);
  }
  return true;
}

[[maybe_unused]] const bool kRegistered = Register();

}  // namespace
}  // namespace bitfold
