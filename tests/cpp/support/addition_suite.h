// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What every addition op is held to: the oracle against its definition, and the definition against
// what the kernel runs. An op's test instantiates the suite with its Call.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_ADDITION_SUITE_H_
#define BITFOLD_TESTS_CPP_SUPPORT_ADDITION_SUITE_H_

#include <gtest/gtest.h>

#include <cstdint>

#include "support/addition.h"
#include "support/ledger.h"
#include "support/scale.h"

namespace bitfold::testing {

template <typename Call>
class AdditionSuite : public ::testing::Test {};

TYPED_TEST_SUITE_P(AdditionSuite);

TYPED_TEST_P(AdditionSuite, Int32AttributesCrossed) {
  auto repeats = FeedRepeats();
  repeats.push_back(3.0f);
  repeats.push_back(17.0f);
  CrossAttributes<TypeParam, int32_t>(false, repeats, 24);
  CrossAttributes<TypeParam, int32_t>(true, {0.0f, 1.0f, 17.0f}, 24);
  CrossCorners<TypeParam, int32_t>(false);
  CrossCorners<TypeParam, int32_t>(true);
  Ran(TypeParam::kInt32Path);
}

TYPED_TEST_P(AdditionSuite, FloatAttributesCrossed) {
  CrossAttributes<TypeParam, float>(false, FeedRepeats(), 12);
  CrossAttributes<TypeParam, float>(false, {17.0f}, 2);
  CrossCorners<TypeParam, float>(false);
  Ran(TypeParam::kFloatPath);
}

TYPED_TEST_P(AdditionSuite, HalfPrecisionAttributesCrossed) {
  CrossAttributes<TypeParam, float>(true, FeedRepeats(), 12);
  CrossAttributes<TypeParam, float>(true, {17.0f}, 2);
  CrossCorners<TypeParam, float>(true);
  Ran(TypeParam::kHalfPath);
}

TYPED_TEST_P(AdditionSuite, SizesAndMisalignments) {
  CrossSizes<TypeParam, int32_t>();
  CrossSizes<TypeParam, float>();
}

// Long feeds, which the kernels prove instead of making.
TYPED_TEST_P(AdditionSuite, LongFeeds) {
  Random random(0x10f9);
  for (const int width : {8, 16, 24, 32}) {
    for (const float repeat : {1000.0f, 65536.5f}) {
      Addition<int32_t> c;
      const int64_t count = kSanitized ? 2 : 8;
      c.value = DrawMany<int32_t>(&random, Data::kFull, count);
      c.operand = DrawMany<int32_t>(&random, Data::kSmall, count);
      c.factor = 7;
      c.feed_repeat = repeat;
      c.mult_shift = 2;
      c.accumulator_size = width;
      ASSERT_TRUE(CheckAddition<TypeParam>(c));
    }
  }
}

REGISTER_TYPED_TEST_SUITE_P(AdditionSuite, Int32AttributesCrossed, FloatAttributesCrossed,
                            HalfPrecisionAttributesCrossed, SizesAndMisalignments, LongFeeds);

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_ADDITION_SUITE_H_
