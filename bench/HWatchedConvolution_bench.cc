// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include "bitfold/HWatchedConvolution.h"
#include "cpu/watched_convolution.h"
#include "frame/workers.h"
#include "layer_bench.h"

namespace bitfold {
namespace {

enum class Form { kDefinition, kPrepared, kWatched };

void Layer(benchmark::State& state, const LayerShape& shape, Form form) {
  BenchedLayer benched(shape);
  const WatchedSizes sizes = {&kAccumulatorSize, 1};
  std::vector<int64_t> found(static_cast<size_t>(3 * shape.out_channels));
  const WatchedTables tables = {found.data(), found.data() + 2 * shape.out_channels};
  ClearWatched(shape.out_channels, 1, tables);
  CallingThread workers;
  const PreparedConvolution<int8_t, int8_t> prepared(benched.layer(), &workers);
  const WatchedConvolution<int8_t, int8_t> watched(benched.layer(), sizes, &workers);
  for (auto _ : state) {
    if (form == Form::kWatched) {
      watched.Run(benched.input(), 1, benched.output(), tables, &workers);
    } else if (form == Form::kPrepared) {
      prepared.Run(benched.input(), 1, benched.output(), &workers);
    } else {
      DefineWatchedConvolution(benched.layer(), benched.input(), 1, benched.output(), sizes,
                               tables);
    }
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * benched.Products());
}

bool Register() {
  for (const LayerShape& shape : kLayerShapes) {
    const auto add = [&shape](const char* what, Form form) {
      const std::string name = std::string("HWatchedConvolution/") + shape.name + what;
      benchmark::RegisterBenchmark(name.c_str(), Layer, shape, form);
    };
    add("", Form::kDefinition);
    add(" made once, not watched", Form::kPrepared);
    add(" made once", Form::kWatched);
  }
  return true;
}

[[maybe_unused]] const bool kRegistered = Register();

}  // namespace
}  // namespace bitfold
