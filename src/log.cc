// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "log.h"

#include "tensorflow/core/platform/logging.h"

namespace bitfold {

void LogError(const std::string& text) { LOG(ERROR) << text; }

}  // namespace bitfold
