// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What becomes of sums that a bias of 64 bits is added to, narrow and wide: the loops of every
// target against the scalar rules, over sums at which something changes.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

#include "bitfold/int64_arithmetic.h"
#include "chain/layer_finish.h"
#include "chain/sum_output.h"
#include "support/bits.h"
#include "support/buffer.h"
#include "support/compare.h"
#include "support/ledger.h"
#include "support/random.h"
#include "support/targets.h"

namespace bitfold {
namespace {

using testing::Describe;
using testing::ExactBuffer;
using testing::Random;

// A tile of all channels of a layer, in rows of whole panels.
template <typename T>
struct Tile {
  int32_t channels;
  int32_t pixels;
  std::vector<int64_t> bias;
  std::vector<double> multipliers;
  RequantiseMode mode;
  std::vector<T> sums;

  int32_t lanes() const { return (channels + kPanel - 1) / kPanel * kPanel; }
  T Sum(int64_t i) const {
    return sums[static_cast<size_t>(i / channels * lanes() + i % channels)];
  }
  int32_t Finished(int64_t i) const {
    const auto channel = static_cast<size_t>(i % channels);
    const double multiplier = multipliers[multipliers.size() == 1 ? 0 : channel];
    const int64_t sum = WrapAdd64(Sum(i), bias[channel]);
    return ShiftAndClamp(Rescale(sum, ShiftedMultiplier(multiplier, 0), mode.rescaling), mode);
  }
};

template <typename Out, typename T>
::testing::AssertionResult Check(const Tile<T>& t) {
  const int64_t count = int64_t{t.pixels} * t.channels;
  ExactBuffer<Out> expected(count);
  for (int64_t i = 0; i < count; ++i) expected[i] = static_cast<Out>(t.Finished(i));
  const LayerFinishCall call = {
      t.channels,
      32,
      nullptr,
      Datapath<int32_t>(32, 0, false),
      t.multipliers.data(),
      t.multipliers.size() > 1,
      t.mode,
      std::is_same_v<Out, int8_t> ? StoredType::kInt8 : StoredType::kInt16,
      INT64_MAX,
      t.bias.data()};
  for (const auto& [target, name] : testing::SupportedTargets()) {
    const testing::ForcedTarget forced(target);
    const LayerFinish finish(call);
    const ExactBuffer<T> sums(t.sums);
    ExactBuffer<Out> actual(count);
    finish.Run(sums.data(), t.pixels, t.lanes(),
               StoredOutput{&finish, actual.data(), 0, t.channels, 0, t.channels});
    const auto same = testing::SameArrays(
        expected.data(), actual.data(), count, std::string("wide finish, ") + name, [&](int64_t i) {
          return Describe("sum", t.Sum(i), "bias", t.bias[static_cast<size_t>(i % t.channels)],
                          "rescaling", static_cast<int>(t.mode.rescaling));
        });
    if (!same) return same;
  }
  testing::Ran(testing::Path::kFinishWide);
  return ::testing::AssertionSuccess();
}

template <typename Types>
class WideFinish : public ::testing::Test {};

template <typename SumType, typename OutType>
struct Types {
  using Sum = SumType;
  using Out = OutType;
};
using AllTypes = ::testing::Types<Types<int32_t, int8_t>, Types<int32_t, int16_t>,
                                  Types<int64_t, int8_t>, Types<int64_t, int16_t>>;
TYPED_TEST_SUITE(WideFinish, AllTypes);

// Powers of two and their neighbours, ties of the rescaling, the ends; a bias that brings a sum
// back or takes it anywhere.
TYPED_TEST(WideFinish, EveryExponent) {
  using T = typename TypeParam::Sum;
  using Out = typename TypeParam::Out;
  Random random(0x64f1);
  constexpr int kBits = static_cast<int>(8 * sizeof(T));
  for (const Rescaling rescaling : {Rescaling::kShortMultiplier, Rescaling::kOneRounding}) {
    for (int exponent = -31; exponent <= 7; ++exponent) {
      Tile<T> t = {};
      t.channels = 2 * kPanel - random.Between(0, kPanel);
      t.pixels = 90;
      t.mode = {rescaling, 0, random.Between(-128, 127), std::numeric_limits<Out>::min(),
                std::numeric_limits<Out>::max()};
      for (int c = 0; c < t.channels; ++c) {
        const double fraction = c % 2 == 0 ? 0.5 : 0.5 + std::ldexp(random.Bits(), -33);
        t.multipliers.push_back(std::ldexp(fraction, exponent));
        const auto word = static_cast<int64_t>(uint64_t{random.Bits()} << 32 | random.Bits());
        t.bias.push_back(c % 3 == 0 ? word : word >> random.Between(20, 63));
      }
      if (random.Between(0, 3) == 0) t.multipliers.resize(1);
      for (int64_t i = 0; i < int64_t{t.pixels} * t.lanes(); ++i) {
        const auto c = std::min(static_cast<int32_t>(i % t.lanes()), t.channels - 1);
        const int64_t near = random.Between(-300, 300) * (int64_t{1} << std::max(0, -exponent));
        const int64_t power = int64_t{1} << random.Between(0, kBits - 2);
        const int64_t sum = i % 3 == 0 ? WrapSubtract64(near, t.bias[static_cast<size_t>(c)])
                                       : (random.Flag() ? power : -power) + random.Between(-2, 2);
        t.sums.push_back(i % 50 == 0 ? std::numeric_limits<T>::min() : static_cast<T>(sum));
      }
      ASSERT_TRUE((Check<Out, T>(t))) << exponent;
    }
  }
}

}  // namespace
}  // namespace bitfold
