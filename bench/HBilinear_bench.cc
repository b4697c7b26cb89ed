// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include <benchmark/benchmark.h>

#include <string>

#include "bitfold/HBilinear.h"
#include "cpu/bilinear.h"
#include "scalar_bench.h"

namespace bitfold {
namespace {

template <typename T>
void HBilinear(benchmark::State& state, decltype(run_bilinear<T>)* run, int mult_shift,
               bool float_accumulator) {
  constexpr unsigned kCount = kAdditionCount;
  std::vector<std::vector<T>> in;
  for (int i = 0; i < 8; ++i) in.push_back(RandomIntegers<T>(kCount, i < 4 ? -128 : 0, 127));
  std::vector<T> out(kCount);
  const auto shift = static_cast<int8_t>(mult_shift);
  const BilinearCall<T> call{{{in[0].data(), in[1].data(), in[2].data(), in[3].data()},
                              {in[4].data(), in[5].data(), in[6].data(), in[7].data()}},
                             out.data(),
                             kCount,
                             1,
                             0.0f,
                             float_accumulator,
                             {24, &shift, false}};
  for (auto _ : state) {
    run(call);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * kCount);
}

template <typename T>
void Register(const std::string& name, int mult_shift, bool float_accumulator) {
  benchmark::RegisterBenchmark(name.c_str(), HBilinear<T>, run_bilinear<T>, mult_shift,
                               float_accumulator);
  benchmark::RegisterBenchmark((name + " loops").c_str(), HBilinear<T>,
                               kOnCallingThread<ComputeBilinear<T>>, mult_shift, float_accumulator);
}

[[maybe_unused]] const bool registered = [] {
  Register<int32_t>("HBilinear/int32/plain", 0, false);
  Register<int32_t>("HBilinear/int32/shift 7", 7, false);
  Register<float>("HBilinear/float/plain", 0, false);
  Register<float>("HBilinear/float/shift 7", 7, false);
  Register<float>("HBilinear/float/float mode", 0, true);
  return true;
}();

}  // namespace
}  // namespace bitfold
