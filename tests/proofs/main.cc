// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
//   bitfold_rules formulas   every rule as a formula, in the solver's language
//   bitfold_rules evaluate   reads lines of a rule's name, a tab and arguments, and answers each by
//                            what the shipped function gives

#include <cstdint>
#include <exception>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "proofs/path.h"
#include "proofs/rule.h"

namespace {

using bitfold::proofs::RecordedRule;
using bitfold::proofs::Rule;
using bitfold::proofs::TermPointer;

// A line for the rule, one for each parameter, result and obligation.
void PrintFormula(const Rule<TermPointer>& rule) {
  const RecordedRule recorded = bitfold::proofs::Record([&] { return rule.compute({}); });
  std::cout << "rule\t" << rule.name << "\n";
  for (const auto& parameter : rule.parameters) {
    std::cout << "parameter\t" << parameter.name << "\t" << parameter.bits << "\t"
              << (parameter.is_signed ? "signed" : "unsigned") << "\n";
  }
  for (const TermPointer& result : recorded.results) {
    std::cout << "result\t" << result->sort << "\t" << ToText(result) << "\n";
  }
  for (const TermPointer& required : recorded.required) {
    std::cout << "required\t" << ToText(required) << "\n";
  }
}

void Evaluate() {
  std::map<std::string, Rule<int64_t>> rules;
  for (const auto& rule : bitfold::proofs::ShippedRules()) rules[rule.name] = rule;
  for (std::string line; std::getline(std::cin, line);) {
    const size_t tab = line.find('\t');
    std::istringstream words(line.substr(tab + 1));
    std::vector<int64_t> arguments;
    for (int64_t x; words >> x;) arguments.push_back(x);
    const char* separator = "";
    for (const int64_t x : rules.at(line.substr(0, tab)).compute(arguments)) {
      std::cout << separator << x;
      separator = " ";
    }
    std::cout << "\n";
  }
}

}  // namespace

int main(int argc, char** argv) try {
  const std::string what = argc == 2 ? argv[1] : "";
  if (what == "formulas") {
    for (const auto& rule : bitfold::proofs::TextRules()) PrintFormula(rule);
  } else if (what == "evaluate") {
    Evaluate();
  } else {
    std::cerr << "Need formulas or evaluate, got \"" << what << "\"\n";
    return 2;
  }
  return 0;
} catch (const std::exception& error) {
  std::cerr << error.what() << "\n";
  return 1;
}
