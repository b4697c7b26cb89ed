// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HStoredQuantise: worked examples; the definition against the oracle; and the vector loops of
// every target against the definition.

#include "bitfold/HStoredQuantise.h"

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
#include "support/stored_quantise_case.h"
#include "support/targets.h"
#include "support/workers.h"

namespace bitfold {
namespace {

using testing::Path;
using testing::Ran;
using testing::Random;
using testing::StoredQuantiseCase;

constexpr float kInfinity = std::numeric_limits<float>::infinity();

TEST(StoredQuantise, Examples) {
  const StoredScale scale = {0.5F, 3};
  EXPECT_EQ(StoredInteger<int8_t>(0.25F, scale), 4);
  EXPECT_EQ(StoredInteger<int8_t>(-0.25F, scale), 2);
  EXPECT_EQ(StoredInteger<int8_t>(std::nextafter(0.25F, 0.0F), scale), 3);
  EXPECT_EQ(StoredInteger<int8_t>(1e30F, scale), 127);
  EXPECT_EQ(StoredInteger<uint8_t>(-kInfinity, scale), 0);
  EXPECT_EQ(StoredInteger<int16_t>(kInfinity, scale), 32767);
  EXPECT_EQ(StoredInteger<int8_t>(std::nanf(""), scale), 3);
  EXPECT_EQ(StoredInteger<int8_t>(1e-45F, {1e-45F, 0}), 1);
}

// The two comparisons, each on its own: the definition against the oracle, and the vector loops of
// each target against the definition, in one piece and in parts.
template <typename T>
::testing::AssertionResult Check(const StoredQuantiseCase<T>& c, int offset = 0,
                                 int64_t part = 100) {
  const auto describe = [&c](int64_t i) { return c.Inputs(i); };
  const auto definition = c.Definition(offset);
  const auto oracle = testing::SameArrays(c.Oracle().data(), definition.data(), c.count(),
                                          "HStoredQuantise definition", describe);
  if (!oracle) return oracle;
  CallingThread calling_thread;
  testing::BackwardParts parts(part);
  for (const auto& [target, name] : testing::SupportedTargets()) {
    const testing::ForcedTarget forced(target);
    for (Workers* workers :
         {static_cast<Workers*>(&calling_thread), static_cast<Workers*>(&parts)}) {
      const auto actual = c.Loops(workers, offset);
      const auto same = testing::SameArrays(definition.data(), actual.data(), c.count(),
                                            std::string("HStoredQuantise ") + name, describe);
      if (!same) return same;
    }
    Ran(target == Target::kPortable ? Path::kStoredQuantisePortable
        : target == Target::kAvx2   ? Path::kStoredQuantiseAvx2
                                    : Path::kStoredQuantiseAvx512);
  }
  return ::testing::AssertionSuccess();
}

template <typename T>
class StoredQuantisations : public ::testing::Test {};
using Types = ::testing::Types<int8_t, uint8_t, int16_t>;
TYPED_TEST_SUITE(StoredQuantisations, Types);

template <typename T>
int32_t DrawZeroPoint(Random* random) {
  using Limits = std::numeric_limits<T>;
  return sizeof(T) == 2 ? 0 : random->Between(Limits::min(), Limits::max());
}

// Beside each half, where a step is 1: the quotient is the number itself.
TYPED_TEST(StoredQuantisations, BesideEveryHalf) {
  StoredQuantiseCase<TypeParam> c;
  c.scale = {1.0F, 0};
  for (int twice = -140000; twice <= 140000; twice += testing::Step(7)) {
    const float value = static_cast<float>(twice) / 2.0F;
    c.values.push_back(std::nextafter(value, -kInfinity));
    c.values.push_back(value);
    c.values.push_back(std::nextafter(value, kInfinity));
  }
  ASSERT_TRUE(Check(c, 0, 70000));
}

TYPED_TEST(StoredQuantisations, AnyBits) {
  Random random(0x9a1);
  for (int round = 0; round < 200 / testing::Step(10); ++round) {
    StoredQuantiseCase<TypeParam> c;
    const auto fraction = static_cast<float>(random.Between(1 << 20, 1 << 21));
    const int power =
        random.Between(0, 3) == 0 ? random.Between(-169, 106) : random.Between(-30, -15);
    c.scale = {std::ldexp(fraction, power), DrawZeroPoint<TypeParam>(&random)};
    const int count = random.Between(1, 700);
    for (int i = 0; i < count; ++i) {
      const auto steps = static_cast<float>(random.Between(-80000, 80000)) / 2.0F;
      c.values.push_back(random.Flag() ? testing::FloatOf(random.Bits()) : steps * c.scale.scale);
    }
    ASSERT_TRUE(Check(c, random.Between(0, 3), random.Between(1, 300)));
  }
}

TYPED_TEST(StoredQuantisations, SizesAndMisalignments) {
  Random random(0x9a2);
  for (const int size : testing::LaneSizes()) {
    StoredQuantiseCase<TypeParam> c;
    c.scale = {0.3F, DrawZeroPoint<TypeParam>(&random)};
    for (int i = 0; i < size; ++i) {
      c.values.push_back(static_cast<float>(random.Between(-300, 300)) / 7.0F);
    }
    for (int offset = 0; offset < 4; ++offset) ASSERT_TRUE(Check(c, offset, 1 + size / 3)) << size;
  }
}

}  // namespace
}  // namespace bitfold
