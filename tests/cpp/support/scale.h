// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// How much of an exhaustive set is run: all of it, or a part under a sanitizer.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_SCALE_H_
#define BITFOLD_TESTS_CPP_SUPPORT_SCALE_H_

namespace bitfold::testing {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif
#else
inline constexpr bool kSanitized = false;
#endif

// The step through a set: 1, or `sanitized`, best a prime, so that every residue of a power of two
// is met.
constexpr int Step(int sanitized) { return kSanitized ? sanitized : 1; }

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_SCALE_H_
