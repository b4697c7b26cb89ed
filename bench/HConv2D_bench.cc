// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include <benchmark/benchmark.h>

#include "bitfold/HConv2D.h"
#include "scalar_bench.h"

namespace bitfold {
namespace {

// 28 x 28 pixels, 3 x 3 taps, SAME: `channels` to `channels`.
template <typename T>
void HConv2DDefinition(benchmark::State& state, int channels, int mult_shift, bool use_fp16_acc,
                       bool is_depthwise) {
  constexpr int kSide = 28;
  const int64_t pixels = kSide * kSide;
  const int64_t chain = 9 * (is_depthwise ? 1 : channels);
  const std::vector<T> input = RandomIntegers<T>(pixels * channels, 0, 15);
  const std::vector<T> filter = RandomIntegers<T>(chain * channels, -8, 7);
  std::vector<T> output(static_cast<size_t>(pixels * channels));
  const ConvolutionImage<T> work = {input.data(),
                                    filter.data(),
                                    nullptr,
                                    output.data(),
                                    1,
                                    kSide,
                                    kSide,
                                    channels,
                                    3,
                                    3,
                                    channels,
                                    24,
                                    1,
                                    1,
                                    1,
                                    1,
                                    Padding::kSame,
                                    mult_shift,
                                    use_fp16_acc,
                                    is_depthwise,
                                    0,
                                    0};
  for (auto _ : state) {
    ImageConvolution<T>(work).Run();
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * pixels * channels * chain);
}

[[maybe_unused]] const benchmark::internal::Benchmark* const kRegistered[] = {
    benchmark::RegisterBenchmark("HConv2d/int32/plain", HConv2DDefinition<int32_t>, 64, 0, false,
                                 false),
    benchmark::RegisterBenchmark("HConv2d/int32/shift 4", HConv2DDefinition<int32_t>, 64, 4, false,
                                 false),
    benchmark::RegisterBenchmark("HConv2d/float/plain", HConv2DDefinition<float>, 64, 0, false,
                                 false),
    benchmark::RegisterBenchmark("HConv2d/float/shift 4", HConv2DDefinition<float>, 64, 4, false,
                                 false),
    benchmark::RegisterBenchmark("HConv2d/float/half precision", HConv2DDefinition<float>, 64, 0,
                                 true, false),
    benchmark::RegisterBenchmark("HDepthWise/int32/plain", HConv2DDefinition<int32_t>, 128, 0,
                                 false, true),
    benchmark::RegisterBenchmark("HDepthWise/float/plain", HConv2DDefinition<float>, 128, 0, false,
                                 true),
};

}  // namespace
}  // namespace bitfold
