// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "frame/log.h"

#include "absl/log/globals.h"
#include "tensorflow/core/platform/logging.h"

namespace bitfold {

void LogError(std::string_view text) { LOG(ERROR) << text; }

bool InformationLogIsOn() { return absl::MinLogLevel() <= absl::LogSeverityAtLeast::kInfo; }

void LogInformation(const std::string& text) { LOG(INFO) << text; }

}  // namespace bitfold
