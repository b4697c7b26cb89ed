// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// A claim about one function of floats, or several forms of it, that is made for so few inputs that
// all of them can be tried: what is compared, for which settings, over which inputs, and forms that
// are wrong on purpose, which must be told apart.

#ifndef BITFOLD_TESTS_PROOFS_ENUMERATE_ENUMERATION_H_
#define BITFOLD_TESTS_PROOFS_ENUMERATE_ENUMERATION_H_

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace bitfold::enumeration {

// A result: the bits of a float, NaN being one, or any other word.
using Word = uint64_t;

// What is the same for all inputs of a pass through them.
struct Setting {
  std::string name;
  int32_t number = 0;  // a divisor, a width
  float acc = 0.0f;    // the other operand, unless the inputs are pairs
};

inline constexpr int kBlock = 4096;  // inputs at a time

struct Block {
  const Setting& setting;
  int count;         // at most kBlock
  const float* x;    // the operand
  const float* acc;  // the other one
};

struct Form {
  std::string name;
  std::function<void(const Block&, Word* results)> compute;
  // Which inputs it is for. Empty: all.
  std::function<void(const Block&, bool* taken)> select;
};

// The inputs of one setting, by an index.
struct Inputs {
  std::string name;
  uint64_t count;
  std::function<void(const Setting&, uint64_t first, int count, float* x, float* acc)> fill;
  std::vector<uint64_t> boundaries;  // the numbers of blocks that a sample takes, too
};

struct Enumeration {
  std::string rule;
  std::string claim;
  Inputs inputs;
  std::vector<Setting> settings;
  Form expected;
  std::vector<Form> forms;
  std::vector<Form> controls;
  bool is_long = false;  // hours: only when asked for
};

// ---- Inputs ------------------------------------------------------------------------------------

Inputs EveryFloat();

// Those of the exponents from 2^low to below 2^high that are not negative.
Inputs PositiveFloats(int low, int high);

// -most to most, as floats.
Inputs WholeNumbers(int32_t most);

// All pairs of the numbers at which sums, roundings and limits turn.
Inputs PairsOfBoundaries();

// ---- Forms -------------------------------------------------------------------------------------

// A form that computes one input after the other: function(block.setting, x, acc) is its word.
template <typename Function>
Form Each(std::string name, Function function) {
  const auto compute = [function](const Block& block, Word* results) {
    const Setting& setting = block.setting;
    for (int i = 0; i < block.count; ++i) results[i] = function(setting, block.x[i], block.acc[i]);
  };
  return {std::move(name), compute, {}};
}

// The same, of which what depends on the setting alone is made first: make(setting) is
// function(x, acc).
template <typename Make>
Form Prepared(std::string name, Make make) {
  const auto compute = [make](const Block& block, Word* results) {
    const auto function = make(block.setting);
    for (int i = 0; i < block.count; ++i) results[i] = function(block.x[i], block.acc[i]);
  };
  return {std::move(name), compute, {}};
}

// As Each, for those inputs alone for which selects(block.setting, x, acc).
template <typename Function, typename Predicate>
Form Where(std::string name, Predicate selects, Function function) {
  const auto select = [selects](const Block& block, bool* taken) {
    const Setting& setting = block.setting;
    for (int i = 0; i < block.count; ++i) taken[i] = selects(setting, block.x[i], block.acc[i]);
  };
  Form form = Each(std::move(name), function);
  form.select = select;
  return form;
}

// The word of a float: its bits, or those of one NaN.
Word WordOf(float x);

// ---- The tables --------------------------------------------------------------------------------

std::vector<Enumeration> HalfPrecision();       // H1 and R2
std::vector<Enumeration> HalfAccumulators();    // H2
std::vector<Enumeration> FloatAccumulators();   // A4 and D2
std::vector<Enumeration> Scalings();            // S2 and S3
std::vector<Enumeration> RoundingByAddition();  // whole numbers by adding 1.5 * 2^23
std::vector<Enumeration> Conversions();         // I4, I6, I8, R1, D3, W1, D1 and V1
std::vector<Enumeration> NarrowFloats();        // F1

std::vector<Enumeration> AllEnumerations();

}  // namespace bitfold::enumeration

#endif  // BITFOLD_TESTS_PROOFS_ENUMERATE_ENUMERATION_H_
