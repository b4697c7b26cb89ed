// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The convolutions of a call by the chain engine against the definition, values and printed text:
// every path on every target over shapes around the tiles' sizes, lines from inside tiles, and
// memory that runs out.

#include "support/chain_convolution.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "support/scale.h"

namespace bitfold {
namespace {

using reference::Convolution;
using testing::ChainRecipe;
using testing::ChainRecipes;
using testing::CheckChains;
using testing::CheckRecipe;
using testing::ConvolutionData;
using testing::Path;
using testing::Plain;
using testing::Ran;
using testing::Random;

// ---- Every recipe over shapes ------------------------------------------------------------------

const std::vector<int> kOutChannels = {1,  2,  15, 16, 17, 31, 32, 33, 40,
                                       47, 48, 49, 63, 64, 65, 80, 129};

// A window of small extents, even ones and larger ones than the image among them.
Convolution DrawWindow(Random* random, int32_t width, int32_t in_channels, int32_t out_channels) {
  Convolution c = Plain(random->Between(1, 4), width, in_channels, random->Between(1, 4),
                        random->Between(1, 5), out_channels);
  c.stride_h = random->Pick<int32_t>({1, 1, 2, 3});
  c.stride_w = random->Pick<int32_t>({1, 1, 1, 2, 3});
  c.dilation_h = random->Pick<int32_t>({1, 1, 2});
  c.dilation_w = random->Pick<int32_t>({1, 1, 2, 3});
  c.same = random->Flag();
  c.batch = random->Pick<int32_t>({1, 1, 2, 3});
  return c;
}

// An ordinary window and one of a single tap, whose rows are one long one.
template <typename T>
void CheckShape(Random* random, const ChainRecipe& recipe, int32_t width, int32_t in_channels,
                int32_t out_channels) {
  Convolution c = DrawWindow(random, width, in_channels, out_channels);
  ASSERT_TRUE(CheckRecipe<T>(random, recipe, random->Flag(), c));
  if (random->Between(0, 3) != 0) return;
  c = Plain(random->Between(1, 3), width, in_channels, 1, 1, out_channels);
  c.same = random->Flag();
  ASSERT_TRUE(CheckRecipe<T>(random, recipe, random->Flag(), c));
}

const std::vector<int32_t> kInChannels = {1, 2, 3, 4, 5, 8, 9, 17, 34};

template <typename T>
void CrossOutChannels(uint64_t seed) {
  Random random(seed);
  int turn = 0;
  for (const ChainRecipe& recipe : ChainRecipes<T>()) {
    for (const int out_channels : kOutChannels) {
      if (++turn % testing::Step(7) != 0) continue;
      ASSERT_NO_FATAL_FAILURE(CheckShape<T>(&random, recipe, random.Between(1, 14),
                                            random.Pick(kInChannels), out_channels))
          << recipe.name;
    }
  }
}

template <typename T>
void CrossWidths(uint64_t seed) {
  Random random(seed);
  int turn = 0;
  for (const ChainRecipe& recipe : ChainRecipes<T>()) {
    for (const int32_t width : {1, 2, 3, 4, 5, 6, 7, 8, 9, 14, 22}) {
      if (++turn % testing::Step(3) != 0) continue;
      ASSERT_NO_FATAL_FAILURE(CheckShape<T>(&random, recipe, width, random.Pick(kInChannels),
                                            random.Pick(kOutChannels)))
          << recipe.name;
    }
  }
}

TEST(ChainConvolution, Int32OutChannels) { CrossOutChannels<int32_t>(0xc0a1); }
TEST(ChainConvolution, FloatOutChannels) { CrossOutChannels<float>(0xc0a2); }
TEST(ChainConvolution, Int32Widths) { CrossWidths<int32_t>(0xc0a3); }
TEST(ChainConvolution, FloatWidths) { CrossWidths<float>(0xc0a4); }

// Whole images of each recipe, so that each path is met with certainty, in all tile sizes.
template <typename T>
void CheckEveryRecipe(bool is_depthwise) {
  Random random(0xeec);
  for (const ChainRecipe& recipe : ChainRecipes<T>()) {
    for (const int32_t channels : {16, 47, 129}) {
      if (testing::kSanitized && channels > 47) continue;
      Convolution c = Plain(3, 9, is_depthwise ? channels : 5, 3, 3, channels);
      c.same = true;
      c.is_depthwise = is_depthwise;
      for (const bool has_elementwise : {false, true}) {
        ASSERT_TRUE(CheckRecipe<T>(&random, recipe, has_elementwise, c));
      }
    }
  }
}

TEST(ChainConvolution, EveryInt32Recipe) { CheckEveryRecipe<int32_t>(false); }
TEST(ChainConvolution, EveryFloatRecipe) { CheckEveryRecipe<float>(false); }
TEST(ChainConvolution, EveryDepthwiseInt32Recipe) { CheckEveryRecipe<int32_t>(true); }
TEST(ChainConvolution, EveryDepthwiseFloatRecipe) { CheckEveryRecipe<float>(true); }

// Accumulators of every width, each with numbers that obey and that do not.
template <typename T>
void CrossAccumulators(const std::vector<int>& widths) {
  Random random(0xacc);
  for (const int width : widths) {
    for (const int shift : {0, 1, 4, 7, 30, 31, 127, -1, -3, -128}) {
      for (ChainRecipe recipe : {ChainRecipe{"bits", {}, 0, 0, {-9, 9}, {-3, 3}, {-9, 9}},
                                 ChainRecipe{"bytes", {}, 0, 0, {-128, 127}, {-128, 127}, {-9, 9}},
                                 ChainRecipe{"shorts", {}, 0, 0, {-2000, 2000}, {-2000, 2000}, {}},
                                 ChainRecipe{"large", {}, 0, 0, {-99999, 99999}, {-99, 99}, {}}}) {
        recipe.width = width;
        recipe.shift = shift;
        Convolution c = DrawWindow(&random, random.Between(2, 8), 3, random.Pick(kOutChannels));
        c.batch = 1;
        ASSERT_TRUE(CheckChains(c, testing::DrawRecipe<T>(&random, recipe, random.Flag(), &c)));
      }
    }
  }
}

TEST(ChainConvolution, Int32Accumulators) {
  std::vector<int> widths;
  for (int width = 0; width <= 32; width += testing::Step(3)) widths.push_back(width);
  CrossAccumulators<int32_t>(widths);
}

TEST(ChainConvolution, FloatAccumulators) {
  std::vector<int> widths = {33, 40, 64, 128, 129, 1000};
  for (int width = 0; width <= 32; width += testing::Step(3)) widths.push_back(width);
  CrossAccumulators<float>(widths);
}

// 576 taps of bytes, weights as a trained layer's: most of them small. Wide accumulators of floats
// take the dot products.
TEST(ChainConvolution, RealisticWideFloatLayers) {
  Random random(0x4ea1);
  for (int width = 24; width <= 32; width += testing::Step(4)) {
    Convolution c = Plain(3, 8, 64, 3, 3, 20);
    c.same = true;
    c.accumulator_size = width;
    ConvolutionData<float> data;
    for (int64_t i = 0; i < testing::InputCount(c); ++i) {
      data.input.push_back(static_cast<float>(random.Between(0, 255)));
    }
    for (int64_t i = 0; i < testing::FilterCount(c); ++i) {
      int sum = 0;
      for (int k = 0; k < 4; ++k) sum += random.Between(-127, 127);
      const int quarter = sum / 4;
      data.filter.push_back(static_cast<float>(quarter));
    }
    ASSERT_TRUE(CheckChains(c, data, 0, [](Target target) {
      return std::optional<ChainPath>(target == Target::kAvx512Vnni ? ChainPath::kDotBytes
                                                                    : ChainPath::kDotShorts);
    }));
  }
}

// Ties and their neighbours under every divisor: a pixel's product with each of 16 weights.
TEST(ChainConvolution, EveryDivisorOverTies) {
  Random random(0xd17);
  for (int32_t divisor = -128; divisor <= 127; divisor += testing::Step(5)) {
    if (divisor == 0) continue;
    Convolution c = Plain(1, 600, 1, 1, 1, 16);
    c.accumulator_size = 20;
    c.mult_shift = divisor;
    ConvolutionData<float> data;
    const int32_t half = std::abs(divisor);  // of twice the product
    for (int32_t i = 0; i < 200; ++i) {
      const int32_t quotient =
          random.Pick<int32_t>({i, 524287 / half - i, random.Between(0, 4095)});
      const int32_t tie = std::abs(half * (2 * quotient + 1) / 2) % 524286;
      for (int32_t delta = -1; delta <= 1; ++delta) {
        data.input.push_back(static_cast<float>(random.Flag() ? tie + delta : -tie - delta));
      }
    }
    for (int i = 0; i < 16; ++i) data.filter.push_back(i % 3 == 0 ? -1.0f : 1.0f);
    ASSERT_TRUE(CheckChains(c, data, 0,
                            [](Target) { return std::optional<ChainPath>(ChainPath::kRounded); }));
  }
}

// An image whose padding would be far larger than itself is not padded.
TEST(ChainConvolution, HugePadding) {
  Random random(0xfa2);
  Convolution c = Plain(5, 4, 1, 3, 3, 3);
  c.same = true;
  c.dilation_h = c.dilation_w = 600;
  const ChainRecipe recipe = {"bytes", {}, 20, 0, {0, 255}, {-128, 127}, {0, 9}};
  ASSERT_TRUE(CheckChains(c, testing::DrawRecipe<int32_t>(&random, recipe, true, &c), 0,
                          [](Target) { return std::optional<ChainPath>(ChainPath::kModular); }));
  const auto data = testing::DrawRecipe<float>(&random, recipe, true, &c);
  ASSERT_TRUE(testing::CompareChains(
      c, data, 0, [](const std::optional<ChainPlan>& plan, Target) -> ::testing::AssertionResult {
        if (plan && plan->path != ChainPath::kDotBytes && plan->path != ChainPath::kDotShorts) {
          return ::testing::AssertionSuccess();
        }
        return ::testing::AssertionFailure() << "dot products";
      }));
}

// Of depthwise taps that lie far apart packed rows would be zeros for the most part.
TEST(ChainConvolution, DepthwiseTapsFarApart) {
  Random random(0x31de);
  Convolution c = Plain(1, 7, 100, 1, 3, 100);
  c.same = true;
  c.dilation_w = 8000;
  c.is_depthwise = true;
  const ChainRecipe recipe = {"bytes", {}, 20, 0, {0, 255}, {-128, 127}, {0, 9}};
  ASSERT_TRUE(CheckChains(c, testing::DrawRecipe<int32_t>(&random, recipe, true, &c), 0,
                          [](Target) { return std::optional<ChainPath>(ChainPath::kModular); }));
  ASSERT_TRUE(CheckChains(c, testing::DrawRecipe<float>(&random, recipe, true, &c), 0,
                          [](Target) { return std::optional<ChainPath>(ChainPath::kStepwise); }));
}

// What the engine leaves to the definition: windows that do not go forward, filters of no tap, few
// depthwise channels of large numbers.
TEST(ChainConvolution, LeftToTheDefinition) {
  Random random(0x1ef7);
  ChainRecipe recipe = {"bytes", {}, 20, 0, {0, 255}, {-128, 127}, {0, 9}};
  std::vector<Convolution> cases(6, Plain(4, 5, 2, 2, 3, 20));
  cases[0].stride_h = -1;
  cases[1].stride_w = -2;
  cases[2].dilation_h = 0;
  cases[3].dilation_w = -1;
  cases[4].filter_height = 0;
  cases[5].is_depthwise = true;
  cases[5].in_channels = cases[5].out_channels = 15;
  for (Convolution& c : cases) {
    if (&c == &cases[5]) recipe.input = {0, 65536};
    const auto data = testing::DrawRecipe<int32_t>(&random, recipe, true, &c);
    ASSERT_TRUE(CheckChains(c, data));
    HeapScratch scratch;
    EXPECT_FALSE(testing::ChainConvolution(c, data, 0, &scratch).plan) << testing::Describe(c);
  }
}

// ---- Images at the same time -------------------------------------------------------------------

template <typename T>
void CheckThreads(const ChainRecipe& recipe, Random* random) {
  for (const int32_t batch : {2, 20, 21, 41}) {
    if (testing::kSanitized && random->Between(0, 4) != 0) continue;
    Convolution c = Plain(3, 5, 3, 2, 3, 17);
    c.batch = batch;
    c.same = true;
    const auto data = testing::DrawRecipe<T>(random, recipe, true, &c);
    const auto defined = testing::DefinedConvolution(c, data);
    if (!defined.lines.empty()) return;  // whose order between images is open
    const auto threaded = testing::ThreadedConvolution(c, data, pthread_create);
    ASSERT_TRUE(testing::SameConvolutions(c, defined.values.data(), threaded.values.data(),
                                          std::string("image threads, ") + recipe.name));
    ASSERT_EQ(threaded.lines, "");
  }
}

TEST(ChainConvolution, SlotsOfThreads) {
  Random random(0x5107);
  for (const auto& [target, name] : testing::AllTargets()) {
    const testing::ForcedTarget forced(target);
    for (const ChainRecipe& recipe : ChainRecipes<int32_t>()) {
      ASSERT_NO_FATAL_FAILURE(CheckThreads<int32_t>(recipe, &random)) << name;
    }
    for (const ChainRecipe& recipe : ChainRecipes<float>()) {
      ASSERT_NO_FATAL_FAILURE(CheckThreads<float>(recipe, &random)) << name;
    }
  }
  Ran(Path::kChainSlots);
}

// ---- Lines from inside tiles -------------------------------------------------------------------

int64_t CountLines(const std::string& lines) {
  return std::count(lines.begin(), lines.end(), '\n');
}

struct Place {
  int32_t row, column, channel;
};

// Sums of ones: 47 channels are tiles of 32 and 16 that share one; 8 columns are, between the
// borders, tiles of 4 that share two.
Convolution SumOfOnes(bool is_depthwise) {
  Convolution c = Plain(3, 8, is_depthwise ? 47 : 2, 3, 3, 47);
  c.same = true;
  c.accumulator_size = 40;
  c.is_depthwise = is_depthwise;
  return c;
}

ConvolutionData<float> Ones(const Convolution& c) {
  const auto ones = [](int64_t count) {
    return std::vector<float>(static_cast<size_t>(count), 1.0f);
  };
  ConvolutionData<float> data = {ones(testing::InputCount(c)), ones(testing::FilterCount(c)),
                                 ones(testing::OutputCount(c))};
  data.elementwise[0] = 0.5f;  // a fraction, with which nothing is proven
  return data;
}

float& At(const Convolution& c, std::vector<float>* outputs, const Place& at) {
  return (*outputs)[static_cast<size_t>(
      (at.row * testing::OutWidth(c) + at.column) * c.out_channels + at.channel)];
}

// The additions to an output from its elementwise addend on, all of which print.
int64_t Additions(const Convolution& c, const Place& at) {
  const int64_t rows_below = at.row < 2 ? 1 : 0;
  const int64_t columns = at.column == 0 || at.column == 7 ? 2 : 3;
  return 1 + rows_below * columns * (c.is_depthwise ? 1 : c.in_channels);
}

void CheckLinesAt(const Convolution& c, const std::vector<Place>& places) {
  ConvolutionData<float> data = Ones(c);
  int64_t expected = 0;
  for (const Place& at : places) {
    At(c, &data.elementwise, at) = 9000000.0f;
    expected += Additions(c, at);
  }
  ASSERT_TRUE(CheckChains(c, data, 1,
                          [](Target) { return std::optional<ChainPath>(ChainPath::kStepwise); }));
  EXPECT_EQ(CountLines(testing::DefinedConvolution(c, data).lines), expected);
}

TEST(ChainConvolution, LinesOfOneOutput) {
  for (const bool is_depthwise : {false, true}) {
    const Convolution c = SumOfOnes(is_depthwise);
    for (const int32_t row : {0, 1, 2}) {
      for (const int32_t column : {0, 1, 2, 3, 4, 6, 7}) {
        for (const int32_t channel : {0, 1, 15, 16, 30, 31, 32, 46}) {
          ASSERT_NO_FATAL_FAILURE(CheckLinesAt(c, {{row, column, channel}}));
        }
      }
    }
  }
  Ran(Path::kChainReplay);
  Ran(Path::kChainReplayInOverlap);
}

// In the order of the definition, which is not that of the tiles.
TEST(ChainConvolution, LinesOfSeveralOutputs) {
  for (const bool is_depthwise : {false, true}) {
    const Convolution c = SumOfOnes(is_depthwise);
    CheckLinesAt(c, {{0, 0, 46}, {0, 1, 0}, {0, 7, 31}, {2, 0, 0}});
    CheckLinesAt(c, {{0, 0, 0}, {2, 7, 46}});
    CheckLinesAt(c, {{1, 3, 31}, {1, 4, 31}, {1, 3, 30}, {1, 4, 32}});
    std::vector<Place> all;
    for (int32_t i = 0; i < 3 * 8 * 47; ++i) all.push_back({i / 376, i / 47 % 8, i % 47});
    CheckLinesAt(c, all);
  }
}

// Without elementwise values: one weight of a channel, one pixel, and both in half precision.
TEST(ChainConvolution, LinesOfProducts) {
  for (const bool use_fp16_acc : {false, true}) {
    for (const int32_t column : {0, 3, 4, 7}) {
      for (const int32_t channel : {0, 16, 31, 46}) {
        Convolution c = Plain(2, 8, 2, 1, 1, 47);
        c.accumulator_size = 40;
        c.use_fp16_acc = use_fp16_acc;
        ConvolutionData<float> data = Ones(c);
        data.elementwise.clear();
        data.input[static_cast<size_t>(column * 2)] = 2999999.5f;
        data.filter[static_cast<size_t>(channel)] = 3.5f;
        ASSERT_TRUE(CheckChains(c, data, 2));
        EXPECT_EQ(CountLines(testing::DefinedConvolution(c, data).lines), use_fp16_acc ? 1 : 2);
      }
    }
  }
}

// The lower bound is in range and prints nothing; below it does.
TEST(ChainConvolution, LowerBoundPrintsNothing) {
  for (const float x : {-8388607.0f, -8388608.0f, 8388606.0f, 8388607.0f}) {
    Convolution c = Plain(1, 8, 1, 1, 1, 47);
    c.accumulator_size = 40;
    ConvolutionData<float> data = Ones(c);
    data.elementwise.clear();
    data.input[3] = x;
    data.input[5] = 0.5f;  // no proof
    ASSERT_TRUE(CheckChains(c, data));
    const bool prints = x < -8388607.0f || x >= 8388607.0f;
    EXPECT_EQ(CountLines(testing::DefinedConvolution(c, data).lines), prints ? 47 : 0);
  }
}

TEST(ChainConvolution, LinesOfNanAndInfinities) {
  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  for (const float x : {std::numeric_limits<float>::quiet_NaN(), kInfinity, -kInfinity}) {
    for (const bool use_fp16_acc : {false, true}) {
      for (const bool is_depthwise : {false, true}) {
        Convolution c = SumOfOnes(is_depthwise);
        c.use_fp16_acc = use_fp16_acc;
        ConvolutionData<float> data = Ones(c);
        data.input[data.input.size() / 2] = x;
        data.filter[data.filter.size() / 2] = 0.0f;  // 0 * infinity is NaN
        ASSERT_TRUE(CheckChains(c, data));
        EXPECT_NE(testing::DefinedConvolution(c, data).lines, "");
      }
    }
  }
}

// ---- Depthwise weights -------------------------------------------------------------------------

const char kRedLine[] =
    "\033[1;31mweights should be uint8 for DW, check predecessor has signed output, could cause "
    "degradation\033[0m\n";

// Fractions take the steps, whole numbers sums.
template <typename T>
void CheckRedLines(T input, int32_t same_width) {
  Convolution c = Plain(1, 8, 20, 3, 3, 20);
  c.same = true;
  c.stride_w = same_width;
  c.accumulator_size = 16;
  c.is_depthwise = true;
  for (int tap = 0; tap < 9; ++tap) {
    for (const int channel : {0, 15, 16, 19}) {
      ConvolutionData<T> data;
      data.input.assign(static_cast<size_t>(testing::InputCount(c)), input);
      data.filter.assign(static_cast<size_t>(testing::FilterCount(c)), T{127});
      data.filter[static_cast<size_t>(tap * 20 + channel)] = T{128};
      ASSERT_TRUE(CheckChains(c, data));
      // Only the middle row of the filter meets the image's one row.
      const bool is_seen = tap / 3 == 1;
      HeapScratch scratch;
      EXPECT_EQ(testing::ChainConvolution(c, data, 0, &scratch).lines, is_seen ? kRedLine : "");
    }
  }
}

TEST(ChainConvolution, RedLineOfWeightsThatMeetAnInput) {
  CheckRedLines<int32_t>(3, 1);
  CheckRedLines<int32_t>(3, 3);
  CheckRedLines<float>(3.0f, 1);
  CheckRedLines<float>(0.37f, 2);
}

// A filter for each image: each prints its own line, after those of its sums.
TEST(ChainConvolution, RedLineOfEachImage) {
  Random random(0x4ed1);
  for (const bool prints : {false, true}) {
    Convolution c = Plain(3, 6, 21, 2, 3, 18);
    c.batch = 4;
    c.accumulator_size = prints ? 40 : 16;
    c.is_depthwise = true;
    c.filter_per_image = true;
    const ChainRecipe recipe = {"", {}, c.accumulator_size, 0, {-9, 9}, {-9, 9}, {-9, 9}};
    auto data = testing::DrawRecipe<float>(&random, recipe, true, &c);
    const size_t filter = data.filter.size() / 4;
    for (const size_t image : {size_t{1}, size_t{3}}) {
      data.filter[image * filter + 40] = prints ? 600000.0f : 200.0f;
    }
    if (prints) {
      for (float& x : data.input) x *= 300.0f;
    }
    ASSERT_TRUE(CheckChains(c, data));
    const std::string lines = testing::DefinedConvolution(c, data).lines;
    EXPECT_EQ(lines.find("@@@") != std::string::npos, prints);
    EXPECT_NE(lines.find("DW"), std::string::npos);
  }
}

// Filters of fewer channels than a panel, in narrow numbers: several outputs are computed together,
// or a row that is shorter than that.
template <typename T>
void CrossFewChannels(uint64_t seed) {
  Random random(seed);
  for (const ChainRecipe& recipe : ChainRecipes<T>()) {
    if (recipe.path != ChainPath::kDotBytes && recipe.path != ChainPath::kDotShorts) continue;
    for (const int32_t channels : {1, 2, 3, 5, 8, 15}) {
      Convolution c =
          DrawWindow(&random, random.Between(1, 40), channels + random.Between(0, 2), channels);
      c.is_depthwise = true;
      c.filter_per_image = random.Flag();
      const auto data = testing::DrawRecipe<T>(&random, recipe, random.Flag(), &c);
      const bool is_known = testing::HasRecipe(c);
      ASSERT_TRUE(CheckChains(c, data, random.Between(0, 3), [&](Target target) {
        if (!is_known) return std::optional<ChainPath>();
        return testing::PathOn<T>(recipe, true, 0, target);
      })) << recipe.name;
    }
  }
}

TEST(ChainConvolution, FewDepthwiseInt32Channels) { CrossFewChannels<int32_t>(0xfe31); }
TEST(ChainConvolution, FewDepthwiseFloatChannels) { CrossFewChannels<float>(0xfe32); }

template <typename T>
void CrossDepthwise(uint64_t seed) {
  Random random(seed);
  int turn = 0;
  for (const ChainRecipe& recipe : ChainRecipes<T>()) {
    for (const int32_t channels : {1, 15, 16, 17, 31, 32, 33, 47, 64, 65}) {
      if (++turn % testing::Step(3) != 0) continue;
      Convolution c =
          DrawWindow(&random, random.Between(1, 14), channels + random.Between(0, 2), channels);
      c.is_depthwise = true;
      c.filter_per_image = random.Flag();
      ASSERT_TRUE(CheckRecipe<T>(&random, recipe, random.Flag(), c));
    }
  }
}

// Windows of 1 to 7 taps a side by strides of 1 to 4 and dilations of 1 and 2, which put the taps
// of a row in one to four phases, on rows shorter and longer than a window.
template <typename T>
void CrossDepthwiseWindows(uint64_t seed) {
  Random random(seed);
  const auto recipes = ChainRecipes<T>();
  const auto bytes = std::find_if(recipes.begin(), recipes.end(), [](const ChainRecipe& recipe) {
    return recipe.path == ChainPath::kDotBytes;
  });
  ASSERT_NE(bytes, recipes.end());
  for (const int32_t taps : {1, 2, 3, 4, 5, 7}) {
    for (const int32_t stride : {1, 2, 3, 4}) {
      for (const int32_t dilation : {1, 2}) {
        const int32_t channels = random.Pick<int32_t>({8, 16, 24, 40, 64, 96, 130});
        Convolution c = Plain(random.Between(1, 9), random.Between(1, 19), channels,
                              random.Between(1, 3), taps, channels);
        c.same = true;
        c.is_depthwise = true;
        c.stride_h = random.Between(1, 3);
        c.stride_w = stride;
        c.dilation_h = random.Between(1, 2);
        c.dilation_w = dilation;
        ASSERT_TRUE(CheckRecipe<T>(&random, *bytes, random.Flag(), c));
      }
    }
  }
}

TEST(ChainConvolution, DepthwiseInt32Windows) { CrossDepthwiseWindows<int32_t>(0xd3b1); }
TEST(ChainConvolution, DepthwiseFloatWindows) { CrossDepthwiseWindows<float>(0xd3b2); }

TEST(ChainConvolution, DepthwiseInt32Shapes) { CrossDepthwise<int32_t>(0xd3a1); }
TEST(ChainConvolution, DepthwiseFloatShapes) { CrossDepthwise<float>(0xd3a2); }

// ---- Memory that runs out ----------------------------------------------------------------------

// Each request in turn is refused: the definition does it.
template <typename T>
void CheckFailures(const ChainRecipe& recipe, bool is_depthwise, int32_t channels, Random* random) {
  Convolution c = Plain(4, 6, is_depthwise ? channels : 3, 2, 3, channels);
  c.is_depthwise = is_depthwise;
  c.batch = 2;
  const auto data = testing::DrawRecipe<T>(random, recipe, true, &c);
  const auto defined = testing::DefinedConvolution(c, data);
  testing::FailingScratch all(-1);
  ASSERT_TRUE(testing::ChainConvolution(c, data, 0, &all).plan);
  for (int failing = 0; failing < all.requests(); ++failing) {
    testing::FailingScratch scratch(failing);
    const auto actual = testing::ChainConvolution(c, data, 0, &scratch);
    EXPECT_FALSE(actual.plan) << recipe.name << ": request " << failing;
    ASSERT_TRUE(testing::SameAsDefined(c, defined, actual, recipe.name));
  }
}

template <typename T>
void CheckFailuresOfEveryRecipe() {
  Random random(0x3e3);
  for (const auto& [target, name] : testing::AllTargets()) {
    const testing::ForcedTarget forced(target);
    for (const ChainRecipe& recipe : ChainRecipes<T>()) {
      for (const int32_t channels : {3, 16, 20}) {
        ASSERT_NO_FATAL_FAILURE(CheckFailures<T>(recipe, false, channels, &random)) << name;
        if (channels < 16) continue;
        ASSERT_NO_FATAL_FAILURE(CheckFailures<T>(recipe, true, channels, &random)) << name;
      }
    }
  }
  Ran(Path::kChainNoMemory);
}

TEST(ChainConvolution, Int32WithoutMemory) { CheckFailuresOfEveryRecipe<int32_t>(); }
TEST(ChainConvolution, FloatWithoutMemory) { CheckFailuresOfEveryRecipe<float>(); }

}  // namespace
}  // namespace bitfold
