// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "support/log_stub.h"

#include "frame/log.h"

namespace bitfold {
namespace testing {
namespace {

bool information_is_on = false;

}  // namespace

std::string& LoggedLines() {
  static std::string lines;
  return lines;
}

std::vector<std::string>& LoggedInformation() {
  static std::vector<std::string> messages;
  return messages;
}

InformationLog::InformationLog(bool on) : before_(information_is_on) {
  information_is_on = on;
  LoggedInformation().clear();
}

InformationLog::~InformationLog() { information_is_on = before_; }

}  // namespace testing

// In place of the runtime's.
void LogError(std::string_view text) { testing::LoggedLines().append(text) += '\n'; }

bool InformationLogIsOn() { return testing::information_is_on; }

// Kept also while the log is off: whoever logs asks first.
void LogInformation(const std::string& text) { testing::LoggedInformation().push_back(text); }

}  // namespace bitfold
