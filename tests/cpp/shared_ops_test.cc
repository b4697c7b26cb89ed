// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The ops that share their work, on threads (ThreadParts), against their definitions: bits, and
// lines in their order. That they may be cut at every place is part of each op's own tests.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "bitfold/HBilinear.h"
#include "frame/replay.h"
#include "support/activation_case.h"
#include "support/addition.h"
#include "support/bilinear_case.h"
#include "support/decoder_case.h"
#include "support/layernorm_case.h"
#include "support/ledger.h"
#include "support/nms_boxes.h"
#include "support/nms_case.h"
#include "support/random.h"
#include "support/softmax_case.h"
#include "support/workers.h"

namespace bitfold {
namespace {

using testing::Data;
using testing::Path;
using testing::Ran;
using testing::Random;

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr int kThreads = 4;

// ---- Replays -----------------------------------------------------------------------------------

// What parts leave comes in order, once, on the calling thread; at once where a part has all units.
TEST(Replay, IsInOrder) {
  const auto odd = [](int64_t first, int64_t end, const Replay& replay) {
    for (int64_t unit = first; unit < end; ++unit) {
      if (unit % 2 == 1) replay(unit);
    }
  };
  testing::BackwardParts backward(3);
  testing::ThreadParts threads(kThreads, 1);
  CallingThread calling_thread;
  for (Workers* workers : std::vector<Workers*>{&backward, &threads, &calling_thread}) {
    for (const int64_t units : {0, 1, 2, 100}) {
      std::vector<int64_t> replayed;
      ShareWithReplay(workers, units, 1, odd, [&](int64_t unit) { replayed.push_back(unit); });
      ASSERT_EQ(replayed.size(), static_cast<size_t>(units / 2));
      for (size_t i = 0; i < replayed.size(); ++i) {
        EXPECT_EQ(replayed[i], 2 * static_cast<int64_t>(i) + 1);
      }
    }
  }
}

// ---- What goes block by block ------------------------------------------------------------------

// On threads, in parts of one unit and of some.
template <typename Case>
::testing::AssertionResult OnThreads(const Case& c) {
  const auto definition = DefinitionOf(c);
  for (const int64_t units : {1, 3}) {
    testing::ThreadParts threads(kThreads, units);
    const auto same = SameOutputs(c, definition, KernelOf(c, 0, &threads), "on threads");
    if (!same) return same;
  }
  return ::testing::AssertionSuccess();
}

template <typename Op>
class SharedAdditions : public ::testing::Test {};

using AllAdditions =
    ::testing::Types<testing::HAddTraits, testing::HBiasAddTraits,
                     testing::HDecomposedBiasAddTraits, testing::HStandaloneElementwiseAddTraits>;
TYPED_TEST_SUITE(SharedAdditions, AllAdditions);

TYPED_TEST(SharedAdditions, IntegersInBlocks) {
  using Case = testing::AdditionCase<TypeParam, int32_t>;
  Random random(0x5a1);
  auto c = testing::DrawAddition<TypeParam, int32_t>(&random, Data::kFull, 6007, 17);
  c.accumulator_size = 20;
  c.mult_shift = 2;
  for (const float repeat : {0.0f, 1.0f, 3.0f}) {
    c.feed_repeat = repeat;
    ASSERT_TRUE(OnThreads(Case{c}));
  }
}

// Lines in several blocks, one behind the other and apart.
TYPED_TEST(SharedAdditions, LinesOfBlocks) {
  Random random(0x5a2);
  for (const bool use_fp16_acc : {false, true}) {
    auto c = testing::DrawAddition<TypeParam, float>(&random, Data::kSmall, 6007, 7);
    if (!TypeParam::kRepeats) c.second.assign(c.second.size(), 1.0f);
    c.accumulator_size = 40;
    c.use_fp16_acc = use_fp16_acc;
    for (const size_t at : {0, 3, 511, 512, 2000, 5000, 6006}) {
      c.value[at] = use_fp16_acc ? kInfinity : 9000000.0f + static_cast<float>(at);
    }
    ASSERT_TRUE(OnThreads(testing::AdditionCase<TypeParam, float>{c}));
    EXPECT_NE(testing::RunAddition<TypeParam>(c).lines, "");
  }
  Ran(Path::kReplayAfterParts);
}

template <typename Op>
class SharedFeeds : public ::testing::Test {};

using AllFeeds = ::testing::Types<testing::HAddTraits, testing::HBiasAddTraits,
                                  testing::HDecomposedBiasAddTraits>;
TYPED_TEST_SUITE(SharedFeeds, AllFeeds);

// More passes than are made in blocks.
TYPED_TEST(SharedFeeds, IntegersProven) {
  Random random(0x5a3);
  auto c = testing::DrawAddition<TypeParam, int32_t>(&random, Data::kSmall, 333, 5);
  c.accumulator_size = 12;
  c.feed_repeat = 100.0f;
  ASSERT_TRUE(OnThreads(testing::AdditionCase<TypeParam, int32_t>{c}));
}

// Some elements leave their range in a late pass, and print as they do.
TYPED_TEST(SharedFeeds, LinesOfProvenPasses) {
  Random random(0x5a4);
  auto c = testing::DrawAddition<TypeParam, float>(&random, Data::kSmall, 100, 100);
  c.operand.assign(c.operand.size(), 1.0f);
  c.second.assign(c.second.size(), 0.0f);
  for (const size_t at : {5, 40, 41, 99}) c.value[at] = 8388600.0f - static_cast<float>(at);
  c.accumulator_size = 24;
  c.feed_repeat = 262144.0f;
  ASSERT_TRUE(OnThreads(testing::AdditionCase<TypeParam, float>{c}));
  EXPECT_NE(testing::RunAddition<TypeParam>(c).lines, "");
  Ran(Path::kManyPassesInParts);
}

template <typename Op>
class SharedDecoders : public ::testing::Test {};

using AllDecoders =
    ::testing::Types<testing::HBboxDecoderTraits, testing::HSingleWeightDecoderTraits>;
TYPED_TEST_SUITE(SharedDecoders, AllDecoders);

TYPED_TEST(SharedDecoders, RowsOfOneBlockAndOfSeveral) {
  Random random(0x5a5);
  for (const int32_t columns : {5, 200}) {
    const auto c = testing::DrawDecoder<TypeParam, int32_t>(&random, Data::kFull, 2, 7, columns, 3);
    ASSERT_TRUE(OnThreads(c));
    auto d = testing::DrawDecoder<TypeParam, float>(&random, Data::kSmall, 2, 7, columns, 3);
    d.accumulator_size = 40;
    for (size_t k = 4; k < TypeParam::kInputs; ++k) d.inputs[k].assign(3, 1.0f);
    const size_t last = d.inputs[0].size() - 1;
    for (const size_t at : {size_t{0}, last / 3, last / 2, last}) d.inputs[0][at] = kInfinity;
    ASSERT_TRUE(OnThreads(d));
    EXPECT_NE(KernelOf(d).lines, "");
  }
}

template <typename T>
testing::BilinearCase<T> DrawBilinear(Random* random, unsigned items, int64_t size) {
  testing::BilinearCase<T> c;
  c.items = items;
  for (int k = 0; k < 4; ++k) {
    c.neighbours[k] = testing::DrawMany<T>(random, Data::kSmall, items * size);
    c.weights[k] = testing::DrawMany<T>(random, Data::kSmall, size);
  }
  c.accumulator_size = 20;
  return c;
}

TEST(SharedBilinear, ItemsOfOneBlockAndOfSeveral) {
  Random random(0x5a6);
  for (const int64_t size : {100, 1700}) {
    ASSERT_TRUE(OnThreads(DrawBilinear<int32_t>(&random, 5, size)));
    auto c = DrawBilinear<float>(&random, 5, size);
    for (const bool float_accumulator : {true, false}) {
      c.float_accumulator = float_accumulator;
      c.neighbours[1][7] = c.neighbours[3][static_cast<size_t>(4 * size)] = 3e9f;
      ASSERT_TRUE(OnThreads(c));
    }
    EXPECT_NE(KernelOf(c).lines, "");
  }
}

// ---- Units -------------------------------------------------------------------------------------

TEST(SharedSoftmax, OverflowsOfSomeVectors) {
  Random random(0x5a7);
  testing::SoftmaxCase c;
  std::vector<testing::SoftmaxRow> rows;
  for (int k = 0; k < kSoftmaxRows; ++k) {
    rows.push_back({static_cast<uint16_t>(65535 / (k + 1)),
                    static_cast<uint32_t>(16777215 - 60000 * k), static_cast<uint8_t>(k)});
  }
  c.table = PackSoftmaxTable(rows);
  c.vectors = 40;
  constexpr int kSize = 300;  // equal elements overflow: 300 * 65535
  for (int i = 0; i < c.vectors * kSize; ++i) {
    c.in.push_back(i / kSize % 3 == 0 ? 1.0f : static_cast<float>(random.Between(-200, 0)));
  }
  const auto definition = testing::RunSoftmaxBy(c, run_softmax);
  testing::ThreadParts threads(kThreads, 2);
  const auto actual = testing::RunSoftmaxBy(c, testing::SharedBy<ComputeSoftmax>(&threads));
  EXPECT_TRUE(testing::SameArrays(definition.values.data(), actual.values.data(), c.count(),
                                  "HSoftmax on threads", [&c](int64_t i) { return c.Inputs(i); }));
  EXPECT_EQ(definition.lines, actual.lines);
  EXPECT_EQ(testing::CountLines(actual.lines).softmax_overflows, 14);
}

// Some vectors are left to the definition.
TEST(SharedLayernorm, Vectors) {
  Random random(0x5a8);
  testing::LayerNormCase c;
  c.vector_size = 50;
  c.width = 9;
  c.height = 5;
  c.batch = 2;
  c.lut = testing::PlainLut();
  c.params = testing::PlainParams(c.vector_size, 3);
  for (int64_t i = 0; i < c.count(); ++i) {
    c.in.push_back(static_cast<float>(random.Between(-128, 127)));
  }
  for (const size_t vector : {0, 7, 44, 89}) c.in[vector * 50 + 3] = -kInfinity;
  c.params.x_squared_mult = 1;
  const auto definition = testing::RunLayerNormBy(c, run_layernorm);
  testing::ThreadParts threads(kThreads, 2);
  const auto actual = testing::RunLayerNormBy(c, testing::SharedBy<ComputeLayernorm>(&threads));
  EXPECT_TRUE(testing::SameArrays(definition.data(), actual.data(), c.count(),
                                  "HLayernorm on threads",
                                  [&c](int64_t i) { return c.Inputs(i); }));
}

// Groups in lanes, groups that fill a run, and one that the definition computes.
TEST(SharedActivation, Groups) {
  Random random(0x5a9);
  for (const std::vector<int64_t>& splits :
       {std::vector<int64_t>{300}, {3, 5, 2, 200, 4}, {1, 1, 1, 1}, {9, 9}}) {
    testing::ActivationCase c;
    c.positions = 50;
    c.channels = 0;
    for (const int64_t size : splits) c.channels += size;
    c.size_splits = splits;
    c.points = 3;
    c.pieces = 4;
    c.mode.clip_bits = 127;
    for (int64_t g = 0; g < c.groups(); ++g) {
      const bool ascends = g != 1;
      for (const int64_t x : {-100, 20, 90}) c.x_points.push_back(ascends ? x : -x);
      for (int k = 0; k < 4; ++k) {
        c.offsets.push_back(random.Between(-9, 9));
        c.slopes_m.push_back(random.Between(-99, 99));
        c.slopes_e.push_back(random.Between(0, 20));
      }
    }
    for (int64_t i = 0; i < c.count(); ++i) c.in.push_back(random.Between(-300, 300));
    const auto definition = testing::RunActivationBy(c, DefineActivation);
    testing::ThreadParts threads(kThreads, 3);
    const auto actual = testing::RunActivationBy(c, testing::SharedBy<ComputeActivation>(&threads));
    EXPECT_TRUE(testing::SameArrays(definition.data(), actual.data(), c.count(),
                                    "HActivation on threads",
                                    [&c](int64_t i) { return c.Inputs(i); }));
  }
}

TEST(SharedSuppression, Frames) {
  Random random(0x5aa);
  testing::NmsCase c;
  c.batch = 3;
  c.classes = 7;
  c.boxes = testing::DrawBoxes(&random, testing::BoxKind::kClustered, 3 * 7 * 40);
  c.scores_threshold = 0.1f;
  testing::ThreadParts threads(kThreads, 1);
  const auto expected = testing::RunNms(c, true);
  const auto actual = testing::RunNms(c, false, &threads);
  EXPECT_TRUE(testing::SameFrames(expected.frames, actual.frames, "ComputeNMS on threads"));
  Ran(Path::kNmsParts);
}

}  // namespace
}  // namespace bitfold
