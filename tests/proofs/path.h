// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// A rule branches; its formula does not. It is run once for each way through it, and what the ways
// give is joined by their conditions.

#ifndef BITFOLD_TESTS_PROOFS_PATH_H_
#define BITFOLD_TESTS_PROOFS_PATH_H_

#include <functional>
#include <string>
#include <vector>

#include "proofs/term.h"

namespace bitfold::proofs {

// Which way the path at hand goes where a condition decides. Only while a rule is recorded, or of
// constants.
bool Decide(const TermPointer& condition);

// What must hold on the path at hand for the language to define what comes.
void Require(const TermPointer& condition);

// The value of a constant. Throws std::logic_error of anything else.
uint64_t ConstantValue(const TermPointer& term);

// A rule as a formula.
struct RecordedRule {
  std::vector<TermPointer> results;  // of each output
  std::vector<TermPointer>
      required;  // obligations: each is an implication from the path's condition
};

// Runs `rule`, which returns its outputs, along every path. Throws std::runtime_error beyond 4096.
RecordedRule Record(const std::function<std::vector<TermPointer>()>& rule);

}  // namespace bitfold::proofs

#endif  // BITFOLD_TESTS_PROOFS_PATH_H_
