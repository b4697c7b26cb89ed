// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HMatmul: worked examples; the definition against the oracle over every attribute, printed text
// included; and the kernel on every target against the definition.

#include "bitfold/HMatMul.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include "support/addition.h"
#include "support/ledger.h"
#include "support/matmul_case.h"
#include "support/random.h"
#include "support/scale.h"
#include "support/tables.h"

namespace bitfold {
namespace {

using testing::CheckCase;
using testing::Data;
using testing::MatMulCase;
using testing::Path;
using testing::Ran;
using testing::Random;
using testing::Same;

constexpr char kWarning[] =
    "\x1b[1;31mweights should be uint8 for matmul, check predecessor has signed output, could "
    "cause degradation\x1b[0m\n";

template <typename T>
MatMulCase<T> Product(std::vector<T> a, std::vector<T> b, int32_t rows, int32_t cols, int32_t width,
                      int32_t shift = 0) {
  MatMulCase<T> c;
  c.rows = rows;
  c.inner = static_cast<int32_t>(a.size()) / rows;
  c.cols = cols;
  c.a = std::move(a);
  c.b = std::move(b);
  c.accumulator_size = width;
  c.mult_shift = shift;
  return c;
}

template <typename T>
MatMulCase<T> Draw(Random* random, Data data, int32_t rows, int32_t inner, int32_t cols,
                   int32_t batch = 1) {
  MatMulCase<T> c;
  c.batch = batch;
  c.rows = rows;
  c.inner = inner;
  c.cols = cols;
  c.a = testing::DrawMany<T>(random, data, c.a_count());
  c.b = testing::DrawMany<T>(random, data, c.b_count());
  return c;
}

// ---- Worked examples ---------------------------------------------------------------------------

TEST(HMatMul, TwoByThreeTimesThreeByTwo) {
  const auto out = KernelOf(Product<int32_t>({1, 2, 3, 4, 5, 6}, {7, 8, 9, 10, 11, 12}, 2, 2, 32));
  const std::vector<int32_t> expected = {58, 64, 139, 154};
  for (int i = 0; i < 4; ++i) EXPECT_EQ(out.values[i], expected[static_cast<size_t>(i)]) << i;
  EXPECT_EQ(out.lines, "");
}

TEST(HMatMul, WeightsAboveTheSignedHalfAreNegative) {
  const auto negative = KernelOf(Product<int32_t>({1}, {200}, 1, 1, 16));
  EXPECT_EQ(negative.values[0], -56);
  EXPECT_EQ(negative.lines, kWarning);
  const auto largest = KernelOf(Product<int32_t>({1}, {127}, 1, 1, 16));
  EXPECT_EQ(largest.values[0], 127);
  EXPECT_EQ(largest.lines, "");
  EXPECT_EQ(KernelOf(Product<int32_t>({1}, {128}, 1, 1, 16)).values[0], -128);
  const auto real = KernelOf(Product<float>({2.0f}, {200.0f}, 1, 1, 16));
  EXPECT_TRUE(Same(-112.0f, real.values[0], "float", ""));
  EXPECT_EQ(real.lines, kWarning);
  EXPECT_TRUE(Same(127.5f - 256.0f, KernelOf(Product<float>({1.0f}, {127.5f}, 1, 1, 16)).values[0],
                   "", ""));
}

TEST(HMatMul, OneRedLineForEachEntryThatNeededIt) {
  MatMulCase<int32_t> c = Product<int32_t>({1, 1, 1, 1}, {200, 201, 202, 203}, 2, 2, 16);
  EXPECT_EQ(KernelOf(c).lines, kWarning);
  c.batch = 3;
  c.a.assign(12, 1);
  c.b = {200, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 255};
  EXPECT_EQ(KernelOf(c).lines, std::string(kWarning) + kWarning);
  ASSERT_TRUE(CheckCase(c));
  // A matrix of no row meets no weight.
  c = Product<int32_t>({1}, {200}, 1, 1, 16);
  c.rows = 0;
  c.a.clear();
  EXPECT_EQ(KernelOf(c).lines, "");
  ASSERT_TRUE(CheckCase(c));
  Ran(Path::kMatMulWarning);
}

TEST(HMatMul, FloatMultipliesByTheReciprocal) {
  // 7.5 times 0.33333334 is 2.5, a tie, to 2.
  EXPECT_TRUE(Same(2.0f, KernelOf(Product<float>({7.5f}, {1.0f}, 1, 1, 24, 3)).values[0], "", ""));
  // 75 / 30 would go to 2.
  EXPECT_TRUE(
      Same(3.0f, KernelOf(Product<float>({75.0f}, {1.0f}, 1, 1, 24, 30)).values[0], "", ""));
  EXPECT_EQ(KernelOf(Product<int32_t>({5}, {1}, 1, 1, 24, 2)).values[0], 1);  // 1.25
}

TEST(HMatMul, WrapsAfterEachProduct) {
  // 100, 150 to -106, -56.
  EXPECT_EQ(KernelOf(Product<int32_t>({100, 50, 50}, {1, 1, 1}, 1, 1, 8)).values[0], -56);
  EXPECT_TRUE(
      Same(-56.0f, KernelOf(Product<float>({100, 50, 50}, {1, 1, 1}, 1, 1, 8)).values[0], "", ""));
}

TEST(HMatMul, WarnsOfEachSumInOrder) {
  const auto out = KernelOf(Product<float>({8388607.0f, 1.0f, -2.0f}, {1, 1, 1}, 1, 1, 32));
  EXPECT_EQ(out.lines,
            "@@@ WARNING: acc 8388607.000000 is out of bounds <-8388607,8388607>\n"
            "@@@ WARNING: acc 8388608.000000 is out of bounds <-8388607,8388607>\n");
  EXPECT_TRUE(Same(8388606.0f, out.values[0], "", ""));
  EXPECT_EQ(KernelOf(Product<float>({-8388607.0f}, {1}, 1, 1, 32)).lines, "");
  EXPECT_EQ(KernelOf(Product<int32_t>({8388607, 1}, {1, 1}, 1, 1, 32)).lines, "");
}

TEST(HMatMul, HalfPrecision) {
  MatMulCase<float> c = Product<float>({40000.0f}, {1.0f}, 1, 1, 24);
  c.use_fp16_acc = true;
  EXPECT_TRUE(Same(-20000.0f, KernelOf(c).values[0], "", ""));
  MatMulCase<int32_t> d = Product<int32_t>({40000}, {1}, 1, 1, 24);
  d.use_fp16_acc = true;  // which integers ignore
  EXPECT_EQ(KernelOf(d).values[0], 40000);
}

TEST(HMatMul, NoInnerElementGivesZeros) {
  MatMulCase<float> c;
  c.rows = 2;
  c.inner = 0;
  c.cols = 3;
  ASSERT_TRUE(CheckCase(c));
  const auto out = KernelOf(c);
  for (int i = 0; i < 6; ++i) EXPECT_TRUE(Same(0.0f, out.values[i], "", "")) << i;
}

// ---- Against the oracle and the definition -----------------------------------------------------

template <typename T>
void CrossAttributes(bool use_fp16_acc) {
  Random random(0x3a73);
  std::vector<int> widths = testing::Widths<T>();
  widths.insert(widths.end(), {3, 15, 17});
  if (std::is_same_v<T, float>) widths.insert(widths.end(), {31, 66, 67, 128, 129, 1000});
  for (const int width : widths) {
    for (const int shift : testing::Shifts()) {
      for (const Data data : {Data::kSmall, Data::kCorners, Data::kFull}) {
        MatMulCase<T> c = Draw<T>(&random, data, 3, 4, 5, 2);
        c.accumulator_size = width;
        c.mult_shift = shift;
        c.use_fp16_acc = use_fp16_acc;
        ASSERT_TRUE(CheckCase(c, random.Between(0, 3)));
      }
    }
  }
}

TEST(HMatMul, AttributesCrossed) {
  CrossAttributes<int32_t>(false);
  CrossAttributes<int32_t>(true);
  Ran(Path::kMatMulInt32);
  CrossAttributes<float>(false);
  Ran(Path::kMatMulFloat);
  CrossAttributes<float>(true);
  Ran(Path::kMatMulHalf);
}

// Every corner as the value with every corner as the weight.
template <typename T>
void CrossCorners(bool use_fp16_acc) {
  const std::vector<T> corners = testing::Corners<T>();
  const auto n = static_cast<int32_t>(corners.size());
  for (const int width : testing::Widths<T>()) {
    for (const int shift : {0, 1, 3}) {
      MatMulCase<T> c = Product<T>(corners, corners, n, n, width, shift);
      c.use_fp16_acc = use_fp16_acc;
      ASSERT_TRUE(CheckCase(c));
    }
  }
}

TEST(HMatMul, CornersCrossed) {
  CrossCorners<int32_t>(false);
  CrossCorners<float>(false);
  CrossCorners<float>(true);
}

template <typename T>
void CrossShapes() {
  Random random(0x5a9e);
  for (const int32_t rows : {0, 1, 2, 7, 17}) {
    for (const int32_t inner : {0, 1, 2, 9, 33}) {
      for (const int32_t cols : {0, 1, 2, 8, 15, 16, 17, 33}) {
        for (const int32_t batch : {0, 1, 3}) {
          MatMulCase<T> c = Draw<T>(&random, Data::kSmall, rows, inner, cols, batch);
          c.accumulator_size = 18;
          c.mult_shift = 2;
          c.use_fp16_acc = random.Flag();
          ASSERT_TRUE(CheckCase(c, random.Between(0, 3)));
          ASSERT_TRUE(WritesItsOutputAlone(c));
        }
      }
    }
  }
}

TEST(HMatMul, ShapesAndMisalignments) {
  CrossShapes<int32_t>();
  CrossShapes<float>();
}

// Weights around the limit of every width.
TEST(HMatMul, WeightLimits) {
  for (int32_t width = 0; width <= 40; ++width) {
    std::vector<float> weights;
    for (const double limit : {std::exp2(width / 2 - 1), std::exp2(width / 2)}) {
      for (int delta = -2; delta <= 2; ++delta)
        weights.push_back(static_cast<float>(limit + delta));
    }
    const auto n = static_cast<int32_t>(weights.size());
    ASSERT_TRUE(CheckCase(Product<float>({1.0f}, weights, 1, n, width))) << "width " << width;
    if (width > 32) continue;
    const std::vector<int32_t> whole(weights.begin(), weights.end());
    ASSERT_TRUE(CheckCase(Product<int32_t>({1}, whole, 1, n, width))) << "width " << width;
  }
}

TEST(HMatMul, RandomCases) {
  Random random(0x3a74);
  for (int i = 0; i < 300 / testing::Step(5); ++i) {
    const Data data = random.Pick<Data>({Data::kSmall, Data::kCorners, Data::kFull});
    const int32_t cols = data == Data::kSmall ? random.Between(1, 70) : random.Between(1, 20);
    MatMulCase<float> c = Draw<float>(&random, data, random.Between(1, 5), random.Between(1, 20),
                                      cols, random.Between(1, 2));
    c.accumulator_size = random.Between(0, 60);
    c.mult_shift = random.Between(-128, 127);
    c.use_fp16_acc = random.Flag();
    ASSERT_TRUE(CheckCase(c, random.Between(0, 3)));
    MatMulCase<int32_t> d = Draw<int32_t>(&random, data, c.rows, c.inner, c.cols, c.batch);
    d.accumulator_size = random.Between(0, 32);
    d.mult_shift = c.mult_shift;
    ASSERT_TRUE(CheckCase(d, random.Between(0, 3)));
  }
}

}  // namespace
}  // namespace bitfold
