// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HRequantise: worked examples; the rules and the definition against the oracle; and the vector
// loops of every target against the definition.

#include "bitfold/HRequantise.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "support/compare.h"
#include "support/int64.h"
#include "support/ledger.h"
#include "support/random.h"
#include "support/requantise_case.h"
#include "support/scale.h"
#include "support/tables.h"
#include "support/targets.h"
#include "support/workers.h"

namespace bitfold {
namespace {

using testing::Describe;
using testing::Path;
using testing::Ran;
using testing::Random;
using testing::RequantiseCase;
using testing::Same;

constexpr int32_t kLeast = 1 << 30;  // the mantissa of a half
constexpr int32_t kMost = INT32_MAX;
constexpr int32_t kMin = INT32_MIN;

// ---- The multiplier ----------------------------------------------------------------------------

TEST(Requantise, MultiplierExamples) {
  const auto expect = [](double multiplier, int32_t mantissa, int32_t exponent) {
    const FixedMultiplier fixed = QuantiseMultiplier(multiplier);
    EXPECT_EQ(fixed.mantissa, mantissa) << multiplier;
    EXPECT_EQ(fixed.exponent, exponent) << multiplier;
  };
  expect(0.0, 0, 0);
  expect(0.5, kLeast, 0);
  expect(3.0, 3 << 29, 2);
  expect(1.0 - std::ldexp(1.0, -31), kMost, 0);
  expect(1.0 - std::ldexp(1.0, -32), kLeast, 1);  // a half more: up, and carried
  expect(std::nextafter(1.0 - std::ldexp(1.0, -32), 0.0), kMost, 0);
  expect(std::ldexp(1.0, -32), kLeast, -31);
  expect(std::nextafter(std::ldexp(1.0, -32), 0.0), kLeast, -31);  // carried into the range
  expect(std::ldexp(1.0 - std::ldexp(1.0, -31), -32), 0, 0);
  expect(std::numeric_limits<double>::denorm_min(), 0, 0);
  expect(std::numeric_limits<double>::max(), kLeast, 1025);
}

double DoubleOf(uint64_t word) {
  double x;
  std::memcpy(&x, &word, sizeof(x));
  return x;
}

TEST(Requantise, MultipliersAgainstTheOracle) {
  Random random(0x30f1);
  std::vector<double> values;
  for (int exponent = -1074; exponent <= 1023; ++exponent) {
    for (const double x : {1.0, 1.0 + std::ldexp(1.0, -31), 2.0 - std::ldexp(1.0, -31),
                           2.0 - std::ldexp(1.0, -30), 1.0 + std::ldexp(3.0, -32)}) {
      const double value = std::ldexp(x, exponent);
      if (!std::isfinite(value)) continue;
      for (const double y : {value, std::nextafter(value, 0.0), std::nextafter(value, 2 * value)}) {
        if (std::isfinite(y)) values.push_back(y);
      }
    }
  }
  for (int i = 0; i < 20000 / testing::Step(7); ++i) {
    const uint64_t word = uint64_t{random.Bits()} << 32 | random.Bits();
    const double any = DoubleOf(word & INT64_MAX);
    if (std::isfinite(any)) values.push_back(any);
    values.push_back(std::ldexp(1.0 + std::ldexp(random.Bits(), -32), random.Between(-34, 34)));
  }
  for (const double x : values) {
    const reference::FixedPoint expected = reference::ToFixedPoint(x);
    const FixedMultiplier actual = QuantiseMultiplier(x);
    ASSERT_EQ(expected.mantissa, actual.mantissa) << std::hexfloat << x;
    ASSERT_EQ(expected.exponent, actual.exponent) << std::hexfloat << x;
  }
}

// ---- The rescalings ----------------------------------------------------------------------------

TEST(Requantise, TwoRoundingsExamples) {
  EXPECT_EQ(DoubledProductHigh(3, kLeast), 2);
  EXPECT_EQ(DoubledProductHigh(-3, kLeast), -1);  // up, not away from zero
  EXPECT_EQ(DoubledProductHigh(kMin, kMost), -kMost);
  EXPECT_EQ(DivideByPowerOfTwo(3, 1), 2);
  EXPECT_EQ(DivideByPowerOfTwo(-3, 1), -2);  // away from zero
  EXPECT_EQ(DivideByPowerOfTwo(kMin, 0), kMin);
  EXPECT_EQ(DivideByPowerOfTwo(kMin, 31), -1);
  EXPECT_EQ(DivideByPowerOfTwo(kMost, 31), 1);
  EXPECT_EQ(DivideByPowerOfTwo(kMost / 2, 31), 0);
  EXPECT_EQ(RescaleInTwoRoundings(1, {kLeast, -1}), 1);  // a quarter, rounded up twice
  EXPECT_EQ(RescaleInTwoRoundings(-1, {kLeast, -1}), 0);
  EXPECT_EQ(RescaleInTwoRoundings(1 << 30, {kLeast, 1}), -(1 << 30));  // wrapped by the shift
  EXPECT_EQ(RescaleInTwoRoundings(3, {kLeast, 31}), -(1 << 30));
}

TEST(Requantise, ShortMultiplierExamples) {
  EXPECT_EQ(ShortMantissa(0), 0);
  EXPECT_EQ(ShortMantissa(kLeast + 32767), 16384);
  EXPECT_EQ(ShortMantissa(kLeast + 32768), 16385);
  EXPECT_EQ(ShortMantissa(0x7fff0000), 32767);
  EXPECT_EQ(ShortMantissa(kMost), 32767);
  EXPECT_EQ(RescaleByShortMultiplier(3, {kLeast, 0}), 2);
  EXPECT_EQ(RescaleByShortMultiplier(-3, {kLeast, 0}), -1);
  EXPECT_EQ(RescaleByShortMultiplier(-1, {kLeast, -31}), 0);
  EXPECT_EQ(RescaleByShortMultiplier(int64_t{1} << 33, {kLeast, 0}), 0);  // the low 32 bits
  EXPECT_EQ(RescaleByShortMultiplier(INT64_MAX, {kMost, 7}), -128);
}

TEST(Requantise, OneRoundingExamples) {
  EXPECT_EQ(RescaleInOneRounding(1, 0.5), 1);
  EXPECT_EQ(RescaleInOneRounding(-1, 0.5), -1);
  EXPECT_EQ(RescaleInOneRounding(1, std::nextafter(0.5, 0.0)), 0);
  EXPECT_EQ(RescaleInOneRounding(kMost, 1.0), kMost);
  EXPECT_EQ(RescaleInOneRounding(kMost, 1.0 + 1e-9), kMin);
  EXPECT_EQ(RescaleInOneRounding(kMin, 1.0 + 1e-12), kMin);
  EXPECT_EQ(RescaleInOneRounding(3, 1.0 / 6.0), 1);  // the product rounds to a half
  EXPECT_EQ(RescaleInOneRounding(INT64_MIN, std::numeric_limits<double>::max()), kMin);
  EXPECT_EQ(RescaleInOneRounding(INT64_MAX, 0x1p-32), kMin);  // 2^63 in double precision
}

// Every exponent, with the mantissas at which something changes.
TEST(Requantise, FixedPointAgainstTheOracle) {
  Random random(0xf1ed);
  const std::vector<int32_t> narrow = testing::Int32Boundaries();
  const std::vector<int64_t> wide = testing::Int64Boundaries();
  for (int32_t exponent = kLowestMultiplierExponent; exponent <= 31; ++exponent) {
    for (int32_t mantissa : {0, kLeast, kLeast + 1, kLeast + 32767, kLeast + 32768, 0x7ffeffff,
                             0x7fff0000, 0x7fff8000, kMost - 1, kMost, 0}) {
      if (mantissa == 0) mantissa = random.Between(kLeast, kMost);
      const std::string inputs = Describe("mantissa", mantissa, "exponent", exponent);
      const reference::FixedPoint fixed = {mantissa, exponent};
      for (const int32_t x : narrow) {
        const int32_t actual = RescaleInTwoRoundings(x, {mantissa, exponent});
        ASSERT_TRUE(Same(reference::TwoRoundings(x, fixed), actual, "two roundings",
                         inputs + Describe("x", x)));
      }
      if (exponent > kHighestShortMultiplierExponent) continue;
      for (size_t i = 0; i < wide.size(); i += testing::Step(7)) {
        const int32_t actual = RescaleByShortMultiplier(wide[i], {mantissa, exponent});
        ASSERT_TRUE(Same(reference::ShortMultiplier(wide[i], fixed), actual, "short multiplier",
                         inputs + Describe("x", wide[i])));
      }
    }
  }
}

// Products at and beside ties: of x = k / 2 / multiplier, rounded in one way or the other.
TEST(Requantise, OneRoundingAgainstTheOracle) {
  Random random(0x09e);
  const auto check = [](int64_t x, double multiplier) {
    const int32_t expected = reference::OneRounding(x, multiplier, 0);
    return Same(expected, RescaleInOneRounding(x, multiplier), "one rounding",
                Describe("x", x) + std::to_string(multiplier));
  };
  const std::vector<int64_t> wide = testing::Int64Boundaries();
  for (int round = 0; round < 20000 / testing::Step(7); ++round) {
    const int64_t x = random.Pick(wide);
    const double multiplier = std::ldexp(random.Between(1, 1 << 20), random.Between(-80, 20));
    ASSERT_TRUE(check(x, multiplier));
    const int64_t divisor = random.Between(1, 1 << 24);
    const double tie = (random.Between(0, 4000) + 0.5) / static_cast<double>(divisor);
    for (const double y : {std::nextafter(tie, 0.0), tie, std::nextafter(tie, 1e300)}) {
      ASSERT_TRUE(check(divisor, y));
      ASSERT_TRUE(check(-divisor, y));
    }
    if (x == 0) continue;
    for (const double y : {2147483647.5, 2147483648.0, 2147483648.5, 2147483647.4}) {
      const double at_the_end = y / std::fabs(static_cast<double>(x));
      ASSERT_TRUE(check(x, at_the_end));
      ASSERT_TRUE(check(x, std::nextafter(at_the_end, 0.0)));
    }
  }
}

// ---- Whole tensors -----------------------------------------------------------------------------

template <typename T>
Path PathOf(Rescaling rescaling) {
  const bool wide = std::is_same_v<T, int64_t>;
  if (rescaling == Rescaling::kTwoRoundings) return Path::kRequantiseTwoRoundings;
  if (rescaling == Rescaling::kShortMultiplier) {
    return wide ? Path::kRequantiseShortInt64 : Path::kRequantiseShortInt32;
  }
  return wide ? Path::kRequantiseOneInt64 : Path::kRequantiseOneInt32;
}

// The two comparisons, each on its own: the definition against the oracle, and the vector loops of
// each target against the definition, in one piece and in parts.
template <typename T, typename Out>
::testing::AssertionResult Check(const RequantiseCase<T, Out>& c, int offset = 0,
                                 int64_t part = 100) {
  const auto describe = [&c](int64_t i) { return c.Inputs(i); };
  const auto definition = c.Definition(offset);
  const auto oracle = testing::SameArrays(c.Oracle().data(), definition.data(), c.count(),
                                          "HRequantise definition", describe);
  if (!oracle) return oracle;
  CallingThread calling_thread;
  testing::BackwardParts parts(part);
  for (const auto& [target, name] : testing::SupportedTargets()) {
    const testing::ForcedTarget forced(target);
    for (Workers* workers :
         {static_cast<Workers*>(&calling_thread), static_cast<Workers*>(&parts)}) {
      const auto actual = c.Loops(workers, offset);
      const auto same = testing::SameArrays(definition.data(), actual.data(), c.count(),
                                            std::string("HRequantise ") + name, describe);
      if (!same) return same;
    }
    Ran(target == Target::kPortable ? Path::kRequantisePortable
        : target == Target::kAvx2   ? Path::kRequantiseAvx2
                                    : Path::kRequantiseAvx512);
    Ran(PathOf<T>(c.mode.rescaling));
    if (c.count() > part) Ran(Path::kRequantiseParts);
  }
  return ::testing::AssertionSuccess();
}

template <typename T>
T DrawSum(Random* random) {
  static const std::vector<int32_t> narrow = testing::Int32Boundaries();
  static const std::vector<int64_t> wide = testing::Int64Boundaries();
  if constexpr (std::is_same_v<T, int32_t>) {
    if (random->Between(0, 2) == 0) return random->Pick(narrow);
    return static_cast<int32_t>(random->Bits()) >> random->Between(0, 31);
  } else {
    return random->Between(0, 2) == 0 ? random->Pick(wide) : testing::RandomInt64(random);
  }
}

// One that the op takes with the mode's shift.
double DrawMultiplier(Random* random, const RequantiseMode& mode) {
  static const std::vector<double> fractions = {
      0.5, 0.75, 0x1.000001p-1, 0x1.fffffp-1, 1.0 - 0x1p-31, 0x1.fffep-1, 1.0 - 0x1p-16 - 0x1p-17};
  if (random->Between(0, 15) == 0) return 0.0;
  const double fraction =
      random->Flag() ? random->Pick(fractions) : 0.5 + std::ldexp(random->Bits(), -33);
  const int highest = mode.rescaling == Rescaling::kTwoRoundings ? kHighestTwoRoundingsExponent
                                                                 : kHighestShortMultiplierExponent;
  if (mode.rescaling == Rescaling::kOneRounding) {
    const bool far = random->Between(0, 15) == 0;
    return std::ldexp(fraction, far ? random->Between(-1000, 900) : random->Between(-40, 10));
  }
  return std::ldexp(fraction, random->Between(-31, highest - mode.shift));
}

template <typename T>
Rescaling DrawRescaling(Random* random) {
  const int kind = random->Between(std::is_same_v<T, int64_t> ? 1 : 0, 2);
  return kind == 0   ? Rescaling::kTwoRoundings
         : kind == 1 ? Rescaling::kShortMultiplier
                     : Rescaling::kOneRounding;
}

template <typename Out>
void DrawRange(Random* random, RequantiseMode* mode) {
  const auto any = [random] {
    return random->Between(std::numeric_limits<Out>::min(), std::numeric_limits<Out>::max());
  };
  mode->zero_point = random->Flag() ? 0 : any();
  mode->minimum = std::numeric_limits<Out>::min();
  mode->maximum = std::numeric_limits<Out>::max();
  if (random->Flag()) return;
  mode->minimum = any();
  mode->maximum = random->Between(mode->minimum, std::numeric_limits<Out>::max());
}

template <typename T, typename Out>
RequantiseCase<T, Out> DrawCase(Random* random, int64_t positions, int64_t channels,
                                bool per_channel) {
  RequantiseCase<T, Out> c;
  c.channels = channels;
  c.mode.rescaling = DrawRescaling<T>(random);
  c.mode.shift = random->Flag() ? 0 : random->Between(0, 7);
  DrawRange<Out>(random, &c.mode);
  for (int64_t i = 0; i < (per_channel ? channels : 1); ++i) {
    c.multipliers.push_back(DrawMultiplier(random, c.mode));
  }
  for (int64_t i = 0; i < positions * channels; ++i) c.sums.push_back(DrawSum<T>(random));
  return c;
}

template <typename Types>
class RequantiseTensors : public ::testing::Test {};

template <typename Sum, typename Output>
struct Types {
  using T = Sum;
  using Out = Output;
};
using AllTypes =
    ::testing::Types<Types<int32_t, int8_t>, Types<int32_t, int16_t>, Types<int32_t, int32_t>,
                     Types<int64_t, int8_t>, Types<int64_t, int16_t>, Types<int64_t, int32_t>>;
TYPED_TEST_SUITE(RequantiseTensors, AllTypes);

TYPED_TEST(RequantiseTensors, SizesAndMisalignments) {
  using T = typename TypeParam::T;
  using Out = typename TypeParam::Out;
  Random random(0x512e);
  for (const int size : testing::LaneSizes()) {
    if (size == 0) continue;
    for (int offset = 0; offset < 4; ++offset) {
      ASSERT_TRUE((Check(DrawCase<T, Out>(&random, 1, size, true), offset, 64))) << size;
      ASSERT_TRUE((Check(DrawCase<T, Out>(&random, size, 1, true), offset, 64))) << size;
      ASSERT_TRUE((Check(DrawCase<T, Out>(&random, 2, size, false), offset, 64))) << size;
      ASSERT_TRUE((Check(DrawCase<T, Out>(&random, 5, size, true), offset, 7))) << size;
    }
  }
}

TYPED_TEST(RequantiseTensors, RandomCases) {
  using T = typename TypeParam::T;
  using Out = typename TypeParam::Out;
  Random random(0xa11);
  for (int round = 0; round < 800 / testing::Step(10); ++round) {
    const int channels = random.Between(0, 9) == 0 ? random.Between(255, 700)  //
                                                   : random.Between(1, 40);
    const auto c = DrawCase<T, Out>(&random, random.Between(1, 12), channels, random.Flag());
    ASSERT_TRUE(Check(c, random.Between(0, 3), random.Between(1, 600)));
  }
}

// Each boundary by each exponent of its rescaling, for all targets.
TYPED_TEST(RequantiseTensors, BoundariesOfEveryExponent) {
  using T = typename TypeParam::T;
  using Out = typename TypeParam::Out;
  Random random(0xb0e);
  RequantiseCase<T, Out> c;
  if constexpr (std::is_same_v<T, int32_t>) {
    c.sums = testing::Int32Boundaries();
  } else {
    const std::vector<int64_t> all = testing::Int64Boundaries();
    for (size_t i = 0; i < all.size(); i += testing::Step(7)) c.sums.push_back(all[i]);
  }
  c.channels = c.count();
  c.multipliers.resize(1);
  for (int exponent = -31; exponent <= 31; ++exponent) {
    for (const double fraction : {0.5, 1.0 - 0x1p-31, 0x1.8000fffp-1, 0x1.ffffp-1}) {
      for (const Rescaling rescaling :
           {Rescaling::kTwoRoundings, Rescaling::kShortMultiplier, Rescaling::kOneRounding}) {
        c.mode.rescaling = rescaling;
        c.mode.shift = exponent > 0 ? random.Between(0, exponent) : 0;
        c.multipliers[0] = std::ldexp(fraction, exponent - c.mode.shift);
        DrawRange<Out>(&random, &c.mode);
        if (!c.IsTaken()) continue;
        if (std::is_same_v<T, int64_t> && rescaling == Rescaling::kTwoRoundings) continue;
        ASSERT_TRUE(Check(c, 0, 300));
      }
    }
  }
}

// The zero point is added in 32 bits.
TEST(Requantise, ZeroPointWraps) {
  RequantiseCase<int32_t, int8_t> c;
  c.sums = {kMost, kMost - 1, kMin, kMin + 1, 100, -100};
  c.channels = 6;
  c.multipliers = {1.0 - 0x1p-30};
  c.mode = {Rescaling::kTwoRoundings, 0, -100, -128, 127};
  const auto negative = c.Definition();
  EXPECT_EQ(std::vector<int>(negative.data(), negative.data() + 6),
            (std::vector<int>{127, 127, 127, 127, 0, -128}));
  ASSERT_TRUE(Check(c));
  c.mode.zero_point = 100;
  const auto positive = c.Definition();
  EXPECT_EQ(std::vector<int>(positive.data(), positive.data() + 6),
            (std::vector<int>{-128, -128, -128, -128, 127, 0}));
  ASSERT_TRUE(Check(c));
}

TEST(Requantise, WhatIsDefined) {
  const auto is_defined = [](Rescaling rescaling, double multiplier, int32_t shift) {
    return IsDefined(rescaling, ShiftedMultiplier(multiplier, shift));
  };
  EXPECT_TRUE(is_defined(Rescaling::kTwoRoundings, 0x1p30, 0));
  EXPECT_FALSE(is_defined(Rescaling::kTwoRoundings, 0x1p31, 0));
  EXPECT_FALSE(is_defined(Rescaling::kTwoRoundings, 1.0, 31));
  EXPECT_FALSE(is_defined(Rescaling::kTwoRoundings, 0x1p-32, -1));
  EXPECT_TRUE(is_defined(Rescaling::kTwoRoundings, 0x1p-33, -1));  // 0 needs no exponent
  EXPECT_TRUE(is_defined(Rescaling::kTwoRoundings, 0.0, INT32_MAX));
  EXPECT_TRUE(is_defined(Rescaling::kShortMultiplier, 64.0, 0));
  EXPECT_FALSE(is_defined(Rescaling::kShortMultiplier, 128.0, 0));
  EXPECT_TRUE(is_defined(Rescaling::kOneRounding, 0x1p1023, 0));
  EXPECT_FALSE(is_defined(Rescaling::kOneRounding, 0x1p1023, 1));
  EXPECT_TRUE(is_defined(Rescaling::kOneRounding, 1.0, INT32_MIN));
}

}  // namespace
}  // namespace bitfold
