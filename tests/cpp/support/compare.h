// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Comparisons whose report ends the search: the path, the place, the inputs, both results in hex,
// and what lies around them.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_COMPARE_H_
#define BITFOLD_TESTS_CPP_SUPPORT_COMPARE_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "support/bits.h"

namespace bitfold::testing {

// One result of `path`; `inputs` is Describe(...).
template <typename T>
::testing::AssertionResult Same(T expected, T actual, const char* path, const std::string& inputs) {
  if (SameBits(expected, actual)) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << path << "\n  inputs:   " << inputs << "\n  expected: " << Show(expected)
         << "\n  actual:   " << Show(actual);
}

// Says where a flat index is and what went into it.
using DescribeIndex = std::function<std::string(int64_t)>;

template <typename T>
::testing::AssertionResult SameArrays(const T* expected, const T* actual, int64_t count,
                                      const std::string& path, const DescribeIndex& describe) {
  int64_t first = -1;
  int64_t wrong = 0;
  for (int64_t i = 0; i < count; ++i) {
    if (SameBits(expected[i], actual[i])) continue;
    if (first < 0) first = i;
    ++wrong;
  }
  if (wrong == 0) return ::testing::AssertionSuccess();
  auto report = ::testing::AssertionFailure();
  report << path << ": " << wrong << " of " << count << " differ, first at " << first << "\n  "
         << describe(first);
  const int64_t from = std::max<int64_t>(0, first - 2);
  const int64_t to = std::min<int64_t>(count, first + 4);
  for (int64_t i = from; i < to; ++i) {
    report << "\n  " << (i == first ? ">" : " ") << "[" << i << "] expected " << Show(expected[i])
           << ", actual " << Show(actual[i]);
  }
  return report;
}

// Printed text, line by line.
inline ::testing::AssertionResult SameText(const std::string& expected, const std::string& actual,
                                           const std::string& path) {
  const std::string want = WithoutNanSigns(expected);
  const std::string got = WithoutNanSigns(actual);
  if (want == got) return ::testing::AssertionSuccess();
  size_t at = 0;
  while (at < want.size() && at < got.size() && want[at] == got[at]) ++at;
  const auto lines_before = std::count(want.begin(), want.begin() + static_cast<int64_t>(at), '\n');
  const size_t start = at == 0 ? 0 : want.rfind('\n', at - 1) + 1;  // npos + 1 is 0
  const auto quote = [start](const std::string& text) {
    return ::testing::PrintToString(text.substr(std::min(start, text.size()), 300));
  };
  return ::testing::AssertionFailure()
         << path << ": the printed text differs in line " << lines_before + 1
         << "\n  expected: " << quote(want) << "\n  actual:   " << quote(got);
}

// Of different threads the lines come in any order, but whole.
inline std::vector<std::string> SortedLines(const std::string& text) {
  std::vector<std::string> lines;
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find('\n', at), text.size());
    lines.push_back(WithoutNanSigns(text.substr(at, end - at)));
    at = end + 1;
  }
  std::sort(lines.begin(), lines.end());
  return lines;
}

// The same lines as often, in any order.
inline ::testing::AssertionResult SameLines(const std::string& expected, const std::string& actual,
                                            const std::string& path) {
  const std::vector<std::string> want = SortedLines(expected);
  const std::vector<std::string> got = SortedLines(actual);
  if (want == got) return ::testing::AssertionSuccess();
  auto report = ::testing::AssertionFailure();
  report << path << ": " << got.size() << " printed lines, expected " << want.size();
  size_t at = 0;
  while (at < want.size() && at < got.size() && want[at] == got[at]) ++at;
  if (at < want.size()) report << "\n  expected: " << want[at];
  if (at < got.size()) report << "\n  actual:   " << got[at];
  return report;
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_COMPARE_H_
