// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The paths that the tests must have taken. A test says Ran(...) where it compares a path's
// results; a full run fails when one was never taken. Vector loops count where the machine has
// them.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_LEDGER_H_
#define BITFOLD_TESTS_CPP_SUPPORT_LEDGER_H_

#include "chain/plan.h"
#include "vector/target.h"
#include "vector/target_code.h"

namespace bitfold::testing {

enum class Path {
#define BITFOLD_PATH(enumerator, name) enumerator,
#include "support/ledger_paths.inc"
#undef BITFOLD_PATH
  kCount
};

void Ran(Path path);

// What the chain engine can take: a path for a kind of numbers and of call, on a target.
enum class ChainNumbers { kInt32, kFloat, kHalf };
enum class ChainForm { kOrdinary, kDepthwise, kMatrices };

// Whether the machine adds up remainders where it is forced to a target.
inline bool HasRemainders(Target target) {
#if BITFOLD_HAS_TARGETS
  return target == Target::kAvx512Vnni && __builtin_cpu_supports("avx512vbmi") != 0;
#else
  return false;
#endif
}

void Ran(ChainPath path, ChainNumbers numbers, ChainForm form, Target target);

// The form of the portable loops on a target.
constexpr Path OnTarget(Path portable, Target target) {
  return static_cast<Path>(static_cast<int>(portable) + static_cast<int>(target));
}

// `bitfold_tests --check-ledger`: judges the marks in a directory, one file of each process. 0
// where nothing is missing or not all tests ran.
int CheckLedger(const char* directory);

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_LEDGER_H_
