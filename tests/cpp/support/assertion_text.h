// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What the C library writes when an assertion fails, as a regular expression for death tests.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_ASSERTION_TEXT_H_
#define BITFOLD_TESTS_CPP_SUPPORT_ASSERTION_TEXT_H_

#include <string>

namespace bitfold::testing {

inline std::string Escaped(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos) escaped += '\\';
    escaped += c;
  }
  return escaped;
}

// "FILE:LINE: FUNCTION: Assertion `EXPRESSION' failed."
inline std::string AssertionText(const std::string& file, const std::string& function,
                                 const std::string& expression) {
  return Escaped(file) + ":[0-9]+: " + Escaped(function) + ": Assertion `" + Escaped(expression) +
         "' failed\\.";
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_ASSERTION_TEXT_H_
