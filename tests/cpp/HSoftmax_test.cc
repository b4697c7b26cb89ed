// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HSoftmax: worked examples; the definition against the oracle, printed text included; and the
// vector loops of every target against the definition.

#include "bitfold/HSoftmax.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "support/compare.h"
#include "support/ledger.h"
#include "support/random.h"
#include "support/scale.h"
#include "support/softmax_case.h"
#include "support/tables.h"
#include "support/targets.h"
#include "support/workers.h"

namespace bitfold {
namespace {

using testing::Path;
using testing::Ran;
using testing::Random;
using testing::SoftmaxCase;
using testing::SoftmaxOutput;

constexpr char kWarning[] = "Warning, the softmax sum has overflowed.\n";
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

::testing::AssertionResult SameOutputs(const SoftmaxCase& c, const SoftmaxOutput& expected,
                                       const SoftmaxOutput& actual, const std::string& path) {
  const auto describe = [&c](int64_t i) { return c.Inputs(i); };
  const auto values = testing::SameArrays(expected.values.data(), actual.values.data(), c.count(),
                                          "HSoftmax " + path, describe);
  if (!values) return values;
  return testing::SameText(expected.lines, actual.lines, "HSoftmax " + path + " " + c.Inputs(0));
}

Path PathOf(Target target) {
  return target == Target::kPortable ? Path::kSoftmaxPortable
         : target == Target::kAvx2   ? Path::kSoftmaxAvx2
                                     : Path::kSoftmaxAvx512;
}

SoftmaxOutput RunLoops(const SoftmaxCase& c, Workers* workers, int offset = 0) {
  return testing::RunSoftmaxBy(c, testing::SharedBy<ComputeSoftmax>(workers), offset);
}

// The two comparisons, each on its own: the definition against the oracle, and the vector loops of
// each target, and of parts of a call, against the definition.
::testing::AssertionResult Check(const SoftmaxCase& c, int offset = 0) {
  const SoftmaxOutput definition = testing::RunSoftmaxBy(c, run_softmax, offset);
  const auto oracle = SameOutputs(c, testing::OracleSoftmax(c), definition, "definition");
  if (!oracle) return oracle;
  CallingThread calling_thread;
  const bool in_order = testing::SumsInOrder(c);
  for (const auto& [target, name] : testing::SupportedTargets()) {
    const testing::ForcedTarget forced(target);
    const auto same = SameOutputs(c, definition, RunLoops(c, &calling_thread, offset), name);
    if (!same) return same;
    Ran(PathOf(target));
    if (in_order) Ran(Path::kSoftmaxSumInOrder);
  }
  testing::BackwardParts parts(1);
  if (c.vectors > 1) Ran(Path::kSoftmaxParts);
  return SameOutputs(c, definition, RunLoops(c, &parts, offset), "in parts");
}

// Falling exponentials, sums and rising reciprocals.
std::vector<testing::SoftmaxRow> PlainRows() {
  std::vector<testing::SoftmaxRow> rows;
  for (int k = 0; k < kSoftmaxRows; ++k) {
    const double sum = 16777215.0 * std::pow(0.96, k);
    rows.push_back({static_cast<uint16_t>(65535.0 * std::exp(-k / 24.0)),
                    static_cast<uint32_t>(sum), static_cast<uint8_t>(k)});
  }
  return rows;
}

enum class Table { kPlain, kRandom, kOrdered, kLarge, kConstant };

std::vector<uint32_t> DrawTable(Random* random, Table kind) {
  std::vector<testing::SoftmaxRow> rows = PlainRows();
  std::vector<uint32_t> words;
  switch (kind) {
    case Table::kPlain:
      return PackSoftmaxTable(rows);
    case Table::kRandom:  // unordered sums, and the unused bits
      for (int i = 0; i < 512; ++i) words.push_back(random->Bits());
      return words;
    case Table::kOrdered: {
      std::vector<uint32_t> sums;
      const int bits = random->Between(1, 24);
      for (int k = 0; k < kSoftmaxRows; ++k) sums.push_back(random->Bits() >> (32 - bits));
      std::sort(sums.rbegin(), sums.rend());
      for (int k = 0; k < kSoftmaxRows; ++k) rows[static_cast<size_t>(k)].sum = sums[k];
      break;
    }
    case Table::kLarge:  // sums above 2^24 soon
      for (auto& row : rows) row.exponential = static_cast<uint16_t>(65535 - random->Between(0, 9));
      break;
    case Table::kConstant:  // every row is hit at once
      for (auto& row : rows) row.sum = static_cast<uint32_t>(random->Between(0, 1) * 65535);
      break;
  }
  for (auto& row : rows) row.reciprocal = static_cast<uint8_t>(random->Bits());
  return PackSoftmaxTable(rows);
}

enum class Elements { kTable, kBeyond, kFractions, kSpecial, kAny };

float DrawElement(Random* random, Elements kind) {
  static const std::vector<float> edges = {
      0.0f,  -0.0f,     -254.99f,   -255.0f,     -255.5f,      -255.99f,      -256.0f, -257.0f,
      1e30f, kInfinity, -kInfinity, kNan,        -kNan,        1e-45f,        -1e-45f, 3.5f,
      -1e9f, 0.5f,      -0.75f,     16777216.0f, 2147483648.f, -2147483648.0f};
  switch (kind) {
    case Elements::kTable:
      return static_cast<float>(random->Between(-255, 0));
    case Elements::kBeyond:
      return static_cast<float>(random->Between(-300, 20));
    case Elements::kFractions:
      return static_cast<float>(random->Between(-260000, 0)) / 1000.0f;
    case Elements::kSpecial:
      return random->Pick(edges);
    default:
      return testing::FloatOf(random->Bits());
  }
}

SoftmaxCase DrawCase(Random* random, Table table, Elements elements, int vectors, int size) {
  SoftmaxCase c;
  c.vectors = vectors;
  c.table = DrawTable(random, table);
  c.is_velquin = random->Flag();
  for (int i = 0; i < vectors * size; ++i) {
    // Special values among ordinary ones too.
    const bool special = elements == Elements::kSpecial && random->Between(0, 3) != 0;
    c.in.push_back(DrawElement(random, special ? Elements::kBeyond : elements));
  }
  return c;
}

// ---- Worked examples ---------------------------------------------------------------------------

TEST(HSoftmax, ParsesItsTable) {
  std::vector<uint32_t> words(512, 0);
  words[0] = 0x56781234u;
  words[1] = 0xffffab9au;
  words[510] = 0xffff0000u;
  words[511] = 0x000000ffu;
  uint16_t exponentials[kSoftmaxRows];
  SoftmaxSum sums[kSoftmaxRows];
  parse_lut_table(words.data(), words.size(), exponentials, sums);
  EXPECT_EQ(exponentials[0], 0x1234);
  EXPECT_EQ(sums[0].sum_value, 0x9a5678u);
  EXPECT_EQ(sums[0].inv_value, 0xab);
  EXPECT_EQ(exponentials[255], 0);
  EXPECT_EQ(sums[255].sum_value, 0xffffffu);
  EXPECT_EQ(sums[255].inv_value, 0);
}

TEST(HSoftmax, ShiftRoundsHalfToEven) {
  EXPECT_EQ(activation_shift_and_banker_rounding(96, 6), 2.0f);   // 1.5 to 2
  EXPECT_EQ(activation_shift_and_banker_rounding(160, 6), 2.0f);  // 2.5 to 2
  EXPECT_EQ(activation_shift_and_banker_rounding(161, 6), 3.0f);
  EXPECT_EQ(activation_shift_and_banker_rounding(-96, 6), -2.0f);   // -1.5 to -2
  EXPECT_EQ(activation_shift_and_banker_rounding(-160, 6), -2.0f);  // -2.5 to -2
  EXPECT_EQ(activation_shift_and_banker_rounding(-32, 6), 0.0f);    // -0.5 to 0
}

TEST(HSoftmax, ReciprocalOfTheRowFound) {
  SoftmaxSum sums[kSoftmaxRows];
  for (int k = 0; k < kSoftmaxRows; ++k) {
    sums[k] = {static_cast<uint8_t>(k), static_cast<uint32_t>(10000 - 10 * k)};
  }
  EXPECT_EQ(lut_inv(10000.0f - 1270.0f, sums), 127);
  EXPECT_EQ(lut_inv(10001.0f, sums), 0);
  EXPECT_EQ(lut_inv(7449.0f, sums), 255);
  EXPECT_EQ(lut_inv(0.0f, sums), 255);
  for (int k = 0; k <= 254; ++k) {
    const float row = static_cast<float>(10000 - 10 * k);
    EXPECT_EQ(lut_inv(row, sums), k);
    EXPECT_EQ(lut_inv(row - 1.0f, sums), k + 1);  // below the row: the next one
    EXPECT_EQ(lut_inv(row + 1.0f, sums), k);
  }
}

TEST(HSoftmax, EqualElements) {
  SoftmaxCase c;
  c.table = PackSoftmaxTable(PlainRows());
  for (const int size : {1, 2, 100}) {
    for (const float x : {0.0f, -7.0f, 3.25f, 1e20f}) {
      c.in.assign(static_cast<size_t>(size), x);
      ASSERT_TRUE(Check(c));
      const SoftmaxOutput out = testing::RunSoftmaxBy(c, run_softmax);
      for (int i = 1; i < size; ++i) EXPECT_EQ(out.values[i], out.values[0]);
    }
  }
}

// A vector whose exponentials add up to 2^24 + excess, the last `ones` of them 1 each.
SoftmaxCase SumAround24Bits(int64_t excess, int ones, bool ones_first) {
  std::vector<testing::SoftmaxRow> rows = PlainRows();
  const int64_t rest = (int64_t{1} << 24) + excess - ones - 256 * int64_t{65535};
  rows[0].exponential = 65535;
  rows[1].exponential = static_cast<uint16_t>(rest);
  rows[2].exponential = 1;
  SoftmaxCase c;
  c.in.assign(256, 5.0f);
  c.in.push_back(4.0f);
  c.in.insert(ones_first ? c.in.begin() : c.in.end(), static_cast<size_t>(ones), 3.0f);
  c.table = PackSoftmaxTable(rows);
  return c;
}

TEST(HSoftmax, SumsAround24Bits) {
  for (const int64_t excess : {-3, -2, -1, 0, 1, 2, 3, 4, 5, 100}) {
    for (const int ones : {0, 1, 2, 3, 7, 64, 200}) {
      for (const bool ones_first : {false, true}) {
        for (const bool is_velquin : {false, true}) {
          SoftmaxCase c = SumAround24Bits(excess, ones, ones_first);
          c.is_velquin = is_velquin;
          ASSERT_TRUE(Check(c)) << "2^24 + " << excess << ", of it " << ones << " ones";
        }
      }
    }
  }
}

TEST(HSoftmax, OverflowIsReported) {
  CallingThread calling_thread;
  SoftmaxCase c = SumAround24Bits(-1, 0, false);
  EXPECT_EQ(RunLoops(c, &calling_thread).lines, "");
  c = SumAround24Bits(0, 0, false);
  EXPECT_EQ(RunLoops(c, &calling_thread).lines, kWarning);
  c.is_velquin = true;
  EXPECT_EQ(RunLoops(c, &calling_thread).lines, "");
  // Once for each vector.
  c.is_velquin = false;
  const std::vector<float> once = c.in;
  c.in.insert(c.in.end(), once.begin(), once.end());
  c.vectors = 2;
  EXPECT_EQ(RunLoops(c, &calling_thread).lines, std::string(kWarning) + kWarning);
  ASSERT_TRUE(Check(c));
}

TEST(HSoftmax, DistancesBeyondTheTable) {
  SoftmaxCase c;
  std::vector<testing::SoftmaxRow> rows = PlainRows();
  for (auto& row : rows) {
    row.exponential = 65535;
    row.reciprocal = 255;
  }
  c.table = PackSoftmaxTable(rows);
  c.in = {256.0f, 0.0f, 1.0f, 0.5f, 0.0078125f, -kInfinity, kNan, -1e30f};
  const SoftmaxOutput out = testing::RunSoftmaxBy(c, run_softmax);
  const float one = 255.0f;
  const std::vector<float> expected = {one, 0.0f, one, one, one, 0.0f, 0.0f, 0.0f};
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(out.values[static_cast<int64_t>(i)], expected[i]) << i;
  }
  ASSERT_TRUE(Check(c));
}

TEST(HSoftmax, NothingToDo) {
  SoftmaxCase c;
  c.table = PackSoftmaxTable(PlainRows());
  for (const int vectors : {0, 1, 3, 1000}) {
    c.vectors = vectors;
    ASSERT_TRUE(Check(c)) << vectors;
  }
}

// ---- Against the oracle and the definition -----------------------------------------------------

TEST(HSoftmax, ShiftOfEveryCount) {
  std::vector<int32_t> values = testing::Int32Boundaries();
  Random random(0x50f7);
  for (int i = 0; i < 2000; ++i) values.push_back(static_cast<int32_t>(random.Bits()));
  for (int32_t shift = -40; shift <= 100; ++shift) {
    for (const int32_t x : values) {
      ASSERT_TRUE(testing::Same(reference::SoftmaxShift(x, shift),
                                activation_shift_and_banker_rounding(x, shift), "shift",
                                testing::Describe("x", x, "shift", shift)));
    }
  }
}

// Around every tie of every shift.
TEST(HSoftmax, ShiftTies) {
  Random random(0x71e5);
  for (int32_t shift = 1; shift <= 31; ++shift) {
    for (int i = 0; i < 300; ++i) {
      const int64_t half = int64_t{1} << (shift - 1);
      const int64_t multiple =
          random.Between(-(int64_t{1} << (31 - shift)), (int64_t{1} << (31 - shift)) - 1);
      for (int64_t delta = -1; delta <= 1; ++delta) {
        const int64_t wide = (2 * multiple + 1) * half + delta;
        if (wide < INT32_MIN || wide > INT32_MAX) continue;
        const auto x = static_cast<int32_t>(wide);
        for (const int32_t count : {shift, shift + 32, shift - 64}) {
          ASSERT_TRUE(testing::Same(reference::SoftmaxShift(x, count),
                                    activation_shift_and_banker_rounding(x, count), "shift",
                                    testing::Describe("x", x, "shift", count)));
        }
      }
    }
  }
}

// Every product that the unit can form, in its two roundings.
TEST(HSoftmax, EveryProduct) {
  for (int32_t product = 0; product < 1 << 24; product += testing::Step(97)) {
    const float shifted = activation_shift_and_banker_rounding(product, 6);
    const auto whole = static_cast<int32_t>(shifted);
    const float expected = reference::SoftmaxShift(product, 6);
    ASSERT_TRUE(shifted == expected) << product;
    if ((product & 63) != 0) continue;
    ASSERT_TRUE(activation_shift_and_banker_rounding(whole, 10) ==
                reference::SoftmaxShift(whole, 10))
        << product;
  }
}

TEST(HSoftmax, EveryOutputOfEveryReciprocal) {
  std::vector<testing::SoftmaxRow> rows = PlainRows();
  Random random(0x0e7);
  for (int reciprocal = 0; reciprocal < 256; ++reciprocal) {
    for (auto& row : rows) {
      row = {static_cast<uint16_t>(random.Bits()), 0, static_cast<uint8_t>(reciprocal)};
    }
    SoftmaxCase c;
    c.table = PackSoftmaxTable(rows);
    for (int k = 0; k < kSoftmaxRows; ++k) c.in.push_back(static_cast<float>(-k));
    c.is_velquin = true;
    ASSERT_TRUE(Check(c)) << reciprocal;
  }
}

TEST(HSoftmax, SearchOfRowsInAnyOrder) {
  Random random(0x5ea7c);
  for (const Table kind : {Table::kPlain, Table::kRandom, Table::kOrdered, Table::kConstant}) {
    for (int round = 0; round < 40; ++round) {
      const std::vector<uint32_t> words = DrawTable(&random, kind);
      uint16_t exponentials[kSoftmaxRows];
      SoftmaxSum sums[kSoftmaxRows];
      parse_lut_table(words.data(), words.size(), exponentials, sums);
      uint16_t expected_exponentials[kSoftmaxRows];
      reference::SoftmaxRow rows[kSoftmaxRows];
      reference::ParseSoftmaxTable(words.data(), expected_exponentials, rows);
      std::vector<float> wanted = {0.0f, -1.0f, kMaxSoftmaxSum, 1e30f, kInfinity, -kInfinity, kNan};
      for (int k = 0; k < kSoftmaxRows; ++k) {
        ASSERT_EQ(exponentials[k], expected_exponentials[k]);
        ASSERT_EQ(sums[k].inv_value, rows[k].inv_value);
        ASSERT_EQ(sums[k].sum_value, rows[k].sum_value);
        testing::InsertWithNeighbours(static_cast<float>(sums[k].sum_value), &wanted);
      }
      for (const float sum : wanted) {
        ASSERT_EQ(reference::FindInverse(sum, rows), lut_inv(sum, sums)) << testing::Show(sum);
      }
    }
  }
}

TEST(HSoftmax, SizesAndMisalignments) {
  Random random(0x512e);
  for (const int size : testing::LaneSizes()) {
    for (int offset = 0; offset < 4; ++offset) {
      for (const int vectors : {1, 2, 5}) {
        const SoftmaxCase c =
            DrawCase(&random, Table::kPlain, Elements::kBeyond, size == 0 ? 0 : vectors, size);
        ASSERT_TRUE(Check(c, offset)) << "size " << size << " offset " << offset;
      }
    }
  }
}

TEST(HSoftmax, RandomCases) {
  Random random(0xa11);
  for (const Table table :
       {Table::kPlain, Table::kRandom, Table::kOrdered, Table::kLarge, Table::kConstant}) {
    for (const Elements elements : {Elements::kTable, Elements::kBeyond, Elements::kFractions,
                                    Elements::kSpecial, Elements::kAny}) {
      for (int round = 0; round < 60 / testing::Step(10); ++round) {
        const int vectors = random.Between(1, 4);
        const int size = round % 10 == 0 ? 4096 : random.Between(1, 600);
        const SoftmaxCase c = DrawCase(&random, table, elements, vectors, size);
        ASSERT_TRUE(Check(c, random.Between(0, 3)));
      }
    }
  }
}

// Every special value first, in the middle and last.
TEST(HSoftmax, SpecialValuesAnywhere) {
  const std::vector<uint32_t> table = PackSoftmaxTable(PlainRows());
  for (const float special : testing::FloatBoundaries()) {
    for (const size_t at : {0u, 1u, 8u, 15u, 16u, 20u}) {
      for (const float rest : {0.0f, -0.0f, -3.0f, kNan, -kInfinity, kInfinity}) {
        SoftmaxCase c;
        c.table = table;
        c.in.assign(21, rest);
        c.in[(at + 7) % 21] = 2.0f;
        c.in[at] = special;
        ASSERT_TRUE(Check(c)) << testing::Show(special) << " at " << at;
      }
    }
  }
}

// Nothing behind the last element is written.
TEST(HSoftmax, WritesItsOutputAlone) {
  const std::vector<uint32_t> table = PackSoftmaxTable(PlainRows());
  for (const auto& [target, name] : testing::SupportedTargets()) {
    const testing::ForcedTarget forced(target);
    for (const int size : testing::LaneSizes()) {
      const std::vector<float> in(static_cast<size_t>(size), 1.0f);
      std::vector<float> out(static_cast<size_t>(size) + 64, 77.0f);
      CallingThread workers;
      ComputeSoftmax(in.data(), out.data(), size, 1, table.data(), true, &workers);
      for (size_t i = static_cast<size_t>(size); i < out.size(); ++i) {
        ASSERT_EQ(out[i], 77.0f) << name << " wrote element " << i << " of " << size;
      }
    }
  }
}

}  // namespace
}  // namespace bitfold
