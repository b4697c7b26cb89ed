// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What packs bytes tells whether they are bytes, on every target: one number alone that is none,
// wherever it stands.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "chain/pack.h"
#include "chain/sum_output.h"
#include "support/bits.h"
#include "support/targets.h"

namespace bitfold {
namespace {

// What are no bytes from `low` on: the next numbers, and those whose low bits are such a byte.
void NoBytes(int32_t low, std::vector<int32_t>* others) {
  *others = {low - 1,   low + 256, low + 257,       low + 512,
             INT32_MIN, INT32_MAX, INT32_MIN - low, low + (1 << 16)};
}

// The same, fractions, and the floats around which a sum with 1.5 * 2^23 leaves its binade.
void NoBytes(int32_t low, std::vector<float>* others) {
  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
  const auto first = static_cast<float>(low);
  *others = {first - 1.0f, first + 256.0f, first + 0.5f, 0.5f,  std::nextafter(first, -kInfinity),
             1e-45f,       -1e-45f,        kNan,         -kNan, kInfinity,
             -kInfinity,   1e30f,          -1e30f};
  for (const float x : {4194304.0f, 8388608.0f, 12582912.0f, 16777216.0f, 33554432.0f}) {
    for (int i = -2; i <= 4; ++i) {
      const float y = x + static_cast<float>(i);
      others->insert(others->end(), {y, -y});
    }
  }
}

// are_bytes(x) of some x of each size, whose numbers are to be bytes from `low` on.
template <typename T, typename AreBytes>
void CheckEverywhere(int32_t low, AreBytes are_bytes) {
  std::vector<T> others;
  NoBytes(low, &others);
  for (const int size : testing::LaneSizes()) {
    for (const int place : {0, 1, 7, 15, 16, 31, 63, 64, size / 2, size - 2, size - 1}) {
      if (place < 0 || place >= size) continue;
      std::vector<T> x(static_cast<size_t>(size), static_cast<T>(low + 3));
      T& number = x[static_cast<size_t>(place)];
      for (const int32_t byte : {low, low + 255}) {
        number = static_cast<T>(byte);
        ASSERT_TRUE(are_bytes(x)) << byte << " at " << place << " of " << size;
      }
      for (const T other : others) {
        number = other;
        ASSERT_FALSE(are_bytes(x)) << testing::Show(other) << " at " << place << " of " << size;
      }
    }
  }
}

template <typename T>
bool OfInput(const std::vector<T>& x, int32_t offset) {
  std::vector<uint8_t> out(x.size());
  return PackBytes(x.data(), static_cast<int64_t>(x.size()), offset, out.data());
}

// As the second of two columns with something between them.
template <typename T>
bool OfColumns(const std::vector<T>& x, int32_t offset) {
  const auto count = static_cast<int64_t>(x.size());
  std::vector<T> columns(x.size() + 1, static_cast<T>(-offset));
  columns.back() = static_cast<T>(1 << 20);
  columns.insert(columns.end(), x.begin(), x.end());
  std::vector<uint8_t> out(2 * x.size());
  return PackColumns(columns.data(), ColumnShape{2, count + 1, count}, offset, out.data());
}

// As a row, as a column, and as four rows of whole panels.
template <typename T>
bool OfWeights(std::vector<T> x, bool has_sums) {
  const auto pack = [&](int64_t rows, int64_t columns) {
    const int64_t panels = (columns + kPanel - 1) / kPanel;
    const int64_t panel = (rows + 3) / 4 * kPanel;
    std::vector<int32_t> out(static_cast<size_t>(panels * panel));
    std::vector<int32_t> sums(static_cast<size_t>(panels * kPanel));
    return PackWeightBytes(x.data(), WeightShape{rows, columns, columns, panel}, out.data(),
                           has_sums ? sums.data() : nullptr);
  };
  const auto count = static_cast<int64_t>(x.size());
  const bool are_bytes = pack(1, count);
  EXPECT_EQ(pack(count, 1), are_bytes);
  x.resize((x.size() + 63) / 64 * 64);
  EXPECT_EQ(pack(4, static_cast<int64_t>(x.size()) / 4), are_bytes);
  return are_bytes;
}

template <typename T>
void CheckTarget() {
  for (const int32_t low : {0, -128, -100, -32768}) {
    ASSERT_NO_FATAL_FAILURE(
        CheckEverywhere<T>(low, [low](const auto& x) { return OfInput(x, -low); }));
    ASSERT_NO_FATAL_FAILURE(
        CheckEverywhere<T>(low, [low](const auto& x) { return OfColumns(x, -low); }));
  }
  for (const bool has_sums : {false, true}) {
    ASSERT_NO_FATAL_FAILURE(
        CheckEverywhere<T>(INT8_MIN, [=](const auto& x) { return OfWeights(x, has_sums); }));
  }
}

TEST(ChainBytes, Integers) {
  for (const auto& [target, name] : testing::SupportedTargets()) {
    const testing::ForcedTarget forced(target);
    ASSERT_NO_FATAL_FAILURE(CheckTarget<int32_t>()) << name;
  }
}

TEST(ChainBytes, Floats) {
  for (const auto& [target, name] : testing::SupportedTargets()) {
    const testing::ForcedTarget forced(target);
    ASSERT_NO_FATAL_FAILURE(CheckTarget<float>()) << name;
  }
}

TEST(ChainBytes, NegativeZeroIsZero) {
  for (const auto& [target, name] : testing::SupportedTargets()) {
    const testing::ForcedTarget forced(target);
    const std::vector<float> x(40, -0.0f);
    std::vector<uint8_t> out(40, 1);
    EXPECT_TRUE(PackBytes(x.data(), 40, 0, out.data())) << name;
    EXPECT_EQ(out, std::vector<uint8_t>(40, 0)) << name;
    EXPECT_TRUE(OfWeights(x, true)) << name;
  }
}

}  // namespace
}  // namespace bitfold
