// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include <benchmark/benchmark.h>

#include <string>

#include "bitfold/HConv2D.h"
#include "chain_bench.h"
#include "convolve.h"

namespace bitfold {
namespace {

// A square image, SAME.
struct Layer {
  const char* name;
  int side, in_channels, out_channels, taps;
  bool is_depthwise;
};

constexpr Layer kLayer = {"56x56x64 to 64, 3x3", 56, 64, 64, 3, false};
constexpr Layer kDepthwise = {"56x56x128, 3x3", 56, 128, 128, 3, true};
const std::vector<Layer> kOtherLayers = {{"28x28x128 to 128, 3x3", 28, 128, 128, 3, false},
                                         {"14x14x256 to 256, 3x3", 14, 256, 256, 3, false},
                                         {"7x7x512 to 512, 3x3", 7, 512, 512, 3, false},
                                         {"56x56x64 to 256, 1x1", 56, 64, 256, 1, false}};

template <typename T>
void Convolve(benchmark::State& state, Layer layer, ChainNumbers numbers, bool is_definition) {
  const int64_t pixels = int64_t{layer.side} * layer.side;
  const int64_t chain =
      int64_t{layer.taps} * layer.taps * (layer.is_depthwise ? 1 : layer.in_channels);
  const std::vector<T> input =
      ChainInput<T>(pixels * layer.in_channels, numbers.low, numbers.high, numbers.unit);
  const std::vector<T> filter = ChainInput<T>(chain * layer.out_channels, numbers.weight_low,
                                              numbers.weight_high, numbers.unit);
  std::vector<T> output(static_cast<size_t>(pixels * layer.out_channels));
  const ConvolutionImage<T> work = {input.data(),
                                    filter.data(),
                                    nullptr,
                                    output.data(),
                                    1,
                                    layer.side,
                                    layer.side,
                                    layer.in_channels,
                                    layer.taps,
                                    layer.taps,
                                    layer.out_channels,
                                    numbers.accumulator_size,
                                    1,
                                    1,
                                    1,
                                    1,
                                    Padding::kSame,
                                    numbers.mult_shift,
                                    numbers.use_fp16_acc,
                                    layer.is_depthwise,
                                    0,
                                    0};
  for (auto _ : state) {
    if (is_definition) {
      ImageConvolution<T>(work).Run();
    } else {
      HeapScratch scratch;
      const BatchConvolution<T> convolution(work, 1, &scratch);
      convolution.Run(work);
      if (const auto plan = convolution.plan()) state.SetLabel(PathName(*plan));
    }
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * pixels * layer.out_channels * chain);
}

template <typename T>
void Register(const std::string& type, const Layer& layer, const ChainNumbers& numbers) {
  const std::string op = layer.is_depthwise ? "HDepthWise/" : "HConv2d/";
  const std::string name = op + type + "/" + layer.name + ", " + numbers.name;
  benchmark::RegisterBenchmark(name.c_str(), Convolve<T>, layer, numbers, true);
  benchmark::RegisterBenchmark((name + " loops").c_str(), Convolve<T>, layer, numbers, false);
}

bool RegisterAll() {
  for (const ChainNumbers& numbers : kInt32Numbers) Register<int32_t>("int32", kLayer, numbers);
  for (const ChainNumbers& numbers : kFloatNumbers) Register<float>("float", kLayer, numbers);
  for (const Layer& layer : kOtherLayers) {
    Register<int32_t>("int32", layer, kBytes);
    Register<float>("float", layer, kFloatBytes);
  }
  Register<int32_t>("int32", kDepthwise, kBytes);
  Register<float>("float", kDepthwise, kFloatBytes);
  return true;
}

[[maybe_unused]] const bool kRegistered = RegisterAll();

}  // namespace
}  // namespace bitfold
