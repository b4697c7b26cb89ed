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

BENCHMARK_CAPTURE(HConv2DDefinition<int32_t>, plain, 64, 0, false, false)
    ->Name("HConv2d/int32/plain");
BENCHMARK_CAPTURE(HConv2DDefinition<int32_t>, shift, 64, 4, false, false)
    ->Name("HConv2d/int32/shift 4");
BENCHMARK_CAPTURE(HConv2DDefinition<float>, plain, 64, 0, false, false)
    ->Name("HConv2d/float/plain");
BENCHMARK_CAPTURE(HConv2DDefinition<float>, shift, 64, 4, false, false)
    ->Name("HConv2d/float/shift 4");
BENCHMARK_CAPTURE(HConv2DDefinition<float>, half, 64, 0, true, false)
    ->Name("HConv2d/float/half precision");
BENCHMARK_CAPTURE(HConv2DDefinition<int32_t>, plain, 128, 0, false, true)
    ->Name("HDepthWise/int32/plain");
BENCHMARK_CAPTURE(HConv2DDefinition<float>, plain, 128, 0, false, true)
    ->Name("HDepthWise/float/plain");

}  // namespace
}  // namespace bitfold
