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
  T factor = T{3};

  AddCall<T> Call(const DatapathAttributes& attributes, const float* feed_repeat) {
    return {value.data(), operand.data(), &factor,   feed_repeat,
            out.data(),   kAdditionShape, attributes};
  }

  void Define(const DatapathAttributes& attributes, const float* feed_repeat) {
    DefineAdd(Call(attributes, feed_repeat), 0, kAdditionCount, EveryPass{});
  }

  void Run(const DatapathAttributes& attributes, const float* feed_repeat) {
    CallingThread workers;
    ComputeAdd(Call(attributes, feed_repeat), kAdditionCount, &workers);
  }
};

[[maybe_unused]] const bool registered = RegisterAddition<HAddCase>("HAdd");

}  // namespace
}  // namespace bitfold
