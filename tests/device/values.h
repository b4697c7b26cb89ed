// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The data of the comparisons: the values at which rules change, and pseudo-random ones that can be
// had again.

#ifndef BITFOLD_TESTS_DEVICE_VALUES_H_
#define BITFOLD_TESTS_DEVICE_VALUES_H_

#include <cstdint>
#include <cstdlib>
#include <random>
#include <set>
#include <type_traits>
#include <vector>

#include "support/bits.h"

namespace bitfold::device_test {

// The seed of a run: fixed, or the environment variable BITFOLD_TEST_SEED.
inline uint64_t RunSeed() {
  const char* seed = std::getenv("BITFOLD_TEST_SEED");
  return seed == nullptr ? 2026 : std::strtoull(seed, nullptr, 0);
}

class Random {
 public:
  // Groups draw from streams of their own.
  explicit Random(uint64_t group) : engine_(RunSeed() + (group << 32)) {}

  uint32_t Bits() { return static_cast<uint32_t>(engine_() >> 32); }

  // Within [low, high].
  int32_t Between(int64_t low, int64_t high) {
    return static_cast<int32_t>(
        low + static_cast<int64_t>(engine_() % static_cast<uint64_t>(high - low + 1)));
  }

  bool Flag() { return (Bits() & 1u) != 0; }

  template <typename T>
  T Pick(const std::vector<T>& values) {
    return values[engine_() % values.size()];
  }

 private:
  std::mt19937_64 engine_;
};

// Every power of two with both neighbours, both signs, the extremes and small numbers.
inline std::vector<int32_t> Int32Boundaries() {
  std::set<int32_t> values;
  for (int32_t x = -9; x <= 9; ++x) values.insert(x);
  for (int bit = 3; bit <= 31; ++bit) {
    for (int64_t delta = -1; delta <= 1; ++delta) {
      for (const int64_t sign : {-1, 1}) {
        const int64_t x = sign * (int64_t{1} << bit) + delta;
        if (INT32_MIN <= x && x <= INT32_MAX) values.insert(static_cast<int32_t>(x));
      }
    }
  }
  return {values.begin(), values.end()};
}

// Exponents where rules change, with the significands around theirs; the ends of the warning range;
// subnormals, zeros, infinities and NaN.
inline std::vector<float> FloatBoundaries() {
  std::vector<uint32_t> magnitudes = {0x00000000, 0x00000001, 0x003fffff, 0x00400000, 0x007fffff,
                                      0x7f800000, 0x7fc00000, 0x7f800001, 0x7fffffff};
  for (const int exponent :
       {-126, -125, -64, -24, -18, -17, -16, -12, -11, -10, -9, -1, 0,  1,  2,   3,
        7,    8,    14,  15,  16,  22,  23,  24,  25,  26,  30, 31, 32, 64, 126, 127}) {
    for (const uint32_t significand : {0x000000, 0x000001, 0x3fffff, 0x400000, 0x7fffff}) {
      magnitudes.push_back((static_cast<uint32_t>(exponent + 127) << 23) | significand);
    }
  }
  for (const float x :
       {2.5f, 3.5f, 130.0f, 2047.25f, 40000.0f, 4194303.5f, 8388606.0f, 8388606.5f, 8388607.0f}) {
    magnitudes.push_back(testing::BitsOf(x));
  }
  std::vector<float> values;
  for (const uint32_t bits : magnitudes) {
    values.push_back(testing::FloatOf(bits));
    values.push_back(testing::FloatOf(bits | 0x80000000u));
  }
  return values;
}

template <typename T>
const std::vector<T>& Boundaries() {
  if constexpr (std::is_same_v<T, float>) {
    static const std::vector<float> values = FloatBoundaries();
    return values;
  } else {
    static const std::vector<int32_t> values = Int32Boundaries();
    return values;
  }
}

// Small ones are integers, or quarters in floats: sums and quotients that tie.
enum class Data { kSmall, kBoundaries, kBits };

template <typename T>
T Draw(Random* random, Data data) {
  constexpr bool kIsFloat = std::is_same_v<T, float>;
  if (data == Data::kBoundaries) return random->Pick(Boundaries<T>());
  if (data == Data::kSmall) {
    return static_cast<T>(random->Between(-600, 600)) / static_cast<T>(kIsFloat ? 4 : 1);
  }
  if constexpr (kIsFloat) {
    return testing::FloatOf(random->Bits());
  } else {
    return static_cast<T>(random->Bits());
  }
}

template <typename T>
std::vector<T> DrawMany(Random* random, Data data, int64_t count) {
  std::vector<T> values(static_cast<size_t>(count));
  for (T& value : values) value = Draw<T>(random, data);
  return values;
}

}  // namespace bitfold::device_test

#endif  // BITFOLD_TESTS_DEVICE_VALUES_H_
