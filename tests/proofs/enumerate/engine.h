// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Goes through the inputs of enumerations, in processes that share the work: functions that count
// in plain words can be called in each of them, as they could not by threads.

#ifndef BITFOLD_TESTS_PROOFS_ENUMERATE_ENGINE_H_
#define BITFOLD_TESTS_PROOFS_ENUMERATE_ENGINE_H_

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "proofs/enumerate/enumeration.h"

namespace bitfold::enumeration {

struct Options {
  int processes = 1;    // 0: the calling one alone
  uint64_t sample = 1;  // every so manyth block, and boundaries; 1: all
  bool takes_boundaries = true;
  std::function<void(double done, double seconds)> progress;  // now and then; done up to 1
};

struct FormResult {
  std::string name;
  uint64_t inputs;
  uint64_t differences;
  std::string first;  // of the differences
};

struct Result {
  std::string rule;
  std::string claim;
  std::string inputs_name;
  uint64_t settings;
  uint64_t inputs;
  double seconds;
  double processor_seconds;
  std::vector<FormResult> forms;
  std::vector<FormResult> controls;  // as far as the first difference

  // Every form agrees, no control does.
  bool IsRight() const;
};

// Throws std::runtime_error where a process ends that should not.
Result GoThrough(const Enumeration& enumeration, const Options& options);

// Seconds of one core for all inputs, from a few of them.
double Estimate(const Enumeration& enumeration);

}  // namespace bitfold::enumeration

#endif  // BITFOLD_TESTS_PROOFS_ENUMERATE_ENGINE_H_
