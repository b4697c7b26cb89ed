// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include <benchmark/benchmark.h>

#include "bitfold/HBiasAdd.h"
#include "cpu/additions.h"
#include "scalar_bench.h"

namespace bitfold {
namespace {

template <typename T>
struct HBiasAddCase {
  std::vector<T> value = RandomIntegers<T>(kAdditionCount, -1000, 1000);
  std::vector<T> bias = RandomIntegers<T>(kAdditionChannels, -128, 127);
  std::vector<T> out = std::vector<T>(kAdditionCount);
  T factor = T{3};

  BiasAddCall<T> Call(const DatapathAttributes& attributes, const float* feed_repeat) {
    return {value.data(), bias.data(),    &factor,   feed_repeat,
            out.data(),   kAdditionShape, attributes};
  }

  void Define(const DatapathAttributes& attributes, const float* feed_repeat) {
    DefineBiasAdd(Call(attributes, feed_repeat), 0, kAdditionCount, EveryPass{});
  }

  void Run(const DatapathAttributes& attributes, const float* feed_repeat) {
    CallingThread workers;
    ComputeBiasAdd(Call(attributes, feed_repeat), kAdditionCount, &workers);
  }
};

[[maybe_unused]] const bool registered = RegisterAddition<HBiasAddCase>("HBiasAdd");

}  // namespace
}  // namespace bitfold
