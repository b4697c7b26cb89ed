// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The quantiser of the device's kernels against the definition: boundaries and a sample of floats.
// `make prove-floats` takes all of them.

#include "bitfold/device_half.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>

#include "bitfold/half_accumulator.h"
#include "support/compare.h"
#include "support/ledger.h"
#include "support/scale.h"
#include "support/tables.h"

namespace bitfold {
namespace {

using testing::SameBits;

// Every form whose requirements x meets.
bool IsQuantised(float x) {
  const float expected = f32_to_hf16(x);
  bool same = SameBits(expected, QuantiseHalfOnDevice(x));
  if (std::fabs(x) >= kHalfOverflow) return same;
  same &= SameBits(expected, QuantiseHalfInRange(x));
  if (x == std::rint(x)) same &= SameBits(expected, QuantiseHalfOfWholeInRange(x));
  return same;
}

::testing::AssertionResult CheckQuantised(float x) {
  if (IsQuantised(x)) return ::testing::AssertionSuccess();
  const float expected = f32_to_hf16(x);
  return ::testing::AssertionFailure()
         << testing::Show(x) << " should be " << testing::Show(expected) << ", got "
         << testing::Show(QuantiseHalfOnDevice(x)) << ", in range "
         << testing::Show(QuantiseHalfInRange(x)) << ", whole "
         << testing::Show(QuantiseHalfOfWholeInRange(x));
}

TEST(DeviceHalf, Examples) {
  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  EXPECT_EQ(QuantiseHalfOnDevice(40000.0f), -20000.0f);
  EXPECT_EQ(QuantiseHalfOnDevice(-40000.0f), 20000.0f);
  EXPECT_EQ(QuantiseHalfOnDevice(0.3f), 307.0f / 1024.0f);
  // Floored to a tie, which goes to 0; below it everything goes to -0.
  EXPECT_EQ(QuantiseHalfOnDevice(0.00049591064453125f), 0.0f);
  EXPECT_TRUE(SameBits(-0.0f, QuantiseHalfOnDevice(-0.0001f)));
  EXPECT_TRUE(SameBits(-0.0f, QuantiseHalfOnDevice(-0.0f)));
  EXPECT_TRUE(SameBits(0.0f, QuantiseHalfOnDevice(1e-45f)));
  EXPECT_EQ(QuantiseHalfOnDevice(32767.99f), 32768.0f);
  EXPECT_EQ(QuantiseHalfOnDevice(-32768.0f), 16384.0f);
  EXPECT_EQ(QuantiseHalfOnDevice(kInfinity), kInfinity);
  EXPECT_EQ(QuantiseHalfOnDevice(-kInfinity), -kInfinity);
  EXPECT_TRUE(std::isnan(QuantiseHalfOnDevice(std::numeric_limits<float>::quiet_NaN())));
}

TEST(DeviceHalf, Boundaries) {
  for (const float x : testing::FloatBoundaries()) ASSERT_TRUE(CheckQuantised(x));
}

TEST(DeviceHalf, WholeNumbers) {
  for (int32_t x = -32767; x <= 32767; ++x) ASSERT_TRUE(CheckQuantised(static_cast<float>(x)));
  EXPECT_TRUE(CheckQuantised(-0.0f));
}

// A floor and a tie lie at the ends of what a significand's last bits can be.
TEST(DeviceHalf, LastBitsOfEveryUpperHalf) {
  for (uint32_t upper = 0; upper <= 0xffffu; upper += testing::Step(7)) {
    for (const uint32_t lower :
         {0x0000u, 0x0001u, 0x003fu, 0x0040u, 0x0041u, 0x07ffu, 0x0800u, 0x0801u, 0x083fu, 0x0840u,
          0x1000u, 0x17ffu, 0x1800u, 0x1801u, 0x183fu, 0x1840u, 0x5555u, 0xaaaau, 0xffffu}) {
      ASSERT_TRUE(CheckQuantised(testing::FloatOf(upper << 16 | lower)));
    }
  }
}

TEST(DeviceHalf, FloatsOfEveryKind) {
  const uint32_t step = 1021u * testing::Step(29);
  for (uint64_t bits = 0; bits <= UINT32_MAX; bits += step) {
    const float x = testing::FloatOf(static_cast<uint32_t>(bits));
    if (!IsQuantised(x)) FAIL() << CheckQuantised(x).message();
  }
  testing::Ran(testing::Path::kDeviceQuantiser);
}

}  // namespace
}  // namespace bitfold
