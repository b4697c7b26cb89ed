// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What the comparisons found: a line for each group, the first mismatches, a tally.

#ifndef BITFOLD_TESTS_DEVICE_REPORT_H_
#define BITFOLD_TESTS_DEVICE_REPORT_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "support/bits.h"

namespace bitfold::device_test {

// Sends descriptor 1 to nowhere for the life of the object: the lines of large launches overflow
// the device's buffer, so those of small ones are compared instead.
class StdoutSilence {
 public:
  StdoutSilence();
  ~StdoutSilence();
  StdoutSilence(const StdoutSilence&) = delete;
  StdoutSilence& operator=(const StdoutSilence&) = delete;

 private:
  int saved_;
};

// A comparison is one launch's whole result. Standard output must not be redirected in a call.
class Report {
 public:
  // Of all groups.
  Report() = default;
  // Of those whose names begin with one of `groups`, up to the first failure, with which the
  // process ends.
  explicit Report(std::vector<std::string> groups) : groups_(std::move(groups)), stops_(true) {}

  // Runs `body`, which makes comparisons, and prints the group's line.
  void Group(const std::string& name, const std::function<void()>& body);

  // Compares on bits, any NaN being equal to any other. `describe` tells of an element by its index
  // what was computed.
  template <typename T>
  void Compare(const std::vector<T>& got, const std::vector<T>& expected, bool guard_is_intact,
               const std::function<std::string(size_t)>& describe) {
    bool passed = guard_is_intact;
    if (!guard_is_intact) Tell("something was written behind the output: " + describe(0));
    for (size_t i = 0; i < expected.size(); ++i) {
      if (testing::SameBits(got[i], expected[i])) continue;
      passed = false;
      Tell("element " + std::to_string(i) + ": got " + testing::Show(got[i]) + ", expected " +
           testing::Show(expected[i]) + ", " + describe(i));
      if (IsTold()) break;
    }
    Count(passed, expected.size());
  }

  // Compares texts as lines in any order.
  void CompareLines(const std::string& got, const std::string& expected, const std::string& what);

  // One comparison of another kind.
  void Check(bool passed, const std::string& what);

  // Prints the tally. The program's exit status.
  int Finish() const;

 private:
  // Prints a mismatch, but only the first ones of a group.
  void Tell(const std::string& what);
  bool IsTold() const { return told_ >= kTold; }
  void Count(bool passed, size_t elements);

  bool IsWanted(const std::string& name) const;

  static constexpr int kTold = 4;

  std::vector<std::string> groups_;  // none: all
  bool stops_ = false;
  int64_t passed_ = 0;
  int64_t failed_ = 0;
  // Of the group at hand.
  int told_ = 0;
  int64_t comparisons_ = 0;
  int64_t failures_ = 0;
  uint64_t elements_ = 0;
};

}  // namespace bitfold::device_test

#endif  // BITFOLD_TESTS_DEVICE_REPORT_H_
