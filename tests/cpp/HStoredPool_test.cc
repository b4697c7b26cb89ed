// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HStoredPool and HStoredMean: worked examples; the definitions against the oracle; and the vector
// loops of every target against the definitions.

#include "bitfold/HStoredPool.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "support/compare.h"
#include "support/ledger.h"
#include "support/random.h"
#include "support/scale.h"
#include "support/stored_pool_case.h"
#include "support/targets.h"
#include "support/workers.h"

namespace bitfold {
namespace {

using testing::Path;
using testing::Ran;
using testing::Random;
using testing::StoredMeanCase;
using testing::StoredPoolCase;

// The two comparisons, each on its own: the definition against the oracle, and the vector loops of
// each target against the definition, in one piece and in parts. The paths are those of the
// portable target, of AVX2 and of AVX-512.
template <typename Case>
::testing::AssertionResult Check(const Case& c, const std::vector<Path>& paths, int offset = 0,
                                 int64_t part = 3) {
  const auto describe = [&c](int64_t i) { return c.Inputs(i); };
  const auto definition = c.Definition(offset);
  const auto oracle =
      testing::SameArrays(c.Oracle().data(), definition.data(), c.count(), "definition", describe);
  if (!oracle) return oracle;
  CallingThread calling_thread;
  testing::BackwardParts parts(part);
  for (const auto& [target, name] : testing::SupportedTargets()) {
    const testing::ForcedTarget forced(target);
    for (Workers* workers :
         {static_cast<Workers*>(&calling_thread), static_cast<Workers*>(&parts)}) {
      const auto actual = c.Loops(workers, offset);
      const auto same =
          testing::SameArrays(definition.data(), actual.data(), c.count(), name, describe);
      if (!same) return same;
    }
    Ran(paths[static_cast<size_t>(target)]);
  }
  return ::testing::AssertionSuccess();
}

const std::vector<Path> kPoolPaths = {Path::kStoredPoolPortable, Path::kStoredPoolAvx2,
                                      Path::kStoredPoolAvx512};
const std::vector<Path> kMeanPaths = {Path::kStoredMeanPortable, Path::kStoredMeanAvx2,
                                      Path::kStoredMeanAvx512};

template <typename T>
std::vector<T> DrawData(Random* random, int64_t count) {
  std::vector<T> data;
  const int kind = random->Between(0, 3);
  for (int64_t i = 0; i < count; ++i) {
    // All at one end, where sums are greatest, or anything.
    data.push_back(static_cast<T>(kind == 0   ? std::numeric_limits<T>::min()
                                  : kind == 1 ? std::numeric_limits<T>::max()
                                              : static_cast<int32_t>(random->Bits() >> 8)));
  }
  return data;
}

// ---- Windows -----------------------------------------------------------------------------------

TEST(StoredPool, WhereWindowsLie) {
  const PoolAxis same = {6, 3, 2, true};  // one pixel beyond, at the end
  EXPECT_EQ(same.Outputs(), 3);
  EXPECT_EQ(same.Begin(0), 0);
  EXPECT_EQ(same.End(2), 6);
  const PoolAxis wide = {2, 2147483647, 1, true};
  EXPECT_EQ(wide.Outputs(), 2);
  EXPECT_EQ(wide.Begin(1), 0);
  EXPECT_EQ(wide.End(1), 2);
  EXPECT_EQ((PoolAxis{5, 2, 2147483647, false}.Outputs()), 1);
  EXPECT_EQ((PoolAxis{2, 3, 1, false}.Outputs()), 0);
  EXPECT_EQ((PoolAxis{0, 3, 1, true}.Outputs()), 0);
}

TEST(StoredPool, QuotientsExamples) {
  EXPECT_EQ(QuotientAway(3, 2), 2);
  EXPECT_EQ(QuotientAway(-3, 2), -2);
  EXPECT_EQ(QuotientAway(4, 3), 1);
  EXPECT_EQ(QuotientAway(-5, 3), -2);
  EXPECT_EQ(QuotientAway(INT32_MIN, 1), INT32_MIN);
  EXPECT_EQ(MostSummands<int8_t>(), 16777215);
  EXPECT_EQ(MostSummands<int16_t>(), 65535);
}

template <typename T>
StoredPoolCase<T> PoolOf(Random* random, StoredPooling pooling, const PoolAxis& rows,
                         const PoolAxis& columns, int64_t channels) {
  using Limits = std::numeric_limits<T>;
  StoredPoolCase<T> c;
  c.images = random->Between(1, 3);
  c.rows = rows;
  c.columns = columns;
  c.channels = channels;
  c.mode = {pooling, Limits::min(), Limits::max()};
  if (random->Flag()) {
    c.mode.minimum = random->Between(Limits::min(), Limits::max());
    c.mode.maximum = random->Between(c.mode.minimum, Limits::max());
  }
  c.data = DrawData<T>(random, c.data_count());
  return c;
}

template <typename T>
class StoredPools : public ::testing::Test {};
using Types = ::testing::Types<int8_t, int16_t>;
TYPED_TEST_SUITE(StoredPools, Types);

TYPED_TEST(StoredPools, EveryNumberOfChannels) {
  Random random(0x9001);
  for (const StoredPooling pooling : {StoredPooling::kMax, StoredPooling::kAverage}) {
    for (int channels = 1; channels < 140; channels += testing::Step(5)) {
      const PoolAxis rows = {5, 3, random.Between(1, 2), random.Flag()};
      const PoolAxis columns = {6, 2, random.Between(1, 3), rows.is_same};
      const auto c = PoolOf<TypeParam>(&random, pooling, rows, columns, channels);
      ASSERT_TRUE(Check(c, kPoolPaths, random.Between(0, 3)));
    }
  }
}

TYPED_TEST(StoredPools, RandomWindows) {
  Random random(0x9002);
  for (int round = 0; round < 300 / testing::Step(5); ++round) {
    const bool is_same = random.Flag();
    PoolAxis axes[2];
    for (PoolAxis& axis : axes) {
      axis = {random.Between(1, 20), 1, random.Between(1, 7), is_same};
      axis.window = random.Between(1, is_same ? 30 : axis.size);
    }
    const auto pooling = random.Flag() ? StoredPooling::kMax : StoredPooling::kAverage;
    const auto c = PoolOf<TypeParam>(&random, pooling, axes[0], axes[1], random.Between(1, 40));
    ASSERT_TRUE(Check(c, kPoolPaths, random.Between(0, 3), random.Between(1, 9)));
  }
}

// Sums of 16 and of 32 bits, and each divisor's reciprocal.
TYPED_TEST(StoredPools, EveryDivisor) {
  Random random(0x9003);
  for (int64_t window = 1; window < 700; window += testing::Step(7)) {
    const PoolAxis rows = {1, 1, 1, false};
    const PoolAxis columns = {window + 2, window, 1, false};
    ASSERT_TRUE(
        Check(PoolOf<TypeParam>(&random, StoredPooling::kAverage, rows, columns, 4), kPoolPaths));
  }
}

// The largest sums: as many elements as 32 bits hold.
TEST(StoredPool, TheLargestWindow) {
  Random random(0x9004);
  for (const int32_t element : {INT16_MIN, INT16_MAX}) {
    const PoolAxis side = {257, 257, 1, false};
    auto c = PoolOf<int16_t>(&random, StoredPooling::kAverage, {255, 255, 1, false}, side, 1);
    ASSERT_EQ(side.window * 255, MostSummands<int16_t>());
    c.mode = {StoredPooling::kAverage, INT16_MIN, INT16_MAX};
    c.data.assign(c.data.size(), static_cast<int16_t>(element));
    ASSERT_TRUE(Check(c, kPoolPaths));
    EXPECT_EQ(c.Definition()[0], element);
  }
}

// ---- Means -------------------------------------------------------------------------------------

TEST(StoredMean, MultiplierExamples) {
  const auto expect = [](float ratio, int64_t count, int32_t mantissa, int32_t exponent) {
    const FixedMultiplier multiplier = MeanMultiplier({ratio, 0}, {1.0F, 0}, count);
    EXPECT_EQ(multiplier.mantissa, mantissa);
    EXPECT_EQ(multiplier.exponent, exponent);
  };
  expect(1.0F, 1, 1 << 30, 1);
  expect(1.0F, 4, 1 << 30, -1);
  expect(1.0F, 3, 715827882, 0);        // 2^31 / 3, a bit short
  expect(0x1p-32F, 6, 178956970, -31);  // no bit to spare
  expect(0x1p-40F, 8, 0, -3);
}

TEST(StoredMean, WhichSumsAreNarrow) {
  const StoredScale one = {1.0F, 0};
  EXPECT_TRUE(HasNarrowSums<int16_t>(one, one, 65535));
  EXPECT_FALSE(HasNarrowSums<int16_t>(one, one, 65536));
  EXPECT_FALSE(HasNarrowSums<int8_t>({1.0F, -128}, one, 1 << 23));
  EXPECT_FALSE(HasNarrowSums<int8_t>(one, {0x1p-30F, 0}, 1));
  EXPECT_TRUE(HasNarrowSums<int8_t>(one, {0x1p-22F, 0}, 1));
  EXPECT_FALSE(HasNarrowSums<int8_t>(one, one, int64_t{1} << 40));
}

template <typename T>
StoredMeanCase<T> DrawMean(Random* random, int64_t outer, int64_t reduced, int64_t inner) {
  StoredMeanCase<T> c;
  c.outer = outer;
  c.reduced = reduced;
  c.inner = inner;
  do {
    for (StoredScale* s : {&c.input, &c.result}) {
      const auto fraction = static_cast<float>(random->Between(1 << 20, 1 << 21));
      const int range = random->Between(0, 9) == 0 ? 40 : 4;
      s->scale = std::ldexp(random->Flag() ? 1.0F : fraction, random->Between(-range, range) - 20);
      s->zero_point = sizeof(T) == 1 ? random->Between(-128, 127) : 0;
    }
  } while (!c.IsTaken());
  c.data = DrawData<T>(random, outer * reduced * inner);
  return c;
}

template <typename T>
class StoredMeans : public ::testing::Test {};
TYPED_TEST_SUITE(StoredMeans, Types);

TYPED_TEST(StoredMeans, EveryNumberOfElementsAndChannels) {
  Random random(0x9005);
  for (int size = 1; size < 400; size += testing::Step(7)) {
    const int offset = random.Between(0, 3);
    ASSERT_TRUE(Check(DrawMean<TypeParam>(&random, 2, size, 1), kMeanPaths, offset, 1));
    ASSERT_TRUE(Check(DrawMean<TypeParam>(&random, 1, size, 5), kMeanPaths, offset, 1));
    ASSERT_TRUE(Check(DrawMean<TypeParam>(&random, 3, 3, size), kMeanPaths, offset, 2));
  }
}

}  // namespace
}  // namespace bitfold
