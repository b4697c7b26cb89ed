// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "bitfold/HConv2D.h"
#include "chain_bench.h"
#include "cpu/convolution.h"
#include "vector/target.h"

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

// An image and what is made of it. Sums start with `elementwise` where there is any.
template <typename T>
struct Numbers {
  std::vector<T> input;
  std::vector<T> filter;
  std::vector<T> elementwise;
  std::vector<T> output;

  Numbers(const Layer& layer, const ChainNumbers& numbers)
      : input(ChainInput<T>(Pixels(layer) * layer.in_channels, numbers.low, numbers.high,
                            numbers.unit)),
        filter(ChainInput<T>(Chain(layer) * layer.out_channels, numbers.weight_low,
                             numbers.weight_high, numbers.unit)),
        output(static_cast<size_t>(Pixels(layer) * layer.out_channels)) {}

  static int64_t Pixels(const Layer& layer) { return int64_t{layer.side} * layer.side; }
  static int64_t Chain(const Layer& layer) {
    return int64_t{layer.taps} * layer.taps * (layer.is_depthwise ? 1 : layer.in_channels);
  }
  static int64_t Products(const Layer& layer) {
    return Pixels(layer) * layer.out_channels * Chain(layer);
  }

  ConvolutionCall<T> Call(const Layer& layer, const ChainNumbers& numbers) {
    const ConvolutionAxis axis = {layer.side, layer.taps, 1, 1, Padding::kSame};
    return {input.data(),
            filter.data(),
            elementwise.empty() ? nullptr : elementwise.data(),
            output.data(),
            1,
            layer.in_channels,
            layer.out_channels,
            axis,
            axis,
            layer.is_depthwise,
            1,
            numbers.datapath()};
  }
};

template <typename T>
void Define(benchmark::State& state, Layer layer, ChainNumbers numbers) {
  Numbers<T> data(layer, numbers);
  for (auto _ : state) {
    convolve4DTensorSlow(data.Call(layer, numbers));
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * data.Products(layer));
}

template <typename T>
void ByEngine(benchmark::State& state, const Layer& layer, const ChainNumbers& numbers,
              Numbers<T>* data) {
  const ConvolutionCall<T> call = data->Call(layer, numbers);
  CallingThread workers;
  for (auto _ : state) {
    HeapScratch scratch;
    const BatchConvolution<T> convolution(call, &workers, &scratch);
    convolution.Run();
    if (const auto plan = convolution.plan()) state.SetLabel(PathName(*plan));
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * data->Products(layer));
}

template <typename T>
void Convolve(benchmark::State& state, Layer layer, ChainNumbers numbers,
              std::optional<Target> target) {
  ForceTarget(target);
  Numbers<T> data(layer, numbers);
  ByEngine(state, layer, numbers, &data);
  ForceTarget({});
}

// Steps of fractions where `in_a_million` outputs of a million leave the accumulator once and print
// a line. Lines go to the null device.
void ConvolveWithLines(benchmark::State& state, Layer layer, int in_a_million) {
  const ChainNumbers fractions = {"", -128, 127, -128, 127, 0.15625f, 24, 0, false};
  Numbers<float> data(layer, fractions);
  data.elementwise.assign(data.output.size(), 0.0f);
  if (in_a_million > 0) {
    const auto step = static_cast<size_t>(1000000 / in_a_million);
    // Wraps to a sum that the products behind it keep in range.
    for (size_t i = 0; i < data.elementwise.size(); i += step) data.elementwise[i] = 8438608.0f;
  }
  std::fflush(stdout);
  const int out = dup(STDOUT_FILENO);
  const int null = open("/dev/null", O_WRONLY);
  dup2(null, STDOUT_FILENO);
  ByEngine(state, layer, fractions, &data);
  std::fflush(stdout);
  dup2(out, STDOUT_FILENO);
  close(null);
  close(out);
}

std::string NameOf(const std::string& type, const Layer& layer, const std::string& numbers) {
  const std::string op = layer.is_depthwise ? "HDepthWise/" : "HConv2d/";
  return op + type + "/" + layer.name + ", " + numbers;
}

template <typename T>
void Register(const std::string& type, const Layer& layer, const ChainNumbers& numbers) {
  const std::string name = NameOf(type, layer, numbers.name);
  benchmark::RegisterBenchmark(name.c_str(), Define<T>, layer, numbers);
  benchmark::RegisterBenchmark((name + " loops").c_str(), Convolve<T>, layer, numbers,
                               std::nullopt);
}

void RegisterAvx2(const Layer& layer) {
  if (!IsSupported(Target::kAvx2)) return;
  const std::string name = NameOf("int32", layer, kBytes.name) + " loops, AVX2";
  benchmark::RegisterBenchmark(name.c_str(), Convolve<int32_t>, layer, kBytes, Target::kAvx2);
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
  RegisterAvx2(kLayer);
  RegisterAvx2(kDepthwise);
  for (const Layer& layer : kOtherLayers) RegisterAvx2(layer);
  for (const auto& [name, in_a_million] : {std::pair{"no lines", 0}, std::pair{"lines", 100}}) {
    benchmark::RegisterBenchmark(NameOf("float", kLayer, name).c_str(), ConvolveWithLines, kLayer,
                                 in_a_million);
  }
  return true;
}

[[maybe_unused]] const bool kRegistered = RegisterAll();

}  // namespace
}  // namespace bitfold
