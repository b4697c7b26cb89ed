// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include <benchmark/benchmark.h>

#include <string>

#include "bitfold/HCheckedConvolution.h"
#include "cpu/checked_convolution.h"
#include "frame/workers.h"
#include "layer_bench.h"

namespace bitfold {
namespace {

void Layer(benchmark::State& state, const LayerShape& shape, bool is_definition) {
  BenchedLayer benched(shape);
  CallingThread workers;
  const CheckedConvolution<int8_t, int8_t> checked(benched.layer(), &workers);
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        is_definition
            ? DefineCheckedConvolution(benched.layer(), benched.input(), 1, benched.output())
            : checked.Run(benched.input(), 1, benched.output(), &workers));
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * benched.Products());
}

bool Register() {
  for (const LayerShape& shape : kLayerShapes) {
    const std::string name = std::string("HCheckedConvolution/") + shape.name;
    benchmark::RegisterBenchmark(name.c_str(), Layer, shape, true);
    benchmark::RegisterBenchmark((name + " made once").c_str(), Layer, shape, false);
  }
  return true;
}

[[maybe_unused]] const bool kRegistered = Register();

}  // namespace
}  // namespace bitfold
