// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HBboxDecoder: worked examples; the definition against the oracle over every attribute, printed
// text included; and the kernel on every target against the definition.

#include "bitfold/HBboxDecoder.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/decoder_case.h"
#include "support/decoder_suite.h"

namespace bitfold {
namespace {

using testing::DecoderCase;
using testing::HBboxDecoderTraits;
using testing::Output;
using testing::Same;

// One anchor at one position, every input its own power of ten or two.
template <typename T>
DecoderCase<HBboxDecoderTraits, T> One(std::vector<T> centers, std::vector<T> sizes,
                                       std::vector<T> y, std::vector<T> x, std::vector<T> anchor,
                                       int width, int shift = 0) {
  DecoderCase<HBboxDecoderTraits, T> c;
  c.inputs = {centers, sizes, y, x};
  for (const T number : anchor) c.inputs.push_back({number});
  c.accumulator_size = width;
  c.mult_shift = shift;
  return c;
}

template <typename T>
void ExpectCorners(const std::vector<T>& expected, const Output<T>& out) {
  ASSERT_EQ(out.values.count(), static_cast<int64_t>(expected.size()));
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_TRUE(
        Same(expected[i], out.values[static_cast<int64_t>(i)], "corner", std::to_string(i)));
  }
}

TEST(HBboxDecoder, EachCornerHasItsTerms) {
  // Heights 10, 5, -5; widths 20, 7, -7.
  const auto c =
      One<int32_t>({1, 2}, {3, 4}, {1000, 2000}, {3000, 4000}, {10, 5, -5, 20, 7, -7}, 32);
  // y-min = 10 - 15 + 1000, x-min = 40 - 28 + 3000, y-max = 10 + 15 + 2000, x-max = 40 + 28 + 4000.
  ExpectCorners<int32_t>({995, 3012, 2025, 4068}, KernelOf(c));
  ASSERT_TRUE(CheckCase(c));
}

TEST(HBboxDecoder, ShiftRoundsHalfToEven) {
  const auto product = [](int32_t x) {
    return One<int32_t>({x, 0}, {0, 0}, {0, 0}, {0, 0}, {1, 0, 0, 0, 0, 0}, 32, 2);
  };
  ExpectCorners<int32_t>({2, 0, 2, 0}, KernelOf(product(6)));   // 1.5
  ExpectCorners<int32_t>({2, 0, 2, 0}, KernelOf(product(10)));  // 2.5
  ExpectCorners<int32_t>({4, 0, 4, 0}, KernelOf(product(14)));  // 3.5
  const auto real = [](float x, int shift) {
    return One<float>({x, 0}, {0, 0}, {0, 0}, {0, 0}, {1, 0, 0, 0, 0, 0}, 32, shift);
  };
  ExpectCorners<float>({2, 0, 2, 0}, KernelOf(real(3, 2)));  // 1.5
  ExpectCorners<float>({2, 0, 2, 0}, KernelOf(real(5, 2)));  // 2.5
  ExpectCorners<float>({3, 0, 3, 0}, KernelOf(real(75, 30)));
  ExpectCorners<float>({2.5f, 0, 2.5f, 0}, KernelOf(real(2.5f, 0)));
}

TEST(HBboxDecoder, TheFirstSumFoldsBeforeTheCentreIsAdded) {
  // y-min: 100 + 30 = 130 to -126, and + 2. y-max: 100 + 20 and + 10 = 130 to -126.
  const auto c = One<int32_t>({100, 0}, {10, 0}, {2, 10}, {0, 0}, {1, 2, 3, 0, 0, 0}, 8);
  ExpectCorners<int32_t>({-124, 0, -126, 0}, KernelOf(c));
}

TEST(HBboxDecoder, WarnsInTheOrderOfTheCorners) {
  // y-min: 8388607 and the same; x-min: -8388607 twice, in range; y-max: 8388608, then 8388605.
  const auto c = One<float>({8388607, -8388607}, {1, 0}, {0, -3}, {0, 0}, {1, 1, 0, 1, 0, 0}, 32);
  const auto line = [](const std::string& sum) {
    return "@@@ WARNING: acc " + sum + ".000000 is out of bounds <-8388607,8388607>\n";
  };
  EXPECT_EQ(KernelOf(c).lines, line("8388607") + line("8388607") + line("8388608"));
  ASSERT_TRUE(CheckCase(c));
  EXPECT_EQ(
      KernelOf(One<int32_t>({8388607, 0}, {1, 0}, {1, 1}, {1, 1}, {1, 1, 1, 1, 1, 1}, 32)).lines,
      "");
}

TEST(HBboxDecoder, HalfPrecisionQuantisesAddends) {
  // The size product and the centre are quantised, the centre product is not.
  auto c = One<float>({40000, 0}, {-10000, 0.3f}, {0, 40000}, {0.3f, 0}, {1, 1, 0, 0, 0, 0}, 32);
  c.use_fp16_acc = true;
  // y-min: h(40000) = -20000. y-max: h(h(40000 - 10000) - 20000) = 10000.
  ExpectCorners<float>({-20000, 307.0f / 1024.0f, 10000, 0}, KernelOf(c));
  ASSERT_TRUE(CheckCase(c));
  auto d = One<int32_t>({40000, 0}, {0, 0}, {1, 1}, {0, 0}, {1, 0, 0, 0, 0, 0}, 32);
  d.use_fp16_acc = true;  // which integers ignore
  ExpectCorners<int32_t>({40001, 0, 40001, 0}, KernelOf(d));
}

TEST(HBboxDecoder, CentresBelongToRowsAndColumns) {
  DecoderCase<HBboxDecoderTraits, int32_t> c;
  c.n = 2;
  c.h = 2;
  c.w = 3;
  c.anchors = 2;
  for (size_t k = 0; k < HBboxDecoderTraits::kInputs; ++k) {
    c.inputs[k].assign(static_cast<size_t>(c.InputCount(k)), 0);
    for (size_t i = 0; i < c.inputs[k].size(); ++i) {
      if (k == 2 || k == 3) c.inputs[k][i] = static_cast<int32_t>((k - 1) * 100 + i);
    }
  }
  const auto out = KernelOf(c);
  for (int32_t i = 0; i < 2 * 2 * 3 * 2; ++i) {
    const int32_t y = 100 + i / 6 % 2 * 4 + i % 2 * 2;
    const int32_t x = 200 + i / 2 % 3 * 4 + i % 2 * 2;
    EXPECT_EQ(out.values[4 * i], y) << i;
    EXPECT_EQ(out.values[4 * i + 1], x) << i;
    EXPECT_EQ(out.values[4 * i + 2], y + 1) << i;
    EXPECT_EQ(out.values[4 * i + 3], x + 1) << i;
  }
}

}  // namespace

namespace testing {

// Against the oracle and the definition.
INSTANTIATE_TYPED_TEST_SUITE_P(HBboxDecoder, DecoderSuite, HBboxDecoderTraits);

}  // namespace testing
}  // namespace bitfold
