// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include "bitfold/HWatchedConvolution.h"
#include "cpu/watched_convolution.h"
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
                                    {"14x14x576, 3x3", 14, 576, 576, 3, true}};
constexpr int32_t kSize = 18;

enum class Form { kDefinition, kPrepared, kWatched };

// A layer with an accumulator that some sums leave.
void Layer(benchmark::State& state, const Shape& shape, Form form) {
  const LayerAxis axis = {shape.side, shape.taps, 1, 1, 0, 0, Padding::kSame};
  const std::vector<double> multipliers(static_cast<size_t>(shape.out_channels), 1e-3);
  const auto bias = RandomIntegers<int32_t>(shape.out_channels, -1000, 1000);
  PreparedLayer layer = {shape.in_channels,
                         shape.out_channels,
                         axis,
                         axis,
                         shape.is_depthwise,
                         -1,
                         nullptr,
                         bias.data(),
                         multipliers.data(),
                         true,
                         kSize,
                         0,
                         false,
                         {Rescaling::kTwoRoundings, 0, 0, INT8_MIN, INT8_MAX}};
  const auto filter = RandomIntegers<int8_t>(layer.FilterElements(), -127, 127);
  layer.filter = filter.data();
  const auto input = RandomIntegers<int8_t>(layer.InputElements(), INT8_MIN, INT8_MAX);
  std::vector<int8_t> output(static_cast<size_t>(layer.OutputElements()));
  const WatchedSizes sizes = {&kSize, 1};
  std::vector<int64_t> found(static_cast<size_t>(3 * shape.out_channels));
  const WatchedTables tables = {found.data(), found.data() + 2 * shape.out_channels};
  ClearWatched(shape.out_channels, 1, tables);
  CallingThread workers;
  const PreparedConvolution<int8_t, int8_t> prepared(layer, &workers);
  const WatchedConvolution<int8_t, int8_t> watched(layer, sizes, &workers);
  for (auto _ : state) {
    if (form == Form::kWatched) {
      watched.Run(input.data(), 1, output.data(), tables, &workers);
    } else if (form == Form::kPrepared) {
      prepared.Run(input.data(), 1, output.data(), &workers);
    } else {
      DefineWatchedConvolution(layer, input.data(), 1, output.data(), sizes, tables);
    }
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * layer.Positions() * layer.FilterElements());
}

bool Register() {
  for (const Shape& shape : kShapes) {
    const auto add = [&shape](const char* what, Form form) {
      const std::string name = std::string("HWatchedConvolution/") + shape.name + what;
      benchmark::RegisterBenchmark(name.c_str(), Layer, shape, form);
    };
    add("", Form::kDefinition);
    add(" made once, not watched", Form::kPrepared);
    add(" made once", Form::kWatched);
  }
  return true;
}

[[maybe_unused]] const bool kRegistered = Register();

}  // namespace
}  // namespace bitfold
