// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The narrow floats, which only the exported functions compute.

#include <benchmark/benchmark.h>

#include "bitfold/fpx.h"
#include "scalar_bench.h"

namespace bitfold {
namespace {

constexpr int kCount = 65536;

// From floats, added to itself, back to floats.
void HFloatDefinition(benchmark::State& state) {
  const std::vector<float> in = RandomIntegers<float>(kCount, -7, 7);
  std::vector<float> out(kCount);
  for (auto _ : state) {
    FPX* array = CreateFPXArray_fromFloat32(in.data(), kCount, 4, 8);
    for (int i = 0; i < kCount; ++i) add_sub_floatX(array[i], array[i], &array[i]);
    OverrideFloatArray_fromFPX(array, out.data(), kCount);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kCount);
}

BENCHMARK(HFloatDefinition)->Name("HFloat/E4M8/convert, add, convert");

}  // namespace
}  // namespace bitfold
