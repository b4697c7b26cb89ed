// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The log behind a function: the runtime's in the op library (log.cc), standard error in the C
// library (log_stderr.cc). What logs can be built and tested without the runtime's headers.

#ifndef BITFOLD_SRC_FRAME_LOG_H_
#define BITFOLD_SRC_FRAME_LOG_H_

#include <string>
#include <string_view>

namespace bitfold {

// Writes a message at error severity.
void LogError(std::string_view text);

// Whether messages at information severity are written. Ask before formatting one.
bool InformationLogIsOn();

// Writes a message at information severity.
void LogInformation(const std::string& text);

}  // namespace bitfold

#endif  // BITFOLD_SRC_FRAME_LOG_H_
