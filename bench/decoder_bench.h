// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

// What the benchmarks of the two box decoders share.

#ifndef BITFOLD_BENCH_DECODER_BENCH_H_
#define BITFOLD_BENCH_DECODER_BENCH_H_

#include <benchmark/benchmark.h>

#include <string>

#include "cpu/box_decoders.h"
#include "scalar_bench.h"

namespace bitfold {

inline constexpr int kDecoderSide = 64;
inline constexpr int kDecoderAnchors = 9;
inline constexpr DetectionGrid kDecoderGrid = {1, kDecoderSide, kDecoderSide, kDecoderAnchors};

template <typename T>
struct DecoderData {
  static constexpr int kPairs = kDecoderSide * kDecoderSide * 2 * kDecoderAnchors;
  std::vector<T> centers = RandomIntegers<T>(kPairs, -128, 127);
  std::vector<T> sizes = RandomIntegers<T>(kPairs, 0, 127);
  std::vector<T> rows = RandomIntegers<T>(kDecoderSide * 2 * kDecoderAnchors, 0, 511);
  std::vector<T> columns = RandomIntegers<T>(kDecoderSide * 2 * kDecoderAnchors, 0, 511);
  std::vector<T> anchors = RandomIntegers<T>(6 * kDecoderAnchors, -128, 127);
  std::vector<T> out = std::vector<T>(2 * kPairs);
};

template <typename T, typename Case>
void DecodeCase(benchmark::State& state, int mult_shift, bool use_fp16_acc, bool by_loops) {
  Case data;
  const auto shift = static_cast<int8_t>(mult_shift);
  const auto call = data.Call({24, &shift, use_fp16_acc});
  for (auto _ : state) {
    if (by_loops) {
      Case::Run(call);
    } else {
      ForEachDetectionRow(call.grid, [&](const DetectionRow& row) { Case::Define(call, row); });
    }
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * 2 * DecoderData<T>::kPairs);
}

template <template <typename> class Case>
bool RegisterDecoder(const std::string& op) {
  for (const bool by_loops : {false, true}) {
    const auto add = [&](const std::string& name, auto* run, int shift, bool half) {
      benchmark::RegisterBenchmark((op + name + (by_loops ? " loops" : "")).c_str(), run, shift,
                                   half, by_loops);
    };
    add("/int32/plain", DecodeCase<int32_t, Case<int32_t>>, 0, false);
    add("/int32/shift 6", DecodeCase<int32_t, Case<int32_t>>, 6, false);
    add("/float/plain", DecodeCase<float, Case<float>>, 0, false);
    add("/float/shift 6", DecodeCase<float, Case<float>>, 6, false);
    add("/float/half precision", DecodeCase<float, Case<float>>, 6, true);
  }
  return true;
}

}  // namespace bitfold

#endif  // BITFOLD_BENCH_DECODER_BENCH_H_
