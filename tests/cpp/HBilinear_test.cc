// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HBilinear: worked examples; the definition against the oracle over every attribute, printed text
// included; and the kernel on every target against the definition.

#include "bitfold/HBilinear.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

#include "cpu/vector_datapath.h"
#include "support/addition.h"
#include "support/bilinear_case.h"
#include "support/ledger.h"
#include "support/random.h"
#include "support/scale.h"
#include "support/tables.h"

namespace bitfold {
namespace {

using testing::BilinearCase;
using testing::CheckCase;
using testing::Data;
using testing::Path;
using testing::Ran;
using testing::Random;
using testing::Same;

// One element: the four products, with weights 1.
template <typename T>
BilinearCase<T> One(const std::vector<T>& products, float bias, int width, int shift = 0) {
  BilinearCase<T> c;
  for (size_t k = 0; k < 4; ++k) {
    c.neighbours[k] = {products[k]};
    c.weights[k] = {T{1}};
  }
  c.bias = bias;
  c.accumulator_size = width;
  c.mult_shift = static_cast<int8_t>(shift);
  return c;
}

template <typename T>
BilinearCase<T> Draw(Random* random, Data data, unsigned items, int64_t size) {
  BilinearCase<T> c;
  c.items = items;
  for (int k = 0; k < 4; ++k) {
    c.neighbours[k] = testing::DrawMany<T>(random, data, items * size);
    c.weights[k] = testing::DrawMany<T>(random, data, size);
  }
  return c;
}

// ---- Worked examples ---------------------------------------------------------------------------

TEST(HBilinear, FloatMultipliesByTheReciprocal) {
  EXPECT_TRUE(Same(2.0f, KernelOf(One<float>({5, 0, 0, 0}, 0, 16, 2)).values[0], "2.5 to 2", ""));
  EXPECT_TRUE(Same(2.0f, KernelOf(One<float>({0, 0, 0, 5}, 0, 16, 2)).values[0], "2.5 to 2", ""));
  // 75 / 30 would go to 2.
  EXPECT_TRUE(Same(3.0f, KernelOf(One<float>({75, 0, 0, 0}, 0, 16, 30)).values[0], "", ""));
  EXPECT_TRUE(Same(2.75f, KernelOf(One<float>({2.5f, 0, 0, 0}, 0.25f, 16)).values[0], "", ""));
}

TEST(HBilinear, WarnsFromTheUpperBoundOn) {
  EXPECT_EQ(KernelOf(One<float>({8388607, 0, 0, -1}, 0, 32)).lines,
            "@@@ WARNING: acc 8388607.000000 is out of bounds <-8388607,8388607>\n"
            "@@@ WARNING: acc 8388607.000000 is out of bounds <-8388607,8388607>\n"
            "@@@ WARNING: acc 8388607.000000 is out of bounds <-8388607,8388607>\n");
  EXPECT_EQ(KernelOf(One<float>({-8388607, 0, 0, 0}, 0, 32)).lines, "");
  EXPECT_EQ(KernelOf(One<int32_t>({8388607, 1, 1, 1}, 0, 32)).lines, "");
}

TEST(HBilinear, FoldsAfterEachAddition) {
  // 40000 becomes -25536 before the next product is added.
  EXPECT_TRUE(
      Same(-25436.0f, KernelOf(One<float>({40000, 100, 0, 0}, 0, 16)).values[0], "float", ""));
  EXPECT_EQ(KernelOf(One<int32_t>({40000, 100, 0, 0}, 0, 16)).values[0], -25436);
  // The bias starts the accumulator and is not folded on its own.
  EXPECT_EQ(KernelOf(One<int32_t>({-100, 0, 0, 0}, 200.0f, 8)).values[0], 100);
  EXPECT_EQ(KernelOf(One<int32_t>({65, 65, 0, 0}, 0.9f, 8)).values[0], -126);
}

TEST(HBilinear, IntegersTruncateTheBias) {
  const auto biased = [](float bias) {
    return KernelOf(One<int32_t>({0, 0, 0, 0}, bias, 32)).values[0];
  };
  EXPECT_EQ(biased(0.9f), 0);
  EXPECT_EQ(biased(-0.9f), 0);
  EXPECT_EQ(biased(-2.5f), -2);
  EXPECT_EQ(biased(3e9f), INT32_MIN);
  EXPECT_EQ(biased(std::numeric_limits<float>::quiet_NaN()), INT32_MIN);
}

TEST(HBilinear, FloatModeHasItsGrouping) {
  // ((c + d) + (a + b)) + bias: of 2^24, 1 is lost, 1 + 1 is not.
  BilinearCase<float> c = One<float>({16777216, 0, 1, 1}, -16777216.0f, 8, 2);
  c.float_accumulator = true;
  EXPECT_TRUE(Same(2.0f, KernelOf(c).values[0], "", ""));
  c = One<float>({1, 1, 16777216, 0}, 0, 8);
  c.float_accumulator = true;
  EXPECT_TRUE(Same(16777218.0f, KernelOf(c).values[0], "", ""));
  c = One<float>({16777216, 1, 1, 0}, 0, 8);
  c.float_accumulator = true;
  EXPECT_TRUE(Same(16777216.0f, KernelOf(c).values[0], "", ""));
  EXPECT_EQ(KernelOf(c).lines, "");
}

TEST(HBilinear, IntegersWrapAt32BitsInFloatMode) {
  BilinearCase<int32_t> c = One<int32_t>({INT32_MAX, 1, 5, 7}, 2.9f, 8, 1);
  c.float_accumulator = true;
  EXPECT_EQ(KernelOf(c).values[0], INT32_MIN + 14);
  ASSERT_TRUE(CheckCase(c));
}

TEST(HBilinear, ItemsShareTheWeights) {
  Random random(0xb11);
  BilinearCase<float> c = Draw<float>(&random, Data::kSmall, 1, 700);
  c.items = 3;
  for (auto& neighbours : c.neighbours) {
    const std::vector<float> item = neighbours;
    for (int copy = 0; copy < 2; ++copy) {
      neighbours.insert(neighbours.end(), item.begin(), item.end());
    }
  }
  ASSERT_TRUE(CheckCase(c));
  const auto out = KernelOf(c);
  for (int64_t i = 0; i < c.count(); ++i) {
    ASSERT_TRUE(Same(out.values[i % 700], out.values[i], "item", ""));
  }
}

TEST(HBilinear, NoItemsOrNoElements) {
  BilinearCase<float> c;
  c.items = 0;
  ASSERT_TRUE(CheckCase(c));
  c.items = 3;
  ASSERT_TRUE(CheckCase(c));
  c = One<float>({1, 2, 3, 4}, 0, 8);
  c.items = 0;
  ASSERT_TRUE(CheckCase(c));
}

// ---- Against the oracle and the definition -----------------------------------------------------

// The op does not check its width.
template <typename T>
std::vector<int> AllWidths(bool float_accumulator) {
  std::vector<int> widths = testing::Widths<T>();
  widths.insert(widths.end(), {-1, -2, -7, -23, -24, -125, -126, -127, -148, -149, -150, -151,
                               -1000, INT32_MIN, INT32_MIN + 1});
  if (float_accumulator || std::is_same_v<T, float>) {
    widths.insert(widths.end(), {33, 127, 128, 129, 1000, INT32_MAX});
  }
  return widths;
}

template <typename T>
void CrossAttributes(bool float_accumulator) {
  Random random(0xb111);
  const std::vector<float> biases = {0.0f,
                                     -0.0f,
                                     0.9f,
                                     -2.5f,
                                     100.0f,
                                     40000.0f,
                                     1e-45f,
                                     8388607.0f,
                                     -2147483648.0f,
                                     2147483648.0f,
                                     3e38f,
                                     std::numeric_limits<float>::infinity(),
                                     std::numeric_limits<float>::quiet_NaN()};
  for (const int width : AllWidths<T>(float_accumulator)) {
    for (const int shift : testing::Shifts()) {
      for (const Data data : {Data::kSmall, Data::kCorners, Data::kFull}) {
        BilinearCase<T> c = Draw<T>(&random, data, 2, 20);
        c.bias = random.Pick(biases);
        c.mult_shift = static_cast<int8_t>(shift);
        c.accumulator_size = width;
        c.float_accumulator = float_accumulator;
        ASSERT_TRUE(CheckCase(c, random.Between(0, 3)));
      }
    }
    for (const float bias : biases) {
      BilinearCase<T> c = Draw<T>(&random, Data::kSmall, 1, 5);
      c.bias = bias;
      c.accumulator_size = width;
      c.float_accumulator = float_accumulator;
      ASSERT_TRUE(CheckCase(c));
    }
  }
}

TEST(HBilinear, Int32AttributesCrossed) {
  CrossAttributes<int32_t>(false);
  Ran(Path::kBilinearInt32);
  CrossAttributes<int32_t>(true);
  Ran(Path::kBilinearUnlimitedInt32);
}

TEST(HBilinear, FloatAttributesCrossed) {
  CrossAttributes<float>(false);
  Ran(Path::kBilinearFloat);
  CrossAttributes<float>(true);
  Ran(Path::kBilinearUnlimitedFloat);
}

// Every corner as the first product with every corner as the second; the others are fixed.
template <typename T>
void CrossCorners(bool float_accumulator) {
  const std::vector<T> corners = testing::Corners<T>();
  for (const int width : AllWidths<T>(float_accumulator)) {
    for (const T corner : corners) {
      BilinearCase<T> c;
      const std::vector<T> ones(corners.size(), T{1});
      for (int k = 0; k < 4; ++k) {
        c.neighbours[k] = corners;
        c.weights[k] = ones;
      }
      c.weights[1].assign(corners.size(), T{-3});
      c.neighbours[2].assign(corners.size(), corner);
      std::reverse(c.neighbours[3].begin(), c.neighbours[3].end());
      c.accumulator_size = width;
      c.float_accumulator = float_accumulator;
      ASSERT_TRUE(CheckCase(c));
    }
  }
}

TEST(HBilinear, CornersCrossed) {
  for (const bool float_accumulator : {false, true}) {
    CrossCorners<int32_t>(float_accumulator);
    CrossCorners<float>(float_accumulator);
  }
}

template <typename T>
void CrossSizes() {
  Random random(0xb112);
  std::vector<int> sizes = testing::LaneSizes();
  sizes.insert(sizes.end(), {511, 512, 513, 1024, 1025});
  for (const int size : sizes) {
    for (int offset = 0; offset < 4; ++offset) {
      for (const unsigned items : {1u, 3u}) {
        for (const bool float_accumulator : {false, true}) {
          BilinearCase<T> c = Draw<T>(&random, Data::kSmall, items, size);
          c.mult_shift = 2;
          c.accumulator_size = 16;
          c.float_accumulator = float_accumulator;
          ASSERT_TRUE(CheckCase(c, offset)) << "size " << size << " offset " << offset;
          ASSERT_TRUE(WritesItsOutputAlone(c));
        }
      }
    }
  }
}

TEST(HBilinear, SizesAndMisalignments) {
  CrossSizes<int32_t>();
  CrossSizes<float>();
}

// Lines come as defined wherever they come from: item by item, element by element.
TEST(HBilinear, WarningsInAnyBlockOfAnyItem) {
  Random random(0xb113);
  for (const std::vector<size_t>& at :
       {std::vector<size_t>{0}, {700}, {1290}, {100, 600}, {511, 512, 1299, 1300, 2599}, {1500}}) {
    BilinearCase<float> c = Draw<float>(&random, Data::kSmall, 2, 2 * kDatapathBlock + 276);
    c.accumulator_size = 40;
    for (const size_t i : at) c.neighbours[i % 4][i] = std::numeric_limits<float>::infinity();
    for (auto& weights : c.weights) weights.assign(weights.size(), 1.0f);
    ASSERT_TRUE(CheckCase(c));
    EXPECT_NE(KernelOf(c).lines, "");
  }
}

TEST(HBilinear, RandomCases) {
  Random random(0xb114);
  for (int i = 0; i < 1500 / testing::Step(7); ++i) {
    const Data data = random.Pick<Data>({Data::kSmall, Data::kCorners, Data::kFull});
    const auto items = static_cast<unsigned>(random.Between(1, 3));
    const int size = i % 20 == 0 ? random.Between(500, 1100) : random.Between(1, 60);
    BilinearCase<float> c = Draw<float>(&random, data, items, size);
    c.mult_shift = static_cast<int8_t>(random.Bits());
    c.bias = testing::Draw<float>(&random, data);
    c.accumulator_size = random.Between(-200, 200);
    c.float_accumulator = random.Between(0, 3) == 0;
    ASSERT_TRUE(CheckCase(c, random.Between(0, 3)));
    BilinearCase<int32_t> d = Draw<int32_t>(&random, data, items, size);
    d.mult_shift = c.mult_shift;
    d.bias = c.bias;
    d.accumulator_size = random.Between(-40, 32);
    d.float_accumulator = c.float_accumulator;
    ASSERT_TRUE(CheckCase(d, random.Between(0, 3)));
  }
}

}  // namespace
}  // namespace bitfold
