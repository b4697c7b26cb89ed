// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// A rule in its two forms: the C++ function as it ships, and the formula that its text gives.

#ifndef BITFOLD_TESTS_PROOFS_RULE_H_
#define BITFOLD_TESTS_PROOFS_RULE_H_

#include <cstdint>
#include <functional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "proofs/term.h"

namespace bitfold::proofs {

struct RuleParameter {
  std::string name;
  int bits;  // 1 of a truth value
  bool is_signed;
};

// A rule whose results are of type Value: numbers from numbers, or terms.
template <typename Value>
struct Rule {
  std::string name;
  std::vector<RuleParameter> parameters;
  std::function<std::vector<Value>(const std::vector<int64_t>&)> compute;  // terms: of no arguments
};

// Takes rules, each as a call with typed parameters. Form has for each type A
//   Describe<A>(name)                    what its parameter is
//   Argument<A>(name, arguments, index)  and where a call gets it from.
template <typename Form>
class Rules {
 public:
  using Value = typename Form::Value;

  // `names` has the parameters' names, a space between two; Signature their types.
  template <typename Signature, typename Call>
  void Add(const std::string& name, const std::string& names, Call call) {
    std::istringstream words(names);
    std::vector<std::string> list;
    for (std::string word; words >> word;) list.push_back(word);
    Taker<Signature>::Take(this, name, list, call);
  }

  std::vector<Rule<Value>> taken;

 private:
  template <typename Signature>
  struct Taker;
  template <typename... A>
  struct Taker<std::vector<Value>(A...)> {
    template <typename Call>
    static void Take(Rules* rules, const std::string& name, const std::vector<std::string>& names,
                     Call call) {
      Fill(rules, name, names, call, std::index_sequence_for<A...>());
    }
    template <typename Call, size_t... kIndex>
    static void Fill(Rules* rules, const std::string& name, const std::vector<std::string>& names,
                     Call call, std::index_sequence<kIndex...>) {
      rules->taken.push_back(
          {name,
           {Form::template Describe<A>(names.at(kIndex))...},
           [names, call](const std::vector<int64_t>& arguments) {
             return call(Form::template Argument<A>(names[kIndex], arguments, kIndex)...);
           }});
    }
  };
};

std::vector<Rule<int64_t>> ShippedRules();
std::vector<Rule<TermPointer>> TextRules();

}  // namespace bitfold::proofs

#endif  // BITFOLD_TESTS_PROOFS_RULE_H_
