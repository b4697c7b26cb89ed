// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The two things that a call makes of its lines, held against each other: the lines that it prints
// and the numbers that it counts.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_WARNINGS_H_
#define BITFOLD_TESTS_CPP_SUPPORT_WARNINGS_H_

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "bitfold/warning.h"
#include "support/capture.h"

namespace bitfold::testing {

// Fails for a line of no kind.
inline BitfoldWarningCounts CountLines(const std::string& lines) {
  BitfoldWarningCounts counts{};
  std::istringstream stream(lines);
  for (std::string line; std::getline(stream, line);) {
    const auto begins = [&line](const char* text) { return line.rfind(text, 0) == 0; };
    if (begins("@@@ WARNING: acc ")) {
      ++counts.out_of_bounds;
    } else if (begins("\033[1;31mweights should be uint8")) {
      ++counts.corrected_weights;
    } else if (begins("Warning, the softmax sum")) {
      ++counts.softmax_overflows;
    } else {
      ADD_FAILURE() << "a line of no kind: " << line;
    }
  }
  return counts;
}

// Fails unless a call counts exactly the lines that it printed when it was made before, and now
// prints nothing. One that printed nothing is not made: what could count would have printed.
template <typename Call>
void ExpectCounted(const std::string& lines, Call call) {
  if (lines.empty()) return;
  BitfoldWarningCounts counts{};
  const std::string silent = PrintedBy([&] {
    const WarningScope scope(&counts);
    call();
  });
  EXPECT_EQ(silent, "");
  const BitfoldWarningCounts expected = CountLines(lines);
  EXPECT_EQ(counts.out_of_bounds, expected.out_of_bounds);
  EXPECT_EQ(counts.corrected_weights, expected.corrected_weights);
  EXPECT_EQ(counts.softmax_overflows, expected.softmax_overflows);
}

// The lines that a call prints; one that prints is made again to count them.
template <typename Call>
std::string PrintedAndCountedBy(Call call) {
  std::string lines = PrintedBy(call);
  ExpectCounted(lines, call);
  return lines;
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_WARNINGS_H_
