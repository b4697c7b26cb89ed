// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Internal invariants of the numeric units: they end the process with the C library's assertion
// message, in release builds too, under the unit's name for its file and function.

#ifndef BITFOLD_ASSERTION_H_
#define BITFOLD_ASSERTION_H_

// The C library's reporter itself: its own header declares it only where NDEBUG is not set.
extern "C" [[noreturn]] void __assert_fail(const char* expression, const char* file,
                                           unsigned int line, const char* function) noexcept;

// `expression` and `function` are texts of the message; `file` is the unit's, as "src/HSoftmax".
#define BITFOLD_ASSERT(condition, expression, file, function) \
  ((condition) ? static_cast<void>(0) : __assert_fail(expression, file, __LINE__, function))

#endif  // BITFOLD_ASSERTION_H_
