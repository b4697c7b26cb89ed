// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// A batch whose images, and blocks of whose outputs, are shared out: in any order, by threads, or
// one after the other, the same results as image after image, and the lines of an image in their
// order. Every path of the chains and every way to cut an image.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "bitfold/HConv2D.h"
#include "cpu/convolution.h"
#include "support/chain_convolution.h"
#include "support/chain_recipes.h"
#include "support/convolution.h"
#include "support/ledger.h"
#include "support/scale.h"
#include "support/workers.h"

namespace bitfold {
namespace {

using reference::Convolution;
using testing::ChainRecipe;
using testing::ConvolutionData;
using testing::Path;
using testing::Plain;
using testing::Ran;
using testing::Random;

std::vector<std::unique_ptr<Workers>> AllWorkers() {
  std::vector<std::unique_ptr<Workers>> all;
  all.push_back(std::make_unique<CallingThread>());
  all.push_back(std::make_unique<testing::BackwardParts>(1));
  all.push_back(std::make_unique<testing::ThreadParts>(3, 1));
  return all;
}

// Of images that are cut into rows, channels and columns, and some that are not.
std::vector<Convolution> Shapes() {
  std::vector<Convolution> shapes = {Plain(9, 7, 3, 3, 3, 17), Plain(3, 3, 24, 3, 3, 48),
                                     Plain(3, 7, 8, 1, 1, 32), Plain(1, 70, 3, 1, 3, 16),
                                     Plain(9, 7, 20, 3, 2, 20)};
  shapes[4].is_depthwise = shapes[4].filter_per_image = true;
  for (Convolution& c : shapes) c.same = true;
  return shapes;
}

template <typename T>
void Mark(const Convolution& c, const BatchConvolution<T>& convolution, bool has_lines) {
  const OutputBlocks* blocks = convolution.blocks();
  if (blocks == nullptr)
    return Ran(convolution.plan() ? Path::kSharedImages : Path::kSharedByDefinition);
  const OutputExtent& step = blocks->largest();
  if (testing::OutHeight(c) > step.rows && step.rows > 1) Ran(Path::kSharedRows);
  if (blocks->count() > 1 && step.rows == 1) Ran(Path::kSharedColumns);
  if (c.out_channels > step.channels) Ran(Path::kSharedChannels);
  if (blocks->count() > 1 && has_lines) Ran(Path::kSharedLines);
}

// A single image's lines keep their order. Calls with many lines, which take long, are made once.
template <typename T>
void CheckShared(const Convolution& c, const ConvolutionData<T>& data, const std::string& name) {
  const auto defined = testing::DefinedConvolution(c, data);
  const bool is_long = defined.lines.size() > 100000;
  for (const auto& workers : AllWorkers()) {
    if (is_long && workers->AtOnce() != 3) continue;
    const auto shared = testing::SharedConvolution(c, data, workers.get());
    ASSERT_TRUE(testing::SameConvolutions(c, defined.values.data(), shared.values.data(), name));
    ASSERT_TRUE(c.batch == 1 ? testing::SameText(defined.lines, shared.lines, name)
                             : testing::SameLines(defined.lines, shared.lines, name));
    HeapScratch scratch;
    const auto mult_shift = static_cast<int8_t>(c.mult_shift);
    std::vector<T> output(static_cast<size_t>(testing::OutputCount(c)));
    const BatchConvolution<T> convolution(testing::CallOf<T>(c, data, output.data(), &mult_shift),
                                          workers.get(), &scratch);
    Mark(c, convolution, !defined.lines.empty());
  }
}

template <typename T>
void CheckRecipes(uint64_t seed) {
  Random random(seed);
  for (const auto& [target, target_name] : testing::AllTargets()) {
    const testing::ForcedTarget forced(target);
    for (const ChainRecipe& recipe : testing::ChainRecipes<T>()) {
      for (Convolution c : Shapes()) {
        if (random.Between(0, testing::kSanitized ? 7 : 1) != 0) continue;
        c.batch = random.Pick(std::vector<int32_t>{1, 2, 10});
        const auto data = testing::DrawRecipe<T>(&random, recipe, random.Flag(), &c);
        ASSERT_NO_FATAL_FAILURE(
            CheckShared<T>(c, data, std::string(recipe.name) + ", " + target_name));
      }
    }
  }
}

TEST(ConvolveShared, EveryInt32Recipe) { CheckRecipes<int32_t>(0x5a1); }
TEST(ConvolveShared, EveryFloatRecipe) { CheckRecipes<float>(0x5a2); }

TEST(ConvolveShared, LeftToTheDefinition) {
  Random random(0x1ef8);
  for (const int32_t batch : {1, 4, 13}) {
    Convolution c = Plain(5, 4, 2, 3, 3, 5);
    c.batch = batch;
    c.stride_h = -1;
    c.accumulator_size = 20;
    ASSERT_NO_FATAL_FAILURE(CheckShared<float>(
        c, testing::DrawConvolution<float>(&random, c, testing::Data::kFull, true), "definition"));
  }
}

// More numbers than stay near a core, on one thread and on several.
TEST(ConvolveShared, LargeImages) {
  Random random(0x1a49e);
  for (const int32_t taps : {1, 2}) {
    Convolution c = Plain(300, 450, 2, taps, taps, 2);
    c.batch = 2;
    c.accumulator_size = 20;
    ASSERT_NO_FATAL_FAILURE(CheckShared<int32_t>(
        c, testing::DrawConvolution<int32_t>(&random, c, testing::Data::kSmall, true), "large"));
  }
}

// ---- Lines -------------------------------------------------------------------------------------

std::vector<std::string> LinesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

// Images whose sums, and so whose lines, are all different; then the depthwise ones, whose red line
// comes last.
TEST(ConvolveShared, EachImageKeepsTheOrderOfItsLines) {
  for (const int32_t batch : {2, 3, testing::kSanitized ? 8 : 30}) {
    Convolution c = Plain(6, 5, 3, 3, 3, 33);
    c.batch = batch;
    c.accumulator_size = 40;
    ConvolutionData<float> data;
    data.filter.assign(static_cast<size_t>(testing::FilterCount(c)), 1.5f);
    const int64_t in_image = testing::InputCount(c) / batch;
    for (int64_t i = 0; i < testing::InputCount(c); ++i) {
      const int64_t step = i % in_image * 100 + i / in_image;
      data.input.push_back(1500000.0f + static_cast<float>(step));
    }
    std::vector<std::vector<std::string>> expected;
    std::vector<float> output(static_cast<size_t>(testing::OutputCount(c)));
    const int8_t mult_shift = 0;
    const auto call = testing::CallOf<float>(c, data, output.data(), &mult_shift);
    std::set<std::string> distinct;
    for (int32_t image = 0; image < batch; ++image) {
      expected.push_back(LinesOf(testing::PrintedBy([&] { convolveOneImage(call, image); })));
      ASSERT_FALSE(expected.back().empty());
      for (const std::string& line :
           std::set<std::string>(expected[image].begin(), expected[image].end())) {
        ASSERT_TRUE(distinct.insert(line).second) << "images share a line";
      }
    }
    for (const auto& workers : AllWorkers()) {
      const auto printed = LinesOf(testing::SharedConvolution(c, data, workers.get()).lines);
      for (const auto& lines : expected) {
        const std::set<std::string> own(lines.begin(), lines.end());
        std::vector<std::string> of_image;
        std::copy_if(printed.begin(), printed.end(), std::back_inserter(of_image),
                     [&own](const std::string& line) { return own.count(line) > 0; });
        ASSERT_EQ(of_image, lines) << "batch of " << batch;
      }
    }
  }
}

TEST(ConvolveShared, RedLines) {
  Random random(0x4ed);
  for (const bool filter_per_image : {false, true}) {
    for (const int32_t side : {1, 3}) {
      Convolution c = Plain(7, 5, 20, side, side, 20);
      c.batch = 5;
      c.is_depthwise = true;
      c.filter_per_image = filter_per_image;
      c.accumulator_size = 12;
      auto data = testing::DrawConvolution<int32_t>(&random, c, testing::Data::kSmall, false);
      for (size_t i = 0; i < data.filter.size(); ++i) data.filter[i] = i % 2 == 0 ? 40 : 3;
      ASSERT_NO_FATAL_FAILURE(CheckShared<int32_t>(c, data, "corrected weights"));
    }
  }
}

}  // namespace
}  // namespace bitfold
