// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The log of the tests: lines are kept instead of written.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_LOG_STUB_H_
#define BITFOLD_TESTS_CPP_SUPPORT_LOG_STUB_H_

#include <string>

namespace bitfold::testing {

// What was logged since the text was cleared, each line with an end of line.
std::string& LoggedLines();

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_LOG_STUB_H_
