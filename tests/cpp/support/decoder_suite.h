// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What both box decoders are held to: the oracle against the definition, and the definition against
// the kernel on every target. A decoder's test instantiates the suite with its traits.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_DECODER_SUITE_H_
#define BITFOLD_TESTS_CPP_SUPPORT_DECODER_SUITE_H_

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <vector>

#include "support/addition.h"
#include "support/decoder_case.h"
#include "support/scale.h"

namespace bitfold::testing {

template <typename Op, typename T>
void CrossDecoderAttributes(bool use_fp16_acc) {
  Random random(0xdec0);
  for (const int width : Widths<T>()) {
    for (const int shift : Shifts()) {
      for (const Data data : {Data::kSmall, Data::kCorners, Data::kFull}) {
        DecoderCase<Op, T> c = DrawDecoder<Op, T>(&random, data, 2, 2, 3, 3);
        c.accumulator_size = width;
        c.mult_shift = shift;
        c.use_fp16_acc = use_fp16_acc;
        ASSERT_TRUE(CheckCase(c, random.Between(0, 3)));
      }
    }
  }
}

// Every corner as the anchors' numbers with every corner as the detections; drawn centres.
template <typename Op, typename T>
void CrossDecoderCorners(bool use_fp16_acc) {
  Random random(0xdec1);
  const std::vector<T> corners = Corners<T>();
  const auto n = static_cast<int32_t>(corners.size());
  for (const int width : Widths<T>()) {
    for (const int shift : {0, 3}) {
      DecoderCase<Op, T> c = DrawDecoder<Op, T>(&random, Data::kCorners, 1, 1, n, n);
      for (size_t k = 4; k < Op::kInputs; ++k) c.inputs[k] = corners;
      for (size_t k = 0; k < 2; ++k) {
        for (size_t i = 0; i < c.inputs[k].size(); ++i) {
          c.inputs[k][i] = corners[i / 2 / corners.size()];
        }
      }
      c.accumulator_size = width;
      c.mult_shift = shift;
      c.use_fp16_acc = use_fp16_acc;
      ASSERT_TRUE(CheckCase(c));
    }
  }
}

// Rows of fewer anchors than a block, of as many, and of more; anchors that divide it or do not.
template <typename Op, typename T>
void CrossDecoderSizes() {
  Random random(0xdec2);
  for (const int32_t anchors : {1, 2, 3, 9, 16, 127, 128, 129, 300}) {
    for (const int32_t w : {1, 2, 5, 43, 127, 128, 129, 255, 256, 257, 511, 512, 513}) {
      if (anchors * w > 1300) continue;
      for (const int32_t h : {1, 3}) {
        const int32_t n = random.Between(1, 2);
        DecoderCase<Op, T> c = DrawDecoder<Op, T>(&random, Data::kSmall, n, h, w, anchors);
        c.accumulator_size = 12;
        c.mult_shift = 3;
        c.use_fp16_acc = random.Flag();
        ASSERT_TRUE(CheckCase(c, random.Between(0, 3)));
        ASSERT_TRUE(WritesItsOutputAlone(c));
      }
    }
  }
}

template <typename Op>
class DecoderSuite : public ::testing::Test {};

TYPED_TEST_SUITE_P(DecoderSuite);

TYPED_TEST_P(DecoderSuite, Int32AttributesCrossed) {
  CrossDecoderAttributes<TypeParam, int32_t>(false);
  CrossDecoderAttributes<TypeParam, int32_t>(true);
  CrossDecoderCorners<TypeParam, int32_t>(false);
  Ran(TypeParam::kInt32Path);
}

TYPED_TEST_P(DecoderSuite, FloatAttributesCrossed) {
  CrossDecoderAttributes<TypeParam, float>(false);
  CrossDecoderCorners<TypeParam, float>(false);
  Ran(TypeParam::kFloatPath);
}

TYPED_TEST_P(DecoderSuite, HalfPrecisionAttributesCrossed) {
  CrossDecoderAttributes<TypeParam, float>(true);
  CrossDecoderCorners<TypeParam, float>(true);
  Ran(TypeParam::kHalfPath);
}

TYPED_TEST_P(DecoderSuite, SizesAndMisalignments) {
  CrossDecoderSizes<TypeParam, int32_t>();
  CrossDecoderSizes<TypeParam, float>();
}

TYPED_TEST_P(DecoderSuite, CountsBelowOne) {
  Random random(0xdec3);
  for (const int32_t none : {0, -1, -2147483647}) {
    for (int which = 0; which < 4; ++which) {
      int32_t counts[4] = {2, 2, 2, 2};
      counts[which] = none;
      const auto c = DrawDecoder<TypeParam, float>(&random, Data::kFull, counts[0], counts[1],
                                                   counts[2], counts[3]);
      ASSERT_TRUE(CheckCase(c));
      ASSERT_TRUE(WritesItsOutputAlone(c));
      EXPECT_EQ(KernelOf(c).lines, "");
    }
  }
}

// Lines come as defined wherever they come from: row by row, anchor by anchor, corner by corner.
TYPED_TEST_P(DecoderSuite, WarningsInAnyBlockOfAnyRow) {
  Random random(0xdec4);
  for (const bool use_fp16_acc : {false, true}) {
    for (const std::vector<size_t>& at :
         {std::vector<size_t>{0}, {255}, {256}, {700}, {3, 301, 620}, {1000, 1001, 1199}}) {
      auto c = DrawDecoder<TypeParam, float>(&random, Data::kSmall, 2, 1, 100, 3);
      c.accumulator_size = 40;
      c.use_fp16_acc = use_fp16_acc;
      for (size_t k = 4; k < TypeParam::kInputs; ++k) c.inputs[k].assign(3, 1.0f);
      for (const size_t i : at) c.inputs[i % 2][i] = std::numeric_limits<float>::infinity();
      ASSERT_TRUE(CheckCase(c));
      EXPECT_NE(KernelOf(c).lines, "");
    }
  }
}

TYPED_TEST_P(DecoderSuite, RandomCases) {
  Random random(0xdec5);
  for (int i = 0; i < 400 / testing::Step(5); ++i) {
    const Data data = random.Pick<Data>({Data::kSmall, Data::kCorners, Data::kFull});
    const int32_t n = random.Between(1, 2);
    const int32_t h = random.Between(1, 3);
    const int32_t w = random.Between(1, 30);
    const int32_t anchors = random.Between(1, 12);
    auto c = DrawDecoder<TypeParam, float>(&random, data, n, h, w, anchors);
    c.accumulator_size = random.Between(0, 140);
    c.mult_shift = random.Between(-128, 127);
    c.use_fp16_acc = random.Flag();
    ASSERT_TRUE(CheckCase(c, random.Between(0, 3)));
    auto d = DrawDecoder<TypeParam, int32_t>(&random, data, n, h, w, anchors);
    d.accumulator_size = random.Between(0, 32);
    d.mult_shift = c.mult_shift;
    d.use_fp16_acc = c.use_fp16_acc;
    ASSERT_TRUE(CheckCase(d, random.Between(0, 3)));
  }
}

REGISTER_TYPED_TEST_SUITE_P(DecoderSuite, Int32AttributesCrossed, FloatAttributesCrossed,
                            HalfPrecisionAttributesCrossed, SizesAndMisalignments, CountsBelowOne,
                            WarningsInAnyBlockOfAnyRow, RandomCases);

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_DECODER_SUITE_H_
