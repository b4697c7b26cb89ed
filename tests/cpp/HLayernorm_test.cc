// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HLayernorm: worked examples; every assertion; the definition against the oracle; and the vector
// loops of every target against the definition.

#include "bitfold/HLayernorm.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "support/assertion_text.h"
#include "support/compare.h"
#include "support/int64.h"
#include "support/layernorm_case.h"
#include "support/ledger.h"
#include "support/random.h"
#include "support/scale.h"
#include "support/tables.h"
#include "support/targets.h"
#include "support/workers.h"

namespace bitfold {
namespace {

using reference::LayernormStatus;
using testing::Describe;
using testing::ExactBuffer;
using testing::LayerNormCase;
using testing::Path;
using testing::Ran;
using testing::Random;
using testing::SameInt64;

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

// ---- The primitives ----------------------------------------------------------------------------

TEST(HLayernorm, RoundingShiftExamples) {
  EXPECT_EQ(right_shift_bankers_rounding(5, 1, 3), 2);    // 2.5 to 2
  EXPECT_EQ(right_shift_bankers_rounding(7, 1, 3), 4);    // 3.5 to 4
  EXPECT_EQ(right_shift_bankers_rounding(-5, 1, 3), -2);  // -2.5 to -2
  EXPECT_EQ(right_shift_bankers_rounding(6, 2, 3), 2);    // 1.5 to 2
  // 41 / 16 = 2.5625, with two fraction bits 2.5: a tie.
  EXPECT_EQ(right_shift_bankers_rounding(41, 4, 2), 2);
  EXPECT_EQ(right_shift_bankers_rounding(41, 4, 4), 3);
  EXPECT_EQ(right_shift_bankers_rounding(-12345, 0, 3), -12345);
}

TEST(HLayernorm, ClipExamples) {
  EXPECT_EQ(signed_clip(300, 8, false), 255);
  EXPECT_EQ(signed_clip(-1, 8, false), 0);
  EXPECT_EQ(signed_clip(200, 8, true), 127);
  EXPECT_EQ(signed_clip(-200, 8, true), -128);
  EXPECT_EQ(signed_clip(INT64_MAX, 31, false), INT32_MAX);
  EXPECT_EQ(signed_clip(5, 32, false), 0);
  EXPECT_EQ(signed_clip(-5, 32, false), 0);
}

TEST(HLayernorm, SumExamples) {
  const float x[] = {2.9f, -2.9f, 10.0f};
  EXPECT_EQ(get_sum_of_x_minus_zp(x, 2, 0), 0);
  EXPECT_EQ(get_sum_of_x_minus_zp(x, 1, 0), 2);
  EXPECT_EQ(get_sum_of_x_minus_zp(x + 1, 1, 0), -2);
  EXPECT_EQ(get_sum_of_x_minus_zp(x, 3, 100), 10 - 300);
  EXPECT_EQ(get_sum_of_x_minus_zp(x, 0, 100), 0);
  EXPECT_EQ(get_sum_squares_of_x_minus_zp_times_n(x, 3, 0, 3), 3u * 108u);
  EXPECT_EQ(get_sum_squares_of_x_minus_zp_times_n(x, 0, 5, 3), 0u);
}

TEST(HLayernorm, LeadingOneExamples) {
  EXPECT_EQ(get_leading_one_index(1, 58), 0);
  EXPECT_EQ(get_leading_one_index(uint64_t{1} << 57, 58), 57);
  EXPECT_EQ(get_leading_one_index(~uint64_t{0}, 58), 57);
  EXPECT_EQ(get_leading_one_index(~uint64_t{0}, 64), 63);
  EXPECT_EQ(get_leading_one_indexed_word(0b1011, 3, 2), 0b10u);
  EXPECT_EQ(get_leading_one_indexed_word(0b1011, 3, 6), 0b101100u);
  EXPECT_EQ(get_leading_one_indexed_word(0b1011, 3, 4), 0b1011u);
}

// Boundaries, ties of every shift with their neighbours, and random numbers.
std::vector<int64_t> ShiftValues(Random* random, int shift) {
  std::vector<int64_t> values = testing::Int64Boundaries();
  for (int i = 0; i < 60; ++i) {
    const int64_t multiple = testing::RandomInt64(random);
    values.push_back(multiple);
    if (shift < 1 || shift > 62) continue;
    const int64_t tie = WrapMultiply64(2 * (multiple >> 32) + 1, int64_t{1} << (shift - 1));
    for (const int64_t delta : {-8, -2, -1, 0, 1, 2, 8}) values.push_back(WrapAdd64(tie, delta));
  }
  return values;
}

TEST(HLayernorm, RoundingShiftOfEveryCount) {
  Random random(0x5417);
  for (int shift = 0; shift <= 64; ++shift) {
    const std::vector<int64_t> values = ShiftValues(&random, shift);
    for (int round_bits = 2; round_bits <= 64; ++round_bits) {
      const bool used = round_bits == 3 || round_bits == 6 || round_bits == shift;
      const size_t step = used ? 1 : 5;
      for (size_t i = static_cast<size_t>(shift) % step; i < values.size(); i += step) {
        const int64_t x = values[i];
        const auto s = static_cast<uint8_t>(shift);
        const auto r = static_cast<uint8_t>(round_bits);
        int64_t expected = 0;
        ASSERT_EQ(reference::RoundingShift(x, s, r, &expected), LayernormStatus::kOk);
        const int64_t actual = right_shift_bankers_rounding(x, s, r);
        if (expected == actual) continue;
        ASSERT_TRUE(
            SameInt64(expected, actual, "right_shift_bankers_rounding",
                      testing::ShowInt64(x) + Describe(" shift", shift, "bits", round_bits)));
      }
    }
  }
}

TEST(HLayernorm, ClipOfEveryWidth) {
  const std::vector<int64_t> values = testing::Int64Boundaries();
  for (int bits = 0; bits <= 64; ++bits) {
    for (const bool is_signed : {false, true}) {
      for (const int64_t x : values) {
        int64_t expected = 0;
        ASSERT_EQ(reference::SignedClip(x, static_cast<uint8_t>(bits), is_signed, &expected),
                  LayernormStatus::kOk);
        ASSERT_EQ(expected, signed_clip(x, static_cast<uint8_t>(bits), is_signed))
            << x << " to " << bits << (is_signed ? " bits signed" : " bits");
      }
    }
  }
}

TEST(HLayernorm, LeadingOneOfEveryWord) {
  const std::vector<int64_t> values = testing::Int64Boundaries();
  for (size_t i = 0; i < values.size(); i += static_cast<size_t>(testing::Step(7))) {
    const int64_t x = values[i];
    const auto word = static_cast<uint64_t>(x);
    for (int length = 0; length <= 64; ++length) {
      uint8_t expected = 0;
      const auto status = reference::LeadingOneIndex(word, static_cast<uint8_t>(length), &expected);
      // Without a one the result is 0.
      if (status == LayernormStatus::kNoLeadingOne) expected = 0;
      ASSERT_EQ(get_leading_one_index(word, static_cast<uint8_t>(length)), expected)
          << testing::ShowInt64(x) << " below bit " << length;
    }
    if (i % 8 != 0) continue;
    for (uint8_t index = 0; index <= 64; ++index) {
      for (uint8_t bits = 0; bits <= 64; ++bits) {
        ASSERT_EQ(reference::LeadingOneWord(word, index, bits),
                  get_leading_one_indexed_word(word, index, bits))
            << testing::ShowInt64(x) << " from " << int{index} << ", bits " << int{bits};
      }
    }
  }
}

TEST(HLayernorm, SumsOfAnything) {
  Random random(0x50a5);
  std::vector<float> special = testing::FloatBoundaries();
  for (int round = 0; round < 3000; ++round) {
    std::vector<float> x;
    const int n = random.Between(0, 40);
    for (int i = 0; i < n; ++i) {
      x.push_back(random.Flag() ? random.Pick(special) : testing::FloatOf(random.Bits()));
    }
    const auto zero_point = static_cast<uint16_t>(random.Bits());
    const auto mult = static_cast<uint16_t>(random.Bits() >> random.Between(16, 31));
    const auto count = static_cast<uint16_t>(n);
    ASSERT_EQ(reference::SumMinusZeroPoint(x.data(), count, zero_point),
              get_sum_of_x_minus_zp(x.data(), count, zero_point));
    uint64_t expected = 0;
    if (reference::SumSquaresMinusZeroPoint(x.data(), count, zero_point, mult, &expected) !=
        LayernormStatus::kOk) {
      continue;
    }
    ASSERT_EQ(expected, get_sum_squares_of_x_minus_zp_times_n(x.data(), count, zero_point, mult));
  }
}

TEST(HLayernorm, ActivationUnit) {
  Random random(0xac7);
  const std::vector<int64_t> values = testing::Int64Boundaries();
  for (int exponent = 0; exponent <= 255; ++exponent) {
    for (int round = 0; round < 400; ++round) {
      const int64_t x = random.Flag() ? random.Pick(values) : testing::RandomInt64(&random);
      const auto multiplier = static_cast<uint16_t>(random.Bits() >> random.Between(16, 31));
      const auto exp = static_cast<uint8_t>(exponent);
      const uint32_t bias = random.Bits() >> random.Between(0, 31);
      const bool wide = random.Flag();
      const bool large = random.Flag();
      int64_t expected = 0;
      const auto status =
          reference::LayernormActivation(x, multiplier, exp, bias, wide, large, &expected);
      if (status != LayernormStatus::kOk) continue;
      ASSERT_TRUE(SameInt64(
          expected, layernorm_activation_unit(x, multiplier, exp, bias, wide, large),
          "layernorm_activation_unit",
          testing::ShowInt64(x) + Describe(" multiplier", int64_t{multiplier}, "exp", exponent,
                                           "bias", int64_t{bias}, "wide", wide, "large", large)));
    }
  }
}

// ---- Whole vectors -----------------------------------------------------------------------------

enum class Elements { kBytes, kWords, kNear30, kFractions, kSpecial, kAny };

float DrawElement(Random* random, Elements kind) {
  static const std::vector<float> near30 = {
      0x1p30f, 0x1.fffffep29f, 0x1.000002p30f, 0x1.fffffcp29f, 0x1p29f, 0x1p31f, 0x1.fffffep30f,
      0x1p32f, 0x1p62f,        0x1p63f,        0x1.fffffep62f, 0x1p64f, 0.0f,    1.0f};
  static const std::vector<float> special = testing::FloatBoundaries();
  switch (kind) {
    case Elements::kBytes:
      return static_cast<float>(random->Between(-128, 255));
    case Elements::kWords:
      return static_cast<float>(static_cast<int32_t>(random->Bits()) >> random->Between(1, 31));
    case Elements::kNear30:
      return random->Pick(near30) * (random->Flag() ? 1.0f : -1.0f);
    case Elements::kFractions:
      return static_cast<float>(random->Between(-3000, 3000)) / 7.0f;
    case Elements::kSpecial:
      return random->Pick(special);
    default:
      return testing::FloatOf(random->Bits());
  }
}

std::vector<float> DrawLut(Random* random) {
  std::vector<float> lut = testing::PlainLut();
  const int kind = random->Between(0, 3);
  static const std::vector<float> special = {
      kNan,        kInfinity,     -kInfinity, 0x1p31f,   -0x1p31f,     0x1.fffffep30f,
      1e30f,       -1.0f,         0.5f,       -65536.5f, 1e-45f,       16777215.0f,
      16777216.0f, 0x1p24f * 255, 65535.0f,   0.0f,      -16777216.0f, -0.0f};
  for (float& entry : lut) {
    if (kind == 1) entry = static_cast<float>(random->Bits() >> 8);
    if (kind == 2) entry = random->Pick(special);
    if (kind == 3) entry = testing::FloatOf(random->Bits());
  }
  return lut;
}

// A word of at most `bits` bits, every magnitude as likely, often the largest or 0.
uint32_t DrawWord(Random* random, int bits) {
  const int kind = random->Between(0, 9);
  if (kind == 0) return 0;
  if (kind == 1) return 0xffffffffu >> (32 - bits);
  return random->Bits() >> random->Between(32 - bits, 31);
}

LayerNormParams DrawParams(Random* random) {
  LayerNormParams p;
  const auto shift = [random] {
    return static_cast<uint8_t>(random->Flag() ? random->Between(0, 12) : random->Between(0, 64));
  };
  p.zero_point = static_cast<uint16_t>(DrawWord(random, 16));
  p.exponent_sub_value =
      static_cast<uint8_t>(random->Flag() ? random->Between(0, 40) : random->Between(0, 255));
  p.sum_of_x_mult = static_cast<uint16_t>(DrawWord(random, 16));
  p.sum_of_x_shift = shift();
  p.sum_of_x_mult_n_shift = shift();
  p.x_squared_mult = static_cast<uint16_t>(DrawWord(random, 16));
  p.sum_of_x_squares_shift = shift();
  p.epsilon = DrawWord(random, 32);
  p.mul_act_man = static_cast<uint16_t>(DrawWord(random, 16));
  p.mul_act_bias = DrawWord(random, 32);
  p.activation_output_mode = random->Flag();
  p.activation_ebias_mode = random->Flag();
  p.rms_mode_enable = random->Flag();
  // The stage's first shift, at most 64; it is formed in 8 bits.
  const int first = random->Between(0, 9) == 0 ? 64 : shift();
  p.mul_act_exp = static_cast<uint8_t>(first - (p.activation_ebias_mode ? 11 : 6));
  return p;
}

// Changes what ends the process; false where that does not help.
bool MakeLegal(LayerNormCase* c) {
  for (int attempt = 0; attempt < 40; ++attempt) {
    const LayernormStatus status = StatusOf(*c);
    if (status == LayernormStatus::kOk) return true;
    if (status == LayernormStatus::kSumSquares) c->params.x_squared_mult /= 2;
    if (status == LayernormStatus::kVariance) c->params.epsilon += 12345;
  }
  return false;
}

LayerNormCase DrawCase(Random* random, Elements elements, int size, int width, int height,
                       int batch) {
  LayerNormCase c;
  c.vector_size = size;
  c.width = width;
  c.height = height;
  c.batch = batch;
  c.lut = DrawLut(random);
  c.params = random->Between(0, 3) == 0 ? testing::PlainParams(size, random->Between(0, 255))
                                        : DrawParams(random);
  // One unusual element sends its vector to the definition: some vectors have one only.
  const bool single = random->Flag();
  for (int64_t i = 0; i < c.count(); ++i) {
    const bool plain = single && random->Between(0, 50) != 0;
    c.in.push_back(DrawElement(random, plain ? Elements::kBytes : elements));
  }
  return c;
}

::testing::AssertionResult SameOutputs(const LayerNormCase& c, const ExactBuffer<float>& expected,
                                       const ExactBuffer<float>& actual, const std::string& path) {
  return testing::SameArrays(expected.data(), actual.data(), c.count(), "HLayernorm " + path,
                             [&c](int64_t i) { return c.Inputs(i); });
}

Path PathOf(Target target) {
  return target == Target::kPortable ? Path::kLayerNormPortable
         : target == Target::kAvx2   ? Path::kLayerNormAvx2
                                     : Path::kLayerNormAvx512;
}

// What the vector loops do with each vector of a case.
void MarkPaths(const LayerNormCase& c, Target target) {
  const LayerNormParams& p = c.params;
  if (LayerNormActivationShift(p.mul_act_exp, p.activation_ebias_mode) >= 64) {
    return Ran(Path::kLayerNormShiftByDefinition);
  }
  for (int64_t first = 0; first < c.count(); first += c.vector_size) {
    const float* x = c.in.data() + first;
    const auto n = static_cast<uint16_t>(c.vector_size);
    bool outside = false;
    for (int i = 0; i < c.vector_size; ++i) outside |= !(std::fabs(x[i]) < 0x1p30f);
    if (outside) {
      Ran(Path::kLayerNormElementsByDefinition);
      continue;
    }
    Ran(PathOf(target));
    const int64_t sum = get_sum_of_x_minus_zp(x, n, p.zero_point);
    const uint64_t squares =
        get_sum_squares_of_x_minus_zp_times_n(x, n, p.zero_point, p.x_squared_mult);
    const auto scale = GetLayerNormScale(sum, LayerNormVariance(sum, squares, p), c.lut.data(), p);
    Ran(scale.shift >= 0 ? Path::kLayerNormShiftsLeft : Path::kLayerNormShiftsRight);
  }
}

ExactBuffer<float> RunLoops(const LayerNormCase& c, Workers* workers, int offset = 0) {
  return testing::RunLayerNormBy(c, testing::SharedBy<ComputeLayernorm>(workers), offset);
}

// The two comparisons, each on its own: the definition against the oracle, and the vector loops of
// each target, and of parts of a call, against the definition.
::testing::AssertionResult Check(const LayerNormCase& c, int offset = 0) {
  ExactBuffer<float> expected(c.count());
  if (OracleLayerNorm(c, &expected) != LayernormStatus::kOk) {
    return ::testing::AssertionFailure() << "the case ends the process: " << Describe(c.params);
  }
  const auto definition = testing::RunLayerNormBy(c, run_layernorm, offset);
  const auto oracle = SameOutputs(c, expected, definition, "definition");
  if (!oracle) return oracle;
  CallingThread calling_thread;
  for (const auto& [target, name] : testing::SupportedTargets()) {
    const testing::ForcedTarget forced(target);
    const auto same = SameOutputs(c, definition, RunLoops(c, &calling_thread, offset), name);
    if (!same) return same;
    MarkPaths(c, target);
  }
  testing::BackwardParts parts(1);
  if (c.count() > c.vector_size) Ran(Path::kLayerNormParts);
  return SameOutputs(c, definition, RunLoops(c, &parts, offset), "in parts");
}

LayerNormCase PlainCase(const std::vector<float>& x) {
  LayerNormCase c;
  c.in = x;
  c.vector_size = static_cast<int>(x.size());
  c.lut = testing::PlainLut();
  c.params = testing::PlainParams(c.vector_size);
  return c;
}

TEST(HLayernorm, EqualToTheZeroPoint) {
  LayerNormCase c = PlainCase(std::vector<float>(40, 7.0f));
  c.params.zero_point = 7;
  for (const uint32_t epsilon : {1u, 2u, 3u, 4u, 1000u, 1u << 20, 1u << 21, 0xffffffffu}) {
    c.params.epsilon = epsilon;
    ASSERT_TRUE(Check(c)) << epsilon;
  }
}

// The leading one of the variance at every index: even ones halve the word.
TEST(HLayernorm, EveryVariance) {
  LayerNormCase c = PlainCase({0.0f, 100.0f, -3.0f});
  c.params.rms_mode_enable = true;
  c.params.x_squared_mult = 0;
  for (int bit = 0; bit < 32; ++bit) {
    for (int64_t delta = -1; delta <= 1; ++delta) {
      const int64_t epsilon = (int64_t{1} << bit) + delta;
      if (epsilon < 1 || epsilon > UINT32_MAX) continue;
      c.params.epsilon = static_cast<uint32_t>(epsilon);
      ASSERT_TRUE(Check(c)) << epsilon;
    }
  }
  LayerNormScale scale;
  c.lut.assign(256, 0.0f);
  c.lut[64] = 11.0f;
  c.lut[128] = 22.0f;
  SetInverseSquareRoot(uint64_t{1} << 20, c.lut.data(), 30, &scale);
  EXPECT_EQ(scale.factor, 11);
  EXPECT_EQ(scale.shift, 30 - 11);
  SetInverseSquareRoot(uint64_t{1} << 21, c.lut.data(), 30, &scale);
  EXPECT_EQ(scale.factor, 22);
  EXPECT_EQ(scale.shift, 30 - 11);
  SetInverseSquareRoot(uint64_t{1} << 57, c.lut.data(), 0, &scale);
  EXPECT_EQ(scale.shift, -29);
  SetInverseSquareRoot(1, c.lut.data(), 200, &scale);
  EXPECT_EQ(scale.shift, 199 - 256);
}

// A variance below zero counts by its low 58 bits.
TEST(HLayernorm, NegativeVariance) {
  LayerNormCase c = PlainCase({100.0f, 100.0f, 100.0f, 100.0f});
  c.params.x_squared_mult = 0;
  c.params.epsilon = 1;
  ASSERT_TRUE(Check(c));  // 1 - 400^2
}

TEST(HLayernorm, OutputsSaturate) {
  for (const bool wide : {false, true}) {
    LayerNormCase c = PlainCase({-1000.0f, 0.0f, 1000.0f});
    c.params.activation_output_mode = wide;
    c.params.mul_act_bias = 0;
    c.params.mul_act_man = 65535;
    c.params.mul_act_exp = 0;
    CallingThread calling_thread;
    const auto out = RunLoops(c, &calling_thread);
    EXPECT_EQ(out[0], 0.0f);
    EXPECT_EQ(out[2], wide ? 32767.0f : 255.0f);
    ASSERT_TRUE(Check(c));
  }
}

TEST(HLayernorm, SizesAndMisalignments) {
  Random random(0x512e);
  auto sizes = testing::LaneSizes();
  sizes.push_back(4096);
  for (const int size : sizes) {
    for (int offset = 0; offset < 4; ++offset) {
      for (int round = 0; round < 6; ++round) {
        LayerNormCase c = DrawCase(&random, Elements::kBytes, size, 1, 1 + round % 2, 1);
        if (MakeLegal(&c)) {
          ASSERT_TRUE(Check(c, offset)) << size;
        }
      }
    }
  }
}

TEST(HLayernorm, RandomCases) {
  Random random(0xa11);
  int legal = 0;
  int drawn = 0;
  for (const Elements elements : {Elements::kBytes, Elements::kWords, Elements::kNear30,
                                  Elements::kFractions, Elements::kSpecial, Elements::kAny}) {
    for (int round = 0; round < 1500 / testing::Step(10); ++round) {
      const int size = round % 100 == 0 ? 4096 : random.Between(0, 70);
      LayerNormCase c = DrawCase(&random, elements, size, random.Between(0, 3),
                                 random.Between(0, 2), random.Between(0, 2));
      ++drawn;
      if (!MakeLegal(&c)) continue;
      ++legal;
      ASSERT_TRUE(Check(c, random.Between(0, 3)));
    }
  }
  EXPECT_GT(legal, drawn / 2);
}

// Every normalising shift, the stage's every first shift, both output widths.
TEST(HLayernorm, EveryShift) {
  Random random(0x54f7);
  LayerNormCase c = PlainCase({});
  c.vector_size = 40;
  for (int i = 0; i < 40; ++i) c.in.push_back(DrawElement(&random, Elements::kWords) / 1024.0f);
  for (float& x : c.in) x = std::trunc(x);
  c.params = testing::PlainParams(40, 100);
  c.params.x_squared_mult = 1;
  c.params.epsilon = 1u << 31;
  ASSERT_TRUE(MakeLegal(&c));
  for (int exponent = 0; exponent <= 255; exponent += testing::Step(13)) {
    for (int shift = 0; shift <= 64; ++shift) {
      c.params.exponent_sub_value = static_cast<uint8_t>(exponent);
      c.params.activation_ebias_mode = exponent % 3 == 0;
      c.params.mul_act_exp = static_cast<uint8_t>(shift - (exponent % 3 == 0 ? 11 : 6));
      c.params.mul_act_man = static_cast<uint16_t>(DrawWord(&random, 16));
      c.params.mul_act_bias = DrawWord(&random, 32);
      c.params.activation_output_mode = random.Flag();
      ASSERT_TRUE(Check(c)) << "exponent_sub_value " << exponent << " shift " << shift;
    }
  }
}

TEST(HLayernorm, WritesItsOutputAlone) {
  for (const auto& [target, name] : testing::SupportedTargets()) {
    const testing::ForcedTarget forced(target);
    for (const int size : testing::LaneSizes()) {
      LayerNormCase c = PlainCase(std::vector<float>(static_cast<size_t>(size), 3.0f));
      std::vector<float> out(static_cast<size_t>(size) + 64, 77.0f);
      CallingThread workers;
      ComputeLayernorm(c.in.data(), out.data(), {size, 1, 1, 1}, c.lut.data(), c.params, &workers);
      for (size_t i = static_cast<size_t>(size); i < out.size(); ++i) {
        ASSERT_EQ(out[i], 77.0f) << name << " wrote element " << i << " of " << size;
      }
    }
  }
}

// ---- Assertions --------------------------------------------------------------------------------

std::string Failure(const char* function, const char* expression) {
  return testing::AssertionText("src/HLayernorm", function, expression);
}

constexpr char kRoundingShift[] = "int64_t right_shift_bankers_rounding(int64_t, uint8_t, uint8_t)";
constexpr char kSumSquares[] =
    "uint64_t get_sum_squares_of_x_minus_zp_times_n(const float*, uint16_t, uint16_t, uint16_t)";
constexpr char kSumSquaresLimit[] =
    "sum_squares_of_x_minus_zp_times_n < ((uint64_t)1 << N_SUM_SQUARES_BITS)";
constexpr char kNormalizeVector[] =
    "void normalize_vector(const float*, float*, int32_t, const float*, const LayerNormParams&)";

TEST(HLayernormDeathTest, Primitives) {
  EXPECT_DEATH(right_shift_bankers_rounding(1, 65, 3),
               Failure(kRoundingShift, "shift_amount <= 64"));
  EXPECT_DEATH(right_shift_bankers_rounding(1, 255, 99),
               Failure(kRoundingShift, "shift_amount <= 64"));
  EXPECT_DEATH(right_shift_bankers_rounding(1, 1, 65), Failure(kRoundingShift, "round_bits <= 64"));
  EXPECT_DEATH(right_shift_bankers_rounding(1, 1, 1), Failure(kRoundingShift, "round_bits > 1"));
  EXPECT_DEATH(right_shift_bankers_rounding(1, 1, 0), Failure(kRoundingShift, "round_bits > 1"));
  EXPECT_DEATH(signed_clip(1, 65, true),
               Failure("int64_t signed_clip(int64_t, uint8_t, bool)", "output_bits <= 64"));
  EXPECT_DEATH(
      get_leading_one_index(1, 65),
      Failure("uint8_t get_leading_one_index(uint64_t, uint8_t)", "input_bit_length <= 64"));
  const float x = 0x1p28f;
  EXPECT_EQ(get_sum_squares_of_x_minus_zp_times_n(&x, 1, 1, 1), 268435455ull * 268435455ull);
  EXPECT_DEATH(get_sum_squares_of_x_minus_zp_times_n(&x, 1, 0, 1),
               Failure(kSumSquares, kSumSquaresLimit));
}

// The definition or the vector loops.
using Unit = decltype(&run_layernorm);
constexpr Unit kLoops = testing::kOnCallingThread<ComputeLayernorm>;

TEST(HLayernormDeathTest, WholeVectors) {
  for (const Unit run : {Unit{run_layernorm}, kLoops}) {
    const auto dies = [run](const LayerNormCase& c) { testing::RunLayerNormBy(c, run); };
    LayerNormCase c = PlainCase({5.0f, 5.0f});
    c.params.zero_point = 5;
    c.params.epsilon = 0;
    EXPECT_DEATH(dies(c), Failure(kNormalizeVector, "variance > 0"));
    c.params.epsilon = 1;
    c.params.sum_of_x_shift = 65;
    EXPECT_DEATH(dies(c), Failure(kRoundingShift, "shift_amount <= 64"));
    c.params.sum_of_x_shift = 0;
    c.params.mul_act_exp = 59;  // 59 + 6 = 65
    EXPECT_DEATH(dies(c), Failure(kRoundingShift, "shift_amount <= 64"));
    c.params.mul_act_exp = 250;  // 250 + 6 = 0 in 8 bits
    EXPECT_TRUE(Check(c));
    c.in = {0x1p29f, 0.0f};
    EXPECT_DEATH(dies(c), Failure(kSumSquares, kSumSquaresLimit));
    // -2^58, whose low 58 bits are 0: squares of 0, a sum of 2^29 in 20 bits.
    c = PlainCase({1024.0f});
    c.params.x_squared_mult = 1;
    c.params.epsilon = 0;
    EXPECT_DEATH(dies(c), Failure(kNormalizeVector, "variance > 0"));  // 2^20 - 2^20
    // No vector: nothing can fail.
    c.batch = 0;
    c.in.clear();
    EXPECT_TRUE(Check(c));
  }
}

// Of several failures the first step's is reported: the shift of the sum comes before the squares.
TEST(HLayernormDeathTest, TheFirstFailureIsReported) {
  LayerNormCase c = PlainCase({0x1p29f, 0.0f});
  c.params.sum_of_x_shift = 65;
  const std::string first = reference::LayernormFailure(StatusOf(c));
  ASSERT_EQ(first, "shift_amount <= 64");
  EXPECT_DEATH(testing::RunLayerNormBy(c, run_layernorm), Failure(kRoundingShift, first.c_str()));
  EXPECT_DEATH(testing::RunLayerNormBy(c, kLoops), Failure(kRoundingShift, first.c_str()));
}

// And the first vector's, whichever a part meets first.
TEST(HLayernormDeathTest, TheFirstVectorsFailureIsReported) {
  const std::vector<float> no_variance = {5.0f, 5.0f};
  const std::vector<float> large = {0x1p29f, 0.0f};
  LayerNormCase c = PlainCase({1.0f, 2.0f});
  c.params.zero_point = 5;
  c.params.epsilon = 0;
  c.width = 4;
  const std::vector<float> sound = {1.0f, 2.0f};
  testing::BackwardParts parts(1);
  for (const bool variance_first : {false, true}) {
    c.in = sound;
    for (const auto& vector :
         {variance_first ? no_variance : large, variance_first ? large : no_variance, sound}) {
      c.in.insert(c.in.end(), vector.begin(), vector.end());
    }
    const std::string failure = variance_first ? Failure(kNormalizeVector, "variance > 0")
                                               : Failure(kSumSquares, kSumSquaresLimit);
    EXPECT_DEATH(testing::RunLayerNormBy(c, run_layernorm), failure);
    EXPECT_DEATH(RunLoops(c, &parts), failure);
  }
}

}  // namespace
}  // namespace bitfold
