// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What the self-tests of the oracles compare with: each prints the first value that differs and
// ends the process with status 1.

#ifndef BITFOLD_TESTS_REFERENCE_SELFTEST_H_
#define BITFOLD_TESTS_REFERENCE_SELFTEST_H_

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace selftest {

// How many values have been compared.
inline int checks = 0;

inline void Expect(const char* what, int64_t actual, int64_t expected) {
  ++checks;
  if (actual == expected) return;
  std::printf("%s: got %lld, expected %lld\n", what, static_cast<long long>(actual),
              static_cast<long long>(expected));
  std::exit(1);
}

// On bits; any NaN equals any other.
inline void ExpectFloat(const char* what, float actual, float expected) {
  ++checks;
  uint32_t actual_bits = 0;
  uint32_t expected_bits = 0;
  std::memcpy(&actual_bits, &actual, sizeof(actual_bits));
  std::memcpy(&expected_bits, &expected, sizeof(expected_bits));
  if (actual_bits == expected_bits || (std::isnan(actual) && std::isnan(expected))) return;
  std::printf("%s: got %.9g, expected %.9g\n", what, double{actual}, double{expected});
  std::exit(1);
}

inline void ExpectText(const char* what, const std::string& actual, const std::string& expected) {
  ++checks;
  if (actual == expected) return;
  std::printf("%s: got \"%s\", expected \"%s\"\n", what, actual.c_str(), expected.c_str());
  std::exit(1);
}

inline void ExpectAll(const char* what, const std::vector<int32_t>& actual,
                      const std::vector<int32_t>& expected) {
  Expect(what, static_cast<int64_t>(actual.size()), static_cast<int64_t>(expected.size()));
  for (size_t i = 0; i < actual.size(); ++i) Expect(what, actual[i], expected[i]);
}

inline void ExpectAll(const char* what, const std::vector<float>& actual,
                      const std::vector<float>& expected) {
  Expect(what, static_cast<int64_t>(actual.size()), static_cast<int64_t>(expected.size()));
  for (size_t i = 0; i < actual.size(); ++i) ExpectFloat(what, actual[i], expected[i]);
}

}  // namespace selftest

#endif  // BITFOLD_TESTS_REFERENCE_SELFTEST_H_
