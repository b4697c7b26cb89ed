// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The convolutions of a call by the chain engine, on every target, against the definition.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_CHAIN_CONVOLUTION_H_
#define BITFOLD_TESTS_CPP_SUPPORT_CHAIN_CONVOLUTION_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cpu/convolution.h"
#include "frame/scratch.h"
#include "support/chain_recipes.h"
#include "support/convolution.h"
#include "support/ledger.h"
#include "support/scale.h"
#include "support/targets.h"
#include "support/warnings.h"

namespace bitfold::testing {

// Behind the outputs, where the sanitizer does not look: nothing is written there.
inline constexpr int64_t kOutputGuard = kSanitized ? 0 : 64;
inline constexpr int kUntouched = -1431655766;

template <typename T>
struct ChainOutput {
  ExactBuffer<T> values;  // and the guard
  std::string lines;
  std::optional<ChainPlan> plan;
};

// Image after image on this thread and the target in use; `offset` misaligns the buffers.
template <typename T>
ChainOutput<T> ChainConvolution(const reference::Convolution& c, const ConvolutionData<T>& data,
                                int offset, Scratch* scratch) {
  const MisalignedCall<T> call(c, data, offset);
  ChainOutput<T> out{ExactBuffer<T>(OutputCount(c) + kOutputGuard, (offset + 3) % 4), "", {}};
  std::fill_n(out.values.data(), out.values.count(), static_cast<T>(kUntouched));
  const auto run = [&](T* output, Scratch* memory) {
    const BatchConvolution<T> convolution(call.To(output), 1, memory);
    for (int32_t image = 0; image < c.batch; ++image) convolution.RunImage(image, 0);
    return convolution.plan();
  };
  out.lines = PrintedBy([&] { out.plan = run(out.values.data(), scratch); });
  ExpectCounted(out.lines, [&] {
    HeapScratch heap;  // the caller's may count or refuse requests
    run(std::vector<T>(static_cast<size_t>(OutputCount(c))).data(), &heap);
  });
  return out;
}

template <typename T>
::testing::AssertionResult SameAsDefined(const reference::Convolution& c,
                                         const ConvolutionOutput<T>& defined,
                                         const ChainOutput<T>& actual, const std::string& path) {
  const auto values = SameConvolutions(c, defined.values.data(), actual.values.data(), path);
  if (!values) return values;
  for (int64_t i = OutputCount(c); i < actual.values.count(); ++i) {
    if (SameBits(actual.values[i], static_cast<T>(kUntouched))) continue;
    return ::testing::AssertionFailure()
           << path << ": wrote element " << i << " of " << OutputCount(c) << "\n  " << Describe(c);
  }
  return SameText(defined.lines, actual.lines, path + " " + Describe(c));
}

// On every target; judge(plan, target) says what else is asked of it.
template <typename T, typename Judge>
::testing::AssertionResult CompareChains(const reference::Convolution& c,
                                         const ConvolutionData<T>& data, int offset, Judge judge) {
  const ConvolutionOutput<T> defined = DefinedConvolution(c, data, offset);
  for (const auto& [target, name] : AllTargets()) {
    const ForcedTarget forced(target);
    HeapScratch scratch;
    const ChainOutput<T> actual = ChainConvolution(c, data, offset, &scratch);
    const auto same = SameAsDefined(c, defined, actual, std::string("chains, ") + name);
    if (!same) return same;
    auto judgement = judge(actual.plan, target);
    if (!judgement) return judgement << ", " << name << "\n  " << Describe(c);
  }
  return ::testing::AssertionSuccess();
}

// The same with the ledger's marks; path_on(target) is the path that it must take, if any is known.
template <typename T, typename PathOnTarget>
::testing::AssertionResult CheckChains(const reference::Convolution& c,
                                       const ConvolutionData<T>& data, int offset,
                                       PathOnTarget path_on) {
  const ChainForm form = c.is_depthwise ? ChainForm::kDepthwise : ChainForm::kOrdinary;
  const auto judge = [&](const std::optional<ChainPlan>& plan, Target target) {
    const std::optional<ChainPath> expected = path_on(target);
    if (expected && (!plan || plan->path != *expected)) {
      return ::testing::AssertionFailure() << "path " << (plan ? static_cast<int>(plan->path) : -1)
                                           << ", expected " << static_cast<int>(*expected);
    }
    if (plan) Ran(plan->path, NumbersOf<T>(c.use_fp16_acc), form, target);
    return ::testing::AssertionSuccess();
  };
  return CompareChains(c, data, offset, judge);
}

// Whatever path it takes.
template <typename T>
::testing::AssertionResult CheckChains(const reference::Convolution& c,
                                       const ConvolutionData<T>& data, int offset = 0) {
  return CheckChains(c, data, offset, [](Target) { return std::optional<ChainPath>(); });
}

template <typename T>
ConvolutionData<T> DrawRecipe(Random* random, const ChainRecipe& recipe, bool has_elementwise,
                              reference::Convolution* c) {
  c->accumulator_size = recipe.width;
  c->mult_shift = recipe.shift;
  c->use_fp16_acc = recipe.use_fp16_acc;
  return {DrawRange<T>(random, InputCount(*c), recipe.input, recipe),
          DrawRange<T>(random, FilterCount(*c), recipe.weights, recipe),
          DrawRange<T>(random, has_elementwise ? OutputCount(*c) : 0, recipe.elementwise, recipe)};
}

// Whether a call has outputs and its numbers have the ends of the recipe's ranges.
inline bool HasRecipe(const reference::Convolution& c) {
  return OutputCount(c) > 0 && InputCount(c) > 1 && FilterCount(c) > 1;
}

template <typename T>
::testing::AssertionResult CheckRecipe(Random* random, const ChainRecipe& recipe,
                                       bool has_elementwise, reference::Convolution c) {
  const auto data = DrawRecipe<T>(random, recipe, has_elementwise, &c);
  const auto path_on = [&](Target target) {
    const int64_t outputs = OutputCount(c) / c.out_channels;
    const bool is_taken = HasRecipe(c) && (!c.is_depthwise || c.out_channels >= 16);
    return is_taken ? PathOn<T>(recipe, c.is_depthwise, outputs, target) : std::nullopt;
  };
  auto same = CheckChains(c, data, random->Between(0, 3), path_on);
  if (!same) same << "\n  recipe: " << recipe.name;
  return same;
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_CHAIN_CONVOLUTION_H_
