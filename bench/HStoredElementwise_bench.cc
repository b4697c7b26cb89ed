// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include <benchmark/benchmark.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "bitfold/HStoredElementwise.h"
#include "cpu/stored_elementwise.h"
#include "frame/workers.h"
#include "scalar_bench.h"

namespace bitfold {
namespace {

template <typename T>
void Elementwise(benchmark::State& state, StoredOperation operation, bool by_loops) {
  const std::vector<T> first = RandomIntegers<T>(kAdditionCount, -128, 127);
  const std::vector<T> second = RandomIntegers<T>(kAdditionCount, -128, 127);
  std::vector<T> output(first.size());
  const Broadcast broadcast = MakeBroadcast({kAdditionCount}, {kAdditionCount});
  const StoredElementwiseMode mode = {operation,
                                      {{0.05F, 0}, {0.04F, 0}},
                                      {0.07F, 0},
                                      std::numeric_limits<T>::min(),
                                      std::numeric_limits<T>::max()};
  const StoredElementwiseCall<T> call = {
      {first.data(), second.data()}, output.data(), &broadcast, mode};
  CallingThread workers;
  for (auto _ : state) {
    by_loops ? ComputeStoredElementwise(call, &workers) : DefineStoredElementwise(call);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kAdditionCount);
}

bool Register() {
  for (const bool by_loops : {false, true}) {
    const auto add = [&](const std::string& name, auto* run, StoredOperation operation) {
      benchmark::RegisterBenchmark(
          ("HStoredElementwise/" + name + (by_loops ? " loops" : "")).c_str(), run, operation,
          by_loops);
    };
    add("int8/add", Elementwise<int8_t>, StoredOperation::kAdd);
    add("int8/multiply", Elementwise<int8_t>, StoredOperation::kMultiply);
    add("int16/add", Elementwise<int16_t>, StoredOperation::kAdd);
    add("int16/multiply", Elementwise<int16_t>, StoredOperation::kMultiply);
  }
  return true;
}

[[maybe_unused]] const bool kRegistered = Register();

}  // namespace
}  // namespace bitfold
