// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// How the oracles' C interfaces return text.

#ifndef BITFOLD_TESTS_REFERENCE_RETURN_TEXT_H_
#define BITFOLD_TESTS_REFERENCE_RETURN_TEXT_H_

#include <cstdint>
#include <cstring>
#include <string>

// Copies what fits into `text`, an end included, and returns the whole length.
inline int64_t ReturnText(const std::string& lines, char* text, int64_t capacity) {
  const int64_t length = static_cast<int64_t>(lines.size());
  if (text != nullptr && capacity > 0) {
    const int64_t copied = length < capacity ? length : capacity - 1;
    std::memcpy(text, lines.data(), static_cast<size_t>(copied));
    text[copied] = '\0';
  }
  return length;
}

#endif  // BITFOLD_TESTS_REFERENCE_RETURN_TEXT_H_
