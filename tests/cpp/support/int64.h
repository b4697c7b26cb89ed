// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// 64-bit numbers: boundaries, random ones and comparison.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_INT64_H_
#define BITFOLD_TESTS_CPP_SUPPORT_INT64_H_

#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "support/random.h"

namespace bitfold::testing {

// "0xffffffffffffff38 (-200)"
inline std::string ShowInt64(int64_t x) {
  char text[64];
  std::snprintf(text, sizeof(text), "0x%016" PRIx64 " (%" PRId64 ")", static_cast<uint64_t>(x), x);
  return text;
}

inline ::testing::AssertionResult SameInt64(int64_t expected, int64_t actual, const char* path,
                                            const std::string& inputs) {
  if (expected == actual) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << path << "\n  inputs:   " << inputs << "\n  expected: " << ShowInt64(expected)
         << "\n  actual:   " << ShowInt64(actual);
}

// Small numbers, every power of two and of two of them with both neighbours, the extremes.
inline std::vector<int64_t> Int64Boundaries() {
  std::set<int64_t> values;
  for (int64_t x = -140; x <= 140; ++x) values.insert(x);
  const auto around = [&values](uint64_t word) {
    for (const uint64_t delta : {uint64_t{0} - 1, uint64_t{0}, uint64_t{1}}) {
      values.insert(static_cast<int64_t>(word + delta));
      values.insert(static_cast<int64_t>(0 - (word + delta)));
    }
  };
  for (int high = 1; high <= 63; ++high) {
    around(uint64_t{1} << high);
    for (int low = 0; low < high; low += 1 + (high - low) / 6) {
      around((uint64_t{1} << high) + (uint64_t{1} << low));
    }
  }
  return {values.begin(), values.end()};
}

// Every magnitude is as likely as any other.
inline int64_t RandomInt64(Random* random) {
  const uint64_t word = uint64_t{random->Bits()} << 32 | random->Bits();
  return static_cast<int64_t>(word) >> random->Between(0, 63);
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_INT64_H_
