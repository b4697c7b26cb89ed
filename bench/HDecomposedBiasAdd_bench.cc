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

  void Define(const Datapath<T>& datapath, int64_t passes) {
    HDecomposedBiasAddElements(datapath, value.data(), bias.data(), bias.data() + kAdditionChannels,
                               T{3}, T{5}, passes, 0, kAdditionCount, kAdditionChannels, out.data(),
                               EveryPass{});
  }

  void Run(const Datapath<T>& datapath, int64_t passes) {
    AddDecomposedBias(datapath, value.data(), bias.data(), bias.data() + kAdditionChannels, T{3},
                      T{5}, passes, kAdditionCount, kAdditionChannels, out.data());
  }
};

[[maybe_unused]] const bool registered =
    RegisterAddition<HDecomposedBiasAddCase>("HDecomposedBiasAdd");

}  // namespace
}  // namespace bitfold
