// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HSingleWeightPerProposalBboxDecoder: worked examples; the definition against the oracle over
// every attribute, printed text included; and the kernel on every target against the definition.

#include "bitfold/HSingleWeightPerProposalBboxDecoder.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/decoder_case.h"
#include "support/decoder_suite.h"

namespace bitfold {
namespace {

using testing::DecoderCase;
using testing::HSingleWeightDecoderTraits;
using testing::Output;
using testing::Same;

// One anchor at one position; its numbers are for the height, the height's minimum, the width and
// the width's minimum.
template <typename T>
DecoderCase<HSingleWeightDecoderTraits, T> One(std::vector<T> centers, std::vector<T> sizes,
                                               std::vector<T> y, std::vector<T> x,
                                               std::vector<T> anchor, int width, int shift = 0) {
  DecoderCase<HSingleWeightDecoderTraits, T> c;
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

TEST(HSingleWeightDecoder, ThePairingIsCrosswise) {
  const auto c = One<int32_t>({2, 3}, {5, 7}, {1000, 2000}, {3000, 4000}, {100, 200, 300, 500}, 32);
  // y-min = 200 * 3, x-min = 500 * 2, y-max = 100 * 7, x-max = 300 * 5.
  ExpectCorners<int32_t>({1600, 4000, 2700, 5500}, KernelOf(c));
  ASSERT_TRUE(CheckCase(c));
}

TEST(HSingleWeightDecoder, ShiftRoundsBeforeTheCentreIsAdded) {
  ExpectCorners<int32_t>(
      {102, 302, 200, 400},
      KernelOf(One<int32_t>({5, 3}, {1, 1}, {100, 200}, {300, 400}, {1, 1, 1, 1}, 32, 1)));
  ExpectCorners<float>({102, 302, 200, 400}, KernelOf(One<float>({5, 3}, {1, 1}, {100, 200},
                                                                 {300, 400}, {1, 1, 1, 1}, 32, 2)));
  ExpectCorners<float>({3, 0, 0, 0},
                       KernelOf(One<float>({0, 75}, {0, 0}, {0, 0}, {0, 0}, {1, 1, 1, 1}, 32, 30)));
  ExpectCorners<float>({2.5f, 0, 0, 0},
                       KernelOf(One<float>({0, 2.5f}, {0, 0}, {0, 0}, {0, 0}, {1, 1, 1, 1}, 32)));
}

TEST(HSingleWeightDecoder, FoldsOnce) {
  ExpectCorners<int32_t>({-56, 144, 0, 0}, KernelOf(One<int32_t>({200, 100}, {0, 0}, {100, 0},
                                                                 {200, 0}, {1, 1, 1, 1}, 8)));
}

TEST(HSingleWeightDecoder, HalfPrecisionQuantisesTheCentreAlone) {
  auto c = One<float>({40000, 0}, {0, 0.3f}, {0.3f, 0}, {-10000, 40000}, {1, 1, 1, 1}, 32);
  c.use_fp16_acc = true;
  ExpectCorners<float>({307.0f / 1024.0f, 30000, 307.0f / 1024.0f, -20000}, KernelOf(c));
  ASSERT_TRUE(CheckCase(c));
}

TEST(HSingleWeightDecoder, WarnsInTheOrderOfTheCorners) {
  const auto c =
      One<float>({9000000, 8388606}, {-9000000, -8388606}, {1, -1}, {1, -1}, {1, 1, 1, 1}, 32);
  const auto line = [](const std::string& sum) {
    return "@@@ WARNING: acc " + sum + ".000000 is out of bounds <-8388607,8388607>\n";
  };
  EXPECT_EQ(KernelOf(c).lines, line("8388607") + line("9000001") + line("-9000001"));
  ASSERT_TRUE(CheckCase(c));
}

}  // namespace

namespace testing {

// Against the oracle and the definition.
INSTANTIATE_TYPED_TEST_SUITE_P(HSingleWeightDecoder, DecoderSuite, HSingleWeightDecoderTraits);

}  // namespace testing
}  // namespace bitfold
