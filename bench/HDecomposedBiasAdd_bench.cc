// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include <benchmark/benchmark.h>

#include "bitfold/HDecomposedBiasAdd.h"
#include "cpu/additions.h"
#include "scalar_bench.h"

namespace bitfold {
namespace {

template <typename T>
struct HDecomposedBiasAddCase {
  std::vector<T> value = RandomIntegers<T>(kAdditionCount, -1000, 1000);
  std::vector<T> bias = RandomIntegers<T>(2 * kAdditionChannels, -128, 127);
  std::vector<T> out = std::vector<T>(kAdditionCount);
  T factor_a = T{3};
  T factor_b = T{5};

  DecomposedBiasAddCall<T> Call(const DatapathAttributes& attributes, const float* feed_repeat) {
    return {value.data(), bias.data(),    bias.data() + kAdditionChannels,
            &factor_a,    &factor_b,      feed_repeat,
            out.data(),   kAdditionShape, attributes};
  }

  void Define(const DatapathAttributes& attributes, const float* feed_repeat) {
    DefineDecomposedBiasAdd(Call(attributes, feed_repeat), 0, kAdditionCount, EveryPass{});
  }

  void Run(const DatapathAttributes& attributes, const float* feed_repeat) {
    CallingThread workers;
    ComputeDecomposedBiasAdd(Call(attributes, feed_repeat), kAdditionCount, &workers);
  }
};

[[maybe_unused]] const bool registered =
    RegisterAddition<HDecomposedBiasAddCase>("HDecomposedBiasAdd");

}  // namespace
}  // namespace bitfold
