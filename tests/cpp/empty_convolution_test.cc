// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Convolutions without products: images or filters of no elements, however large their other
// dimensions. Only the elementwise values are added.

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <vector>

#include "cpu/convolution.h"
#include "support/compare.h"
#include "support/convolution.h"
#include "support/ledger.h"
#include "support/random.h"

namespace bitfold {
namespace {

using reference::Convolution;
using testing::Random;

constexpr int32_t kMax = std::numeric_limits<int32_t>::max();

// ---- Without products --------------------------------------------------------------------------

template <typename T>
void ExpectSameAsDefinition(const Convolution& c, Random* random) {
  for (const bool elementwise : {false, true}) {
    const auto data = testing::DrawConvolution<T>(random, c, testing::Data::kFull, elementwise);
    const auto expected = testing::DefinedConvolution(c, data);
    const auto actual = testing::ThreadedConvolution(c, data, pthread_create);
    EXPECT_TRUE(
        testing::SameConvolutions(c, expected.values.data(), actual.values.data(), "no products"));
    EXPECT_TRUE(testing::SameText(expected.lines, actual.lines, "no products"));
    testing::Ran(testing::Path::kConvolutionWithoutProducts);
  }
}

TEST(EmptyConvolution, AsDefined) {
  Random random(0xe0f7);
  // Height, width and channels of the image; height, width and channels of the filter.
  const int32_t shapes[][6] = {{3, 3, 0, 3, 3, 2}, {3, 3, 0, 70, 1, 2}, {3, 3, 2, 3, 0, 2},
                               {3, 3, 2, 0, 3, 2}, {0, 3, 2, 3, 3, 2},  {3, 0, 2, 3, 3, 2},
                               {0, 0, 2, 5, 5, 2}, {3, 3, 0, 0, 0, 3},  {3, 3, 2, 2, 2, 0}};
  for (const auto& s : shapes) {
    for (const int32_t dilation : {-1, 0, 1, 2}) {
      for (int variant = 0; variant < 16; ++variant) {
        Convolution c = testing::Plain(s[0], s[1], s[2], s[3], s[4], s[5]);
        c.batch = 3;
        c.stride_h = c.stride_w = 1 + variant % 2;
        c.dilation_h = dilation;
        c.same = true;
        c.is_depthwise = s[5] <= s[2] && (variant & 2) != 0;
        c.use_fp16_acc = (variant & 4) != 0;
        c.accumulator_size = (variant & 8) != 0 ? 32 : 7;
        ExpectSameAsDefinition<int32_t>(c, &random);
        ExpectSameAsDefinition<float>(c, &random);
      }
    }
  }
}

// 2^31 - 1 rows of taps that meet nothing, and an image of as many rows without outputs.
TEST(EmptyConvolution, TapsAndOutputsAreNotWalked) {
  Convolution c = testing::Plain(3, 3, 0, kMax, kMax, 2);
  c.same = true;
  testing::ConvolutionData<float> data;
  data.elementwise.assign(18, 2.5f);
  EXPECT_EQ(testing::ThreadedConvolution(c, data, pthread_create).values[17], 2.5f);
  testing::ThreadedConvolution(testing::Plain(kMax, kMax, 3, 1, 1, 0), data, pthread_create);
  c = testing::Plain(3, 3, 3, 1, 1, 0);
  c.batch = 1 << 30;
  testing::ThreadedConvolution(c, data, pthread_create);
}

// A padded image of 2^58 positions is not made, nor is its size computed in 64 bits only.
TEST(EmptyConvolution, DilationsOfTwoHundredMillion) {
  Random random(0xd1a);
  Convolution c = testing::Plain(3, 3, 256, 3, 3, 16);
  c.same = true;
  c.dilation_h = c.dilation_w = 1 << 28;
  const auto data = testing::DrawConvolution<int32_t>(&random, c, testing::Data::kSmall, true);
  const auto expected = testing::OracleConvolution(c, data);
  const auto actual = testing::ThreadedConvolution(c, data, pthread_create);
  EXPECT_TRUE(testing::SameConvolutions(c, expected.values.data(), actual.values.data(), "far"));
}

}  // namespace
}  // namespace bitfold
