// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include "bitfold/HStoredLookup.h"
#include "cpu/stored_lookup.h"
#include "frame/workers.h"
#include "scalar_bench.h"

namespace bitfold {
namespace {

template <typename T>
void Lookup(benchmark::State& state, bool by_loops) {
  const std::vector<T> data = RandomIntegers<T>(kAdditionCount, -128, 127);
  const std::vector<T> table = RandomIntegers<T>(kTableEntries<T>, -128, 127);
  std::vector<T> output(data.size());
  const StoredLookupCall<T, T> call = {data.data(), output.data(), kAdditionCount, table.data()};
  CallingThread workers;
  for (auto _ : state) {
    by_loops ? ComputeStoredLookup(call, &workers) : DefineStoredLookup(call);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kAdditionCount);
}

bool Register() {
  for (const bool by_loops : {false, true}) {
    const auto add = [&](const std::string& name, auto* run) {
      benchmark::RegisterBenchmark(("HStoredLookup/" + name + (by_loops ? " loops" : "")).c_str(),
                                   run, by_loops);
    };
    add("int8/table", Lookup<int8_t>);
    add("int16/table", Lookup<int16_t>);
  }
  return true;
}

[[maybe_unused]] const bool kRegistered = Register();

}  // namespace
}  // namespace bitfold
