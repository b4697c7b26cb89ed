// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What becomes of a layer's sums: the loops of every target against the scalar rules one after the
// other, over sums at which something changes.

#include "chain/layer_finish.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

#include "bitfold/HRequantise.h"
#include "chain/stored_output.h"
#include "chain/sum_output.h"
#include "support/bits.h"
#include "support/buffer.h"
#include "support/compare.h"
#include "support/ledger.h"
#include "support/random.h"
#include "support/scale.h"
#include "support/tables.h"
#include "support/targets.h"

namespace bitfold {
namespace {

using testing::Describe;
using testing::ExactBuffer;
using testing::Path;
using testing::Ran;
using testing::Random;

// A tile of a layer: `pixels` positions of `channels` of the layer's channels, `first` on, in rows
// of whole panels.
struct Tile {
  int32_t layer_channels;
  int32_t first;
  int32_t channels;
  int32_t pixels;
  int32_t bits = 32;
  int32_t width = 32;
  int32_t shift = 0;
  std::vector<int32_t> bias;  // of the layer; empty: none
  std::vector<double> multipliers;
  RequantiseMode mode = {};
  std::vector<int32_t> sums;  // [pixels][lanes]

  int32_t lanes() const { return (channels + kPanel - 1) / kPanel * kPanel; }

