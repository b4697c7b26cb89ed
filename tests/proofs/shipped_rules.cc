// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The rules as they ship, to compare the formulas with.

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "proofs/rule.h"

namespace {

using Values = std::vector<int64_t>;

template <typename... T>
Values ValuesOf(const T&... values) {
  return {static_cast<int64_t>(values)...};
}

struct ShippedForm {
  using Value = int64_t;

  template <typename A>
  static bitfold::proofs::RuleParameter Describe(const std::string& name) {
    const int bits = std::is_same_v<A, bool> ? 1 : 8 * static_cast<int>(sizeof(A));
    return {name, bits, std::is_signed_v<A>};
  }

  template <typename A>
  static A Argument(const std::string&, const std::vector<int64_t>& arguments, size_t index) {
    return static_cast<A>(arguments.at(index));
  }
};

}  // namespace

#include "proofs/rules_of_headers.inc"

namespace bitfold::proofs {

std::vector<Rule<int64_t>> ShippedRules() {
  Rules<ShippedForm> rules;
  AddRules(rules);
  return std::move(rules.taken);
}

}  // namespace bitfold::proofs
