// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "proofs/path.h"

#include <stdexcept>
#include <unordered_set>
#include <utility>

namespace bitfold::proofs {
namespace {

constexpr size_t kMostPaths = 4096;

struct Choice {
  TermPointer condition;
  bool taken;
};

// The path at hand: choices that are prescribed, then new ones, which are taken.
struct Path {
  std::vector<Choice> choices;
  size_t next = 0;
  std::vector<TermPointer> required;
};

Path* current = nullptr;

TermPointer ConditionOf(const Choice& choice) {
  return choice.taken ? choice.condition : Apply("not", 0, {choice.condition});
}

TermPointer All(const std::vector<Choice>& choices, size_t count) {
  TermPointer condition = Truth(true);
  for (size_t i = 0; i < count; ++i)
    condition = Apply("and", 0, {condition, ConditionOf(choices[i])});
  return condition;
}

// What was found on a path, and where it went.
struct Found {
  std::vector<Choice> choices;
  std::vector<TermPointer> results;
};

// The paths in the order of a search, in which those of a taken choice come before those of the
// other: joined choice by choice.
TermPointer Join(const std::vector<Found>& paths, size_t output, size_t* at, size_t depth) {
  const Found& path = paths[*at];
  if (path.choices.size() == depth) return paths[(*at)++].results[output];
  const TermPointer condition = path.choices[depth].condition;
  const TermPointer taken = Join(paths, output, at, depth + 1);
  const TermPointer other = Join(paths, output, at, depth + 1);
  return Apply("ite", taken->sort, {condition, taken, other});
}

}  // namespace

uint64_t ConstantValue(const TermPointer& term) {
  if (!term->is_constant) throw std::logic_error("need a constant where a number decides");
  return term->value;
}

bool Decide(const TermPointer& condition) {
  if (condition->is_constant) return condition->value != 0;
  if (current == nullptr) throw std::logic_error("a condition outside of a recorded rule");
  // What was decided stays: terms that are equal are one.
  for (size_t i = 0; i < current->next; ++i) {
    if (current->choices[i].condition == condition) return current->choices[i].taken;
  }
  if (current->next == current->choices.size()) current->choices.push_back({condition, true});
  return current->choices[current->next++].taken;
}

void Require(const TermPointer& condition) {
  if (condition->is_constant) {
    if (condition->value == 0) throw std::logic_error("undefined for constants");
    return;
  }
  if (current == nullptr) throw std::logic_error("an obligation outside of a recorded rule");
  current->required.push_back(Apply("=>", 0, {All(current->choices, current->next), condition}));
}

RecordedRule Record(const std::function<std::vector<TermPointer>()>& rule) {
  std::vector<Found> paths;
  Path path;
  current = &path;
  RecordedRule recorded;
  std::unordered_set<const Term*> known;  // equal terms are one
  for (;;) {
    path.next = 0;
    path.required.clear();
    std::vector<TermPointer> results = rule();
    paths.push_back({path.choices, std::move(results)});
    for (const TermPointer& required : path.required) {
      if (known.insert(required.get()).second) recorded.required.push_back(required);
    }
    if (paths.size() > kMostPaths) throw std::runtime_error("a rule of too many paths");
    while (!path.choices.empty() && !path.choices.back().taken) path.choices.pop_back();
    if (path.choices.empty()) break;
    path.choices.back().taken = false;
  }
  current = nullptr;
  for (size_t output = 0; output < paths.front().results.size(); ++output) {
    size_t at = 0;
    recorded.results.push_back(Join(paths, output, &at, 0));
  }
  return recorded;
}

}  // namespace bitfold::proofs
