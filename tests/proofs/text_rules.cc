// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The rules as formulas: the text of the headers, read with words that record.

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "proofs/path.h"
#include "proofs/rule.h"
#include "proofs/word_operators.h"

namespace {

namespace proofs = bitfold::proofs;
using proofs::TermPointer;

using Values = std::vector<TermPointer>;

TermPointer ValueOf(bool value) { return proofs::Constant(1, value ? 1 : 0); }
template <int kBits, bool kSigned>
TermPointer ValueOf(const proofs::Word<kBits, kSigned>& value) {
  return value.term();
}

template <typename... T>
Values ValuesOf(const T&... values) {
  return {ValueOf(values)...};
}

struct TextForm {
  using Value = TermPointer;

  template <typename A>
  static proofs::RuleParameter Describe(const std::string& name) {
    if constexpr (proofs::kIsWord<A>) return {name, A::kWidth, A::kHasSign};
    return {name, 1, false};
  }

  template <typename A>
  static A Argument(const std::string& name, const std::vector<int64_t>&, size_t) {
    if constexpr (proofs::kIsWord<A>) {
      return A::Of(name);
    } else {
      return proofs::Decide(
          proofs::Apply("=", 0, {proofs::Parameter(name, 1), proofs::Constant(1, 1)}));
    }
  }
};

}  // namespace

// In this order.
// clang-format off
#include "proofs/words_for_integers.inc"
#include "proofs/rules_of_headers.inc"
#include "proofs/integers_again.inc"
// clang-format on

namespace bitfold::proofs {

std::vector<Rule<TermPointer>> TextRules() {
  Rules<TextForm> rules;
  bitfold_recorded::AddRules(rules);
  return std::move(rules.taken);
}

}  // namespace bitfold::proofs
