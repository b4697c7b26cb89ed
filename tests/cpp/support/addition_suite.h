// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What every addition op is held to: the oracle against its definition, and the definition against
// what the kernel runs. An op's test instantiates the suites with its traits: AdditionSuite, and
// FeedSuite where it has a feed repeat.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_ADDITION_SUITE_H_
#define BITFOLD_TESTS_CPP_SUPPORT_ADDITION_SUITE_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <vector>

#include "cpu/vector_datapath.h"
#include "support/addition.h"
#include "support/capture.h"
#include "support/ledger.h"
#include "support/scale.h"

namespace bitfold::testing {

// Repeat counts that are not numbers of passes yet: none, fractions, the smallest.
inline std::vector<float> FeedRepeats() {
  return {-std::numeric_limits<float>::infinity(), -1.0f, -0.0f, 0.0f, 1e-45f, 0.5f, 1.0f, 2.5f};
}

// Counts around every lane and tile width and around the kernels' blocks, at every misalignment;
// the channels divide the block, do not, and are more than it holds.
template <typename Op, typename T>
void CrossSizes() {
  Random random(0x512e5);
  std::vector<int64_t> counts = {0,  1,  2,  3,  4,  5,  7,   8,   9,   15,   16,
                                 17, 31, 32, 33, 63, 64, 511, 512, 513, 1024, 1025};
  for (const int64_t count : counts) {
    for (int offset = 0; offset < 4; ++offset) {
      for (const int64_t channels : {1, 2, 3, 5, 8, 17, 512, 600, 1100}) {
        Addition<T> c = DrawAddition<Op, T>(&random, Data::kSmall, count, channels);
        c.factor = T{3};
        c.second_factor = T{-2};
        c.feed_repeat = 3.0f;
        c.mult_shift = 1;
        c.accumulator_size = 8;
        c.use_fp16_acc = random.Between(0, 3) == 0;
        ASSERT_TRUE(CheckAddition<Op>(c, offset)) << "count " << count << " offset " << offset;
        ASSERT_TRUE(WritesItsOutputAlone(AdditionCase<Op, T>{c}));
        if (!Op::kPerChannel && Op::kSecondSets == 0) break;
      }
    }
  }
}

// In range but for the elements `at`, of which every addition is reported.
template <typename Op>
Addition<float> WarningAt(const std::vector<size_t>& at, bool use_fp16_acc) {
  Random random(0x3a41);
  constexpr int64_t kCount = 2 * kDatapathBlock + 276;
  Addition<float> c = DrawAddition<Op, float>(&random, Data::kSmall, kCount, 7);
  if (!Op::kRepeats) c.second.assign(c.second.size(), 1.0f);
  for (const size_t i : at) {
    c.value[i] = use_fp16_acc ? std::numeric_limits<float>::infinity() : 9000000.0f;
  }
  c.accumulator_size = 40;
  c.use_fp16_acc = use_fp16_acc;
  return c;
}

// A block with a line to print is computed anew by the definition; the others are not.
template <typename Op>
void CheckReplays(const std::vector<size_t>& at, Path path) {
  for (const bool use_fp16_acc : {false, true}) {
    for (const float repeat : {1.0f, 3.0f}) {
      Addition<float> c = WarningAt<Op>(at, use_fp16_acc);
      c.feed_repeat = repeat;
      ASSERT_TRUE(CheckAddition<Op>(c));
      const std::string lines = RunAddition<Op>(c).lines;
      const int additions = Op::kRepeats ? static_cast<int>(repeat) : 1;
      const int parts = Op::kPerChannel && Op::kSecondSets == 1 ? 2 : 1;
      EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'),
                static_cast<int64_t>(at.size()) * additions * parts);
    }
  }
  Ran(path);
}

template <typename Op>
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
  CrossAttributes<TypeParam, float>(false, FeedRepeats(), 20);
  CrossAttributes<TypeParam, float>(false, {17.0f}, 2);
  CrossCorners<TypeParam, float>(false);
  Ran(TypeParam::kFloatPath);
}

