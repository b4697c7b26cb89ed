// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HActivation: worked examples; the definition against the oracle; and the vector loops of every
// target against the definition.

#include "bitfold/activation.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "support/activation_case.h"
#include "support/compare.h"
#include "support/int64.h"
#include "support/ledger.h"
#include "support/random.h"
#include "support/scale.h"
#include "support/tables.h"
#include "support/targets.h"
#include "support/workers.h"

namespace bitfold {
namespace {

using testing::ActivationCase;
using testing::Describe;
using testing::ExactBuffer;
using testing::Path;
using testing::Ran;
using testing::Random;
using testing::SameInt64;

// ---- Worked examples ---------------------------------------------------------------------------

TEST(Activation, BankersRoundExamples) {
  EXPECT_EQ(bankers_round(96, 6), 2);   // 1.5 to 2
  EXPECT_EQ(bankers_round(160, 6), 2);  // 2.5 to 2
  EXPECT_EQ(bankers_round(161, 6), 3);
  EXPECT_EQ(bankers_round(-96, 6), -2);  // -1.5 to -2
  EXPECT_EQ(bankers_round(32, 6), 0);
  EXPECT_EQ(bankers_round(33, 6), 1);
}

TEST(Activation, EqualToABreakpointIsThePieceAfterIt) {
  const int64_t points[] = {10, 20, 20, 30};
  const int64_t numbers[] = {0, 1, 2, 3, 4};
  const Table64 x_points = {points, 4};
  const Table64 table = {numbers, 5};
  const auto piece = [&](int32_t x) {
    return get_piece_index(x_points, x, 0, table, table, table).offset;
  };
  EXPECT_EQ(piece(9), 0);
  EXPECT_EQ(piece(10), 1);
  EXPECT_EQ(piece(19), 1);
  EXPECT_EQ(piece(20), 3);
  EXPECT_EQ(piece(29), 3);
  EXPECT_EQ(piece(30), 4);
  EXPECT_EQ(piece(INT32_MIN), 0);
  EXPECT_EQ(piece(INT32_MAX), 4);
}

TEST(Activation, ShiftsTheMagnitudeOrTheProduct) {
  ActivationMode mode = {};
  mode.clip_bits = 1000;
  // A product of -4128 = -64.5 * 64, shifted by 6: the magnitude gives -64 and rounds to -1, the
  // product -65 and the same; -2080: -32.5 gives -32, a tie, to 0, or -33, to -1.
  EXPECT_EQ(activate(-2080, 0, 1, 12, mode), 0);
  mode.is_velquin = true;
  EXPECT_EQ(activate(-2080, 0, 1, 12, mode), -1);
  mode.is_velquin = false;
  mode.is_16bit_precision_mode = true;
  EXPECT_EQ(activate(-2080, 0, 1, 12, mode), -1);
}

TEST(Activation, Clips) {
  ActivationMode mode = {};
  mode.clip_bits = 127;
  EXPECT_EQ(activate(200, 5, 1, 0, mode), 5);  // a shift by -6 is one by 58
  mode.ebias = 6;
  EXPECT_EQ(activate(200, 5, 64, 0, mode), 127 + 5);
  EXPECT_EQ(activate(-200, 5, 64, 0, mode), -128 + 5);
  EXPECT_EQ(activate(127, 5, 64, 0, mode), 127 + 5);
  EXPECT_EQ(activate(-128, 5, 64, 0, mode), -128 + 5);
  EXPECT_EQ(activate(3, INT32_MAX, 64, 0, mode), int64_t{INT32_MAX} + 3);
}

// ---- The rounding and one element --------------------------------------------------------------

TEST(Activation, BankersRoundOfEveryShift) {
  Random random(0xba2);
  for (int shift = 0; shift <= 255; ++shift) {
    std::vector<int64_t> values = testing::Int64Boundaries();
    for (int i = 0; i < 100; ++i) {
      const int64_t multiple = testing::RandomInt64(&random);
      values.push_back(multiple);
      if (shift < 1 || shift > 62) continue;
      const int64_t tie = WrapMultiply64(2 * (multiple >> 32) + 1, int64_t{1} << (shift - 1));
      for (const int64_t delta : {-1, 0, 1}) values.push_back(WrapAdd64(tie, delta));
    }
    for (const int64_t x : values) {
      const auto s = static_cast<uint8_t>(shift);
      const int64_t expected = reference::BankersRound(x, s);
      const int64_t actual = bankers_round(x, s);
      if (expected == actual) continue;
      ASSERT_TRUE(SameInt64(expected, actual, "bankers_round",
                            testing::ShowInt64(x) + Describe(" shift", shift)));
    }
  }
}

std::vector<ActivationMode> Modes(Random* random, int32_t ebias, int32_t clip_bits) {
  std::vector<ActivationMode> modes;
  for (int flags = 0; flags < 8; ++flags) {
    ActivationMode mode = {};
    mode.is_8bit_to_16bit_mode = (flags & 1) != 0;
    mode.is_velquin = (flags & 2) != 0;
    mode.is_16bit_precision_mode = (flags & 4) != 0;
    mode.ebias = ebias;
    mode.clip_bits = clip_bits;
    mode.beta = static_cast<int32_t>(random->Bits());
    mode.is_signed_output = random->Flag();
    modes.push_back(mode);
  }
  return modes;
}

TEST(Activation, OneElement) {
  Random random(0x0e1);
  const std::vector<int32_t> corners = testing::Int32Corners();
  for (const int32_t ebias : {0, 1, 6, 12, 38, 64, 70, -1, -58, INT32_MIN, INT32_MAX}) {
    for (const int32_t clip : {127, 0, -1, -2, -300, 32767, INT32_MAX, INT32_MIN}) {
      for (const ActivationMode& mode : Modes(&random, ebias, clip)) {
        for (int round = 0; round < 300 / testing::Step(3); ++round) {
          const int32_t x = random.Pick(corners);
          const int32_t slope_m = random.Flag() ? random.Pick(corners) : random.Between(-99, 99);
          const int32_t slope_e = random.Flag() ? random.Pick(corners) : random.Between(-9, 70);
          const int32_t offset = random.Pick(corners);
          const int64_t expected =
              reference::Activate(x, offset, slope_m, slope_e, testing::OracleSettings(mode));
          ASSERT_TRUE(
              SameInt64(expected, activate(x, offset, slope_m, slope_e, mode), "activate",
                        Describe("x", x, "offset", offset, "slope_m", slope_m, "slope_e", slope_e) +
                            Describe(mode)));
        }
      }
    }
  }
}

// ---- Whole tensors -----------------------------------------------------------------------------

// The path of a target, from the portable one.
Path PathOf(Path portable, Target target) {
  return testing::OnTarget(portable, std::min(target, Target::kAvx512));
}

// The lanes of neighbouring groups; `lanes` is their number in a row.
void MarkLanes(const ActivationCase& c, Target target, int64_t lanes) {
  if (lanes == 0) return;
  Ran(PathOf(Path::kActivationLanesPortable, target));
  if (lanes == c.channels && lanes <= 16 && c.positions > 1) Ran(Path::kActivationLanesTogether);
  if (lanes > 128) Ran(Path::kActivationLanesInParts);
}

void MarkPaths(const ActivationCase& c, Target target) {
  int64_t lanes = 0;
  for (int64_t g = 0; g < c.groups(); ++g) {
    const int64_t size = c.size_splits[static_cast<size_t>(g)];
    if (size <= 0 || c.positions == 0) continue;
    if (testing::GroupTakesLanes(c, g)) {
      lanes += size;
      continue;
    }
    MarkLanes(c, target, lanes);
    lanes = 0;
    if (testing::GroupNeedsDefinition(c, g)) {
      Ran(Path::kActivationByDefinition);
    } else if (size * c.positions < 3) {
      Ran(Path::kActivationFewElements);
    } else {
      Ran(PathOf(Path::kActivationPortable, target));
      Ran(c.points <= 8 ? Path::kActivationFewPoints : Path::kActivationManyPoints);
    }
  }
  MarkLanes(c, target, lanes);
}

ExactBuffer<int32_t> RunLoops(const ActivationCase& c, Workers* workers, int offset = 0) {
  return testing::RunActivationBy(c, testing::SharedBy<ComputeActivation>(workers), offset);
}

// The two comparisons, each on its own: the definition against the oracle, and the vector loops of
// each target, and of parts of a call, against the definition, which leaves alone what no group
// takes.
::testing::AssertionResult Check(const ActivationCase& c, int offset = 0) {
  const auto describe = [&c](int64_t i) { return c.Inputs(i); };
  reference::ActivationStatus status;
  const auto expected = testing::OracleActivation(c, &status);
  if (status != reference::ActivationStatus::kOk) {
    return ::testing::AssertionFailure() << "the case is refused";
  }
  const auto zeroed = testing::RunActivationBy(c, DefineActivation, offset, /*unwritten=*/0);
  const auto oracle = testing::SameArrays(expected.data(), zeroed.data(), c.count(),
                                          "HActivation definition", describe);
  if (!oracle) return oracle;
  const auto definition = testing::RunActivationBy(c, DefineActivation, offset);
  CallingThread calling_thread;
  for (const auto& [target, name] : testing::SupportedTargets()) {
    const testing::ForcedTarget forced(target);
    const auto actual = RunLoops(c, &calling_thread, offset);
    const auto same = testing::SameArrays(definition.data(), actual.data(), c.count(),
                                          std::string("HActivation ") + name, describe);
    if (!same) return same;
    MarkPaths(c, target);
  }
  testing::BackwardParts parts(1);
  if (c.positions > 1) Ran(Path::kActivationParts);
  const auto actual = RunLoops(c, &parts, offset);
  return testing::SameArrays(definition.data(), actual.data(), c.count(), "HActivation in parts",
                             describe);
}

enum class Points { kSmall, kWide, kBeyond, kUnordered };

int64_t DrawPoint(Random* random, Points kind) {
  switch (kind) {
    case Points::kSmall:
      return random->Between(-200, 200);
    case Points::kBeyond:  // around and beyond the ends of the input
      return (random->Flag() ? INT64_C(0x7fffffff) : -INT64_C(0x80000000)) +
             random->Between(-2, 2) +
             (random->Between(0, 5) == 0 ? testing::RandomInt64(random) : 0);
    default:
      return testing::RandomInt64(random);
  }
}

// A table entry: small, any word, or beyond the 32 bits that count.
int64_t DrawEntry(Random* random) {
  const int kind = random->Between(0, 9);
  if (kind < 7) return random->Between(-70, 70);
  return kind < 9 ? static_cast<int32_t>(random->Bits()) : testing::RandomInt64(random);
}

int64_t DrawElement(Random* random, const ActivationCase& c) {
  static const std::vector<int32_t> corners = testing::Int32Corners();
  const int kind = random->Between(0, 9);
  if (kind < 4) return random->Between(-300, 300);
  if (kind < 6) return random->Pick(corners);
  if (kind == 6) return testing::RandomInt64(random);
  if (kind == 7 || c.x_points.empty()) return static_cast<int32_t>(random->Bits());
  return WrapAdd64(random->Pick(c.x_points), random->Between(-1, 1));
}

ActivationMode DrawMode(Random* random) {
  static const std::vector<int32_t> corners = testing::Int32Corners();
  ActivationMode mode = {};
  mode.is_8bit_to_16bit_mode = random->Flag();
  mode.is_velquin = random->Between(0, 3) == 0;
  mode.is_16bit_precision_mode = random->Between(0, 3) == 0;
  mode.ebias = random->Between(0, 3) == 0 ? random->Pick(corners) : random->Between(-10, 20);
  mode.clip_bits = random->Between(0, 3) == 0 ? random->Pick(corners) : random->Between(-1, 300);
  mode.beta = static_cast<int32_t>(random->Bits());
  mode.is_signed_output = random->Flag();
  return mode;
}

ActivationCase DrawCase(Random* random, Points kind, int points, int64_t positions,
                        const std::vector<int64_t>& size_splits, int spare) {
  ActivationCase c;
  c.positions = positions;
  c.channels = spare;
  for (const int64_t size : size_splits) c.channels += std::max<int64_t>(size, 0);
  c.size_splits = size_splits;
  c.points = points;
  c.pieces = points + 1 + random->Between(0, 2);
  for (int64_t g = 0; g < c.groups(); ++g) {
    std::vector<int64_t> row;
    for (int p = 0; p < points; ++p) row.push_back(DrawPoint(random, kind));
    if (kind != Points::kUnordered) std::sort(row.begin(), row.end());
    c.x_points.insert(c.x_points.end(), row.begin(), row.end());
    for (int64_t k = 0; k < c.pieces; ++k) {
      c.offsets.push_back(DrawEntry(random));
      c.slopes_m.push_back(DrawEntry(random));
      c.slopes_e.push_back(DrawEntry(random));
    }
  }
  c.mode = DrawMode(random);
  for (int64_t i = 0; i < c.count(); ++i) c.in.push_back(DrawElement(random, c));
  return c;
}

constexpr Points kAllPoints[] = {Points::kSmall, Points::kWide, Points::kBeyond,
                                 Points::kUnordered};

TEST(Activation, EveryCountOfBreakpoints) {
  Random random(0xb2ea);
  for (int points = 0; points <= 40; ++points) {
    for (const Points kind : kAllPoints) {
      for (int round = 0; round < 12 / testing::Step(3); ++round) {
        const ActivationCase c = DrawCase(&random, kind, points, 3, {17, 8}, 0);
        ASSERT_TRUE(Check(c, random.Between(0, 3))) << points << " breakpoints";
      }
    }
  }
}

// Breakpoints that every input reaches, and that none reaches.
TEST(Activation, BreakpointsAtTheEndsOfTheInput) {
  Random random(0xe4d5);
  const std::vector<int64_t> ends = {
      INT64_MIN, -INT64_C(0x80000001), INT32_MIN, INT32_MIN + 1,       -1,
      0,         INT32_MAX - 1,        INT32_MAX, INT64_C(0x80000000), INT64_C(0x100000005),
      INT64_MAX};
  for (size_t a = 0; a < ends.size(); ++a) {
    for (size_t b = a; b < ends.size(); ++b) {
      for (size_t d = b; d < ends.size(); ++d) {
        ActivationCase c = DrawCase(&random, Points::kSmall, 3, 1, {24}, 0);
        c.x_points = {ends[a], ends[b], ends[d]};
        c.offsets = {1000, 2000, 3000, 4000};
        c.slopes_m = {1, -2, 3, -4};
        c.slopes_e = {6, 7, 8, 9};
        c.pieces = 4;
        c.mode.clip_bits = 100;
        c.in = {INT32_MIN,  INT32_MIN + 1,
                -1,         0,
                1,          INT32_MAX - 1,
                INT32_MAX,  5,
                6,          7,
                8,          9,
                100,        -100,
                77,         1 << 20,
                -(1 << 20), 3,
                4,          INT64_C(0x80000000),
                -5,         -6,
                -7,         -8};
        ASSERT_TRUE(Check(c)) << ends[a] << " " << ends[b] << " " << ends[d];
      }
    }
  }
}

TEST(Activation, SizesAndMisalignments) {
  Random random(0x512e);
  for (const int size : testing::LaneSizes()) {
    for (int offset = 0; offset < 4; ++offset) {
      for (const Points kind : kAllPoints) {
        ASSERT_TRUE(Check(DrawCase(&random, kind, 7, 1, {size}, 0), offset)) << size;
        ASSERT_TRUE(Check(DrawCase(&random, kind, 9, 2, {size}, 3), offset)) << size;
      }
    }
  }
  ASSERT_TRUE(Check(DrawCase(&random, Points::kSmall, 7, 16, {4096}, 0)));
}

// Several groups, groups without channels, channels left over, no position.
TEST(Activation, Groups) {
  Random random(0x920);
  const std::vector<std::vector<int64_t>> splits = {
      {},        {0},       {-3},       {3},      {1, 1, 1},         {0, 5},
      {5, 0},    {-1, 4},   {4, -1, 4}, {40, 1},  {1, 40},           {INT64_MIN, 9},
      {9, 9, 9}, {0, 0, 0}, {64, 64},   {257, 1}, {2, -7, 0, 3, -1}, {300}};
  for (const auto& split : splits) {
    for (const int spare : {0, 1, 19}) {
      for (const int64_t positions : {0, 1, 2, 5}) {
        for (const Points kind : kAllPoints) {
          const ActivationCase c = DrawCase(&random, kind, 5, positions, split, spare);
          ASSERT_TRUE(Check(c, random.Between(0, 3)));
        }
      }
    }
  }
}

// A group for each channel, as requantisation has it: every number of rows that the loops are made
// for, channels around those of vectors and of blocks, one position, a few, more than run together.
TEST(Activation, AGroupForEachChannel) {
  Random random(0x1a9e);
  for (const int points : {0, 1, 2, 3, 8, 9, 16, 17, 32, 33}) {
    for (const int channels : {1, 2, 3, 7, 8, 15, 16, 17, 31, 33, 63, 64, 65, 100, 127, 128, 129}) {
      for (const int64_t positions : {1, 2, 3, 4, 5, 9, 35}) {
        if (positions > 5 && channels > 33) continue;
        const std::vector<int64_t> splits(static_cast<size_t>(channels), 1);
        const Points kind = kAllPoints[random.Between(0, 2)];
        const ActivationCase c = DrawCase(&random, kind, points, positions, splits, 0);
        ASSERT_TRUE(Check(c, random.Between(0, 3))) << points << " breakpoints";
      }
    }
  }
}

// Groups of odd sizes that share blocks of lanes, end within one, or stand between wide groups and
// groups that the definition computes.
TEST(Activation, GroupsInLanes) {
  Random random(0x0dd5);
  const std::vector<std::vector<int64_t>> splits = {
      {3, 5, 7, 11, 13}, {1, 127},     {127, 1},  {127, 127}, {1, 128, 1}, {5, 200, 7},
      {100, 100, 100},   {1, 1, 129},  {2, 0, 3}, {63, 65},   {9, -2, 9},  {31, 33, 64},
      {126, 3, 126, 3},  {1, 1, 1, 1}, {2, 1},    {40, 40},
  };
  for (const auto& split : splits) {
    for (const int spare : {0, 1}) {
      for (const int64_t positions : {1, 2, 3, 6}) {
        for (const int points : {2, 5, 12, 20}) {
          const Points kind = kAllPoints[random.Between(0, 3)];
          const ActivationCase c = DrawCase(&random, kind, points, positions, split, spare);
          ASSERT_TRUE(Check(c, random.Between(0, 3)));
        }
      }
    }
  }
}

TEST(Activation, RandomCases) {
  Random random(0xa11);
  for (const Points kind : kAllPoints) {
    for (int round = 0; round < 3000 / testing::Step(10); ++round) {
      std::vector<int64_t> splits;
      for (int g = random.Between(1, 3); g > 0; --g) splits.push_back(random.Between(-1, 40));
      const ActivationCase c = DrawCase(&random, kind, random.Between(0, 12), random.Between(1, 3),
                                        splits, random.Between(0, 2));
      ASSERT_TRUE(Check(c, random.Between(0, 3)));
    }
  }
}

// Every shift over every corner, with one slope a piece.
TEST(Activation, EveryShiftOfEveryCorner) {
  Random random(0x54f7);
  const std::vector<int32_t> corners = testing::Int32Corners();
  ActivationCase c;
  c.channels = static_cast<int64_t>(corners.size());
  c.in.assign(corners.begin(), corners.end());
  c.size_splits = {c.channels};
  c.offsets = {0};
  c.slopes_m = {0};
  c.slopes_e = {0};
  for (int shift = 0; shift < 64; ++shift) {
    for (const ActivationMode& mode : Modes(&random, shift, INT32_MAX)) {
      for (const int32_t slope : corners) {
        c.mode = mode;
        c.mode.clip_bits = random.Flag() ? INT32_MAX : random.Between(0, 70000);
        c.slopes_m[0] = slope;
        ASSERT_TRUE(Check(c));
      }
    }
  }
}

// 2^30 * 2^25 * 256 is -2^63, whose magnitude is 2^63.
TEST(Activation, ProductOfTheSmallestInt64) {
  for (int exponent = 0; exponent < 64; ++exponent) {
    ActivationCase c;
    c.channels = 20;
    c.in.assign(20, 1 << 30);
    c.size_splits = {20};
    c.offsets = {3};
    c.slopes_m = {1 << 25};
    c.slopes_e = {exponent};
    c.mode.is_8bit_to_16bit_mode = true;
    c.mode.clip_bits = INT32_MAX - 5;
    ASSERT_TRUE(Check(c)) << exponent;
  }
  // Shifted by 62, -2^63 is -2; by the 6 bits of the rounding that is 0. Shifted by 40 it is -2^23.
  ActivationMode mode = {};
  mode.is_8bit_to_16bit_mode = true;
  mode.clip_bits = INT32_MAX;
  EXPECT_EQ(activate(1 << 30, 0, 1 << 25, 68, mode), 0);
  EXPECT_EQ(activate(1 << 30, 0, 1 << 25, 46, mode), -(1 << 17));
}

TEST(Activation, UnusedSettings) {
  Random random(0xbe7a);
  ActivationCase c = DrawCase(&random, Points::kSmall, 7, 2, {50}, 0);
  CallingThread calling_thread;
  const auto expected = RunLoops(c, &calling_thread);
  for (const int32_t beta : {0, 1, -1, INT32_MAX, INT32_MIN}) {
    c.mode.beta = beta;
    c.mode.is_signed_output = !c.mode.is_signed_output;
    const auto actual = RunLoops(c, &calling_thread);
    EXPECT_TRUE(testing::SameArrays(expected.data(), actual.data(), c.count(), "unused settings",
                                    [&c](int64_t i) { return c.Inputs(i); }));
  }
}

}  // namespace
}  // namespace bitfold
