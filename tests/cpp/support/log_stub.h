// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The log of the tests: lines are kept instead of written.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_LOG_STUB_H_
#define BITFOLD_TESTS_CPP_SUPPORT_LOG_STUB_H_

#include <string>
#include <vector>

namespace bitfold::testing {

// What was logged as errors since the text was cleared, each line with an end of line.
std::string& LoggedLines();

// The messages at information severity since the list was cleared, as they came.
std::vector<std::string>& LoggedInformation();

// Turns information messages on, or off, for the life of the object and clears the list. They are
// off otherwise.
class InformationLog {
 public:
  explicit InformationLog(bool on);
  ~InformationLog();
  InformationLog(const InformationLog&) = delete;
  InformationLog& operator=(const InformationLog&) = delete;

 private:
  bool before_;
};

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_LOG_STUB_H_
