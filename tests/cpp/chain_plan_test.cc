// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// How the plan of a call's chains decides: at each bound the largest number that still obeys, and
// one more. And what the decisions rest on: the three theorems, at their own corners, against the
// steps of the datapath.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "bitfold/datapath.h"
#include "chain/plan.h"
#include "support/capture.h"
#include "support/compare.h"

namespace bitfold {

std::ostream& operator<<(std::ostream& out, ChainPath path) {
  constexpr const char* kNames[] = {"stepwise", "modular", "rounded",
                                    "shorts",   "bytes",   "remainders"};
  return out << kNames[static_cast<int>(path)];
}

namespace {

using testing::Describe;
using testing::Same;

constexpr int64_t kTwoTo19 = int64_t{1} << 19;
constexpr int64_t kTwoTo22 = int64_t{1} << 22;
constexpr int64_t kTwoTo24 = int64_t{1} << 24;
constexpr int64_t kSilent = 8388606;  // the largest sum that prints nothing

constexpr auto kStepwise = ChainPath::kStepwise;
constexpr auto kModular = ChainPath::kModular;
constexpr auto kRounded = ChainPath::kRounded;
constexpr auto kShorts = ChainPath::kDotShorts;
constexpr auto kBytes = ChainPath::kDotBytes;
constexpr auto kRemainders = ChainPath::kDotRemainders;

Facts Range(int64_t min, int64_t max) { return {true, min, max}; }
Facts UpTo(int64_t max) { return Range(0, max); }
Facts DownTo(int64_t min) { return Range(min, 0); }

// A call whose weights sum to so much that theorem 3 cannot hold, unless the test says less.
struct Call {
  int32_t width = 32;
  int32_t shift = 0;
  Facts input = UpTo(1);
  Facts weights = UpTo(1);
  Facts elementwise = {};
  int64_t weight_sum = int64_t{1} << 30;
  bool divides = true;
  bool use_fp16_acc = false;
  bool packs = true;
  bool takes_remainders = false;
  int64_t products = 1;
  mutable int asked = 0;  // how often for weight_sum

