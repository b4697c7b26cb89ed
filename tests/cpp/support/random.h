// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Pseudo-random inputs that can be had again: the seed is fixed, logged with the test's results,
// and replaced by the environment variable BITFOLD_TEST_SEED.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_RANDOM_H_
#define BITFOLD_TESTS_CPP_SUPPORT_RANDOM_H_

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "support/bits.h"

namespace bitfold::testing {

class Random {
 public:
  explicit Random(uint64_t seed) : Random(seed, std::getenv("BITFOLD_TEST_SEED")) {}

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
  Random(uint64_t seed, const char* override_seed)
      : seed_(override_seed != nullptr ? std::strtoull(override_seed, nullptr, 0) : seed),
        engine_(seed_),
        trace_(__FILE__, __LINE__, "random seed " + std::to_string(seed_)) {
    ::testing::Test::RecordProperty("seed", std::to_string(seed_));
  }

  uint64_t seed_;
  std::mt19937_64 engine_;
  ::testing::ScopedTrace trace_;  // every failure below shows the seed
};

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_RANDOM_H_
