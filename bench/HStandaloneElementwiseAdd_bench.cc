// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include <benchmark/benchmark.h>

#include "bitfold/HStandaloneElementwiseAdd.h"
#include "cpu/additions.h"
#include "scalar_bench.h"

namespace bitfold {
namespace {

// Added once: the op has no feed repeat.
template <typename T>
struct HStandaloneElementwiseAddCase {
  std::vector<T> value = RandomIntegers<T>(kAdditionCount, -128, 127);
  std::vector<T> operand = RandomIntegers<T>(kAdditionCount, -128, 127);
  std::vector<T> weights = RandomIntegers<T>(2 * kAdditionChannels, -8, 7);
  std::vector<T> out = std::vector<T>(kAdditionCount);

  StandaloneElementwiseAddCall<T> Call(const DatapathAttributes& attributes) {
    return {value.data(), operand.data(), weights.data(), out.data(), kAdditionShape, attributes};
  }

  void Define(const DatapathAttributes& attributes, const float*) {
    DefineStandaloneElementwiseAdd(Call(attributes), 0, kAdditionCount);
  }

  void Run(const DatapathAttributes& attributes, const float*) {
    CallingThread workers;
    ComputeStandaloneElementwiseAdd(Call(attributes), kAdditionCount, &workers);
  }
};

[[maybe_unused]] const bool registered =
    RegisterAddition<HStandaloneElementwiseAddCase>("HStandaloneElementwiseAdd");

}  // namespace
}  // namespace bitfold
