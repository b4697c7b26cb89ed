// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What the fuzz targets share: bytes read as parameters and values, and a report that aborts.

#ifndef BITFOLD_TESTS_FUZZ_FUZZ_INPUT_H_
#define BITFOLD_TESTS_FUZZ_FUZZ_INPUT_H_

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include "support/bits.h"

namespace bitfold::testing {

// Bytes from the front; zeros once they are used up.
class FuzzInput {
 public:
  FuzzInput(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  uint8_t Byte() {
    if (size_ == 0) return 0;
    --size_;
    return *data_++;
  }

  bool Flag() { return (Byte() & 1) != 0; }

  // Within [low, high], at most 256 values apart.
  int Between(int low, int high) { return low + Byte() % (high - low + 1); }

  uint32_t Word() {
    uint32_t word = 0;
    for (int i = 0; i < 4; ++i) word = word << 8 | Byte();
    return word;
  }

  // A full bit pattern, or a small number, which meets the narrow widths.
  template <typename T>
  T Value() {
    if (small_) return static_cast<T>(static_cast<int8_t>(Byte()) * scale_);
    const uint32_t word = Word();
    if constexpr (std::is_same_v<T, float>) {
      return FloatOf(word);
    } else {
      return static_cast<T>(word);
    }
  }

  // The attributes of an accumulator, as their ops allow them for the element type.
  template <typename T>
  int Width() {
    return Between(0, std::is_same_v<T, float> ? 140 : 32);
  }

  int Shift() { return Flag() ? Between(0, 8) : static_cast<int8_t>(Byte()); }

  // A number of elements: mostly few, sometimes around the kernels' blocks of 512.
  int Count() { return Between(0, 15) == 0 ? 490 + Between(0, 60) : Between(0, 40); }

  template <typename T>
  std::vector<T> Values(int64_t count) {
    small_ = Flag();
    scale_ = 1 << Between(0, 16);
    std::vector<T> values;
    for (int64_t i = 0; i < count; ++i) values.push_back(Value<T>());
    return values;
  }

 private:
  const uint8_t* data_;
  size_t size_;
  bool small_ = true;
  int scale_ = 1;
};

[[noreturn]] inline void Fail(const std::string& report) {
  std::fprintf(stderr, "%s\n", report.c_str());
  std::abort();
}

inline void Require(const ::testing::AssertionResult& result) {
  if (!result) Fail(result.message());
}

template <typename T, typename DescribeIndex>
void RequireSame(const T* expected, const T* actual, int64_t count, const char* path,
                 const DescribeIndex& describe) {
  for (int64_t i = 0; i < count; ++i) {
    if (SameBits(expected[i], actual[i])) continue;
    Fail(std::string(path) + ": element " + std::to_string(i) + " of " + std::to_string(count) +
         "\n  inputs:   " + describe(i) + "\n  expected: " + Show(expected[i]) +
         "\n  actual:   " + Show(actual[i]));
  }
}

inline void RequireSameText(const std::string& expected, const std::string& actual,
                            const char* path, const std::string& inputs) {
  if (WithoutNanSigns(expected) == WithoutNanSigns(actual)) return;
  Fail(std::string(path) + ": the printed text differs\n  inputs:   " + inputs +
       "\n  expected: " + expected.substr(0, 2000) + "\n  actual:   " + actual.substr(0, 2000));
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_FUZZ_FUZZ_INPUT_H_
