// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include "bitfold/HPreparedConvolution.h"
#include "cpu/prepared_convolution.h"
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

struct Arithmetic {
  const char* name;
  int32_t accumulator_size, mult_shift;
  bool use_fp16_acc;
};

const std::vector<Shape> kShapes = {{"56x56x64 to 64, 3x3", 56, 64, 64, 3, false},
                                    {"28x28x32 to 192, 1x1", 28, 32, 192, 1, false},
                                    {"14x14x576, 3x3", 14, 576, 576, 3, true}};
const std::vector<Arithmetic> kArithmetics = {
    {"proven", 32, 0, false}, {"shift 4", 24, 4, false}, {"half precision", 32, 0, true}};

void Prepared(benchmark::State& state, const Shape& shape, const Arithmetic& arithmetic,
              bool is_made_once) {
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
                         arithmetic.accumulator_size,
                         arithmetic.mult_shift,
                         arithmetic.use_fp16_acc,
                         {Rescaling::kTwoRoundings, arithmetic.mult_shift, 0, -128, 127}};
  const auto filter = RandomIntegers<int8_t>(layer.FilterElements(), -127, 127);
  layer.filter = filter.data();
  const auto input = RandomIntegers<int8_t>(layer.InputElements(), -128, 127);
  std::vector<int8_t> output(static_cast<size_t>(layer.OutputElements()));
  CallingThread workers;
  const PreparedConvolution<int8_t, int8_t> prepared(layer, &workers);
  for (auto _ : state) {
    if (is_made_once) {
      prepared.Run(input.data(), 1, output.data(), &workers);
    } else {
      DefinePreparedConvolution(layer, input.data(), 1, output.data());
    }
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * layer.Positions() * layer.FilterElements());
}

bool Register() {
  for (const Shape& shape : kShapes) {
    for (const Arithmetic& arithmetic : kArithmetics) {
      for (const bool is_made_once : {false, true}) {
        const std::string name = std::string("HPreparedConvolution/") + shape.name + ", " +
                                 arithmetic.name + (is_made_once ? " made once" : "");
        benchmark::RegisterBenchmark(name.c_str(), Prepared, shape, arithmetic, is_made_once);
      }
    }
  }
  return true;
}

[[maybe_unused]] const bool kRegistered = Register();

}  // namespace
}  // namespace bitfold
