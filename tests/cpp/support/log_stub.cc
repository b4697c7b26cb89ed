// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "support/log_stub.h"

#include "log.h"

namespace bitfold {
namespace testing {

std::string& LoggedLines() {
  static std::string lines;
  return lines;
}

}  // namespace testing

// In place of the runtime's.
void LogError(const std::string& text) { testing::LoggedLines() += text + "\n"; }

}  // namespace bitfold