  ChainFacts facts() const {
    const auto ask = [this] {
      ++asked;
      return weight_sum;
    };
    return {width,   shift,       use_fp16_acc, divides,          packs,   input,
            weights, elementwise, ask,          takes_remainders, products};
  }
};

ChainPlan Int32(const Call& call, bool has_bytes = true) {
  return PlanInt32(call.facts(), has_bytes);
}
ChainPlan Float(const Call& call, bool has_bytes = true) {
  return PlanFloat(call.facts(), has_bytes);
}

Call OfWidth(int32_t width) {
  Call call;
  call.width = width;
  return call;
}

Call OfProducts(int32_t width, int32_t shift, int64_t input, int64_t weight) {
  Call call = OfWidth(width);
  call.shift = shift;
  call.input = UpTo(input);
  call.weights = UpTo(weight);
  return call;
}

// ---- int32 -------------------------------------------------------------------------------------

// 2M obeys in every width below 31, one more does not; both signs of every operand.
TEST(ChainPlanInt32, LargestProductOfEveryWidth) {
  for (int32_t width = 1; width <= 30; ++width) {
    const int64_t period = int64_t{1} << width;
    for (const bool negative : {false, true}) {
      Call call = OfWidth(width);
      call.input = negative ? DownTo(-period) : UpTo(period);
      call.weights = negative ? UpTo(1) : DownTo(-1);
      EXPECT_NE(Int32(call).path, kStepwise) << width;
      EXPECT_EQ(Int32(call).bits, width);
      call.input = negative ? DownTo(-period - 1) : UpTo(period + 1);
      EXPECT_EQ(Int32(call).path, kStepwise) << width;
      std::swap(call.input, call.weights);
      EXPECT_EQ(Int32(call).path, kStepwise) << width;
    }
  }
}

TEST(ChainPlanInt32, LargestProductOfTwoFactors) {
  EXPECT_EQ(Int32(OfProducts(16, 0, 256, 256)).path, kShorts);  // 2^16
  EXPECT_EQ(Int32(OfProducts(16, 0, 255, 257)).path, kShorts);  // one less
  EXPECT_EQ(Int32(OfProducts(16, 0, 65537, 1)).path, kStepwise);
  EXPECT_EQ(Int32(OfProducts(16, 0, 256, 257)).path, kStepwise);
  EXPECT_EQ(Int32(OfProducts(30, 0, 32768, 32768)).path, kModular);
  EXPECT_EQ(Int32(OfProducts(30, 0, 32768, 32769)).path, kStepwise);
}

TEST(ChainPlanInt32, LargestAddendOfEveryWidth) {
  for (int32_t width = 1; width <= 30; ++width) {
    const int64_t period = int64_t{1} << width;
    Call call = OfWidth(width);
    for (const Facts addend : {UpTo(period), DownTo(-period)}) {
      call.elementwise = addend;
      EXPECT_NE(Int32(call).path, kStepwise) << width;
    }
    for (const Facts addend : {UpTo(period + 1), DownTo(-period - 1)}) {
      call.elementwise = addend;
      EXPECT_EQ(Int32(call).path, kStepwise) << width;
    }
  }
}

TEST(ChainPlanInt32, EveryNumberObeysTheWidestTwo) {
  for (const int32_t width : {31, 32}) {
    Call call = OfWidth(width);
    call.input = call.weights = call.elementwise = Range(INT32_MIN, INT32_MAX);
    EXPECT_EQ(Int32(call).path, kModular);
    EXPECT_EQ(Int32(call).bits, width);
    call.width = 30;
    EXPECT_EQ(Int32(call).path, kStepwise);
  }
}

TEST(ChainPlanInt32, WidthsOfNoBitsAreSteps) {
  for (const int32_t width : {0, -1, -32, INT32_MIN}) {
    EXPECT_EQ(Int32(OfWidth(width)).path, kStepwise) << width;
  }
}

TEST(ChainPlanInt32, NarrowestNumbers) {
  struct {
    Facts input, weights;
    ChainPath path, without_bytes;
    int32_t offset;
  } const cases[] = {
      {UpTo(255), Range(-128, 127), kBytes, kShorts, 0},
      {Range(-128, 127), Range(-128, 127), kBytes, kShorts, 128},
      {Range(-1, 127), DownTo(-128), kBytes, kShorts, 1},
      {UpTo(0), UpTo(0), kBytes, kShorts, 0},
      {UpTo(256), Range(-128, 127), kShorts, kShorts, 0},
      {Range(-1, 128), Range(-128, 127), kBytes, kShorts, 1},
      {Range(-200, 55), Range(-128, 127), kBytes, kShorts, 200},
      {DownTo(-255), Range(-128, 127), kBytes, kShorts, 255},
      {DownTo(-256), Range(-128, 127), kShorts, kShorts, 0},
      {Range(-1, 255), Range(-128, 127), kShorts, kShorts, 0},
      {Range(-129, 127), Range(-128, 127), kShorts, kShorts, 0},
      {UpTo(255), Range(-129, 127), kShorts, kShorts, 0},
      {UpTo(255), Range(-128, 128), kShorts, kShorts, 0},
      {Range(-32768, 32767), Range(-32768, 32767), kShorts, kShorts, 0},
      {Range(-32769, 32767), Range(-1, 1), kModular, kModular, 0},
      {Range(-32768, 32768), Range(-1, 1), kModular, kModular, 0},
      {Range(-1, 1), Range(-32769, 32767), kModular, kModular, 0},
      {Range(-1, 1), Range(-32768, 32768), kModular, kModular, 0},
  };
  for (const auto& c : cases) {
    Call call = OfWidth(32);
    call.input = c.input;
    call.weights = c.weights;
    EXPECT_EQ(Int32(call).path, c.path) << c.input.min << " " << c.weights.max;
    EXPECT_EQ(Int32(call).input_offset, c.offset);
    EXPECT_EQ(Int32(call, false).path, c.without_bytes);
    EXPECT_EQ(Int32(call, false).input_offset, 0);
    call.elementwise = Range(INT32_MIN, INT32_MAX);  // is not stored
    EXPECT_EQ(Int32(call).path, c.path);
  }
}

TEST(ChainPlanInt32, RoundedProducts) {
  struct {
    int64_t input, weight;
    int32_t shift;
    ChainPath path;
  } const cases[] = {
      {255, 128, 1, kRounded},
      {255, 128, 24, kRounded},
      {255, 128, 25, kModular},
      {255, 128, 31, kModular},
      {255, 128, 32, kModular},
      {255, 128, 33, kModular},
      {255, 128, -1, kModular},
      {255, 128, -31, kModular},
      {255, 128, -128, kModular},
      {255, 128, 127, kModular},
      // Products that a float holds.
      {4096, 4096, 24, kRounded},
      {4096, 4097, 24, kModular},
      {4096, 4096, 3, kRounded},
      {kTwoTo24, 1, 3, kRounded},
      {kTwoTo24 + 1, 1, 3, kModular},
      {kTwoTo24 + 1, 0, 3, kModular},
      {1, kTwoTo24 + 1, 3, kModular},
      {0, kTwoTo24 + 1, 3, kModular},
      // Quotients below 2^22.
      {4096, 4096, 2, kModular},
      {kTwoTo24 - 1, 1, 2, kRounded},
      {2 * kTwoTo22 - 1, 1, 1, kRounded},
      {2 * kTwoTo22, 1, 1, kModular},
      {4096, 2048, 2, kRounded},
  };
  for (const auto& c : cases) {
    for (const bool has_bytes : {false, true}) {
      EXPECT_EQ(Int32(OfProducts(32, c.shift, c.input, c.weight), has_bytes).path, c.path)
          << c.input << " * " << c.weight << " by " << c.shift;
    }
  }
}

// What scaling makes of a product is not counted on: 2^17 by a shift of 1 would obey.
TEST(ChainPlanInt32, BoundsAreOfUnscaledProducts) {
  EXPECT_EQ(Int32(OfProducts(16, 1, 512, 128)).path, kRounded);
  EXPECT_EQ(Int32(OfProducts(16, 1, 512, 256)).path, kStepwise);
}

TEST(ChainPlanInt32, HalfPrecisionChangesNothing) {
  Call call = OfWidth(16);
  call.use_fp16_acc = true;
  EXPECT_EQ(Int32(call).path, kBytes);
}

// ---- float: theorem 2 --------------------------------------------------------------------------

// Addends up to 2M, and M + addend within what prints nothing, which decides at a width of 23.
int64_t LargestAddend(int32_t width) {
  const int64_t magnitude = int64_t{1} << (width - 1);
  return std::min(2 * magnitude, kSilent + 1 - magnitude);
}

TEST(ChainPlanFloat, LargestProductOfEveryWidth) {
  for (int32_t width = 1; width <= 23; ++width) {
    const int64_t most = LargestAddend(width);
    for (const int64_t sign : {-1, 1}) {
      Call call = OfWidth(width);
      call.input = sign > 0 ? UpTo(most) : DownTo(-most);
      // Numbers of more than 16 bits have no dot product; a shift of 1 shows whether they obey.
      call.shift = 1;
      EXPECT_EQ(Float(call).path, most < kTwoTo22 ? kRounded : kStepwise) << width;
      EXPECT_EQ(call.asked, 0) << "theorem 2 holds";
      call.shift = 2;
      EXPECT_EQ(Float(call).path, kRounded) << width;
      EXPECT_EQ(Float(call).bits, width);
      call.input = sign > 0 ? UpTo(most + 1) : DownTo(-most - 1);
      EXPECT_EQ(Float(call).path, kStepwise) << width;
      std::swap(call.input, call.weights);
      EXPECT_EQ(Float(call).path, kStepwise) << width;
    }
  }
}

TEST(ChainPlanFloat, LargestAddendOfEveryWidth) {
  for (int32_t width = 1; width <= 23; ++width) {
    const int64_t most = LargestAddend(width);
    Call call = OfWidth(width);
    for (const Facts addend : {UpTo(most), DownTo(-most)}) {
      call.elementwise = addend;
      EXPECT_EQ(Float(call).path, kBytes) << width;
    }
    for (const Facts addend : {UpTo(most + 1), DownTo(-most - 1)}) {
      call.elementwise = addend;
      EXPECT_EQ(Float(call).path, kStepwise) << width;
    }
  }
}

TEST(ChainPlanFloat, WiderOnesNeedTheSums) {
  for (const int32_t width : {24, 25, 26, 31, 32, 33, 40, 128, 129, 1000}) {
    EXPECT_EQ(Float(OfWidth(width)).path, kStepwise) << width;
  }
}

TEST(ChainPlanFloat, WidthsOfNoBitsAreSteps) {
  for (const int32_t width : {0, -1, -200, INT32_MIN}) {
    Call call = OfWidth(width);
    call.input = call.weights = UpTo(0);
    call.weight_sum = 0;
    EXPECT_EQ(Float(call).path, kStepwise) << width;
  }
}

TEST(ChainPlanFloat, EveryNumberMustBeWhole) {
  ASSERT_EQ(Float(OfWidth(16)).path, kBytes);
  for (Facts Call::*which : {&Call::input, &Call::weights, &Call::elementwise}) {
    Call call = OfWidth(16);
    call.weight_sum = 1;
    (call.*which).is_whole = false;
    EXPECT_EQ(Float(call).path, kStepwise);
    EXPECT_EQ(call.asked, 0);
  }
}

TEST(ChainPlanFloat, HalfPrecisionIsSteps) {
  Call call = OfWidth(16);
  call.use_fp16_acc = true;
  EXPECT_EQ(Float(call).path, kStepwise);
}

// ---- float: theorem 3 --------------------------------------------------------------------------

int64_t LargestSum(int32_t width) {
  return width >= 24 ? kSilent : (int64_t{1} << (width - 1)) - 1;
}

TEST(ChainPlanFloat, WeightSumAtItsBound) {
  for (const int32_t width : {24, 25, 26, 27, 31, 32, 33, 40, 64, 128, 129, 1000}) {
    Call call = OfWidth(width);
    call.input = Range(-2, 1);
    call.weight_sum = kSilent / 2;
    EXPECT_EQ(Float(call).path, kBytes) << width;
    EXPECT_EQ(Float(call).bits, std::min(width, 32));
    EXPECT_EQ(call.asked, 2);
    call.weight_sum = kSilent / 2 + 1;
    EXPECT_EQ(Float(call).path, kStepwise) << width;
    call.input = UpTo(1);
    call.weight_sum = kSilent;
    EXPECT_EQ(Float(call).path, kBytes) << width;
    call.elementwise = UpTo(1);
    EXPECT_EQ(Float(call).path, kStepwise) << width;
    call.weight_sum = kSilent - 1;
    EXPECT_EQ(Float(call).path, kBytes) << width;
    call.elementwise = DownTo(-2);
    EXPECT_EQ(Float(call).path, kStepwise) << width;
  }
}

// Below a width of 24 the accumulator's own range decides: addends too large for theorem 2 are
// larger than it, so that theorem 3 proves nothing more.
TEST(ChainPlanFloat, NarrowWidthsGainNothing) {
  for (int32_t width = 1; width <= 23; ++width) {
    Call call = OfWidth(width);
    call.elementwise = UpTo(LargestAddend(width) + 1);
    call.weight_sum = 0;
    EXPECT_LT(LargestSum(width), call.elementwise.max);
    EXPECT_EQ(Float(call).path, kStepwise) << width;
  }
}

// Products that single precision does not hold are not counted on, whatever the sum is said to be.
TEST(ChainPlanFloat, ProductsAreExact) {
  Call call = OfProducts(40, 0, 4096, 4096);
  call.weight_sum = 1;
  EXPECT_EQ(Float(call).path, kShorts);
  call.weights = UpTo(4097);
  EXPECT_EQ(Float(call).path, kStepwise);
}

// 576 taps of bytes: an accumulator of 24 bits and more holds them where the weights' magnitudes
// are below 57 on average.
TEST(ChainPlanFloat, RealisticWideLayers) {
  for (int32_t width = 24; width <= 32; ++width) {
    Call call = OfWidth(width);
    call.input = UpTo(255);
    call.weights = Range(-128, 127);
    call.weight_sum = 576 * 57;
    EXPECT_EQ(Float(call).path, kBytes) << width;
    EXPECT_EQ(Float(call, false).path, kShorts) << width;
    call.weight_sum = kSilent / 255;
    EXPECT_EQ(Float(call).path, kBytes) << width;
    call.weight_sum = kSilent / 255 + 1;
    EXPECT_EQ(Float(call).path, kStepwise) << width;
    call.input = Range(-128, 127);
    EXPECT_EQ(Float(call).path, kBytes) << width;
    EXPECT_EQ(Float(call).input_offset, 128);
  }
}

// ---- float: how --------------------------------------------------------------------------------

Call Proven(int32_t shift, int64_t product, bool divides = true) {
  Call call = OfProducts(40, shift, product, 1);
  call.weight_sum = 1;
  call.divides = divides;
  return call;
}

TEST(ChainPlanFloat, NarrowestNumbers) {
  EXPECT_EQ(Float(Proven(0, 255)).path, kBytes);
  EXPECT_EQ(Float(Proven(0, 255), false).path, kShorts);
  EXPECT_EQ(Float(Proven(0, 256)).path, kShorts);
  EXPECT_EQ(Float(Proven(0, 32767)).path, kShorts);
  EXPECT_EQ(Float(Proven(0, 32768)).path, kModular);
  Call call = Proven(0, 1);
  call.input = Range(-32768, 32767);
  EXPECT_EQ(Float(call).path, kShorts);
  call.input = Range(-32769, 0);
  EXPECT_EQ(Float(call).path, kModular);
  call.input = Range(-128, 127);
  EXPECT_EQ(Float(call).input_offset, 128);
  std::swap(call.input, call.weights);
  call.weights = Range(-129, 0);
  EXPECT_EQ(Float(call).path, kShorts);
  EXPECT_EQ(Float(Proven(0, 255, false)).path, kBytes) << "nothing is scaled";
}

// Sums in lanes of floats are exact up to 2^24; the wrap comes after.
TEST(ChainPlanFloat, SumsInLanes) {
  Call call = OfProducts(16, 0, 65536, 1);
  call.weight_sum = 256;
  EXPECT_EQ(Float(call).path, kModular);
  EXPECT_EQ(Float(call).bits, 16);
  call.elementwise = DownTo(-1);
  EXPECT_EQ(Float(call).path, kStepwise);
  call.weight_sum = 255;
  EXPECT_EQ(Float(call).path, kModular);
  call.elementwise = UpTo(65536);
  EXPECT_EQ(Float(call).path, kModular);
  call.elementwise = UpTo(65537);
  EXPECT_EQ(Float(call).path, kStepwise) << "no longer proven";
}

// Depthwise, or for few outputs.
TEST(ChainPlan, WithoutDotProducts) {
  Call call = OfProducts(20, 0, 255, 127);
  call.packs = false;
  for (const bool has_bytes : {false, true}) {
    EXPECT_EQ(Int32(call, has_bytes).path, kModular);
    call.weight_sum = kTwoTo24 / 255;
    EXPECT_EQ(Float(call, has_bytes).path, kModular);
    call.weight_sum = kTwoTo24 / 255 + 1;
    EXPECT_EQ(Float(call, has_bytes).path, kStepwise);
  }
}

TEST(ChainPlanFloat, PowersOfTwoRoundQuotientsBelowTheirLimit) {
  for (int32_t shift = -128; shift <= 127; ++shift) {
    if (shift == 0 || !IsPowerOfTwo(shift)) continue;
    const int64_t size = std::abs(shift);
    const int64_t most = std::min(size * kTwoTo22 - 1, kSilent);
    for (const bool divides : {false, true}) {
      EXPECT_EQ(Float(Proven(shift, most, divides)).path, kRounded) << shift;
      EXPECT_EQ(Float(Proven(shift, most + 1, divides)).path, kStepwise) << shift;
    }
  }
}

TEST(ChainPlanFloat, OtherDivisorsRoundProductsBelowTheirs) {
  for (int32_t shift = -128; shift <= 127; ++shift) {
    if (shift == 0 || IsPowerOfTwo(shift)) continue;
    EXPECT_EQ(Float(Proven(shift, kTwoTo19 - 1)).path, kRounded) << shift;
    EXPECT_EQ(Float(Proven(shift, kTwoTo19)).path, kStepwise) << shift;
    // The product with the reciprocal rounds twice before it rounds to a whole number.
    EXPECT_EQ(Float(Proven(shift, 100, false)).path, kStepwise) << shift;
  }
}

// ---- Half precision ----------------------------------------------------------------------------

// Whole numbers whose sums are not known to stay small.
Call Half(int64_t input, int64_t weight) {
  Call call = OfProducts(24, 0, input, weight);
  call.use_fp16_acc = true;
  return call;
}

TEST(ChainPlanHalf, Addends) {
  const auto of = [](int64_t input, int64_t weight) {
    const ChainPlan plan = Float(Half(input, weight));
    EXPECT_EQ(plan.path, kStepwise);
    return plan.half;
  };
  EXPECT_EQ(of(4096, 1), HalfAddends::kUnchanged);
  EXPECT_EQ(of(64, 64), HalfAddends::kUnchanged);
  EXPECT_EQ(of(17, 241), HalfAddends::kWhole);  // 4097
  EXPECT_EQ(of(32763, 1), HalfAddends::kWhole);
  EXPECT_EQ(of(32764, 1), HalfAddends::kAny);
  EXPECT_EQ(of(255, 128), HalfAddends::kWhole);
  EXPECT_EQ(of(1 << 24, 1), HalfAddends::kAny);
  EXPECT_EQ(of((1 << 24) + 1, 1), HalfAddends::kAny);
}

TEST(ChainPlanHalf, FractionsAreAny) {
  const auto without = [](Facts Call::*member) {
    Call call = Half(3, 3);
    (call.*member).is_whole = false;
    return Float(call);
  };
  for (const auto member : {&Call::input, &Call::weights, &Call::elementwise}) {
    EXPECT_EQ(without(member).path, kStepwise);
    EXPECT_EQ(without(member).half, HalfAddends::kAny);
  }
}

// Sums up to 4096 are what they are without a quantiser.
TEST(ChainPlanHalf, SmallSumsAreExact) {
  Call call = Half(255, 1);
  call.weight_sum = 16;
  call.elementwise = Range(-16, 9);  // 16 * 255 + 16
  EXPECT_EQ(Float(call).path, kBytes);
  EXPECT_EQ(Float(call).bits, 32);
  EXPECT_EQ(Float(call, false).path, kShorts);
  call.elementwise = Range(-16, 17);
  EXPECT_EQ(Float(call).path, kStepwise);
  EXPECT_EQ(Float(call).half, HalfAddends::kUnchanged);
  call.elementwise = Range(-16, 9);
  call.weight_sum = 17;
  EXPECT_EQ(Float(call).path, kStepwise);
  call.weight_sum = 16;
  call.shift = 4;
  EXPECT_EQ(Float(call).path, kRounded);
  call.shift = 3;
  EXPECT_EQ(Float(call).path, kRounded);
  call.divides = false;
  EXPECT_EQ(Float(call).path, kStepwise);
  EXPECT_EQ(Float(call).half, HalfAddends::kUnchanged);
  call.shift = 4;
  call.takes_remainders = true;
  EXPECT_EQ(Float(call).path, kRemainders);
}

// ---- Remainders --------------------------------------------------------------------------------

// Bytes, of which a machine adds up the remainders.
Call Bytes(int32_t width, int32_t shift) {
  Call call = OfProducts(width, shift, 255, 127);
  call.weights = Range(-128, 127);
  call.takes_remainders = true;
  return call;
}

TEST(ChainPlanRemainders, ShiftsOfOneToFive) {
  for (int32_t shift = -40; shift <= 127; ++shift) {
    if (shift == 0) continue;
    const ChainPlan plan = Int32(Bytes(20, shift));
    EXPECT_EQ(plan.path == kRemainders, 1 <= shift && shift <= 5) << shift;
    if (plan.path != kRemainders) continue;
    EXPECT_EQ(plan.shift, shift);
    EXPECT_EQ(plan.bits, 20);
    EXPECT_EQ(plan.input_offset, 0);
  }
}

TEST(ChainPlanRemainders, DivisorsOfTwoToThirtyTwo) {
  for (const bool divides : {false, true}) {
    for (int32_t divisor = -128; divisor <= 127; ++divisor) {
      Call call = Bytes(20, divisor);
      call.divides = divides;
      const ChainPlan plan = Float(call);
      int32_t shift = 0;
      for (int32_t s = 1; s <= 5; ++s) shift = divisor == 1 << s ? s : shift;
      EXPECT_EQ(plan.path == kRemainders, shift != 0) << divisor;
      EXPECT_EQ(plan.shift, shift);
    }
  }
}

TEST(ChainPlanRemainders, BytesOnMachinesThatAddThemUp) {
  Call call = Bytes(20, 4);
  call.input = Range(-100, 155);
  EXPECT_EQ(Int32(call).path, kRemainders);
  EXPECT_EQ(Int32(call).input_offset, 100);
  call.input = Range(-100, 156);
  EXPECT_EQ(Int32(call).path, kRounded);
  call = Bytes(20, 4);
  call.weights = Range(-128, 128);
  EXPECT_EQ(Int32(call).path, kRounded);
  call.weights = Range(-129, 127);
  EXPECT_EQ(Int32(call).path, kRounded);
  call = Bytes(20, 4);
  call.packs = false;
  EXPECT_EQ(Int32(call).path, kRounded);
  call = Bytes(20, 4);
  call.takes_remainders = false;
  EXPECT_EQ(Int32(call).path, kRounded);
  EXPECT_EQ(Float(call).path, kRounded);
}

// Up to 32 - s bits any sum will do, above them those that 32 bits hold with s more.
TEST(ChainPlanRemainders, SumsOfAllBits) {
  for (int32_t shift = 1; shift <= 5; ++shift) {
    Call call = Bytes(32 - shift, shift);
    call.products = int64_t{1} << 40;
    EXPECT_EQ(Int32(call).path, kRemainders) << shift;
    const int64_t most = 255 * 128 + (1 << (shift - 1));
    for (int32_t width = 33 - shift; width <= 32; ++width) {
      call = Bytes(width, shift);
      call.products = INT32_MAX / most;
      EXPECT_EQ(Int32(call).path, kRemainders) << shift;
      ++call.products;
      EXPECT_EQ(Int32(call).path, kRounded) << shift;
    }
  }
}

TEST(ChainPlan, PowersOfTwo) {
  std::vector<int32_t> found;
  for (int32_t x = -128; x <= 127; ++x) {
    if (IsPowerOfTwo(x)) found.push_back(x);
  }
  EXPECT_EQ(found,
            (std::vector<int32_t>{-128, -64, -32, -16, -8, -4, -2, -1, 1, 2, 4, 8, 16, 32, 64}));
}

// ---- What the decisions rest on ----------------------------------------------------------------

// x as a number of `bits` bits with a sign.
int64_t SignExtended(int64_t x, int32_t bits) {
  const int64_t period = int64_t{1} << bits;
  const int64_t low = ((x % period) + period) % period;
  return low < period / 2 ? low : low - period;
}

// The ends of an accumulator's range and its middle.
std::vector<int64_t> Accumulators(int64_t magnitude) {
  std::vector<int64_t> values;
  for (const int64_t x : {-magnitude, -magnitude + 1, -magnitude / 2, int64_t{-1}, int64_t{0},
                          int64_t{1}, magnitude / 2, magnitude - 2, magnitude - 1}) {
    if (-magnitude <= x && x < magnitude) values.push_back(x);
  }
  return values;
}

// Addends up to `most`, and the corners of a period.
std::vector<int64_t> Addends(int64_t most, int64_t magnitude) {
  std::vector<int64_t> values;
  for (const int64_t x : {int64_t{0}, int64_t{1}, magnitude - 1, magnitude, magnitude + 1,
                          2 * magnitude - 1, 2 * magnitude, most - 1, most}) {
    if (0 <= x && x <= most) values.insert(values.end(), {x, -x});
  }
  return values;
}

TEST(ChainTheorems, OneWrapBringsEveryInt32SumBack) {
  for (int32_t width = 1; width <= 32; ++width) {
    const int64_t magnitude = int64_t{1} << (width - 1);
    const AccumulatorLimits<int32_t> limits(width);
    for (const int64_t acc : Accumulators(magnitude)) {
      for (const int64_t p : Addends(std::min<int64_t>(2 * magnitude, INT32_MAX), magnitude)) {
        const int32_t sum = Accumulate(static_cast<int32_t>(acc), static_cast<int32_t>(p), limits);
        EXPECT_EQ(sum, SignExtended(acc + p, width)) << width << ": " << acc << " + " << p;
      }
      if (width < 31) continue;
      const int32_t sum = Accumulate(static_cast<int32_t>(acc), INT32_MIN, limits);
      EXPECT_EQ(sum, SignExtended(acc + INT32_MIN, width)) << width << ": " << acc;
    }
    if (width > 29) continue;
    const int64_t beyond = 2 * magnitude + 1;
    EXPECT_NE(Accumulate(static_cast<int32_t>(magnitude - 1), static_cast<int32_t>(beyond), limits),
              SignExtended(magnitude - 1 + beyond, width))
        << "the bound is the least one";
  }
}

TEST(ChainTheorems, FloatSumsAreExactAndSilent) {
  for (int32_t width = 1; width <= 23; ++width) {
    const int64_t magnitude = int64_t{1} << (width - 1);
    const Datapath<float> datapath(width, 0, false);
    const std::string lines = testing::PrintedBy([&] {
      for (const int64_t acc : Accumulators(magnitude)) {
        for (const int64_t p : Addends(LargestAddend(width), magnitude)) {
          const float sum = datapath.Accumulate(static_cast<float>(acc), static_cast<float>(p));
          EXPECT_TRUE(Same(static_cast<float>(SignExtended(acc + p, width)), sum, "sum",
                           Describe("width", width, "acc", acc, "p", p)));
        }
      }
    });
    EXPECT_EQ(lines, "") << width;
  }
}

// Without a wrap and a line up to the largest sum; one more does one of the two.
TEST(ChainTheorems, SumsOfMagnitudesNeitherWrapNorPrint) {
  for (const int32_t width : {1, 2, 8, 16, 22, 23, 24, 25, 26, 31, 32, 33, 40, 128, 129, 1000}) {
    const int64_t most = LargestSum(width);
    const Datapath<float> datapath(width, 0, false);
    const std::string lines = testing::PrintedBy([&] {
      for (const int64_t sum : {-most, -most + 1, most - 1, most}) {
        const float x = datapath.Accumulate(0.0f, static_cast<float>(sum));
        if (width > 1) {
          EXPECT_EQ(static_cast<int64_t>(x), sum) << width;
        }
      }
    });
    EXPECT_EQ(lines, "") << width;
    float next = 0.0f;
    const std::string line =
        testing::PrintedBy([&] { next = datapath.Accumulate(0.0f, static_cast<float>(most + 1)); });
    EXPECT_TRUE(!line.empty() || static_cast<int64_t>(next) != most + 1) << width;
  }
}

}  // namespace
}  // namespace bitfold