TYPED_TEST_P(AdditionSuite, HalfPrecisionAttributesCrossed) {
  CrossAttributes<TypeParam, float>(true, FeedRepeats(), 20);
  CrossAttributes<TypeParam, float>(true, {17.0f}, 2);
  CrossCorners<TypeParam, float>(true);
  Ran(TypeParam::kHalfPath);
}

TYPED_TEST_P(AdditionSuite, SizesAndMisalignments) {
  CrossSizes<TypeParam, int32_t>();
  CrossSizes<TypeParam, float>();
}

TYPED_TEST_P(AdditionSuite, NoElementsAndNoChannels) {
  EXPECT_TRUE((CheckAddition<TypeParam, int32_t>(Addition<int32_t>{})));
  EXPECT_TRUE((CheckAddition<TypeParam, float>(Addition<float>{})));
}

TYPED_TEST_P(AdditionSuite, WarningsInsideBlocks) {
  for (const size_t at : {0u, 1u, 255u, 511u, 512u, 700u, 1023u}) {
    CheckReplays<TypeParam>({at}, Path::kReplayInsideABlock);
  }
}

TYPED_TEST_P(AdditionSuite, WarningsInThePartialBlock) {
  for (const size_t at : {1024u, 1290u, 1299u}) {
    CheckReplays<TypeParam>({at}, Path::kReplayOfThePartialBlock);
  }
}

TYPED_TEST_P(AdditionSuite, WarningsInSeveralBlocks) {
  CheckReplays<TypeParam>({100, 101, 600}, Path::kReplayOfSeveralBlocks);
  CheckReplays<TypeParam>({511, 512, 1023, 1024}, Path::kReplayOfSeveralBlocks);
  CheckReplays<TypeParam>({5, 1299}, Path::kReplayOfSeveralBlocks);
}

// Sums as large as the lower bound, which is in range.
TYPED_TEST_P(AdditionSuite, LowerBoundPrintsNothing) {
  for (const size_t at : {0u, 5u, 700u, 1299u}) {
    for (const float repeat : {1.0f, 3.0f}) {
      Addition<float> c = WarningAt<TypeParam>({}, false);
      c.operand.assign(c.operand.size(), -0.0f);
      if (TypeParam::kRepeats) c.second.assign(c.second.size(), 0.0f);
      c.value[at] = -8388607.0f;
      c.feed_repeat = repeat;
      ASSERT_TRUE(CheckAddition<TypeParam>(c));
      EXPECT_EQ(RunAddition<TypeParam>(c).lines, "");
    }
  }
}

REGISTER_TYPED_TEST_SUITE_P(AdditionSuite, Int32AttributesCrossed, FloatAttributesCrossed,
                            HalfPrecisionAttributesCrossed, SizesAndMisalignments,
                            NoElementsAndNoChannels, WarningsInsideBlocks,
                            WarningsInThePartialBlock, WarningsInSeveralBlocks,
                            LowerBoundPrintsNothing);

template <typename Op>
class FeedSuite : public ::testing::Test {};

TYPED_TEST_SUITE_P(FeedSuite);

// Long feeds, which the kernels prove instead of making.
TYPED_TEST_P(FeedSuite, LongFeeds) {
  Random random(0x10f9);
  for (const int width : {8, 16, 24, 32}) {
    for (const float repeat : {1000.0f, 65536.5f}) {
      const int64_t count = kSanitized ? 2 : 8;
      Addition<int32_t> c;
      c.value = DrawMany<int32_t>(&random, Data::kFull, count);
      c.operand = DrawMany<int32_t>(&random, Data::kSmall, count);
      c.second = DrawMany<int32_t>(&random, Data::kSmall, TypeParam::kSecondSets * count);
      c.factor = 7;
      c.second_factor = -5;
      c.feed_repeat = repeat;
      c.mult_shift = 2;
      c.accumulator_size = width;
      ASSERT_TRUE(CheckAddition<TypeParam>(c));
    }
  }
}

