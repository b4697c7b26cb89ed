// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// A row by a matrix in one look at the weights: on every target the bits of the definition where
// its sums count, and no count where a single weight, the last one too, keeps them from it.

#include "chain/row_product.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <vector>

#include "support/chain_recipes.h"
#include "support/ledger.h"
#include "support/matmul_case.h"
#include "support/targets.h"
#include "support/workers.h"

namespace bitfold {
namespace {

using testing::MatMulCase;
using testing::Path;
using testing::Random;

// Whole numbers of a width, their ends first.
struct Numbers {
  int32_t accumulator_size;
  int32_t low, high;
  int32_t weight_low, weight_high;
};

template <typename T>
std::vector<T> Draw(Random* random, int64_t count, int32_t low, int32_t high) {
  std::vector<T> numbers;
  for (int64_t i = 0; i < count; ++i) {
    numbers.push_back(static_cast<T>(i == 0 ? high : i == 1 ? low : random->Between(low, high)));
  }
  return numbers;
}

template <typename T>
MatMulCase<T> DrawRow(Random* random, const Numbers& numbers, int32_t inner, int32_t cols) {
  MatMulCase<T> c;
  c.inner = inner;
  c.cols = cols;
  c.accumulator_size = numbers.accumulator_size;
  c.a = Draw<T>(random, c.a_count(), numbers.low, numbers.high);
  c.b = Draw<T>(random, c.b_count(), numbers.weight_low, numbers.weight_high);
  return c;
}

// On the target in use; empty where the sums do not count.
template <typename T>
std::optional<std::vector<T>> Multiplied(const MatMulCase<T>& c, int offset, Workers* workers) {
  const auto in = testing::Misaligned<T>({&c.a, &c.b}, offset);
  auto out = testing::UnwrittenBuffer<T>(c.count(), offset);
  const auto mult_shift = static_cast<int8_t>(c.mult_shift);
  HeapScratch scratch;
  bool counts = false;
  EXPECT_EQ(testing::PrintedBy([&] {
              counts = MultiplyRow(c.CallOf(in[0].data(), in[1].data(), out.data(), &mult_shift), 0,
                                   workers, &scratch);
            }),
            "");
  if (!counts) return std::nullopt;
  return std::vector<T>(out.data(), out.data() + out.count());
}

// The row product and the whole kernel.
template <typename T>
void Check(const MatMulCase<T>& c, bool counts) {
  const auto definition = testing::DefinitionOf(c, 1);
  for (const auto& [target, name] : testing::SupportedTargets()) {
    const testing::ForcedTarget forced(target);
    CallingThread alone;
    testing::BackwardParts backward(1);
    testing::ThreadParts threads(3, 1);
    for (Workers* workers : {static_cast<Workers*>(&alone), static_cast<Workers*>(&backward),
                             static_cast<Workers*>(&threads)}) {
      const auto multiplied = Multiplied(c, 3, workers);
      ASSERT_EQ(multiplied.has_value(), counts) << name << c.Inputs(0);
      if (!counts) continue;
      ASSERT_TRUE(testing::SameArrays(definition.values.data(), multiplied->data(), c.count(), name,
                                      [&c](int64_t i) { return c.Inputs(i); }));
    }
    testing::Ran(counts ? testing::OnTarget(Path::kRowProductPortable, target)
                        : Path::kRowProductDoesNotCount);
  }
  ASSERT_TRUE(testing::KernelAgainstDefinition(c, definition, 1));
}

// Around lanes, the rows that are read together, those between questions, and parts of columns.
template <typename T>
void CrossShapes(const std::vector<Numbers>& all, uint64_t seed) {
  Random random(seed);
  for (const Numbers& numbers : all) {
    for (const int32_t inner : {1, 2, 7, 8, 9, 63, 64, 65, 130}) {
      for (const int32_t cols : {1, 15, 17, 127, 128, 129, 300}) {
        if (random.Between(0, 2) != 0) continue;
        ASSERT_NO_FATAL_FAILURE(Check(DrawRow<T>(&random, numbers, inner, cols), true))
            << numbers.accumulator_size;
      }
    }
  }
}

// Full words wrap at every width from 31 on; narrower, products are at most the period, 2^16 here.
// Weights stay below those whose sign is corrected: 2^(width / 2 - 1).
TEST(RowProduct, Int32Shapes) {
  CrossShapes<int32_t>({{32, INT32_MIN, INT32_MAX, INT32_MIN, 32767},
                        {31, INT32_MIN, INT32_MAX, INT32_MIN, 16383},
                        {24, 0, 255, -128, 127},
                        {24, -32768, 32767, -512, 511},
                        {16, -512, 512, -128, 127}},
                       0x40a);
}

TEST(RowProduct, FloatShapes) {
  CrossShapes<float>({{22, 0, 255, -128, 127},
                      {16, -255, 255, -128, 127},
                      {23, -255, 255, -8000, 1023},
                      {40, -10, 10, -100, 100}},
                     0x40b);
}

// A row of such numbers with another weight, anywhere.
template <typename T>
void CheckOthers(const Numbers& numbers, const std::vector<T>& others, bool counts) {
  Random random(0x40c);
  for (const int32_t inner : {7, 72}) {
    MatMulCase<T> c = DrawRow<T>(&random, numbers, inner, 130);
    const auto count = static_cast<size_t>(c.b_count());
    for (const size_t place : {size_t{0}, count / 2, count - 2, count - 1}) {
      const T weight = c.b[place];
      for (const T other : others) {
        c.b[place] = other;
        ASSERT_NO_FATAL_FAILURE(Check(c, counts)) << testing::Show(other) << " at " << place;
      }
      c.b[place] = weight;
    }
  }
}

// The largest products of 24 bits and one that is larger; the first sign that is corrected.
TEST(RowProduct, AnotherInt32) {
  const Numbers numbers = {24, 0, 256, -128, 127};
  CheckOthers<int32_t>(numbers, {-65536, 2047}, true);
  CheckOthers<int32_t>(numbers, {-65537, 2048, INT32_MAX, INT32_MIN}, false);
  CheckOthers<int32_t>({32, INT32_MIN, INT32_MAX, -5, 5}, {32767, INT32_MIN}, true);
  CheckOthers<int32_t>({32, INT32_MIN, INT32_MAX, -5, 5}, {32768, INT32_MAX}, false);
}

// Of 22 bits: products of at most 2^22 (which is 255 * 16448 and a little), then what is not whole.
TEST(RowProduct, AnotherFloat) {
  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
  const Numbers numbers = {22, 0, 255, -128, 127};
  CheckOthers<float>(numbers, {-0.0f, -16448.0f, 1023.0f}, true);
  CheckOthers<float>(numbers,
                     {-16449.0f, 1024.0f, -4194304.0f, -8388608.0f, -12582912.0f, 12582912.0f,
                      -16777216.0f, -33554432.0f},
                     false);
  CheckOthers<float>(numbers,
                     {0.5f, -1e-45f, 1e30f, -1e30f, kNan, -kNan, kInfinity, -kInfinity,
                      std::nextafter(127.0f, 0.0f)},
                     false);
}

// Nothing that rounds or scales a product, and no row whose own numbers rule it out.
TEST(RowProduct, IsNotTried) {
  Random random(0x40d);
  MatMulCase<float> c = DrawRow<float>(&random, {22, 0, 255, -128, 127}, 20, 40);
  c.a[3] = 0.25f;
  ASSERT_NO_FATAL_FAILURE(Check(c, false));
  c.a[3] = 16777218.0f;
  ASSERT_NO_FATAL_FAILURE(Check(c, false));
  c.a[3] = 3.0f;
  c.mult_shift = 2;
  ASSERT_NO_FATAL_FAILURE(Check(c, false));
  c.mult_shift = 0;
  c.use_fp16_acc = true;
  ASSERT_NO_FATAL_FAILURE(Check(c, false));
  MatMulCase<int32_t> words = DrawRow<int32_t>(&random, {24, 0, 255, -128, 127}, 20, 40);
  words.mult_shift = 1;
  ASSERT_NO_FATAL_FAILURE(Check(words, false));
}

// Sums of floats beyond theorem 2, whose magnitudes are added up: 2^23 - 2 is the last silent one.
TEST(RowProduct, SumsOfMagnitudesDecide) {
  MatMulCase<float> c;
  c.inner = 2;
  c.cols = 33;
  c.accumulator_size = 30;
  c.a = {2.0f, -2.0f};
  c.b.assign(66, 1.0f);
  c.b[32] = -4194302.0f;
  c.b[65] = -1.0f;
  ASSERT_NO_FATAL_FAILURE(Check(c, true));
  c.b[65] = -2.0f;
  ASSERT_NO_FATAL_FAILURE(Check(c, false));
}

TEST(RowProduct, WithoutMemory) {
  Random random(0x40e);
  const auto c = DrawRow<int32_t>(&random, {24, 0, 255, -128, 127}, 9, 20);
  const int8_t mult_shift = 0;
  for (int failing = 0; failing < 2; ++failing) {
    testing::FailingScratch scratch(failing);
    std::vector<int32_t> out(20);
    CallingThread alone;
    EXPECT_FALSE(MultiplyRow(c.CallOf(c.a.data(), c.b.data(), out.data(), &mult_shift), 0, &alone,
                             &scratch));
  }
}

}  // namespace
}  // namespace bitfold
