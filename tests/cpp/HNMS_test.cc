// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HNMS: worked examples of each function; the definition against the oracle, message by message;
// and the quiet form on every target against the definition.

#include "bitfold/HNMS.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include "frame/log.h"
#include "support/assertion_text.h"
#include "support/compare.h"
#include "support/ledger.h"
#include "support/log_stub.h"
#include "support/nms_boxes.h"
#include "support/nms_case.h"
#include "support/random.h"
#include "support/scale.h"
#include "support/targets.h"

namespace bitfold {
namespace {

using testing::BoxKind;
using testing::CheckNms;
using testing::NmsCase;
using testing::Path;
using testing::Ran;
using testing::Random;

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

std::vector<Box> WithScores(const std::vector<float>& scores) {
  std::vector<Box> boxes;
  for (const float score : scores) boxes.push_back({0, 0, 9, 9, score});
  return boxes;
}

// ---- The functions -----------------------------------------------------------------------------

TEST(HNMS, BoxesInTheDatasOrder) {
  EXPECT_TRUE(raw_data_to_boxes(nullptr, 0).empty());
  std::vector<float> data(15);
  std::iota(data.begin(), data.end(), 1.0f);
  const std::vector<Box> boxes = raw_data_to_boxes(data.data(), data.size());
  ASSERT_EQ(boxes.size(), 3u);
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(boxes[i].y_min, data[5 * i]);
    EXPECT_EQ(boxes[i].x_min, data[5 * i + 1]);
    EXPECT_EQ(boxes[i].y_max, data[5 * i + 2]);
    EXPECT_EQ(boxes[i].x_max, data[5 * i + 3]);
    EXPECT_EQ(boxes[i].score, data[5 * i + 4]);
  }
}

// The index of the selected box, -1 for none.
int64_t Selected(const std::vector<float>& scores, bool velquin) {
  std::vector<Box> boxes = WithScores(scores);
  const auto best = find_max(boxes, velquin);
  return best == boxes.end() ? -1 : best - boxes.begin();
}

TEST(HNMS, SelectionOfEqualScores) {
  EXPECT_EQ(Selected({0.5f, 0.9f, 0.9f}, false), 1);
  EXPECT_EQ(Selected({0.5f, 0.9f, 0.9f}, true), 2);
  EXPECT_EQ(Selected({0.0f, -0.0f, 0.0f}, false), 0);
  EXPECT_EQ(Selected({0.0f, 0.0f, -0.0f}, true), 2);
}

TEST(HNMS, SelectionOfNegativeScoresAndNan) {
  EXPECT_EQ(Selected({-3.0f, -1.0f, -2.0f}, false), 1);
  EXPECT_EQ(Selected({-3.0f, -1.0f, -2.0f}, true), -1);
  EXPECT_EQ(Selected({0.5f, kNan, 0.7f}, false), 2);
  EXPECT_EQ(Selected({kNan, 0.5f, 0.7f}, false), 0);  // which nothing exceeds
  EXPECT_EQ(Selected({kNan, 0.5f, kNan}, true), 1);
  EXPECT_EQ(Selected({kNan}, true), -1);
  EXPECT_EQ(Selected({}, false), -1);
  EXPECT_EQ(Selected({}, true), -1);
  EXPECT_EQ(Selected({-kInfinity, kInfinity}, true), 1);
}

TEST(HNMS, SelectionAgainstOracle) {
  Random random(0x5e1);
  for (int i = 0; i < 3000; ++i) {
    std::vector<float> scores;
    std::vector<reference::NmsBox> boxes;
    for (int k = random.Between(0, 9); k > 0; --k) {
      scores.push_back(random.Between(0, 9) == 0 ? kNan : testing::DrawScore(&random));
      boxes.push_back({0, 0, 9, 9, scores.back()});
    }
    for (const bool velquin : {false, true}) {
      ASSERT_EQ(Selected(scores, velquin), reference::SelectBox(boxes, velquin));
    }
  }
}

TEST(HNMS, TheBestBoxIsCopiedOrTaken) {
  std::vector<Box> boxes = WithScores({0.5f, 0.9f, 0.9f, 0.1f});
  EXPECT_EQ(find_box_with_higest_score(boxes, false, false).score, 0.9f);
  EXPECT_EQ(boxes.size(), 4u);
  boxes[1].y_min = 1.0f;
  boxes[2].y_min = 2.0f;
  EXPECT_EQ(find_box_with_higest_score(boxes, true, true).y_min, 2.0f);
  ASSERT_EQ(boxes.size(), 3u);
  EXPECT_EQ(boxes[0].score, 0.5f);
  EXPECT_EQ(boxes[1].y_min, 1.0f);
  EXPECT_EQ(boxes[2].score, 0.1f);
  EXPECT_EQ(find_box_with_higest_score(boxes, false, true).y_min, 1.0f);
  // None is selected: zeros, and nothing is taken.
  boxes = WithScores({-1.0f});
  const Box none = find_box_with_higest_score(boxes, true, true);
  EXPECT_EQ(none.y_max, 0.0f);
  EXPECT_EQ(none.score, 0.0f);
  EXPECT_EQ(boxes.size(), 1u);
}

using Areas = std::pair<double, double>;

TEST(HNMS, AreasOfTwoBoxes) {
  const Box ten = {0, 0, 9, 9, 0};
  EXPECT_EQ(calculate_areas(ten, ten, false, nullptr), Areas(100, 100));
  EXPECT_EQ(calculate_areas(ten, ten, true, nullptr), Areas(119, 81));
  const Box near = {0, 0, 4, 4, 0};
  const Box far = {10, 10, 14, 14, 0};
  for (const bool precise : {false, true}) {
    EXPECT_EQ(calculate_areas(near, far, precise, nullptr), Areas(50, 0));
    EXPECT_EQ(calculate_areas(far, near, precise, nullptr), Areas(50, 0));
  }
  // They touch in a strip of one pixel; with `precise` the second's edge is pulled in.
  const Box right = {0, 4, 9, 9, 0};
  const Box left = {0, 0, 9, 4, 0};
  EXPECT_EQ(calculate_areas(right, left, false, nullptr).second, 10);
  EXPECT_EQ(calculate_areas(left, right, false, nullptr).second, 10);
  EXPECT_EQ(calculate_areas(right, left, true, nullptr).second, 0);
  // Swapped, the height of the second is pulled in alone: 9 of 10.
  EXPECT_EQ(calculate_areas(left, right, true, nullptr).second, 9);
}

// The first box's area has all its digits, the second's those of a single.
TEST(HNMS, AreasHaveTheirPrecisions) {
  const Box large = {0, 0, 4096, 4098, 0};  // 4097 * 4099 = 16793603, above 2^24
  const Box far = {-10, -10, -9, -9, 0};    // 4
  EXPECT_EQ(calculate_areas(large, far, false, nullptr).first, 16793607);
  EXPECT_EQ(calculate_areas(far, large, false, nullptr).first, 16793608);
}

TEST(HNMS, AreasAgainstOracle) {
  Random random(0xa4ea);
  for (int i = 0; i < 20000 / testing::Step(10); ++i) {
    const BoxKind kind = random.Pick(testing::BoxKinds());
    std::vector<Box> boxes = testing::DrawBoxes(&random, kind, 2);
    if (random.Between(0, 3) == 0) boxes[0].x_min = testing::DrawExtreme(&random);
    if (random.Between(0, 3) == 0) boxes[1].y_max = testing::DrawExtreme(&random);
    const auto& [a, b] = std::pair(boxes[0], boxes[1]);
    for (const bool precise : {false, true}) {
      const reference::NmsAreas expected = reference::CalculateAreas(
          {a.y_min, a.x_min, a.y_max, a.x_max, a.score},
          {b.y_min, b.x_min, b.y_max, b.x_max, b.score}, precise, nullptr);
      const auto [union_area, overlap] = calculate_areas(a, b, precise, nullptr);
      NmsCase shown;
      shown.boxes = boxes;
      const auto same = [](double p, double q) { return p == q || (p != p && q != q); };
      ASSERT_TRUE(same(expected.union_area, union_area)) << shown.Text();
      ASSERT_TRUE(same(expected.overlap, overlap)) << shown.Text();
    }
  }
}

TEST(HNMS, PaddingAddsRowsOfZeros) {
  Frame frame(3, {1, 2, 3, 4, 5});
  pad_frame(frame, 5);
  ASSERT_EQ(frame.size(), 5u);
  EXPECT_EQ(frame[2], (std::vector<float>{1, 2, 3, 4, 5}));
  EXPECT_EQ(frame[3], std::vector<float>(5));
  EXPECT_EQ(frame[4], std::vector<float>(5));
  pad_frame(frame, 5);
  EXPECT_EQ(frame.size(), 5u);
  pad_frame(frame, 2);  // longer already
  EXPECT_EQ(frame.size(), 5u);
}

TEST(HNMS, EveryNumberIsAMessage) {
  const testing::InformationLog on(true);
  print_3d_vector({}, LogInformation);
  EXPECT_TRUE(testing::LoggedInformation().empty());
  print_3d_vector({{{1, 2.5f}, {0.125f}}, {{3}}}, LogInformation);
  EXPECT_EQ(testing::LoggedInformation(),
            (std::vector<std::string>{"1 ", "2.5 ", "\n", "0.125 ", "\n", "\n", "3 ", "\n", "\n"}));
  testing::LoggedInformation().clear();
  print_3d_vector({{{1, 2.5f}}}, nullptr);
  EXPECT_TRUE(testing::LoggedInformation().empty());
}

TEST(HNMS, ConversionToUnsignedSaturates) {
  const double end = std::ldexp(1.0, 64);
  EXPECT_EQ(SaturateToUint64(0.0), 0u);
  EXPECT_EQ(SaturateToUint64(-0.0), 0u);
  EXPECT_EQ(SaturateToUint64(-1.0), 0u);
  EXPECT_EQ(SaturateToUint64(0.999), 0u);
  EXPECT_EQ(SaturateToUint64(50.999), 50u);
  EXPECT_EQ(SaturateToUint64(std::nextafter(end, 0.0)), 18446744073709549568u);
  EXPECT_EQ(SaturateToUint64(end), UINT64_MAX);
  EXPECT_EQ(SaturateToUint64(1e300), UINT64_MAX);
  EXPECT_EQ(SaturateToUint64(double{kInfinity}), UINT64_MAX);
  EXPECT_EQ(SaturateToUint64(double{-kInfinity}), 0u);
  EXPECT_EQ(SaturateToUint64(double{kNan}), 0u);
}

// ---- The suppression, worked examples ----------------------------------------------------------

NmsCase Of(std::vector<Box> boxes) {
  NmsCase c;
  c.boxes = std::move(boxes);
  return c;
}

std::vector<float> Row(const Box& b) { return {b.y_min, b.x_min, b.y_max, b.x_max, b.score}; }

// The rows of a case of one class, checked on every path.
Frame Rows(const NmsCase& c) {
  EXPECT_TRUE(CheckNms(c));
  return testing::RunNms(c, true).frames[0];
}

TEST(HNMS, TheThresholdIsFixedPoint) {
  NmsCase c = Of({{0, 0, 9, 9, 0.9f}, {0, 0, 9, 4, 0.8f}});  // overlap 50 of 100
  c.max_output_size = 2;
  EXPECT_EQ(Rows(c), (Frame{Row(c.boxes[0]), Row(c.boxes[1])}));
  c.iou_threshold = 0.49f;  // 48 of 65536ths
  EXPECT_EQ(Rows(c), (Frame{Row(c.boxes[0]), std::vector<float>(5)}));
}

TEST(HNMS, IdenticalCoordinatesAreAlwaysSuppressed) {
  NmsCase c = Of(WithScores({0.9f, 0.8f}));
  c.max_output_size = 2;
  for (const float threshold : {0.5f, 1.0f, 1.5f, 100.0f, 1e30f}) {
    for (const bool precise : {false, true}) {
      c.iou_threshold = threshold;
      c.is_precise = precise;
      EXPECT_EQ(Rows(c)[1], std::vector<float>(5)) << threshold;
    }
  }
}

TEST(HNMS, AScoreOfTheThreshold) {
  NmsCase c = Of(WithScores({0.5f}));
  c.scores_threshold = 0.5f;
  c.max_output_size = 1;
  EXPECT_EQ(Rows(c)[0], std::vector<float>(5));
  c.is_velquin = true;
  EXPECT_EQ(Rows(c)[0], Row(c.boxes[0]));
}

TEST(HNMS, OfEqualScoresTheFirstOrTheLast) {
  NmsCase c = Of({{0, 0, 9, 9, 0.5f}, {0, 1, 9, 10, 0.5f}, {0, 2, 9, 11, 0.5f}});
  c.max_output_size = 1;
  EXPECT_EQ(Rows(c)[0], Row(c.boxes[0]));
  c.is_velquin = true;
  EXPECT_EQ(Rows(c)[0], Row(c.boxes[2]));
}

TEST(HNMS, MissingRowsAreZeros) {
  NmsCase c = Of(WithScores({0.5f}));
  c.max_output_size = 3;
  EXPECT_EQ(Rows(c), (Frame{Row(c.boxes[0]), std::vector<float>(5), std::vector<float>(5)}));
}

TEST(HNMS, AnInvalidBestBoxCountsAsARow) {
  NmsCase c = Of({{0, 0, 9, 9, 0.5f}, {9, 0, 0, 9, 0.9f}, {50, 50, 59, 59, 0.4f}});
  c.max_output_size = 2;
  EXPECT_EQ(Rows(c), (Frame{std::vector<float>(5), Row(c.boxes[0])}));
  std::swap(c.boxes[1].y_min, c.boxes[1].y_max);
  std::swap(c.boxes[1].x_min, c.boxes[1].x_max);  // x is the wrong way round now
  EXPECT_EQ(Rows(c), (Frame{std::vector<float>(5), Row(c.boxes[0])}));
  c.is_velquin = true;
  EXPECT_EQ(Rows(c), (Frame{Row(c.boxes[0]), Row(c.boxes[2])}));
  // Even where no row was asked for.
  c.is_velquin = false;
  c.max_output_size = 0;
  EXPECT_EQ(Rows(c), (Frame{std::vector<float>(5)}));
  c.is_velquin = true;
  EXPECT_EQ(Rows(c), Frame());
}

TEST(HNMS, VelquinEndsWhereNoScoreQualifies) {
  NmsCase c = Of({{0, 0, 9, 9, -0.5f}, {50, 0, 59, 9, 0.5f}, {80, 0, 89, 9, kNan}});
  c.scores_threshold = -1.0f;
  c.max_output_size = 3;
  c.is_velquin = true;
  EXPECT_EQ(Rows(c), (Frame{Row(c.boxes[1]), std::vector<float>(5), std::vector<float>(5)}));
}

TEST(HNMS, FramesOfEntriesAndClasses) {
  NmsCase c;
  for (int i = 0; i < 6; ++i) {
    const auto at = static_cast<float>(20 * i);
    c.boxes.push_back({at, 0, at + 9, 9, 0.5f});
  }
  c.batch = 2;
  c.classes = 3;
  c.max_output_size = 1;
  ASSERT_TRUE(CheckNms(c));
  const auto frames = testing::RunNms(c, false).frames;
  ASSERT_EQ(frames.size(), 6u);
  for (size_t i = 0; i < 6; ++i) EXPECT_EQ(frames[i], Frame{Row(c.boxes[i])}) << i;
}

TEST(HNMS, MessagesOfASmallCase) {
  NmsCase c = Of({{0, 0, 9, 9, 0.9f}, {0, 0, 9, 9.5f, 0.8f}, {0, 0, 9, 9, -1}});
  c.max_output_size = 1;
  const std::string first = " y_min=0 x_min=0 y_max=9 x_max=9 score=0.9\n";
  const std::string second = " y_min=0 x_min=0 y_max=9 x_max=9.5 score=0.8\n";
  const std::vector<std::string> expected = {
      "batch = 0 class = 0\n",
      first,
      second,
      " y_min=0 x_min=0 y_max=9 x_max=9 score=-1\n",
      "after filter:\n",
      first,
      second,
      "boxes size = 2 class_boxes size = 0",
      "calculate areas between boxes:\n",
      first,
      second,
      "union_area=105, overlap_area=100, iou_threshold_val=32768, iou_threshold=0.5\n",
      "erasing... :\n",
      second,
      "final:\n",
      "0 ",
      "0 ",
      "9 ",
      "9 ",
      "0.9 ",
      "\n",
      "\n",
      "vec size = 1, internal_size = 1\n"};
  EXPECT_EQ(testing::RunNms(c, true).messages, expected);
}

TEST(HNMS, NoEntry) {
  const testing::InformationLog on(true);
  CallingThread calling_thread;
  ComputeNMS({nullptr, 0, 4, 5, 1, 2}, {0, 0.5f, 3, false, false}, nullptr, &calling_thread);
  EXPECT_EQ(testing::LoggedInformation(),
            (std::vector<std::string>{"final:\n", "vec size = 0, internal_size = 0\n"}));
}

TEST(HNMS, NoBoxForVelquin) {
  const testing::InformationLog off(false);
  CallingThread calling_thread;
  const auto frames =
      testing::ComputedFrames({nullptr, 1, 0, 5, 1, 1}, {0, 0.5f, 2, false, true}, &calling_thread);
  EXPECT_EQ(frames, (std::vector<Frame>{Frame(2, std::vector<float>(5))}));
}

// ---- Ends of the process -----------------------------------------------------------------------

TEST(HNMSDeathTest, Assertions) {
  const std::vector<float> data(20);
  const std::string partial = testing::AssertionText(
      "src/HNMS", "std::vector<Box> raw_data_to_boxes(const float*, size_t)", "size % 5 == 0");
  const std::string empty = testing::AssertionText(
      "src/HNMS", "Box find_box_with_higest_score(std::vector<Box>&, bool, bool)",
      "!boxes.empty()");
  EXPECT_DEATH(raw_data_to_boxes(data.data(), 7), partial);
  std::vector<Box> none;
  EXPECT_DEATH(find_box_with_higest_score(none, false, false), empty);
  EXPECT_DEATH(find_box_with_higest_score(none, true, true), empty);
  // A share of 20 / 3 numbers; no box in a share.
  const SuppressionInput thirds = {data.data(), 1, 4, 5, 1, 3};
  const SuppressionInput nothing = {data.data(), 1, 0, 5, 1, 1};
  const SuppressionOptions velquin = {0, 0.5f, 1, false, true};
  const SuppressionOptions other = {0, 0.5f, 1, false, false};
  float out[15];
  CallingThread workers;
  EXPECT_DEATH(NMSTensor(thirds, velquin, nullptr), partial);
  EXPECT_DEATH(ComputeNMS(thirds, velquin, out, &workers), partial);
  EXPECT_DEATH(NMSTensor(nothing, other, nullptr), empty);
  EXPECT_DEATH(ComputeNMS(nothing, other, out, &workers), empty);
}

// ---- The definition against the oracle, the quiet form against the definition ------------------

NmsCase DrawCase(Random* random, BoxKind kind, int boxes) {
  NmsCase c;
  c.batch = random->Between(1, 2);
  c.classes = random->Between(1, 3);
  c.boxes = testing::DrawBoxes(random, kind, c.batch * c.classes * boxes);
  c.scores_threshold = random->Pick<float>({0.0f, 0.1f, 0.5f, 0.9f, -2.0f, -0.5f, -0.0f, kNan});
  c.iou_threshold = random->Pick(testing::IouThresholds());
  c.max_output_size = static_cast<float>(random->Between(0, boxes + 2));
  c.is_precise = random->Flag();
  c.is_velquin = random->Flag();
  return c;
}

TEST(HNMS, OptionsCrossed) {
  Random random(0x4f50);
  for (const BoxKind kind : testing::BoxKinds()) {
    for (const float threshold : testing::IouThresholds()) {
      for (const bool precise : {false, true}) {
        for (const bool velquin : {false, true}) {
          NmsCase c = DrawCase(&random, kind, random.Between(1, 20));
          c.iou_threshold = threshold;
          c.is_precise = precise;
          c.is_velquin = velquin;
          ASSERT_TRUE(CheckNms(c));
        }
      }
    }
  }
  Ran(Path::kNmsLogged);
}

TEST(HNMS, RandomCases) {
  Random random(0x4f51);
  for (int i = 0; i < 1500 / testing::Step(10); ++i) {
    const BoxKind kind = random.Pick(testing::BoxKinds());
    ASSERT_TRUE(CheckNms(DrawCase(&random, kind, random.Between(1, 30))));
  }
}

// NaN, infinities and huge numbers among ordinary ones, thresholds beyond everything: left to the
// definition, with the log off as well.
TEST(HNMS, ExtremeNumbersAnywhere) {
  Random random(0x4f52);
  const std::vector<float> thresholds = {2.0f, 2.5f,      65536.0f,   1e15f, 3e38f,
                                         kNan, kInfinity, -kInfinity, 0.5f};
  for (int i = 0; i < 1500 / testing::Step(10); ++i) {
    const BoxKind kind = random.Pick(testing::BoxKinds());
    NmsCase c = DrawCase(&random, kind, random.Between(1, 12));
    for (int k = random.Between(1, 4); k > 0; --k) {
      Box& box =
          c.boxes[static_cast<size_t>(random.Between(0, static_cast<int>(c.boxes.size()) - 1))];
      float* const numbers[] = {&box.y_min, &box.x_min, &box.y_max, &box.x_max, &box.score};
      *numbers[random.Between(0, 4)] = testing::DrawExtreme(&random);
    }
    if (random.Flag()) c.iou_threshold = random.Pick(thresholds);
    ASSERT_TRUE(CheckNms(c));
  }
}

// ---- The quiet form itself ---------------------------------------------------------------------

// It takes the case, and gives the definition's rows, on every target.
::testing::AssertionResult QuietTakes(const NmsCase& c) {
  const testing::InformationLog off(false);
  const std::vector<Frame> expected = {DefineClassNMS(c.boxes, c.Options(), nullptr)};
  for (const auto& [target, name] : testing::SupportedTargets()) {
    const testing::ForcedTarget forced(target);
    Frame frame = {{1, 2, 3, 4, 5}};
    if (!ComputeClassNMS(c.boxes, c.Options(), &frame)) {
      return ::testing::AssertionFailure() << "declined " << c.Text();
    }
    const auto same = testing::SameFrames(expected, {frame},
                                          std::string("ComputeClassNMS, ") + name + " " + c.Text());
    if (!same) return same;
    Ran(testing::OnTarget(testing::Path::kNmsPortable, target));
  }
  return ::testing::AssertionSuccess();
}

TEST(HNMSQuietly, RandomSets) {
  Random random(0x9e7);
  for (int i = 0; i < 6000 / testing::Step(20); ++i) {
    const BoxKind kind = random.Pick(testing::BoxKinds());
    const int count = i % 10 == 0 ? random.Between(100, 400) : random.Between(1, 60);
    NmsCase c = DrawCase(&random, kind, count);
    c.boxes.resize(static_cast<size_t>(count));
    ASSERT_TRUE(QuietTakes(c));
  }
  Ran(Path::kNmsQuiet);
}

TEST(HNMSQuietly, EveryOutputSize) {
  Random random(0x9e8);
  for (const BoxKind kind : testing::BoxKinds()) {
    for (const bool velquin : {false, true}) {
      NmsCase c = DrawCase(&random, kind, 40);
      c.boxes.resize(40);
      c.is_velquin = velquin;
      for (int rows = 0; rows <= 41; ++rows) {
        c.max_output_size = static_cast<float>(rows);
        ASSERT_TRUE(QuietTakes(c));
      }
    }
  }
}

// Boxes of which none suppresses another, then one that only box `by` suppresses: the tests go in
// runs over the selected ones.
TEST(HNMSQuietly, SuppressedByABoxAnywhere) {
  for (const int selected : {1, 15, 16, 17, 63, 64, 65, 127, 128, 129, 192, 200}) {
    NmsCase c;
    for (int i = 0; i < selected; ++i) {
      const auto at = static_cast<float>(20 * i);
      c.boxes.push_back({at, 0, at + 9, 9, 2.0f - static_cast<float>(i) / 256.0f});
    }
    c.max_output_size = 1000.0f;
    c.boxes.push_back({-50, 0, -41, 9, 0.5f});  // by none
    ASSERT_TRUE(QuietTakes(c));
    for (int by = 0; by < selected; by += 1 + selected / 40) {
      const auto at = static_cast<float>(20 * by + 1);
      c.boxes.back() = {at, 0, at + 8, 9, 0.5f};
      ASSERT_TRUE(QuietTakes(c));
      Frame frame;
      ASSERT_TRUE(ComputeClassNMS(c.boxes, c.Options(), &frame));
      ASSERT_EQ(frame.size(), static_cast<size_t>(selected)) << by;
    }
  }
}

// Overlaps of exactly the limit, and around it by a pixel and by the least fraction.
TEST(HNMSQuietly, OverlapsAroundTheLimit) {
  Random random(0x9e9);
  for (int i = 0; i < 20000 / testing::Step(20); ++i) {
    const auto height = static_cast<float>(random.Between(1, 60));
    const auto width = static_cast<float>(random.Between(1, 60));
    const auto part = static_cast<float>(random.Between(1, 60));
    NmsCase c = Of({{0, 0, height - 1, width - 1, 0.9f}, {0, 0, height - 1, part - 1, 0.8f}});
    // The limit is the overlap, or a 65536th beside it.
    const float overlap = std::fmin(part, width) / std::fmax(part, width);
    c.iou_threshold = overlap + static_cast<float>(random.Between(-2, 2)) / 65536.0f;
    if (random.Flag()) {
      float* edge = random.Flag() ? &c.boxes[1].x_max : &c.boxes[0].y_max;
      *edge = std::nextafter(*edge, random.Flag() ? 100.0f : -100.0f);
    }
    c.is_precise = random.Between(0, 3) == 0;
    ASSERT_TRUE(QuietTakes(c));
  }
}

// Around what it takes; what it declines stays as it is.
TEST(HNMSQuietly, DeclinesWhatTheDefinitionIsNeededFor) {
  const float largest = 1048576.0f;  // 2^20
  const float beyond = std::nextafter(largest, 2e6f);
  NmsCase c =
      Of({{0, 0, 9, 9, 0.5f}, {-largest, -largest, largest, largest, 0.4f}, {5, 5, 6, 6, 0.3f}});
  ASSERT_TRUE(QuietTakes(c));
  const auto declines = [](const NmsCase& declined) {
    const testing::InformationLog off(false);
    Frame frame = {{1, 2, 3, 4, 5}};
    EXPECT_FALSE(ComputeClassNMS(declined.boxes, declined.Options(), &frame));
    EXPECT_EQ(frame, (Frame{{1, 2, 3, 4, 5}}));
    if (declined.boxes.empty()) return;
    EXPECT_TRUE(CheckNms(declined));
  };
  for (const float number : {beyond, -beyond, kNan, kInfinity, -kInfinity, 3e38f}) {
    for (float Box::*coordinate : {&Box::y_min, &Box::x_min, &Box::y_max, &Box::x_max}) {
      for (size_t i = 0; i < 3; ++i) {
        NmsCase d = c;
        d.boxes[i].*coordinate = number;
        declines(d);
      }
    }
  }
  NmsCase d = c;
  d.boxes[1].score = kNan;
  declines(d);
  d = c;
  for (const float threshold : {2.0f, 3.0f, 1e30f, kInfinity}) {
    d.iou_threshold = threshold;
    declines(d);
  }
  d.iou_threshold = std::nextafter(2.0f, 0.0f);
  ASSERT_TRUE(QuietTakes(d));
  declines(NmsCase());
  Ran(Path::kNmsQuietLeftToTheDefinition);
}

}  // namespace
}  // namespace bitfold
