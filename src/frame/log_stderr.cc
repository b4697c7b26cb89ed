// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The log of the C library, which has no runtime: errors are lines on standard error. What is built
// into it logs nothing else.

#include <cstdio>

#include "frame/log.h"

namespace bitfold {

void LogError(std::string_view text) {
  std::fprintf(stderr, "bitfold: %.*s\n", static_cast<int>(text.size()), text.data());
}

}  // namespace bitfold