  size_t Channel(int64_t i) const { return static_cast<size_t>(first + i % channels); }
  int32_t Sum(int64_t i) const {
    return sums[static_cast<size_t>(i / channels * lanes() + i % channels)];
  }
  double Multiplier(int64_t i) const {
    return multipliers.size() == 1 ? multipliers[0] : multipliers[Channel(i)];
  }
};

// By the scalar rules: sign-extended by arithmetic, accumulated.
int32_t SumWithBias(const Tile& t, int64_t i) {
  const int64_t period = int64_t{1} << t.bits;
  const int64_t low = ((int64_t{t.Sum(i)} % period) + period) % period;
  const auto sum = static_cast<int32_t>(low >= period / 2 ? low - period : low);
  if (t.bias.empty()) return sum;
  const Datapath<int32_t> datapath(t.width, static_cast<int8_t>(t.shift), false);
  return datapath.Accumulate(sum, datapath.ScaleProduct(t.bias[t.Channel(i)]));
}

// Rescaled, clamped.
int32_t Finished(const Tile& t, int64_t i) {
  const ChannelMultiplier multiplier = ShiftedMultiplier(t.Multiplier(i), t.mode.shift);
  return ShiftAndClamp(Rescale(SumWithBias(t, i), multiplier, t.mode.rescaling), t.mode);
}

int64_t LargestSum(const Tile& t) {
  int64_t largest = 0;
  for (int64_t i = 0; i < int64_t{t.pixels} * t.channels; ++i) {
    largest = std::max(largest, std::abs(int64_t{SumWithBias(t, i)}));
  }
  return largest;
}

constexpr int32_t kPosition = 3;  // of the tile in the output
constexpr int32_t kStride = 5;    // more than the layer's channels

// The whole output, what lies around the tile included.
template <typename Out>
ExactBuffer<Out> Expected(const Tile& t) {
  const int32_t stride = t.layer_channels + kStride;
  ExactBuffer<Out> out(int64_t{kPosition + t.pixels} * stride);
  for (int64_t i = 0; i < int64_t{t.pixels} * t.channels; ++i) {
    out[(kPosition + i / t.channels) * stride + static_cast<int64_t>(t.Channel(i))] =
        static_cast<Out>(Finished(t, i));
  }
  return out;
}

template <typename Out>
::testing::AssertionResult Check(const Tile& t) {
  const ExactBuffer<Out> expected = Expected<Out>(t);
  const int32_t stride = t.layer_channels + kStride;
  const LayerFinishCall call = {
      t.layer_channels,
      t.bits,
      t.bias.empty() ? nullptr : t.bias.data(),
      Datapath<int32_t>(t.width, static_cast<int8_t>(t.shift), false),
      t.multipliers.data(),
      t.multipliers.size() > 1,
      t.mode,
      std::is_same_v<Out, int8_t> ? StoredType::kInt8 : StoredType::kInt16,
      LargestSum(t)};
  for (const auto& [target, name] : testing::SupportedTargets()) {
    const testing::ForcedTarget forced(target);
    const LayerFinish finish(call);
    const ExactBuffer<int32_t> sums(t.sums);
    ExactBuffer<Out> actual(expected.count());
    FinishTile(sums.data(), t.pixels, t.lanes(),
               StoredOutput{&finish, actual.data(), kPosition, stride, t.first, t.channels});
    const auto same =
        testing::SameArrays(expected.data(), actual.data(), expected.count(),
                            std::string("finish, ") + name, [&](int64_t i) {
                              const int64_t channel = i % stride - t.first;
                              const int64_t pixel = i / stride - kPosition;
                              if (pixel < 0 || channel < 0 || channel >= t.channels)
                                return std::string("outside");
                              const int64_t at = pixel * t.channels + channel;
                              return Describe("sum", t.Sum(at), "bits", t.bits, "width", t.width,
                                              "bias", t.bias.empty() ? 0 : t.bias[t.Channel(at)],
                                              "rescaling", static_cast<int>(t.mode.rescaling)) +
                                     std::to_string(t.Multiplier(at));
                            });
    if (!same) return same;
    Ran(testing::OnTarget(Path::kFinishPortable, target));
  }
  return ::testing::AssertionSuccess();
}

template <typename Out>
RequantiseMode ModeOf(Rescaling rescaling, int32_t zero_point) {
  using Limits = std::numeric_limits<Out>;
  return {rescaling, 0, zero_point, Limits::min(), Limits::max()};
}

constexpr Rescaling kRescalings[] = {Rescaling::kTwoRoundings, Rescaling::kShortMultiplier,
                                     Rescaling::kOneRounding};

template <typename Out>
class LayerFinishOf : public ::testing::Test {};
using Outs = ::testing::Types<int8_t, int16_t>;
TYPED_TEST_SUITE(LayerFinishOf, Outs);

// Each boundary by each exponent, with the least mantissa and a drawn one: most are far from the
// output's type, so a zero point at either end brings both sides of the clamp.
TYPED_TEST(LayerFinishOf, BoundariesOfEveryExponent) {
  using Out = TypeParam;
  Random random(0xf1a1);
  const std::vector<int32_t> boundaries = testing::Int32Boundaries();
  for (const Rescaling rescaling : kRescalings) {
    const int highest = rescaling == Rescaling::kShortMultiplier ? 7 : 31;
    for (int exponent = -31; exponent <= highest; ++exponent) {
      Tile t = {};
      t.layer_channels = t.channels = 2 * kPanel;
      t.pixels = static_cast<int32_t>(boundaries.size());
      t.bits = t.width = 32;
      t.mode = ModeOf<Out>(rescaling, random.Between(-128, 127));
      for (int c = 0; c < t.channels; ++c) {
        const double fraction = c < kPanel ? 0.5 : 0.5 + std::ldexp(random.Bits(), -33);
        t.multipliers.push_back(std::ldexp(fraction, exponent));
      }
      for (const int32_t sum : boundaries) t.sums.insert(t.sums.end(), 2 * kPanel, sum);
      ASSERT_TRUE(Check<Out>(t)) << exponent;
      if (exponent < -8) continue;
      for (int32_t& sum : t.sums) sum = random.Between(-40000, 40000) >> random.Between(0, 16);
      ASSERT_TRUE(Check<Out>(t)) << exponent;
    }
  }
}

// Sums at and beside the ties of a multiplier: odd multiples of half its inverse.
TYPED_TEST(LayerFinishOf, Ties) {
  using Out = TypeParam;
  Random random(0x71e);
  for (const Rescaling rescaling : kRescalings) {
    for (int exponent = -22; exponent <= 0; ++exponent) {
      Tile t = {};
      t.layer_channels = t.channels = kPanel;
      t.pixels = 64;
      t.bits = t.width = 32;
      t.mode = ModeOf<Out>(rescaling, 0);
      t.multipliers.push_back(std::ldexp(0.5, exponent));
      const int64_t half = int64_t{1} << -exponent;
      for (int i = 0; i < t.pixels * kPanel; ++i) {
        const int64_t tie = (2 * random.Between(-150, 150) + 1) * half;
        t.sums.push_back(static_cast<int32_t>(tie + random.Between(-1, 1)));
      }
      ASSERT_TRUE(Check<Out>(t)) << exponent;
    }
  }
}

// Sums and terms up to the bounds within which two roundings take one sum less, ties among them;
// and beyond.
TYPED_TEST(LayerFinishOf, TwoRoundingsOfModestSums) {
  using Out = TypeParam;
  using Limits = std::numeric_limits<Out>;
  Random random(0x30de);
  constexpr int32_t kMost = (1 << 30) - 1;
  for (int exponent = -31; exponent <= 1; ++exponent) {
    for (const int32_t most : {40, 1 << 20, kMost, kMost + 1}) {
      for (const int32_t zero_point :
           {0, 1, -1, int32_t{Limits::min()}, int32_t{Limits::max()}, 1 << 6, -(1 << 4)}) {
        Tile t = {};
        t.layer_channels = t.channels = 2 * kPanel - 3;
        t.pixels = 40;
        t.mode = ModeOf<Out>(Rescaling::kTwoRoundings, zero_point);
        if (random.Flag()) t.mode.minimum = random.Between(Limits::min(), 0);
        if (random.Flag()) t.mode.maximum = random.Between(0, Limits::max());
        for (int c = 0; c < t.channels; ++c) {
          const double fraction = c % 3 == 0   ? 0.5
                                  : c % 3 == 1 ? 1 - 0x1p-31
                                               : 0.5 + std::ldexp(random.Bits(), -33);
          t.multipliers.push_back(std::ldexp(fraction, exponent));
        }
        const int64_t half = int64_t{1} << std::max(0, -exponent);
        for (int i = 0; i < t.pixels * t.lanes(); ++i) {
          const int64_t tie = (2 * random.Between(-300, 300) + 1) * half + random.Between(-1, 1);
          const int64_t sum = i % 3 == 0   ? tie
                              : i % 3 == 1 ? int64_t{random.Flag() ? most : -most}
                                           : random.Between(-most, most);
          t.sums.push_back(static_cast<int32_t>(std::clamp<int64_t>(sum, -most, most)));
        }
        if (random.Flag()) {
          t.width = 32;
          for (int c = 0; c < t.channels; ++c) t.bias.push_back(random.Between(-5, 5));
          for (int32_t& sum : t.sums) sum -= sum / (1 << 20);
        }
        ASSERT_TRUE(Check<Out>(t)) << exponent << " " << most << " " << zero_point;
      }
    }
  }
  if (IsSupported(Target::kAvx512)) Ran(Path::kFinishModest);
}

// Sums that lie around every bound of an accumulator, of its bits and wider, plus any bias.
TYPED_TEST(LayerFinishOf, WrapsOfEveryWidth) {
  using Out = TypeParam;
  Random random(0x3a9);
  const std::vector<int32_t> boundaries = testing::Int32Boundaries();
  for (int32_t width = 1; width <= 32; ++width) {
    for (const int32_t bits : {width, 32}) {
      for (const int32_t shift : {0, 1, 7, 31}) {
        Tile t = {};
        t.layer_channels = t.channels = 2 * kPanel;
        t.pixels = static_cast<int32_t>(boundaries.size());
        t.bits = bits;
        t.width = width;
        t.shift = shift;
        t.mode = ModeOf<Out>(kRescalings[random.Between(0, 2)], 0);
        t.multipliers.push_back(std::ldexp(0.75, std::max(-31, 9 - width)));
        for (int c = 0; c < t.channels; ++c) t.bias.push_back(random.Pick(boundaries));
        for (const int32_t sum : boundaries) t.sums.insert(t.sums.end(), 2 * kPanel, sum);
        ASSERT_TRUE(Check<Out>(t)) << width;
      }
    }
  }
}

// Panels that are not full, tiles within a layer, what lies beside them, one multiplier for all.
TYPED_TEST(LayerFinishOf, PartsOfALayer) {
  using Out = TypeParam;
  using Limits = std::numeric_limits<Out>;
  Random random(0x9a27);
  for (const Rescaling rescaling : kRescalings) {
    for (int32_t channels = 1; channels <= 50; channels += testing::Step(7)) {
      for (const int32_t first : {0, kPanel, 3 * kPanel}) {
        Tile t = {};
        t.layer_channels = first + channels + random.Between(0, 1) * kPanel;
        t.first = first;
        t.channels = channels;
        t.pixels = random.Between(1, 9);
        t.bits = random.Between(1, 32);
        t.width = random.Between(1, 32);
        t.mode = ModeOf<Out>(rescaling, random.Between(Limits::min(), Limits::max()));
        t.mode.shift = random.Between(0, 3);
        t.mode.minimum = random.Between(Limits::min(), 0);
        t.mode.maximum = random.Between(0, Limits::max());
        const int32_t multipliers = random.Flag() ? t.layer_channels : 1;
        for (int32_t c = 0; c < multipliers; ++c) {
          const double zero = random.Between(0, 9) == 0 ? 0.0 : 1.0;
          t.multipliers.push_back(zero * std::ldexp(0.9, random.Between(-20, 4)));
        }
        for (int32_t c = 0; c < t.layer_channels && random.Between(0, 40) != 0; ++c) {
          t.bias.push_back(static_cast<int32_t>(random.Bits()) >> random.Between(0, 31));
        }
        if (t.bias.size() < static_cast<size_t>(t.layer_channels)) t.bias.clear();
        for (int32_t i = 0; i < t.pixels * t.lanes(); ++i) {
          t.sums.push_back(static_cast<int32_t>(random.Bits()) >> random.Between(0, 31));
        }
        ASSERT_TRUE(Check<Out>(t)) << channels;
      }
    }
  }
}

}  // namespace
}  // namespace bitfold
