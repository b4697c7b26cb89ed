// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HStoredElementwise: worked examples; the definition against the oracle; and the vector loops of
// every target against the definition.

#include "bitfold/HStoredElementwise.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "support/compare.h"
#include "support/ledger.h"
#include "support/random.h"
#include "support/scale.h"
#include "support/stored_elementwise_case.h"
#include "support/targets.h"
#include "support/workers.h"

namespace bitfold {
namespace {

using testing::Path;
using testing::Ran;
using testing::Random;
using testing::StoredElementwiseCase;

constexpr StoredOperation kOperations[] = {StoredOperation::kAdd, StoredOperation::kSubtract,
                                           StoredOperation::kMultiply};

// ---- Shapes ------------------------------------------------------------------------------------

TEST(Broadcast, CommonShapes) {
  EXPECT_TRUE(HaveCommonShape({}, {}));
  EXPECT_TRUE(HaveCommonShape({2, 3}, {3}));
  EXPECT_TRUE(HaveCommonShape({2, 1, 3}, {4, 1}));
  EXPECT_TRUE(HaveCommonShape({0}, {1}));
  EXPECT_FALSE(HaveCommonShape({2, 3}, {2}));
  EXPECT_FALSE(HaveCommonShape({0}, {2}));
}

TEST(Broadcast, DimensionsMerge) {
  const auto expect = [](const Broadcast& actual, const std::vector<std::vector<int64_t>>& wanted) {
    ASSERT_EQ(actual.size(), wanted.size());
    for (size_t i = 0; i < wanted.size(); ++i) {
      EXPECT_EQ(actual[i].size, wanted[i][0]);
      EXPECT_EQ(actual[i].strides[0], wanted[i][1]);
      EXPECT_EQ(actual[i].strides[1], wanted[i][2]);
    }
  };
  expect(MakeBroadcast({}, {1, 1}), {});
  expect(MakeBroadcast({2, 3, 4}, {2, 3, 4}), {{24, 1, 1}});
  expect(MakeBroadcast({2, 3, 4}, {}), {{24, 1, 0}});
  expect(MakeBroadcast({2, 3, 4}, {4}), {{6, 4, 0}, {4, 1, 1}});
  expect(MakeBroadcast({2, 1, 1, 5}, {2, 3, 4, 5}), {{2, 5, 60}, {12, 0, 5}, {5, 1, 1}});
  expect(MakeBroadcast({3, 1}, {1, 4}), {{3, 1, 0}, {4, 0, 1}});
}

// ---- Elements ----------------------------------------------------------------------------------

template <typename T>
StoredElementwiseMode ModeOf(StoredOperation operation, float first, float second, float output) {
  return {operation,
          {{first, 0}, {second, 0}},
          {output, 0},
          std::numeric_limits<T>::min(),
          std::numeric_limits<T>::max()};
}

TEST(StoredElementwise, Examples) {
  const auto run = [](StoredElementwiseMode mode, int8_t first, int8_t second) {
    return int32_t{StoredElement(first, second, mode, MultipliersOf<int8_t>(mode))};
  };
  StoredElementwiseMode mode = ModeOf<int8_t>(StoredOperation::kAdd, 0.5F, 0.5F, 1.0F);
  EXPECT_EQ(run(mode, 1, 2), 2);  // 1.5, away from zero
  EXPECT_EQ(run(mode, -1, -2), -2);
  EXPECT_EQ(run(mode, 127, 127), 127);
  mode.operands[1] = {2.0F, -5};
  mode.output.zero_point = 7;
  EXPECT_EQ(run(mode, 4, -4), 11);
  mode.operation = StoredOperation::kSubtract;
  EXPECT_EQ(run(mode, 4, -4), 7);
  mode = ModeOf<int8_t>(StoredOperation::kMultiply, 0.5F, 0.5F, 1.0F);
  EXPECT_EQ(run(mode, 3, 2), 2);
  EXPECT_EQ(run(mode, -3, 2), -2);  // -1.5
  mode.minimum = 5;
  EXPECT_EQ(run(mode, -128, 127), 5);
}

TEST(StoredElementwise, WhichMultipliersAreTaken) {
  EXPECT_TRUE(IsFraction(0.5));
  EXPECT_TRUE(IsFraction(std::numeric_limits<double>::denorm_min()));
  EXPECT_FALSE(IsFraction(0.0));
  EXPECT_FALSE(IsFraction(1.0 - 0x1p-32));
  EXPECT_FALSE(IsFraction(std::nan("")));
  EXPECT_TRUE(IsProductMultiplier(0.0));
  EXPECT_FALSE(IsProductMultiplier(0x1p31));
  EXPECT_FALSE(IsProductMultiplier(std::nan("")));
}

// ---- Whole tensors -----------------------------------------------------------------------------

// The two comparisons, each on its own: the definition against the oracle, and the vector loops of
// each target against the definition, in one piece and in parts.
template <typename T>
::testing::AssertionResult Check(const StoredElementwiseCase<T>& c, int offset = 0,
                                 int64_t part = 100) {
  const auto describe = [&c](int64_t i) { return c.Inputs(i); };
  const auto definition = c.Definition(offset);
  const auto oracle = testing::SameArrays(c.Oracle().data(), definition.data(), c.count(),
                                          "HStoredElementwise definition", describe);
  if (!oracle) return oracle;
  CallingThread calling_thread;
  testing::BackwardParts parts(part);
  for (const auto& [target, name] : testing::SupportedTargets()) {
    const testing::ForcedTarget forced(target);
    for (Workers* workers :
         {static_cast<Workers*>(&calling_thread), static_cast<Workers*>(&parts)}) {
      const auto actual = c.Loops(workers, offset);
      const auto same = testing::SameArrays(definition.data(), actual.data(), c.count(),
                                            std::string("HStoredElementwise ") + name, describe);
      if (!same) return same;
    }
    Ran(target == Target::kPortable ? Path::kStoredElementwisePortable
        : target == Target::kAvx2   ? Path::kStoredElementwiseAvx2
                                    : Path::kStoredElementwiseAvx512);
  }
  return ::testing::AssertionSuccess();
}

template <typename T>
int32_t DrawStored(Random* random) {
  using Limits = std::numeric_limits<T>;
  if (random->Between(0, 7) == 0) return random->Flag() ? Limits::min() : Limits::max();
  return random->Between(Limits::min(), Limits::max());
}

float DrawScale(Random* random, int range) {
  const auto fraction = static_cast<float>(random->Between(1 << 20, 1 << 21));
  return std::ldexp(random->Flag() ? 1.0F : fraction, random->Between(-range, range) - 20);
}

// A mode that the op takes.
template <typename T>
StoredElementwiseMode DrawMode(Random* random, StoredOperation operation) {
  StoredElementwiseCase<T> c;
  do {
    const int range = random->Flag() ? 2 : 40;
    c.mode = ModeOf<T>(operation, DrawScale(random, range), DrawScale(random, range),
                       DrawScale(random, range));
    if (random->Between(0, 3) == 0) c.mode.operands[1].scale = c.mode.operands[0].scale;
  } while (!c.IsTaken());
  if (sizeof(T) == 1) {
    for (StoredScale* s : {&c.mode.operands[0], &c.mode.operands[1], &c.mode.output}) {
      s->zero_point = DrawStored<T>(random);
    }
  }
  if (random->Flag()) {
    c.mode.minimum = DrawStored<T>(random);
    c.mode.maximum = random->Between(c.mode.minimum, std::numeric_limits<T>::max());
  }
  return c.mode;
}

template <typename T>
StoredElementwiseCase<T> DrawCase(Random* random, StoredOperation operation,
                                  const std::vector<int64_t>& first,
                                  const std::vector<int64_t>& second) {
  StoredElementwiseCase<T> c;
  c.shapes[0] = first;
  c.shapes[1] = second;
  c.mode = DrawMode<T>(random, operation);
  for (const int k : {0, 1}) {
    int64_t count = 1;
    for (const int64_t size : c.shapes[k]) count *= size;
    for (int64_t i = 0; i < count; ++i) {
      c.operands[k].push_back(static_cast<T>(DrawStored<T>(random)));
    }
  }
  return c;
}

template <typename T>
class StoredElementwiseTensors : public ::testing::Test {};
using Types = ::testing::Types<int8_t, int16_t>;
TYPED_TEST_SUITE(StoredElementwiseTensors, Types);

TYPED_TEST(StoredElementwiseTensors, SizesAndMisalignments) {
  Random random(0x57e1);
  for (const int size : testing::LaneSizes()) {
    if (size == 0) continue;
    for (const StoredOperation operation : kOperations) {
      const int offset = random.Between(0, 3);
      ASSERT_TRUE(Check(DrawCase<TypeParam>(&random, operation, {size}, {size}), offset, 64));
      ASSERT_TRUE(Check(DrawCase<TypeParam>(&random, operation, {3, size}, {size}), offset, 7));
      ASSERT_TRUE(Check(DrawCase<TypeParam>(&random, operation, {}, {2, size}), offset, 50));
    }
  }
}

TYPED_TEST(StoredElementwiseTensors, RandomShapes) {
  Random random(0x57e2);
  for (int round = 0; round < 600 / testing::Step(10); ++round) {
    std::vector<int64_t> shapes[2];
    for (int axis = random.Between(0, 4); axis-- > 0;) {
      const int size = random.Between(1, random.Between(0, 9) == 0 ? 90 : 5);
      const int kind = random.Between(0, 3);
      shapes[0].push_back(kind == 0 ? 1 : size);
      shapes[1].push_back(kind == 1 ? 1 : size);
    }
    std::vector<int64_t>& cut = shapes[random.Between(0, 1)];
    const int missing = random.Between(0, 2);
    for (int i = 0; i < missing && !cut.empty(); ++i) cut.erase(cut.begin());
    const StoredOperation operation = kOperations[random.Between(0, 2)];
    const auto c = DrawCase<TypeParam>(&random, operation, shapes[0], shapes[1]);
    ASSERT_TRUE(Check(c, random.Between(0, 3), random.Between(1, 600)));
  }
}

// Each pair of stored bytes; of shorts as many pairs, the ends among them.
TYPED_TEST(StoredElementwiseTensors, EveryPair) {
  Random random(0x57e3);
  constexpr int kStep = sizeof(TypeParam) == 1 ? 1 : 255;
  std::vector<TypeParam> every;
  for (auto x = int{std::numeric_limits<TypeParam>::min()};
       x <= std::numeric_limits<TypeParam>::max(); x += kStep * testing::Step(7)) {
    every.push_back(static_cast<TypeParam>(x));
  }
  every.push_back(std::numeric_limits<TypeParam>::max());
  for (int round = 0; round < 12; ++round) {
    const auto size = static_cast<int64_t>(every.size());
    StoredElementwiseCase<TypeParam> c;
    c.shapes[0] = {size, 1};
    c.shapes[1] = {size};
    c.operands[0] = c.operands[1] = every;
    c.mode = DrawMode<TypeParam>(&random, kOperations[round % 3]);
    ASSERT_TRUE(Check(c, 0, 5000));
  }
}

// Each exponent that an operand's and a result's multiplier can have, at the stored ends.
TYPED_TEST(StoredElementwiseTensors, EveryExponent) {
  Random random(0x57e4);
  const float nearly = std::nextafter(1.0F, 0.0F);
  for (int power = -40; power <= 20; ++power) {
    for (const StoredOperation operation : kOperations) {
      for (const bool far : {false, true}) {
        auto c = DrawCase<TypeParam>(&random, operation, {70}, {70});
        const float scale = std::ldexp(random.Flag() ? 1.0F : nearly, power);
        c.mode.operands[0].scale = random.Flag() ? 1.0F : nearly;
        c.mode.operands[1].scale = far ? scale : 1.0F;
        c.mode.output.scale = far ? 1.0F : scale;
        ASSERT_TRUE(!c.IsTaken() || Check(c, 0, 30));
        std::swap(c.mode.operands[0].scale, c.mode.operands[1].scale);
        ASSERT_TRUE(!c.IsTaken() || Check(c, 0, 30));
      }
    }
  }
}

// The farthest operands, with the least multiplier that is not 0 and with one that is.
TEST(StoredElementwise, ScalesFarApart) {
  for (const int power : {-30, -31, -60}) {
    StoredElementwiseCase<int16_t> c;
    c.shapes[0] = c.shapes[1] = {4};
    c.operands[0] = {0, 1, -32768, 32767};
    c.operands[1] = {-32768, 32767, -32768, 32767};
    const float far = std::ldexp(std::nextafter(1.0F, 0.0F), power);
    for (const StoredOperation operation : {StoredOperation::kAdd, StoredOperation::kSubtract}) {
      c.mode = ModeOf<int16_t>(operation, 1.0F, far, 0x1p-13F);
      ASSERT_TRUE(c.IsTaken());
      ASSERT_TRUE(Check(c));
      c.mode = ModeOf<int16_t>(operation, far, 1.0F, 0x1p-13F);
      ASSERT_TRUE(Check(c));
    }
  }
}

}  // namespace
}  // namespace bitfold
