// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// 64-bit arithmetic and unsigned shifts, against 128-bit integers.

#include "bitfold/int64_arithmetic.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "reference/exact.h"
#include "support/int64.h"
#include "support/random.h"
#include "support/scale.h"

namespace bitfold {
namespace {

using reference::exact::FloorModulo;
using reference::exact::PowerOfTwo;
using reference::exact::Wide;
using testing::SameInt64;

constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
constexpr int64_t kMax = std::numeric_limits<int64_t>::max();

// The low 64 bits, read as two's complement.
int64_t Low64(Wide x) {
  const Wide low = FloorModulo(x, PowerOfTwo(64));
  return static_cast<int64_t>(low >= PowerOfTwo(63) ? low - PowerOfTwo(64) : low);
}

std::string Pair(int64_t a, int64_t b) {
  return "a=" + testing::ShowInt64(a) + " b=" + testing::ShowInt64(b);
}

TEST(Int64Arithmetic, Examples) {
  EXPECT_EQ(WrapAdd64(kMax, 1), kMin);
  EXPECT_EQ(WrapSubtract64(kMin, 1), kMax);
  EXPECT_EQ(WrapMultiply64(kMin, -1), kMin);
  EXPECT_EQ(WrapMultiply64(int64_t{1} << 32, int64_t{1} << 32), 0);
  EXPECT_EQ(WrapAbsolute64(-5), 5);
  EXPECT_EQ(WrapAbsolute64(kMin), kMin);
  EXPECT_EQ(ShiftLeft64(1, 64), 1);
  EXPECT_EQ(ShiftLeft64(1, -1), kMin);
  EXPECT_EQ(ShiftRight64(-1, 63), -1);
  EXPECT_EQ(ShiftRightUnsigned64(uint64_t{1} << 63, -1), 1u);
  EXPECT_EQ(ShiftLeftUnsigned(1u, 32), 1u);
  EXPECT_EQ(ShiftRightUnsigned(0x80000000u, -1), 1u);
}

TEST(Int64Arithmetic, BoundariesInPairs) {
  const std::vector<int64_t> values = testing::Int64Boundaries();
  const auto step = static_cast<size_t>(testing::Step(31)) * 3;
  for (size_t i = 0; i < values.size(); i += step) {
    const int64_t a = values[i];
    ASSERT_EQ(Low64(a < 0 ? -Wide{a} : Wide{a}), WrapAbsolute64(a)) << a;
    for (const int64_t b : values) {
      const int64_t sum = Low64(Wide{a} + b);
      const int64_t difference = Low64(Wide{a} - b);
      const int64_t product = Low64(Wide{a} * b);
      if (sum == WrapAdd64(a, b) && difference == WrapSubtract64(a, b) &&
          product == WrapMultiply64(a, b)) {
        continue;  // half a million times
      }
      ASSERT_TRUE(SameInt64(sum, WrapAdd64(a, b), "WrapAdd64", Pair(a, b)));
      ASSERT_TRUE(SameInt64(difference, WrapSubtract64(a, b), "WrapSubtract64", Pair(a, b)));
      ASSERT_TRUE(SameInt64(product, WrapMultiply64(a, b), "WrapMultiply64", Pair(a, b)));
    }
  }
}

TEST(Int64Arithmetic, EveryShiftCount) {
  const std::vector<int64_t> values = testing::Int64Boundaries();
  const auto step = static_cast<size_t>(testing::Step(7));
  size_t turn = 0;
  for (int32_t count = -130; count <= 130; ++count) {
    for (size_t i = turn++ % step; i < values.size(); i += step) {
      const int64_t a = values[i];
      const Wide power = PowerOfTwo(FloorModulo(count, 64));
      const Wide word = FloorModulo(a, PowerOfTwo(64));
      const auto bits = static_cast<uint64_t>(a);
      const std::string inputs = Pair(a, count);
      ASSERT_TRUE(SameInt64(Low64(FloorModulo(a, PowerOfTwo(64) / power) * power),
                            ShiftLeft64(a, count), "ShiftLeft64", inputs));
      ASSERT_TRUE(SameInt64(Low64(reference::exact::FloorDivide(a, power)), ShiftRight64(a, count),
                            "ShiftRight64", inputs));
      ASSERT_TRUE(SameInt64(ShiftLeft64(a, count),
                            static_cast<int64_t>(ShiftLeftUnsigned64(bits, count)),
                            "ShiftLeftUnsigned64", inputs));
      ASSERT_TRUE(SameInt64(Low64(word / power),
                            static_cast<int64_t>(ShiftRightUnsigned64(bits, count)),
                            "ShiftRightUnsigned64", inputs));
      const Wide low = FloorModulo(a, PowerOfTwo(32));
      const Wide power32 = PowerOfTwo(FloorModulo(count, 32));
      const auto low_bits = static_cast<uint32_t>(bits);
      ASSERT_TRUE(SameInt64(Low64(FloorModulo(low * power32, PowerOfTwo(32))),
                            int64_t{ShiftLeftUnsigned(low_bits, count)}, "ShiftLeftUnsigned",
                            inputs));
      ASSERT_TRUE(SameInt64(Low64(low / power32), int64_t{ShiftRightUnsigned(low_bits, count)},
                            "ShiftRightUnsigned", inputs));
    }
  }
}

// Counts of any size are taken modulo 64, those of ShiftLeft64 and ShiftRight64 as 64-bit numbers.
TEST(Int64Arithmetic, HugeShiftCounts) {
  for (const int64_t count : testing::Int64Boundaries()) {
    const int64_t least = count & 63;
    for (const int64_t a : {int64_t{1}, int64_t{-3}, kMin, kMax, int64_t{0x123456789abcdef}}) {
      ASSERT_EQ(ShiftLeft64(a, count), ShiftLeft64(a, least)) << Pair(a, count);
      ASSERT_EQ(ShiftRight64(a, count), ShiftRight64(a, least)) << Pair(a, count);
    }
  }
}

TEST(Int64Arithmetic, TruncateToInt64) {
  EXPECT_EQ(TruncateToInt64(2.9), 2);
  EXPECT_EQ(TruncateToInt64(-2.9), -2);
  EXPECT_EQ(TruncateToInt64(0x1p63), kMin);
  EXPECT_EQ(TruncateToInt64(std::nextafter(0x1p63, 0.0)), kMax - 1023);
  EXPECT_EQ(TruncateToInt64(-0x1p63), kMin);
  EXPECT_EQ(TruncateToInt64(std::nextafter(-0x1p63, 0.0)), kMin + 1024);
  EXPECT_EQ(TruncateToInt64(std::nextafter(-0x1p63, -0x1p64)), kMin);
  EXPECT_EQ(TruncateToInt64(0x1p1000), kMin);
  EXPECT_EQ(TruncateToInt64(std::numeric_limits<double>::infinity()), kMin);
  EXPECT_EQ(TruncateToInt64(-std::numeric_limits<double>::infinity()), kMin);
  EXPECT_EQ(TruncateToInt64(std::numeric_limits<double>::quiet_NaN()), kMin);
  EXPECT_EQ(TruncateToInt64(-0.0), 0);
  EXPECT_EQ(TruncateToInt64(5e-324), 0);
  for (int bit = 0; bit <= 62; ++bit) {
    for (const double sign : {1.0, -1.0}) {
      const double power = sign * std::ldexp(1.0, bit);
      EXPECT_EQ(TruncateToInt64(power), static_cast<int64_t>(sign) * (int64_t{1} << bit));
      const double inner = std::nextafter(power, 0.0);
      EXPECT_EQ(TruncateToInt64(inner), static_cast<int64_t>(std::trunc(inner)));
    }
  }
}

}  // namespace
}  // namespace bitfold
