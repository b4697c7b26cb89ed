// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The quiet steps of the device's chains against the oracle: what one of them says to be quiet has
// the oracle's bits and prints nothing, and it says so of all sums that are far from every limit.

#include "bitfold/device_chain.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "reference/device.h"
#include "support/compare.h"
#include "support/ledger.h"
#include "support/random.h"
#include "support/scale.h"
#include "support/tables.h"

namespace bitfold {
namespace {

using testing::Describe;
using testing::Random;

template <typename T>
DeviceDatapath<T> DatapathOf(int width, int shift, bool use_fp16_acc) {
  const AccumulatorLimits<T> limits(width);
  return {limits.min, limits.max, shift, use_fp16_acc};
}

template <typename T>
struct Arithmetic {
  int width;
  int shift;
  bool use_fp16_acc;
};

template <typename T>
struct Factors {
  T a;
  T b;
};

// Small whole numbers, fractions and corners, and what takes the sum to the neighbourhood of a
// limit.
Factors<float> DrawFactors(Random* random, float acc, const Arithmetic<float>& arithmetic) {
  switch (random->Between(0, 4)) {
    case 0:
      return {testing::Draw<float>(random, testing::Data::kCorners),
              testing::Draw<float>(random, testing::Data::kCorners)};
    case 1:
      return {static_cast<float>(random->Between(-300, 300)) / 64.0f,
              static_cast<float>(random->Between(-300, 300)) / 32.0f};
    case 2: {
      const float limit = random->Pick<float>(
          {std::ldexp(1.0f, arithmetic.width - 1), 32768.0f, 4194304.0f, 8388607.0f});
      const float target = (random->Flag() ? limit : -limit) + random->Pick<float>({-1, -.5, 0, 1});
      const float divisor = arithmetic.shift == 0 ? 1.0f : static_cast<float>(arithmetic.shift);
      return {random->Flag() ? target : target - acc, divisor};
    }
    default:
      return {static_cast<float>(random->Between(-300, 300)),
              static_cast<float>(random->Between(-300, 300))};
  }
}

Factors<int32_t> DrawFactors(Random* random, int32_t acc, const Arithmetic<int32_t>& arithmetic) {
  const testing::Data data =
      random->Pick<testing::Data>({testing::Data::kSmall, testing::Data::kCorners});
  if (random->Between(0, 2) != 0) {
    return {testing::Draw<int32_t>(random, data), testing::Draw<int32_t>(random, data)};
  }
  const int32_t limit = ShiftLeft(1, arithmetic.width - 1);
  const int32_t end = random->Flag() ? limit : WrapSubtract(0, limit);
  const int32_t target = WrapAdd(end, random->Between(-2, 2));
  return {WrapSubtract(target, acc), ShiftLeft(1, arithmetic.shift)};
}

struct Steps {
  int quiet = 0;
  int loud = 0;
};

// Chains of 50 steps from 0, each step from where the oracle is.
template <typename Chain, typename T>
void CheckChain(const Arithmetic<T>& arithmetic, Steps* steps) {
  const auto [width, shift, use_fp16_acc] = arithmetic;
  const DeviceDatapath<T> datapath = DatapathOf<T>(width, shift, use_fp16_acc);
  const Chain chain(datapath);
  Random random(0xc4a1);
  for (int i = 0; i < 150; i += testing::Step(11)) {
    T acc{0};
    for (int step = 0; step < 50; ++step) {
      const Factors<T> factors = DrawFactors(&random, acc, arithmetic);
      std::string lines;
      const T expected = reference::DeviceAccumulate(
          acc, reference::ScaledProduct(factors.a, factors.b, shift), width, use_fp16_acc, &lines);
      typename Chain::State state = chain.Enter(acc);
      chain.Add(factors.a, factors.b, &state);
      const T actual = chain.Leave(state);
      ++(chain.IsQuiet(state) ? steps->quiet : steps->loud);
      if (chain.IsQuiet(state)) {
        const std::string where =
            Describe("acc", acc, "a", factors.a, "b", factors.b, "width", width, "shift", shift);
        ASSERT_TRUE(testing::Same(expected, actual, "a quiet step", where));
        ASSERT_EQ(lines, "") << where;
      }
      acc = expected;
    }
  }
}

const std::vector<int>& FloatWidths() {
  static const std::vector<int> widths = {-5, 0, 1, 8, 12, 22, 23, 24, 25, 26, 31, 127, 128, 129};
  return widths;
}

template <typename Division>
void CheckFloats(const std::vector<int>& shifts) {
  Steps sums;
  Steps halves;
  for (const int shift : shifts) {
    for (const int width : FloatWidths()) {
      CheckChain<QuietFloatChain<Division>, float>({width, shift, false}, &sums);
    }
    CheckChain<QuietHalfChain<Division>, float>({24, shift, true}, &halves);
  }
  for (const Steps& steps : {sums, halves}) {
    EXPECT_GT(steps.quiet, 1000 / testing::Step(11));
    EXPECT_GT(steps.loud, 1000 / testing::Step(11));
  }
}

TEST(DeviceChain, FloatsWithoutDivision) { CheckFloats<NoDivision>({0}); }

TEST(DeviceChain, FloatsDividedByPowers) {
  CheckFloats<DivisionByPower>({1, 2, 4, 8, 64, -1, -2, -16, -128});
}

TEST(DeviceChain, FloatsDividedByOthers) {
  CheckFloats<DivisionByAny>({3, 5, 6, 7, 30, 31, 100, 127, -3, -7, -127});
}

TEST(DeviceChain, PowersAreFound) {
  for (int shift = INT8_MIN; shift <= INT8_MAX; ++shift) {
    bool is_power = false;
    for (int power = 1; power <= 128; power *= 2) is_power |= shift == power || shift == -power;
    EXPECT_EQ(DivisionByPower::Divides(shift), is_power) << shift;
  }
}

TEST(DeviceChain, Integers) {
  Steps steps;
  Steps wrapping;
  for (const int width : {-200, -5, 0, 1, 2, 8, 16, 24, 30, 31, 32}) {
    CheckChain<QuietIntegerChain<false>, int32_t>({width, 0, false}, &steps);
    for (const int shift : {1, 2, 7, 30, 31, 32, 33, -1, -32, INT8_MAX, INT8_MIN}) {
      CheckChain<QuietIntegerChain<true>, int32_t>({width, shift, false}, &steps);
      CheckChain<WrappingIntegerChain<true>, int32_t>({width, shift, false}, &wrapping);
    }
    CheckChain<WrappingIntegerChain<false>, int32_t>({width, 0, false}, &wrapping);
  }
  for (const Steps& each : {steps, wrapping}) {
    EXPECT_GT(each.quiet, 1000 / testing::Step(11));
    EXPECT_GT(each.loud, 1000 / testing::Step(11));
  }
}

// Several steps, one reduction: wraps on the way leave no trace.
TEST(DeviceChain, WrapsAreMadeAtOnce) {
  const auto datapath = DatapathOf<int32_t>(8, 0, false);
  const WrappingIntegerChain<false> chain(datapath);
  auto state = chain.Enter(100);
  int32_t expected = 100;
  for (const int32_t addend : {100, 100, -256, 256, -5, 127}) {
    chain.Add(addend, 1, &state);
    expected = reference::DeviceAccumulate(expected, addend, 8, false, nullptr);
    EXPECT_TRUE(chain.IsQuiet(state));
    EXPECT_EQ(chain.Leave(state), expected);
  }
  chain.Add(257, 1, &state);
  EXPECT_FALSE(chain.IsQuiet(state));
  EXPECT_FALSE(chain.IsQuiet(chain.Enter(128)));
}

// Sums that keep away from every limit are quiet, or kernels would make all of them twice.
TEST(DeviceChain, SumsAwayFromLimitsAreQuiet) {
  const auto is_quiet = [](const auto& chain, auto a, auto b) {
    auto state = chain.Enter(a);
    chain.Add(a, b, &state);
    return chain.IsQuiet(state);
  };
  for (const float a : {0.0f, 1.0f, -100.0f, 1000.0f}) {
    const float b = 2.5f;
    EXPECT_TRUE(is_quiet(QuietFloatChain<NoDivision>(DatapathOf<float>(16, 0, false)), a, b));
    EXPECT_TRUE(is_quiet(QuietFloatChain<DivisionByPower>(DatapathOf<float>(16, 4, false)), a, b));
    EXPECT_TRUE(is_quiet(QuietFloatChain<DivisionByAny>(DatapathOf<float>(16, 5, false)), a, b));
    EXPECT_TRUE(is_quiet(QuietHalfChain<NoDivision>(DatapathOf<float>(16, 0, true)), a, b));
    EXPECT_TRUE(is_quiet(QuietHalfChain<DivisionByPower>(DatapathOf<float>(16, 4, true)), a, b));
    EXPECT_TRUE(is_quiet(QuietHalfChain<DivisionByAny>(DatapathOf<float>(16, 5, true)), a, b));
    const auto n = static_cast<int32_t>(a);
    EXPECT_TRUE(is_quiet(QuietIntegerChain<false>(DatapathOf<int32_t>(16, 0, false)), n, 3));
    EXPECT_TRUE(is_quiet(QuietIntegerChain<true>(DatapathOf<int32_t>(16, 4, false)), n, 3));
  }
  // The least number of the range is in it; of 32 bits all are.
  EXPECT_TRUE(is_quiet(QuietIntegerChain<false>(DatapathOf<int32_t>(8, 0, false)), -128, 0));
  EXPECT_TRUE(is_quiet(QuietIntegerChain<false>(DatapathOf<int32_t>(32, 0, false)), INT32_MIN, 7));
}

}  // namespace
}  // namespace bitfold
