// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include <benchmark/benchmark.h>

#include <cstdint>
#include <limits>
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

// Shorts, whose sums have 64 bits: such as 32 bits hold, and such as they may not.
const std::vector<Shape> kWideShapes = {{"56x56x64 to 64, 3x3", 56, 64, 64, 3, false},
                                        {"28x28x32 to 192, 1x1", 28, 32, 192, 1, false},
                                        {"14x14x576, 3x3", 14, 576, 576, 3, true},
                                        {"7x7x512 to 512, 3x3", 7, 512, 512, 3, false},
                                        {"1x1x4096 to 1000, 1x1", 1, 4096, 1000, 1, false}};
const Arithmetic kWide = {"64 bits", kWideAccumulator, 0, false};

template <typename T>
void Prepared(benchmark::State& state, const Shape& shape, const Arithmetic& arithmetic,
              bool is_made_once) {
  const LayerAxis axis = {shape.side, shape.taps, 1, 1, 0, 0, Padding::kSame};
  const std::vector<double> multipliers(static_cast<size_t>(shape.out_channels), 1e-3);
  const auto bias = RandomIntegers<int32_t>(shape.out_channels, -1000, 1000);
  const std::vector<int64_t> wide_bias(bias.begin(), bias.end());
  const bool is_wide = arithmetic.accumulator_size == kWideAccumulator;
  const Rescaling rescaling = is_wide ? Rescaling::kShortMultiplier : Rescaling::kTwoRoundings;
  PreparedLayer layer = {shape.in_channels,
                         shape.out_channels,
                         axis,
                         axis,
                         shape.is_depthwise,
                         is_wide ? 0 : -1,
                         nullptr,
                         is_wide ? nullptr : bias.data(),
                         multipliers.data(),
                         true,
                         arithmetic.accumulator_size,
                         arithmetic.mult_shift,
                         arithmetic.use_fp16_acc,
                         {rescaling, arithmetic.mult_shift, 0, std::numeric_limits<T>::min(),
                          std::numeric_limits<T>::max()},
                         is_wide ? wide_bias.data() : nullptr};
  const auto filter = RandomIntegers<int8_t>(layer.FilterElements(), -127, 127);
  layer.filter = filter.data();
  const auto input = RandomIntegers<T>(layer.InputElements(), std::numeric_limits<T>::min(),
                                       std::numeric_limits<T>::max());
  std::vector<T> output(static_cast<size_t>(layer.OutputElements()));
  CallingThread workers;
  const PreparedConvolution<T, T> prepared(layer, &workers);
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

template <typename T>
void RegisterLayer(const Shape& shape, const Arithmetic& arithmetic) {
  for (const bool is_made_once : {false, true}) {
    const std::string name = std::string("HPreparedConvolution/") + shape.name + ", " +
                             arithmetic.name + (is_made_once ? " made once" : "");
    benchmark::RegisterBenchmark(name.c_str(), Prepared<T>, shape, arithmetic, is_made_once);
  }
}

bool Register() {
  for (const Shape& shape : kShapes) {
    for (const Arithmetic& arithmetic : kArithmetics) RegisterLayer<int8_t>(shape, arithmetic);
  }
  for (const Shape& shape : kWideShapes) RegisterLayer<int16_t>(shape, kWide);
  return true;
}

[[maybe_unused]] const bool kRegistered = Register();

}  // namespace
}  // namespace bitfold
