// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The runtime's log, behind a function: what logs can then be built and tested without the
// runtime's headers.

#ifndef BITFOLD_SRC_FRAME_LOG_H_
#define BITFOLD_SRC_FRAME_LOG_H_

#include <string>

namespace bitfold {

// Writes a message at error severity.
void LogError(const std::string& text);

// Whether messages at information severity are written. Ask before formatting one.
bool InformationLogIsOn();

// Writes a message at information severity.
void LogInformation(const std::string& text);

}  // namespace bitfold

#endif  // BITFOLD_SRC_FRAME_LOG_H_
