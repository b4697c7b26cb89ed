// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The feed repeat. The count of passes against a literal loop and against what defines it; every
// pass made against the oracle; passes that are proven instead of made against every pass made,
// and against modular arithmetic where nobody can wait for every pass.

#include "bitfold/repeated_addition.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <set>
#include <vector>

#include "reference.h"
#include "support/capture.h"
#include "support/compare.h"
#include "support/ledger.h"
#include "support/random.h"
#include "support/scale.h"
#include "support/tables.h"

namespace bitfold {
namespace {

using testing::Describe;
using testing::Path;
using testing::Ran;
using testing::Same;

// ---- The count of passes -----------------------------------------------------------------------

// The feed as the hardware counts it.
int64_t CountLiterally(float r) {
  if (0.0f >= r) return 0;
  int64_t k = 0;
  do {
    k = k + 1;
  } while (!(static_cast<float>(k) >= r));
  return k;
}

TEST(FeedRepeatCount, Examples) {
  EXPECT_EQ(FeedRepeatCount(0.0f), 0);
  EXPECT_EQ(FeedRepeatCount(-0.0f), 0);
  EXPECT_EQ(FeedRepeatCount(-3.0f), 0);
  EXPECT_EQ(FeedRepeatCount(-std::numeric_limits<float>::infinity()), 0);
  EXPECT_EQ(FeedRepeatCount(1e-45f), 1);
  EXPECT_EQ(FeedRepeatCount(1.0f), 1);
  EXPECT_EQ(FeedRepeatCount(2.5f), 3);
  EXPECT_EQ(FeedRepeatCount(16777216.0f), 16777216);
  // 2^24 + 1 is a tie between floats and rounds to the even 2^24: not enough.
  EXPECT_EQ(FeedRepeatCount(16777218.0f), 16777218);
  // 2^24 + 3 is a tie as well, and rounds to the even 2^24 + 4: one pass fewer.
  EXPECT_EQ(FeedRepeatCount(16777220.0f), 16777219);
  // 2^31 - 64 is a tie between 2^31 - 128 and 2^31, of which 2^31 is even.
  EXPECT_EQ(FeedRepeatCount(kMaxFeedRepeat), 2147483584);
}

TEST(FeedRepeatCount, AgainstLiteralLoop) {
  std::vector<float> repeats;
  for (int exponent = 0; exponent <= (testing::kSanitized ? 20 : 25); ++exponent) {
    const float power = std::ldexp(1.0f, exponent);
    float below = power;
    float above = power;
    for (int i = 0; i < (exponent > 22 ? 5 : 12); ++i) {
      repeats.push_back(below);
      repeats.push_back(above);
      below = std::nextafter(below, 0.0f);
      above = std::nextafter(above, 1e30f);
    }
  }
  testing::Random random(0xc0de);
  for (int i = 0; i < 500; ++i) {
    repeats.push_back(static_cast<float>(random.Between(0, 1 << 20)) / 64.0f);
  }
  for (const float r : repeats) {
    ASSERT_EQ(FeedRepeatCount(r), CountLiterally(r)) << Describe("r", r);
  }
}

// The smallest n >= 1 with (float)n >= r.
TEST(FeedRepeatCount, SatisfiesItsDefinition) {
  std::vector<float> repeats;
  for (int exponent = -3; exponent <= 31; ++exponent) {
    float below = std::ldexp(1.0f, exponent);
    float above = below;
    for (int i = 0; i < 300; ++i) {
      repeats.push_back(below);
      if (above <= kMaxFeedRepeat) repeats.push_back(above);
      below = std::nextafter(below, 0.0f);
      above = std::nextafter(above, 1e30f);
    }
  }
  testing::Random random(0xfeed);
  while (repeats.size() < 60000) {
    const float r = testing::FloatOf(random.Bits() & 0x7fffffffu);
    if (r > 0.0f && r <= kMaxFeedRepeat) repeats.push_back(r);
  }
  for (const float r : repeats) {
    const int64_t n = FeedRepeatCount(r);
    ASSERT_GE(n, 1) << Describe("r", r);
    ASSERT_LE(n, int64_t{1} << 31) << Describe("r", r);
    ASSERT_GE(static_cast<float>(n), r) << Describe("r", r, "n", n);
    ASSERT_TRUE(n == 1 || static_cast<float>(n - 1) < r) << Describe("r", r, "n", n);
  }
}

// ---- Every pass against the oracle -------------------------------------------------------------

template <typename T>
void EveryPassAgainstOracle(const std::vector<int32_t>& widths, bool use_fp16_acc) {
  for (const int32_t width : widths) {
    const Datapath<T> datapath(width, 0, use_fp16_acc);
    for (const T acc : testing::Corners<T>()) {
      for (const T addend : testing::Corners<T>()) {
        for (const int64_t passes : {0, 1, 2, 3, 17}) {
          // The oracle quantises the initial value in half precision; so do we.
          T expected;
          std::string lines;
          reference::Add<T>(&acc, &addend, T{1}, static_cast<float>(passes), 0, width, use_fp16_acc,
                            1, &expected, &lines);
          T actual{};
          const std::string printed = testing::PrintedBy(
              [&] { actual = EveryPass{}(datapath, datapath.InitialValue(acc), addend, passes); });
          const auto inputs = Describe("acc", acc, "addend", addend, "width", width, "passes",
                                       passes, "fp16", use_fp16_acc);
          ASSERT_TRUE(Same(expected, actual, "EveryPass", inputs));
          ASSERT_TRUE(testing::SameText(lines, printed, "EveryPass " + inputs));
        }
      }
    }
  }
}

TEST(EveryPass, Int32AgainstOracle) {
  EveryPassAgainstOracle<int32_t>({0, 1, 8, 24, 31, 32}, false);
  EveryPassAgainstOracle<int32_t>({16}, true);
  Ran(Path::kInt32EveryPass);
}

TEST(EveryPass, FloatAgainstOracle) {
  EveryPassAgainstOracle<float>({0, 8, 24, 32, 130}, false);
  EveryPassAgainstOracle<float>({16}, true);
  Ran(Path::kFloatEveryPass);
}

// ---- Proven passes against every pass ----------------------------------------------------------

::testing::AssertionResult ProvenSameAsEvery(const Datapath<int32_t>& datapath, int32_t acc,
                                             int32_t addend, int64_t passes) {
  const int32_t every = EveryPass{}(datapath, acc, addend, passes);
  const int32_t proven = ProvenPasses{}(datapath, acc, addend, passes);
  if (every == proven) return ::testing::AssertionSuccess();
  return Same(every, proven, "ProvenPasses",
              Describe("acc", acc, "addend", addend, "passes", passes, "min", datapath.limits().min,
                       "max", datapath.limits().max));
}

// The corners of any width and those of this one: the range's ends, and the period and its half
// with their neighbours on both sides.
std::vector<int32_t> CornersOfWidth(const Datapath<int32_t>& datapath) {
  std::set<int32_t> values = {INT32_MIN, -8388608, -300, -1, 0, 1, 5, 300, 8388607, INT32_MAX};
  const int64_t min = datapath.limits().min;
  const int64_t max = datapath.limits().max;
  const int64_t period = max - min + 1;
  for (const int64_t centre : {min, max, period, -period, 2 * period, -2 * period}) {
    for (int64_t delta = -2; delta <= 2; ++delta) {
      const int64_t x = centre + delta;
      if (x >= INT32_MIN && x <= INT32_MAX) values.insert(static_cast<int32_t>(x));
    }
  }
  return {values.begin(), values.end()};
}

// Which way the proof went, by its own statement: in range with |addend| <= period.
void RecordPath(const Datapath<int32_t>& datapath, int32_t acc, int32_t addend, int64_t passes) {
  if (passes < 3) return;
  const int64_t min = datapath.limits().min;
  const int64_t max = datapath.limits().max;
  const int64_t size = addend < 0 ? -int64_t{addend} : int64_t{addend};
  if (size > max - min + 1) {
    Ran(Path::kInt32NeverProven);
  } else if (min <= acc && acc <= max) {
    Ran(Path::kInt32ProvenAtOnce);
  } else {
    const int32_t next = EveryPass{}(datapath, acc, addend, 1);
    if (min <= next && next <= max) Ran(Path::kInt32ProvenAfterSteps);
  }
}

TEST(ProvenPasses, Int32AgainstEveryPassOnEveryWidth) {
  for (int32_t width = 0; width <= kMaxInt32AccumulatorSize; ++width) {
    const Datapath<int32_t> datapath(width, 0, false);
    const auto values = CornersOfWidth(datapath);
    for (const int32_t acc : values) {
      for (const int32_t addend : values) {
        for (const int64_t passes : {0, 1, 2, 3, 17, 100}) {
          ASSERT_TRUE(ProvenSameAsEvery(datapath, acc, addend, passes)) << "width " << width;
          RecordPath(datapath, acc, addend, passes);
        }
      }
    }
  }
}

TEST(ProvenPasses, Int32AgainstEveryPassAtRandom) {
  testing::Random random(0x9a55e5);
  for (int i = 0; i < 200000 / testing::Step(10); ++i) {
    const Datapath<int32_t> datapath(random.Between(0, 32), 0, false);
    const int shift = random.Between(0, 31);
    const int32_t acc = static_cast<int32_t>(random.Bits()) >> shift;
    const int32_t addend = static_cast<int32_t>(random.Bits()) >> random.Between(0, 31);
    ASSERT_TRUE(ProvenSameAsEvery(datapath, acc, addend, random.Between(0, 300)));
  }
}

// Every accumulator and addend of the small widths, out of range on both sides as well.
TEST(ProvenPasses, Int32SmallWidthsExhaustively) {
  for (int32_t width = 0; width <= 4; ++width) {
    const Datapath<int32_t> datapath(width, 0, false);
    for (int32_t acc = -40; acc <= 40; acc += testing::Step(3)) {
      for (int32_t addend = -40; addend <= 40; ++addend) {
        for (int64_t passes = 0; passes <= 35; ++passes) {
          ASSERT_TRUE(ProvenSameAsEvery(datapath, acc, addend, passes)) << "width " << width;
        }
      }
    }
  }
}

// |addend| of exactly the period is proven, and leaves an accumulator in range where it is; one
// more is not, and drifts out of range with the passes.
TEST(ProvenPasses, BoundaryOfTheProof) {
  const Datapath<int32_t> datapath(8, 0, false);
  for (const int32_t acc : {-128, -1, 0, 127}) {
    for (const int64_t passes : {2, 3, 1000, 100000}) {
      for (const int32_t sign : {1, -1}) {
        EXPECT_EQ(ProvenPasses{}(datapath, acc, sign * 256, passes), acc);
        EXPECT_TRUE(ProvenSameAsEvery(datapath, acc, sign * 256, passes));
        EXPECT_TRUE(ProvenSameAsEvery(datapath, acc, sign * 257, passes));
      }
    }
  }
  // 127 + 257 = 384, - 256 = 128; 385, - 256 = 129; and so on.
  EXPECT_EQ(ProvenPasses{}(datapath, 127, 257, 1000), 1127);
}

// The value of [min, max] congruent to acc + passes * addend, in 128 bits.
int32_t Congruent(const Datapath<int32_t>& datapath, int32_t acc, int64_t addend, int64_t passes) {
  const __int128 min = datapath.limits().min;
  const __int128 period = static_cast<__int128>(datapath.limits().max) - min + 1;
  __int128 rest = (static_cast<__int128>(passes) * addend + acc - min) % period;
  if (rest < 0) rest += period;
  return static_cast<int32_t>(min + rest);
}

TEST(ProvenPasses, HugeCountsAgainstModularArithmetic) {
  for (int32_t width = 0; width <= kMaxInt32AccumulatorSize; ++width) {
    const Datapath<int32_t> datapath(width, 0, false);
    const int64_t min = datapath.limits().min;
    const int64_t max = datapath.limits().max;
    const int64_t period = max - min + 1;
    for (const int32_t acc : CornersOfWidth(datapath)) {
      if (acc < min || acc > max) continue;
      for (const int32_t addend : CornersOfWidth(datapath)) {
        if (addend < -period || addend > period) continue;
        for (const int64_t passes : {int64_t{16777219}, (int64_t{1} << 31) - 1, int64_t{1} << 31}) {
          ASSERT_TRUE(
              Same(Congruent(datapath, acc, addend, passes),
                   ProvenPasses{}(datapath, acc, addend, passes), "huge count",
                   Describe("acc", acc, "addend", addend, "passes", passes, "width", width)));
        }
      }
    }
  }
}

// One long chain made in full, so that the modular arithmetic above is not alone.
TEST(ProvenPasses, LongChainAgainstEveryPass) {
  const int64_t passes = (int64_t{1} << 24) / testing::Step(16);
  const Datapath<int32_t> datapath(23, 0, false);
  EXPECT_TRUE(ProvenSameAsEvery(datapath, -4194304, 8388607, passes));
  EXPECT_TRUE(ProvenSameAsEvery(datapath, INT32_MAX, -7654321, passes));
}

// ---- Two addends a pass ------------------------------------------------------------------------

::testing::AssertionResult TwoProvenSameAsEvery(const Datapath<int32_t>& datapath, int32_t acc,
                                                int32_t first, int32_t second, int64_t passes) {
  const int32_t every = EveryPass{}(datapath, acc, first, second, passes);
  const int32_t proven = ProvenPasses{}(datapath, acc, first, second, passes);
  if (every == proven) return ::testing::AssertionSuccess();
  return Same(every, proven, "ProvenPasses",
              Describe("acc", acc, "first", first, "second", second, "passes", passes, "min",
                       datapath.limits().min, "max", datapath.limits().max));
}

// A pass is one addition after the other.
TEST(EveryPass, TwoAddends) {
  const Datapath<int32_t> integers(8, 0, false);
  EXPECT_EQ(EveryPass{}(integers, 100, 50, -50, 1), 100);  // -106, then back
  EXPECT_EQ(EveryPass{}(integers, 100, 50, -10, 1), -116);
  const Datapath<float> floats(40, 0, false);
  float sum = 0.0f;
  EXPECT_EQ(testing::PrintedBy([&] { sum = EveryPass{}(floats, 8388606.0f, 2.0f, -3.0f, 2); }),
            "@@@ WARNING: acc 8388608.000000 is out of bounds <-8388607,8388607>\n"
            "@@@ WARNING: acc 8388607.000000 is out of bounds <-8388607,8388607>\n");
  EXPECT_TRUE(Same(8388604.0f, sum, "two addends", ""));
}

TEST(ProvenPasses, TwoAddendsAgainstEveryPassOnEveryWidth) {
  for (int32_t width = 0; width <= kMaxInt32AccumulatorSize; width += testing::Step(3)) {
    const Datapath<int32_t> datapath(width, 0, false);
    const auto values = CornersOfWidth(datapath);
    for (const int32_t acc : values) {
      for (const int32_t first : values) {
        for (const int32_t second : values) {
          for (const int64_t passes : {0, 1, 2, 3, 17}) {
            ASSERT_TRUE(TwoProvenSameAsEvery(datapath, acc, first, second, passes))
                << "width " << width;
          }
        }
      }
    }
  }
}

TEST(ProvenPasses, TwoAddendsAgainstEveryPassAtRandom) {
  testing::Random random(0x9a55e6);
  for (int i = 0; i < 200000 / testing::Step(10); ++i) {
    const Datapath<int32_t> datapath(random.Between(0, 32), 0, false);
    const int32_t acc = static_cast<int32_t>(random.Bits()) >> random.Between(0, 31);
    const int32_t first = static_cast<int32_t>(random.Bits()) >> random.Between(0, 31);
    const int32_t second = static_cast<int32_t>(random.Bits()) >> random.Between(0, 31);
    ASSERT_TRUE(TwoProvenSameAsEvery(datapath, acc, first, second, random.Between(0, 300)));
  }
}

TEST(ProvenPasses, TwoAddendsOfSmallWidthsExhaustively) {
  for (int32_t width = 0; width <= 3; ++width) {
    const Datapath<int32_t> datapath(width, 0, false);
    for (int32_t acc = -12; acc <= 12; acc += testing::Step(3)) {
      for (int32_t first = -18; first <= 18; ++first) {
        for (int32_t second = -18; second <= 18; ++second) {
          for (int64_t passes = 0; passes <= 9; ++passes) {
            ASSERT_TRUE(TwoProvenSameAsEvery(datapath, acc, first, second, passes))
                << "width " << width;
          }
        }
      }
    }
  }
}

// One addend of the period and one above it: nothing is proven, and the accumulator drifts.
TEST(ProvenPasses, BothAddendsMustObeyTheBound) {
  const Datapath<int32_t> datapath(8, 0, false);
  for (const int32_t acc : {-128, -1, 0, 127}) {
    for (const int64_t passes : {2, 3, 1000}) {
      for (const int32_t sign : {1, -1}) {
        EXPECT_EQ(ProvenPasses{}(datapath, acc, sign * 256, -sign * 256, passes), acc);
        EXPECT_EQ(ProvenPasses{}(datapath, acc, sign * 256, sign * 256, passes), acc);
        EXPECT_TRUE(TwoProvenSameAsEvery(datapath, acc, sign * 256, sign * 257, passes));
        EXPECT_TRUE(TwoProvenSameAsEvery(datapath, acc, sign * 257, sign * 256, passes));
      }
    }
  }
}

TEST(ProvenPasses, HugeCountsOfTwoAddendsAgainstModularArithmetic) {
  for (int32_t width = 0; width <= kMaxInt32AccumulatorSize; ++width) {
    const Datapath<int32_t> datapath(width, 0, false);
    const int64_t min = datapath.limits().min;
    const int64_t max = datapath.limits().max;
    const int64_t period = max - min + 1;
    const auto obeys = [period](int32_t x) { return -period <= x && x <= period; };
    for (const int32_t acc : CornersOfWidth(datapath)) {
      if (acc < min || acc > max) continue;
      for (const int32_t first : CornersOfWidth(datapath)) {
        for (const int32_t second : CornersOfWidth(datapath)) {
          if (!obeys(first) || !obeys(second)) continue;
          for (const int64_t passes : {int64_t{16777219}, int64_t{1} << 31}) {
            ASSERT_TRUE(Same(Congruent(datapath, acc, int64_t{first} + second, passes),
                             ProvenPasses{}(datapath, acc, first, second, passes), "huge count",
                             Describe("acc", acc, "first", first, "second", second, "passes",
                                      passes, "width", width)));
          }
        }
      }
    }
  }
  Ran(Path::kInt32ProvenOfTwoAddends);
}

// ---- Floats ------------------------------------------------------------------------------------

// Passes proven against every pass made: bits, and printed lines in their order.
template <typename... Addends>
::testing::AssertionResult FloatProvenSameAsEvery(const Datapath<float>& datapath, float acc,
                                                  int64_t passes, Addends... addends) {
  float every = 0.0f;
  float proven = 0.0f;
  const std::string inputs =
      (Describe("acc", acc, "passes", passes, "width", datapath.accumulator_size(), "fp16",
                datapath.use_fp16_acc()) +
       ... + Describe("addend", addends));
  const auto expected =
      testing::PrintedBy([&] { every = EveryPass{}(datapath, acc, addends..., passes); });
  const auto actual =
      testing::PrintedBy([&] { proven = ProvenPasses{}(datapath, acc, addends..., passes); });
  const auto same = Same(every, proven, "ProvenPasses, float", inputs);
  return same ? testing::SameText(expected, actual, inputs) : same;
}

// Corners with corners, few passes and more than are made at once.
TEST(ProvenPasses, FloatCornersAgainstEveryPass) {
  int turn = 0;
  for (const bool use_fp16_acc : {false, true}) {
    for (const int width : {8, 24}) {
      if (use_fp16_acc && width != 24) continue;
      const Datapath<float> datapath(width, 0, use_fp16_acc);
      for (const float acc : testing::Corners<float>()) {
        for (const float addend : testing::Corners<float>()) {
          if (++turn % testing::Step(7) != 0) continue;
          for (const int64_t passes : {3, 255, 256, 300}) {
            ASSERT_TRUE(FloatProvenSameAsEvery(datapath, acc, passes, addend));
          }
          ASSERT_TRUE(FloatProvenSameAsEvery(datapath, acc, 300, addend, 2.0f));
          ASSERT_TRUE(FloatProvenSameAsEvery(datapath, acc, 300, 2.0f, addend));
        }
      }
    }
  }
}

// Addends that are whole numbers, fractions with few and with all bits, and small against the
// accumulator.
const float kAddends[] = {0.1f,   -0.1f,   1.0f,      0.5f,      -1.25f,  1e-3f,     1e-5f,
                          3.3f,   -77.77f, 100.3f,    256.0f,    -255.0f, 300.7f,    5000.5f,
                          1e-20f, 1e-45f,  -32768.0f, 65535.25f, 1e5f,    -123456.7f};

float DrawAccumulator(testing::Random* random) {
  return static_cast<float>(random->Between(-(1 << 23), 1 << 23)) *
         std::ldexp(1.0f, random->Between(-24, -2));
}

TEST(ProvenPasses, FloatAgainstEveryPass) {
  testing::Random random(0xf10a7);
  for (const int width : {0, 1, 2, 3, 8, 12, 16, 20, 22, 23}) {
    const Datapath<float> datapath(width, 0, false);
    for (const float addend : kAddends) {
      if (std::fabs(addend) > 3.0f * datapath.limits().period) continue;
      for (int i = 0; i < 4; ++i) {
        const int64_t passes = random.Between(256, 40000 / testing::Step(8));
        ASSERT_TRUE(FloatProvenSameAsEvery(datapath, DrawAccumulator(&random), passes, addend));
      }
    }
  }
  Ran(Path::kFloatProven);
}

TEST(ProvenPasses, FloatOfTwoAddendsAgainstEveryPass) {
  testing::Random random(0xf10a8);
  for (const int width : {0, 1, 2, 8, 12, 16, 20, 23}) {
    const Datapath<float> datapath(width, 0, false);
    for (const float first : kAddends) {
      for (const float second : kAddends) {
        const float largest = std::max(std::fabs(first), std::fabs(second));
        if (largest > 3.0f * datapath.limits().period) continue;
        const int64_t passes = random.Between(256, 5000 / testing::Step(8));
        ASSERT_TRUE(
            FloatProvenSameAsEvery(datapath, DrawAccumulator(&random), passes, first, second));
      }
    }
  }
  Ran(Path::kFloatProvenOfTwoAddends);
}

TEST(ProvenPasses, HalfAgainstEveryPass) {
  testing::Random random(0xf10a9);
  const Datapath<float> datapath(24, 0, true);
  for (const float first : kAddends) {
    const float acc = datapath.InitialValue(DrawAccumulator(&random));
    ASSERT_TRUE(FloatProvenSameAsEvery(datapath, acc, 100000 / testing::Step(16), first));
    const float second = kAddends[random.Between(0, 9)];
    ASSERT_TRUE(FloatProvenSameAsEvery(datapath, acc, 20000 / testing::Step(16), first, second));
  }
  Ran(Path::kFloatProvenHalf);
}

// Sums as large as the least that are reported, at every width around theirs: most passes print
// nothing, one at the top of every round does.
TEST(ProvenPasses, LinesAmongProvenPasses) {
  for (const int width : {23, 24, 25, 26, 32}) {
    const Datapath<float> datapath(width, 0, false);
    for (const float acc : {8388607.0f, 8380000.0f, -8388607.0f, -8388606.5f, 4194303.0f}) {
      for (const float addend : {1.0f, -1.0f, 0.5f, 7.0f, 4099.5f, -100.25f, 2097152.0f}) {
        ASSERT_TRUE(FloatProvenSameAsEvery(datapath, acc, 5000 / testing::Step(4), addend));
        ASSERT_TRUE(FloatProvenSameAsEvery(datapath, acc, 2000, addend, -addend));
      }
    }
  }
  const Datapath<float> datapath(24, 0, false);
  float sum = 0.0f;
  const auto lines =
      testing::PrintedBy([&] { sum = ProvenPasses{}(datapath, 0.0f, 1.0f, int64_t{1} << 31); });
  // 128 rounds of 2^24 passes. In each, 8388607 is reported, and 8388608, which wraps.
  EXPECT_TRUE(Same(0.0f, sum, "rounds", ""));
  EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 256);
  Ran(Path::kFloatPrintsInProvenPasses);
}

// Nobody can wait for these. Whole numbers of floats, where theorem 2 holds, are the integers'.
TEST(ProvenPasses, HugeCountsOfFloatsAgainstIntegers) {
  for (int32_t width = 1; width <= 23; ++width) {
    const Datapath<float> floats(width, 0, false);
    const Datapath<int32_t> integers(width, 0, false);
    const int32_t half = 1 << (width - 1);
    for (const int32_t addend : {1, -1, 3, 5, -7, 85, 1000, -12345, half - 1, -half, half + 1}) {
      if (std::abs(addend) > 2 * half || half + std::abs(addend) >= (1 << 23) - 1) continue;
      const int32_t acc = addend > 0 ? half - 1 : -half;
      const auto start = static_cast<float>(acc);
      const auto step = static_cast<float>(addend);
      for (const int64_t passes : {int64_t{16777219}, (int64_t{1} << 31) - 64}) {
        const auto inputs = Describe("addend", addend, "width", width, "passes", passes);
        const auto one = static_cast<float>(ProvenPasses{}(integers, acc, addend, passes));
        ASSERT_TRUE(Same(one, ProvenPasses{}(floats, start, step, passes), "one", inputs));
        const auto two = static_cast<float>(ProvenPasses{}(integers, acc, addend, -1, passes));
        ASSERT_TRUE(Same(two, ProvenPasses{}(floats, start, step, -1.0f, passes), "two", inputs));
      }
    }
  }
}

// A cycle of 2^23 passes and more, made in full.
TEST(ProvenPasses, LongFloatCyclesAgainstEveryPass) {
  const int64_t passes = (int64_t{1} << 26) / testing::Step(64) + 12345;
  for (const float addend : {0.1f, 100.3f, -1.1f}) {
    ASSERT_TRUE(FloatProvenSameAsEvery(Datapath<float>(8, 0, false), 7.5f, passes, addend));
  }
  ASSERT_TRUE(FloatProvenSameAsEvery(Datapath<float>(20, 0, false), 7.5f, passes, 3.3f));
  ASSERT_TRUE(FloatProvenSameAsEvery(Datapath<float>(12, 0, false), 7.5f, passes / 4, 3.3f, 0.1f));
}

// Passes that print, and integers that are never proven, end when they are told to.
TEST(ProvenPasses, StopsWhereNothingIsProven) {
  int asked = 0;
  const auto third_time = [&asked] { return ++asked >= 3; };
  const ProvenPasses<decltype(third_time)> add_passes{third_time};
  constexpr int64_t kPasses = int64_t{1} << 31;
  testing::PrintedBy([&] { add_passes(Datapath<float>(24, 0, false), 0.0f, 1e10f, kPasses); });
  EXPECT_EQ(asked, 3);
  asked = 0;
  add_passes(Datapath<int32_t>(8, 0, false), 0, 257, kPasses);
  EXPECT_EQ(asked, 3);
  asked = 2;
  EXPECT_TRUE(Same(5.0f, add_passes(Datapath<float>(8, 0, false), 5.0f, 1.0f, kPasses), "", ""));
  Ran(Path::kFloatPassesStopped);
}

}  // namespace
}  // namespace bitfold
