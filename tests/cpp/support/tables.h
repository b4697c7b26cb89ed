// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The values at which rules change: tried first, and crossed with each other.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_TABLES_H_
#define BITFOLD_TESTS_CPP_SUPPORT_TABLES_H_

#include <cmath>
#include <cstdint>
#include <limits>
#include <set>
#include <vector>

#include "support/bits.h"
#include "support/random.h"

namespace bitfold::testing {

// Every power of two with both neighbours, both signs, the extremes, and small numbers with all
// their halves and quarters.
inline std::vector<int32_t> Int32Boundaries() {
  std::set<int32_t> values;
  for (int64_t x = -9; x <= 9; ++x) values.insert(static_cast<int32_t>(x));
  for (int bit = 3; bit <= 31; ++bit) {
    for (int64_t delta = -1; delta <= 1; ++delta) {
      for (int64_t sign = -1; sign <= 1; sign += 2) {
        const int64_t x = sign * (int64_t{1} << bit) + delta;
        if (x >= INT32_MIN && x <= INT32_MAX) values.insert(static_cast<int32_t>(x));
      }
    }
  }
  return {values.begin(), values.end()};
}

// Few enough to cross three times: the corners of the widths 8, 16, 24, 26 and 32, and of the
// warning range.
inline std::vector<int32_t> Int32Corners() {
  return {INT32_MIN,
          INT32_MIN + 1,
          -1073741825,
          -1073741824,
          -33554433,
          -33554432,
          -16777217,
          -8388609,
          -8388608,
          -8388607,
          -65536,
          -32769,
          -32768,
          -300,
          -129,
          -128,
          -5,
          -2,
          -1,
          0,
          1,
          2,
          3,
          5,
          7,
          127,
          128,
          255,
          300,
          32767,
          32768,
          65535,
          65536,
          8388606,
          8388607,
          8388608,
          16777215,
          16777217,
          33554431,
          33554432,
          1073741823,
          1073741824,
          INT32_MAX - 1,
          INT32_MAX};
}

inline void InsertWithNeighbours(float x, std::vector<float>* values) {
  const float infinity = std::numeric_limits<float>::infinity();
  for (const float y : {std::nextafter(x, -infinity), x, std::nextafter(x, infinity)}) {
    values->push_back(y);
    values->push_back(-y);
  }
}

// Powers of two with their neighbours over the whole range, halves between integers, the ends of
// the warning range, subnormals, infinities, NaN, both zeros.
inline std::vector<float> FloatBoundaries() {
  std::vector<float> values = {0.0f,
                               -0.0f,
                               std::numeric_limits<float>::infinity(),
                               -std::numeric_limits<float>::infinity(),
                               std::numeric_limits<float>::quiet_NaN(),
                               -std::numeric_limits<float>::quiet_NaN(),
                               std::numeric_limits<float>::max(),
                               -std::numeric_limits<float>::max()};
  for (const int exponent :
       {-148, -127, -126, -125, -64, -24, -17, -16, -12, -11, -10, -9, -2, -1, 0,  1,  2,   3,
        4,    7,    8,    14,   15,  16,  17,  22,  23,  24,  25,  26, 30, 31, 32, 64, 126, 127}) {
    InsertWithNeighbours(std::ldexp(1.0f, exponent), &values);
  }
  for (const float x : {0.5f, 1.5f, 2.5f, 3.5f, 127.5f, 4194303.5f, 8388606.0f, 8388606.5f,
                        8388607.0f, 8388607.5f, 0.00146484375f, 40000.0f}) {
    InsertWithNeighbours(x, &values);
  }
  return values;
}

// Few enough to cross three times.
inline std::vector<float> FloatCorners() {
  const float infinity = std::numeric_limits<float>::infinity();
  return {0.0f,
          -0.0f,
          1e-45f,
          -1e-45f,
          1.17549421e-38f,
          1.17549435e-38f,
          0.5f,
          -0.5f,
          1.0f,
          -1.0f,
          1.5f,
          2.5f,
          -2.5f,
          127.0f,
          -128.0f,
          255.0f,
          2047.25f,
          32767.9f,
          -32768.0f,
          40000.0f,
          8388606.5f,
          8388607.0f,
          -8388607.0f,
          -8388608.0f,
          16777216.0f,
          33554432.0f,
          -33554432.0f,
          2147483648.0f,
          3.4e38f,
          infinity,
          -infinity,
          std::numeric_limits<float>::quiet_NaN()};
}

template <typename T>
std::vector<T> Corners();
template <>
inline std::vector<int32_t> Corners<int32_t>() {
  return Int32Corners();
}
template <>
inline std::vector<float> Corners<float>() {
  return FloatCorners();
}

// What an operand is drawn from. Float data is usually integers; kFull draws bit patterns.
enum class Data { kSmall, kCorners, kFull };

template <typename T>
T Draw(Random* random, Data data) {
  if (data == Data::kCorners) {
    static const std::vector<T> corners = Corners<T>();
    return random->Pick(corners);
  }
  if (data == Data::kSmall) return static_cast<T>(random->Between(-300, 300));
  if constexpr (std::is_same_v<T, float>) {
    return FloatOf(random->Bits());
  } else {
    return static_cast<T>(random->Bits());
  }
}

template <typename T>
std::vector<T> DrawMany(Random* random, Data data, int64_t count) {
  std::vector<T> values;
  for (int64_t i = 0; i < count; ++i) values.push_back(Draw<T>(random, data));
  return values;
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_TABLES_H_
