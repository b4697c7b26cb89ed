// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include "bitfold/HStoredQuantise.h"
#include "cpu/stored_quantise.h"
#include "frame/workers.h"
#include "scalar_bench.h"

namespace bitfold {
namespace {

template <typename T>
void Quantise(benchmark::State& state, bool by_loops) {
  const std::vector<float> values = RandomIntegers<float>(kAdditionCount, -1000, 1000);
  std::vector<T> output(values.size());
  const StoredQuantiseCall<T> call = {values.data(), output.data(), kAdditionCount, {7.3F, 0}};
  CallingThread workers;
  for (auto _ : state) {
    by_loops ? ComputeStoredQuantise(call, &workers) : DefineStoredQuantise(call);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kAdditionCount);
}

bool Register() {
  for (const bool by_loops : {false, true}) {
    const auto add = [&](const std::string& name, auto* run) {
      benchmark::RegisterBenchmark(
          ("HStoredQuantise/float/" + name + (by_loops ? " loops" : "")).c_str(), run, by_loops);
    };
    add("to int8", Quantise<int8_t>);
    add("to int16", Quantise<int16_t>);
  }
  return true;
}

[[maybe_unused]] const bool kRegistered = Register();

}  // namespace
}  // namespace bitfold
