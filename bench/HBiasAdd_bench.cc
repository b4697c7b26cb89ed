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

  void Define(const Datapath<T>& datapath, int64_t passes) {
    HBiasAddElements(datapath, value.data(), bias.data(), T{3}, passes, 0, kAdditionCount,
                     kAdditionChannels, out.data(), EveryPass{});
  }

  void Run(const Datapath<T>& datapath, int64_t passes) {
    AddBias(datapath, value.data(), bias.data(), T{3}, passes, kAdditionCount, kAdditionChannels,
            out.data());
  }
};

[[maybe_unused]] const bool registered = RegisterAddition<HBiasAddCase>("HBiasAdd");

}  // namespace
}  // namespace bitfold