// Around the number of passes from which on the kernels prove them, in half precision too.
TYPED_TEST_P(FeedSuite, PassesMadeOrProven) {
  Random random(0x9a55);
  for (const float repeat : {4.0f, 30.5f, 31.0f, 31.5f, 32.0f, 33.0f, 40.0f}) {
    for (const int width : {0, 1, 8, 31, 32}) {
      for (const Data data : {Data::kSmall, Data::kCorners}) {
        for (const bool use_fp16_acc : {false, true}) {
          Addition<int32_t> c =
              DrawAddition<TypeParam, int32_t>(&random, data, kDatapathBlock + 3, 5);
          c.feed_repeat = repeat;
          c.accumulator_size = width;
          c.use_fp16_acc = use_fp16_acc;
          ASSERT_TRUE(CheckAddition<TypeParam>(c));
        }
      }
    }
  }
  Ran(Path::kManyPassesProven);
}

// Around the number of passes from which on the kernels prove those of floats.
TYPED_TEST_P(FeedSuite, FloatPassesMadeOrProven) {
  Random random(0x9a56);
  for (const float repeat : {262143.0f, 262144.0f, 262145.0f}) {
    for (const bool use_fp16_acc : {false, true}) {
      Addition<float> c = DrawAddition<TypeParam, float>(&random, Data::kSmall, 3, 2);
      c.factor = 0.1f;
      c.second_factor = -1.1f;
      c.feed_repeat = repeat;
      c.accumulator_size = 16;
      c.use_fp16_acc = use_fp16_acc;
      ASSERT_TRUE(CheckAddition<TypeParam>(c));
    }
  }
  Ran(Path::kManyFloatPassesProven);
}

class CancelledAtOnce : public Cancellation {
 public:
  bool IsRequested() const override { return true; }
};

// Feeds that nothing proves: none of these would end, and blocks are not begun.
TYPED_TEST_P(FeedSuite, Cancelled) {
  for (const float repeat : {3.0f, 100000.0f, 2147483648.0f}) {
    Addition<float> c = WarningAt<TypeParam>({1, 600}, false);
    c.feed_repeat = repeat;
    const AdditionInputs<float> in(c, 0);
    std::vector<float> out(c.value.size());
    const CancelledAtOnce cancelled;
    CallingThread calling_thread;
    BackwardParts parts(1);
    for (Workers* workers :
         {static_cast<Workers*>(&calling_thread), static_cast<Workers*>(&parts)}) {
      EXPECT_EQ(PrintedBy([&] {
                  TypeParam::Run(
                      TypeParam::CallOf(in, TypeParam::ShapeOf(c.count(), TypeParam::Channels(c)),
                                        out.data()),
                      c.count(), workers, &cancelled);
                }),
                "");
    }
  }
  Ran(Path::kPassesCancelled);
}

// The first pass in range, a later one out of it.
TYPED_TEST_P(FeedSuite, WarningInALaterPass) {
  for (const size_t at : {3u, 511u, 700u}) {
    Addition<float> c = WarningAt<TypeParam>({}, false);
    c.operand.assign(c.operand.size(), 1.0f);
    c.second.assign(c.second.size(), 0.0f);
    c.value[at] = 8388602.0f;
    c.feed_repeat = 5.0f;
    ASSERT_TRUE(CheckAddition<TypeParam>(c));
    const std::string lines = RunAddition<TypeParam>(c).lines;
    EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 1 + (TypeParam::kSecondSets > 0));
  }
}

REGISTER_TYPED_TEST_SUITE_P(FeedSuite, LongFeeds, PassesMadeOrProven, FloatPassesMadeOrProven,
                            Cancelled, WarningInALaterPass);

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_ADDITION_SUITE_H_
