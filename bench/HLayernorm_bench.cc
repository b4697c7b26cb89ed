// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include <benchmark/benchmark.h>

#include "bitfold/HLayernorm.h"
#include "cpu/layernorm.h"
#include "scalar_bench.h"

namespace bitfold {
namespace {

constexpr int kVectors = 196;
constexpr int kSize = 768;

// Inverse square roots without slopes are enough: the work is the same.
std::vector<float> MakeLut() {
  std::vector<float> lut(LUT_DEPTH, 0.0f);
  for (int i = 64; i < LUT_DEPTH; ++i) lut[i] = static_cast<float>(65535 - 128 * (i - 64));
  return lut;
}

void HLayernormUnit(benchmark::State& state, decltype(run_layernorm)* run) {
  const std::vector<float> in = RandomIntegers<float>(kVectors * kSize, -128, 127);
  const std::vector<float> lut = MakeLut();
  std::vector<float> out(in.size());
  LayerNormParams params = {};
  params.exponent_sub_value = 14;
  params.sum_of_x_mult = 170;
  params.sum_of_x_mult_n_shift = 17;
  params.x_squared_mult = kSize;
  params.epsilon = 1;
  params.mul_act_man = 91;
  params.mul_act_exp = 4;
  params.mul_act_bias = 131072;
  for (auto _ : state) {
    run(in.data(), out.data(), {kSize, kVectors, 1, 1}, lut.data(), params);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kVectors * kSize);
}

// The definition and the vector loops on the machine's widest target.
[[maybe_unused]] const benchmark::internal::Benchmark* const kRegistered[] = {
    benchmark::RegisterBenchmark("HLayernorm/float/196x768", HLayernormUnit, run_layernorm),
    benchmark::RegisterBenchmark("HLayernorm/float/196x768 loops", HLayernormUnit,
                                 kOnCallingThread<ComputeLayernorm>),
};

}  // namespace
}  // namespace bitfold
