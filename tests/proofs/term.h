// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What a rule computes, as a formula of bit vectors: operations on constants and parameters, shared
// where they are equal.

#ifndef BITFOLD_TESTS_PROOFS_TERM_H_
#define BITFOLD_TESTS_PROOFS_TERM_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace bitfold::proofs {

struct Term;
using TermPointer = std::shared_ptr<const Term>;

// An operation of the solver's language with its operands; a constant or a parameter without.
// `sort` is the number of bits, 0 for a truth value.
struct Term {
  std::string operation;
  std::vector<TermPointer> operands;
  int sort = 0;
  bool is_constant = false;
  uint64_t value = 0;  // of a constant, its upper bits 0
};

// Constants of `bits` bits, 1 to 64, and of truth.
TermPointer Constant(int bits, uint64_t value);
TermPointer Truth(bool value);
TermPointer Parameter(const std::string& name, int bits);

// An operation, by its name in the solver's language. Of constants alone a constant.
TermPointer Apply(const std::string& operation, int sort, std::vector<TermPointer> operands);

// The text of a term in the solver's language, what is shared named once.
std::string ToText(const TermPointer& term);

}  // namespace bitfold::proofs

#endif  // BITFOLD_TESTS_PROOFS_TERM_H_
