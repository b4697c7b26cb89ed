// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include <benchmark/benchmark.h>

#include "bitfold/HAdd.h"
#include "cpu/additions.h"
#include "scalar_bench.h"

namespace bitfold {
namespace {

template <typename T>
struct HAddCase {
  std::vector<T> value = RandomIntegers<T>(kAdditionCount, -1000, 1000);
  std::vector<T> operand = RandomIntegers<T>(kAdditionCount, -128, 127);
  std::vector<T> out = std::vector<T>(kAdditionCount);

  void Define(const Datapath<T>& datapath, int64_t passes) {
    HAddElements(datapath, value.data(), operand.data(), T{3}, passes, 0, kAdditionCount,
                 out.data(), EveryPass{});
  }

  void Run(const Datapath<T>& datapath, int64_t passes) {
    AddElementwise(datapath, value.data(), operand.data(), T{3}, passes, kAdditionCount,
                   out.data());
  }
};

[[maybe_unused]] const bool registered = RegisterAddition<HAddCase>("HAdd");

}  // namespace
}  // namespace bitfold
