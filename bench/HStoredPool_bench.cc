// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include <benchmark/benchmark.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "bitfold/HStoredPool.h"
#include "cpu/stored_pool.h"
#include "frame/workers.h"
#include "scalar_bench.h"

namespace bitfold {
namespace {

// Windows of 3x3 at stride 2.
template <typename T>
void Pool(benchmark::State& state, StoredPooling pooling, bool by_loops) {
  const std::vector<T> data = RandomIntegers<T>(kAdditionCount, -128, 127);
  std::vector<T> output(data.size());
  const PoolAxis side = {112, 3, 2, true};
  const StoredPoolMode mode = {pooling, std::numeric_limits<T>::min(),
                               std::numeric_limits<T>::max()};
  const StoredPoolCall<T> call = {data.data(), output.data(),     1,   side,
                                  side,        kAdditionChannels, mode};
  CallingThread workers;
  for (auto _ : state) {
    by_loops ? ComputeStoredPool(call, &workers) : DefineStoredPool(call);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * side.Outputs() * side.Outputs() * 9 *
                          kAdditionChannels);
}

template <typename T>
void Mean(benchmark::State& state, StoredPooling, bool by_loops) {
  const std::vector<T> data = RandomIntegers<T>(kAdditionCount, -128, 127);
  std::vector<T> output(kAdditionChannels);
  const StoredMeanCall<T> call = {data.data(),       output.data(), 1,         112 * 112,
                                  kAdditionChannels, {0.05F, 0},    {0.04F, 0}};
  CallingThread workers;
  for (auto _ : state) {
    by_loops ? ComputeStoredMean(call, &workers) : DefineStoredMean(call);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kAdditionCount);
}

bool Register() {
  for (const bool by_loops : {false, true}) {
    const auto add = [&](const std::string& name, auto* run, StoredPooling pooling) {
      benchmark::RegisterBenchmark((name + (by_loops ? " loops" : "")).c_str(), run, pooling,
                                   by_loops);
    };
    add("HStoredPool/int8/max 3x3", Pool<int8_t>, StoredPooling::kMax);
    add("HStoredPool/int8/average 3x3", Pool<int8_t>, StoredPooling::kAverage);
    add("HStoredPool/int16/max 3x3", Pool<int16_t>, StoredPooling::kMax);
    add("HStoredPool/int16/average 3x3", Pool<int16_t>, StoredPooling::kAverage);
    add("HStoredMean/int8/of an image", Mean<int8_t>, StoredPooling::kAverage);
    add("HStoredMean/int16/of an image", Mean<int16_t>, StoredPooling::kAverage);
  }
  return true;
}

[[maybe_unused]] const bool kRegistered = Register();

}  // namespace
}  // namespace bitfold
