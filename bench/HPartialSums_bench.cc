// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include "bitfold/HPartialSums.h"
#include "cpu/partial_sums.h"
#include "frame/workers.h"
#include "scalar_bench.h"

namespace bitfold {
namespace {

// Outputs lie as the pixels do.
struct Shape {
  const char* name;
  int32_t side, in_channels, out_channels, taps;
  bool is_depthwise;
};

const std::vector<Shape> kShapes = {{"56x56x64 to 64, 3x3", 56, 64, 64, 3, false},
                                    {"28x28x32 to 192, 1x1", 28, 32, 192, 1, false},
                                    {"14x14x96, 3x3", 14, 96, 96, 3, true}};

// Sums of one image, with the extremes that it has known before; `size` 0 is no width.
void Sums(benchmark::State& state, const Shape& shape, int32_t size, bool is_definition) {
  const LayerAxis axis = {shape.side, shape.taps, 1, 1, 0, 0, Padding::kSame};
  PartialSumsCall<int8_t, int8_t> call = {};
  call.batch = call.filters = 1;
  call.in_channels = shape.in_channels;
  call.out_channels = shape.out_channels;
  call.rows = call.columns = axis;
  call.is_depthwise = shape.is_depthwise;
  call.input_zero_point = -128;
  call.sizes = &size;
  call.size_count = size == 0 ? 0 : 1;
  const auto filter = RandomIntegers<int8_t>(call.FilterElements(), -127, 127);
  const auto input = RandomIntegers<int8_t>(call.InputElements(), -128, 127);
  call.filter = filter.data();
  call.input = input.data();
  const auto channels = static_cast<size_t>(shape.out_channels);
  std::vector<int64_t> extremes(kSumExtremes * channels);
  std::vector<int64_t> counts(kSumCounts * channels);
  std::vector<int64_t> first(channels);
  const PartialSumsTables tables = {extremes.data(), counts.data(), first.data()};
  ClearPartialSums(shape.out_channels, call.size_count, tables);
  CallingThread workers;
  ComputePartialSums(call, tables, &workers);
  for (auto _ : state) {
    if (is_definition) {
      DefinePartialSums(call, tables);
    } else {
      ComputePartialSums(call, tables, &workers);
    }
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * call.Positions() * call.FilterElements());
}

bool Register() {
  for (const Shape& shape : kShapes) {
    for (const int32_t size : {0, 20}) {
      for (const bool is_definition : {true, false}) {
        const std::string name = std::string("HPartialSums/") + shape.name +
                                 (size == 0 ? "" : ", 20 bits") +
                                 (is_definition ? "" : " computed");
        benchmark::RegisterBenchmark(name.c_str(), Sums, shape, size, is_definition);
      }
    }
  }
  return true;
}

[[maybe_unused]] const bool kRegistered = Register();

}  // namespace
}  // namespace bitfold
