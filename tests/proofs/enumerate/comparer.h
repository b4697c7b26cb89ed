// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The blocks of an enumeration's inputs, and how forms compare over one of them.

#ifndef BITFOLD_TESTS_PROOFS_ENUMERATE_COMPARER_H_
#define BITFOLD_TESTS_PROOFS_ENUMERATE_COMPARER_H_

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "proofs/enumerate/enumeration.h"

namespace bitfold::enumeration {

// The blocks of all settings, by a number: all of them, or for a sample every so manyth and, where
// wanted, the boundaries of a few settings. Keeps a reference.
class Blocks {
 public:
  Blocks(const Enumeration& enumeration, uint64_t sample, bool takes_boundaries = true);

  uint64_t count() const { return count_; }
  uint64_t Number(uint64_t i) const { return chosen_.empty() ? i : chosen_[i]; }
  uint64_t Inputs() const;

  const Setting& SettingOf(uint64_t block) const;
  uint64_t First(uint64_t block) const { return block % of_setting_ * kBlock; }
  int Count(uint64_t block) const;

 private:
  void Choose(uint64_t sample, bool takes_boundaries);
  void AddBoundaries();

  const Enumeration& enumeration_;
  uint64_t of_setting_;
  uint64_t count_;
  std::vector<uint64_t> chosen_;
};

struct Difference {
  uint64_t block;
  int index;
  Word expected;
  Word actual;
};

// Of one form.
struct Tally {
  uint64_t inputs;
  uint64_t differences;
  Difference first;
};

// Keeps references.
class Comparer {
 public:
  Comparer(const Enumeration& enumeration, const Blocks& blocks)
      : enumeration_(enumeration), blocks_(blocks) {}

  // Adds to a tally for each form.
  void Compare(uint64_t number, const std::vector<Form>& forms, Tally* tallies);

  // The input and both results.
  std::string Describe(const Difference& difference);

 private:
  Block Fill(uint64_t number);
  void CompareForm(uint64_t number, const Block& block, const Form& form, Tally* tally);
  void CountDifferences(uint64_t number, const Block& block, const Form& form, Tally* tally) const;

  const Enumeration& enumeration_;
  const Blocks& blocks_;
  std::array<float, kBlock> x_;
  std::array<float, kBlock> acc_;
  std::array<Word, kBlock> expected_;
  std::array<Word, kBlock> actual_;
  std::array<bool, kBlock> taken_;
};

}  // namespace bitfold::enumeration

#endif  // BITFOLD_TESTS_PROOFS_ENUMERATE_COMPARER_H_
