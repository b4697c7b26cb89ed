// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Bytes in the device's products: which numbers are taken for bytes, their words and products, and
// their sums against the oracle's chains, at the widths where a proof begins or ends first. With
// BITFOLD_TEST_EVERY_FLOAT in the environment every float is tried.

#include "bitfold/device_bytes.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "reference/device.h"
#include "support/compare.h"
#include "support/random.h"
#include "support/scale.h"
#include "support/tables.h"

namespace bitfold {
namespace {

using testing::Random;
using testing::Same;

// ---- Numbers to bytes --------------------------------------------------------------------------

// Whether x is taken for what it is. `bytes` counts those that are bytes.
bool IsTaken(float x, int* bytes) {
  const bool is_byte = x == std::rint(x) && -128.0f <= x && x <= 127.0f;
  ByteCheck check;
  const uint32_t packed = ToByte(x, &check);
  *bytes += is_byte;
  return check.holds() == is_byte && (!is_byte || static_cast<int8_t>(packed) == x);
}

bool IsTaken(int32_t x, int* bytes) {
  const bool is_byte = -128 <= x && x <= 127;
  ByteCheck check;
  const uint32_t packed = ToByte(x, &check);
  *bytes += is_byte;
  return check.holds() == is_byte && (!is_byte || static_cast<int8_t>(packed) == x);
}

TEST(DeviceBytes, BoundariesAreTakenForWhatTheyAre) {
  int bytes = 0;
  for (int32_t x = -70000; x <= 70000; ++x) {
    ASSERT_TRUE(IsTaken(x, &bytes)) << x;
    ASSERT_TRUE(IsTaken(static_cast<float>(x), &bytes)) << x;
    ASSERT_TRUE(IsTaken(static_cast<float>(x) + 0.5f, &bytes)) << x << " and a half";
  }
  EXPECT_EQ(bytes, 2 * 256);
  for (const int32_t x : testing::Int32Boundaries()) ASSERT_TRUE(IsTaken(x, &bytes)) << x;
  for (const float x : testing::FloatBoundaries()) ASSERT_TRUE(IsTaken(x, &bytes)) << x;
}

TEST(DeviceBytes, FloatsAreTakenForWhatTheyAre) {
  const bool every = std::getenv("BITFOLD_TEST_EVERY_FLOAT") != nullptr;
  const uint32_t step = every ? 1 : 1021u * testing::Step(29);
  int bytes = 0;
  for (uint64_t bits = 0; bits <= UINT32_MAX; bits += step) {
    const float x = testing::FloatOf(static_cast<uint32_t>(bits));
    ASSERT_TRUE(IsTaken(x, &bytes)) << testing::Show(x);
  }
  if (every) {
    EXPECT_EQ(bytes, 257);  // there are two zeros
  }
}

// One number that is no byte shows wherever it stands.
TEST(DeviceBytes, AWordHasItsNumbersInOrder) {
  for (int place = 0; place < 4; ++place) {
    float floats[4] = {1.0f, -2.0f, 127.0f, -128.0f};
    int32_t integers[4] = {1, -2, 127, -128};
    ByteCheck check;
    EXPECT_EQ(PackBytes(floats, &check), 0x807ffe01u);
    EXPECT_EQ(PackBytes(integers, &check), 0x807ffe01u);
    EXPECT_TRUE(check.holds());
    floats[place] = 0.25f;
    integers[place] = 128;
    ByteCheck of_floats;
    PackBytes(floats, &of_floats);
    EXPECT_FALSE(of_floats.holds());
    PackBytes(integers, &check);
    EXPECT_FALSE(check.holds());
  }
}

TEST(DeviceBytes, ProductsOfWords) {
  EXPECT_EQ(AddByteProducts(0x80808080u, 0x80808080u, 5), 5 + 4 * 16384);
  EXPECT_EQ(AddByteProducts(0x80017fffu, 0x7f02ff80u, -1), -1 - 128 * 127 + 2 - 127 + 128);
  EXPECT_EQ(AddByteProducts(0x00000001u, 0x00000001u, INT32_MAX), INT32_MIN);
}

// ---- Sums --------------------------------------------------------------------------------------

template <typename T>
DeviceDatapath<T> DatapathOf(int width) {
  const AccumulatorLimits<T> limits(width);
  return {limits.min, limits.max, 0, false};
}

TEST(DeviceBytes, WidthsThatAreProven) {
  for (int width = 0; width <= 130; ++width) {
    EXPECT_EQ(ByteChain<float>(DatapathOf<float>(width)).IsProven(), width >= 14) << width;
    if (width > 32) continue;
    EXPECT_EQ(ByteChain<int32_t>(DatapathOf<int32_t>(width)).IsProven(), width >= 14) << width;
  }
  EXPECT_FALSE(ByteChain<float>(DatapathOf<float>(-200)).IsProven());
}

// Chains of bytes of one kind, as long as more may be added: every step of the oracle's is silent,
// and after every 64 the sums are equal. The number of steps.
template <typename T>
int CheckChain(Random* random, int width, int kind) {
  const ByteChain<T> chain{DatapathOf<T>(width)};
  T expected{0};
  int32_t sum = 0;
  std::string lines;
  int steps = 0;
  while (steps < 1024 && chain.MayAddMore(sum)) {
    for (uint32_t step = 0; step < ByteSums::kSteps; ++step, ++steps) {
      const int32_t a = kind == 0 ? random->Between(-128, 127) : -128;
      const int32_t b = kind == 0   ? random->Between(-128, 127)
                        : kind == 1 ? -128
                        : kind == 2 ? 127
                                    : random->Between(100, 127);
      sum = AddByteProducts(static_cast<uint8_t>(a), static_cast<uint8_t>(b), sum);
      expected = reference::DeviceAccumulate(expected, static_cast<T>(a * b), width, false, &lines);
    }
    EXPECT_TRUE(Same(expected, chain.Leave(sum), "a sum of bytes",
                     testing::Describe("width", width, "kind", kind, "steps", steps)));
  }
  EXPECT_EQ(lines, "") << width;
  return steps;
}

template <typename T>
void CheckChains(const std::vector<int>& widths) {
  Random random(0xb17e);
  for (const int width : widths) {
    for (int kind = 0; kind < 4; ++kind) {
      const bool ends = std::is_same_v<T, float> && width > 23 && kind > 0;
      const int steps = CheckChain<T>(&random, width, kind);
      // Of the largest products 448 and 64 more are a step below 2^23.
      EXPECT_EQ(steps, !ends ? 1024 : kind == 1 ? 448 : steps) << width;
      EXPECT_EQ(steps < 1024, ends) << width;
    }
  }
}

TEST(DeviceBytes, Int32Sums) { CheckChains<int32_t>({14, 15, 16, 22, 23, 24, 30, 31, 32}); }

TEST(DeviceBytes, FloatSums) {
  CheckChains<float>({14, 15, 16, 21, 22, 23, 24, 25, 26, 31, 32, 128, 129});
}

}  // namespace
}  // namespace bitfold
