// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The two comparisons of an op whose kernel goes block by block, each on its own: the definition
// against the oracle, and the kernel on every target against the definition.
//
// A case of an op is a struct with
//   Element, kName             the elements' type, the op's name
//   count(), Inputs(i)         the number of output elements, and what goes into one
//   Oracle(out, lines)         the three ways to compute it; `offset` misaligns the inputs
//   Define(offset, out)
//   Run(offset, workers, out)
//   Loops()                    the portable one of the vector loops that the kernel takes, if any

#ifndef BITFOLD_TESTS_CPP_SUPPORT_OP_CASE_H_
#define BITFOLD_TESTS_CPP_SUPPORT_OP_CASE_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "support/buffer.h"
#include "support/capture.h"
#include "support/compare.h"
#include "support/ledger.h"
#include "support/targets.h"
#include "support/warnings.h"
#include "support/workers.h"

namespace bitfold::testing {

// Copies of exact size, each misaligned differently.
template <typename T>
std::vector<ExactBuffer<T>> Misaligned(std::initializer_list<const std::vector<T>*> arrays,
                                       int offset) {
  std::vector<ExactBuffer<T>> buffers;
  for (const std::vector<T>* array : arrays) buffers.emplace_back(*array, offset++ % 4);
  return buffers;
}

// What a call wrote and printed. An element that it leaves as it is keeps kUnwritten.
template <typename T>
struct Output {
  ExactBuffer<T> values;
  std::string lines;
};

inline constexpr int kUnwritten = 77;

template <typename T>
ExactBuffer<T> UnwrittenBuffer(int64_t count, int offset) {
  ExactBuffer<T> buffer(count, offset);
  std::fill_n(buffer.data(), count, T{kUnwritten});
  return buffer;
}

template <typename Case>
Output<typename Case::Element> OracleOf(const Case& c) {
  Output<typename Case::Element> output{UnwrittenBuffer<typename Case::Element>(c.count(), 0), ""};
  c.Oracle(output.values.data(), &output.lines);
  return output;
}

template <typename Case>
Output<typename Case::Element> DefinitionOf(const Case& c, int offset = 0) {
  Output<typename Case::Element> output{
      UnwrittenBuffer<typename Case::Element>(c.count(), (offset + 3) % 4), ""};
  output.lines = PrintedAndCountedBy([&] { c.Define(offset, output.values.data()); });
  return output;
}

// Whether the kernel counts its lines where it is told to; an op of which it always prints
// overloads it for its case.
template <typename Case>
bool CountsWarnings(const Case&) {
  return true;
}

// On the target in use.
template <typename Case>
Output<typename Case::Element> KernelOf(const Case& c, int offset, Workers* workers) {
  Output<typename Case::Element> output{
      UnwrittenBuffer<typename Case::Element>(c.count(), (offset + 3) % 4), ""};
  const auto run = [&] { c.Run(offset, workers, output.values.data()); };
  output.lines = CountsWarnings(c) ? PrintedAndCountedBy(run) : PrintedBy(run);
  return output;
}

template <typename Case>
Output<typename Case::Element> KernelOf(const Case& c, int offset = 0) {
  CallingThread calling_thread;
  return KernelOf(c, offset, &calling_thread);
}

template <typename Case>
::testing::AssertionResult SameOutputs(const Case& c,
                                       const Output<typename Case::Element>& expected,
                                       const Output<typename Case::Element>& actual,
                                       const std::string& path) {
  const std::string name = std::string(Case::kName) + " " + path;
  const auto describe = [&c](int64_t i) { return c.Inputs(i); };
  const auto values =
      SameArrays(expected.values.data(), actual.values.data(), c.count(), name, describe);
  if (!values) return values;
  return SameText(expected.lines, actual.lines, name + (c.count() > 0 ? " " + c.Inputs(0) : ""));
}

// The first comparison.
template <typename Case>
::testing::AssertionResult DefinitionAgainstOracle(
    const Case& c, const Output<typename Case::Element>& definition) {
  return SameOutputs(c, OracleOf(c), definition, "definition");
}

// The targets on which the kernel of an op differs; an op with others overloads it for its case.
template <typename Case>
std::vector<NamedTarget> TargetsOf(const Case&) {
  return SupportedTargets();
}

// The second comparison: on one thread, on every target, and cut at every place.
template <typename Case>
::testing::AssertionResult KernelAgainstDefinition(const Case& c,
                                                   const Output<typename Case::Element>& definition,
                                                   int offset) {
  for (const auto& [target, name] : TargetsOf(c)) {
    const ForcedTarget forced(target);
    const auto same =
        SameOutputs(c, definition, KernelOf(c, offset), std::string("kernel, ") + name);
    if (!same) return same;
  }
  BackwardParts parts(1);
  return SameOutputs(c, definition, KernelOf(c, offset, &parts), "kernel, in parts");
}

template <typename Case>
::testing::AssertionResult CompareCase(const Case& c, int offset) {
  const auto definition = DefinitionOf(c, offset);
  const auto oracle = DefinitionAgainstOracle(c, definition);
  return oracle ? KernelAgainstDefinition(c, definition, offset) : oracle;
}

// Both comparisons, and the ledger's mark of the loops that the kernel took.
template <typename Case>
::testing::AssertionResult CheckCase(const Case& c, int offset = 0) {
  const auto same = CompareCase(c, offset);
  const std::optional<Path> loops = c.Loops();
  if (!same || !loops || c.count() == 0) return same;
  for (const auto& [target, name] : SupportedTargets()) Ran(OnTarget(*loops, target));
  return same;
}

// The kernel writes nothing behind its last element.
template <typename Case>
::testing::AssertionResult WritesItsOutputAlone(const Case& c) {
  using T = typename Case::Element;
  for (const auto& [target, name] : TargetsOf(c)) {
    const ForcedTarget forced(target);
    std::vector<T> guarded(static_cast<size_t>(c.count()) + 64, T{kUnwritten});
    CallingThread calling_thread;
    PrintedBy([&] { c.Run(0, &calling_thread, guarded.data()); });
    for (size_t i = static_cast<size_t>(c.count()); i < guarded.size(); ++i) {
      if (SameBits(guarded[i], T{kUnwritten})) continue;
      return ::testing::AssertionFailure()
             << Case::kName << ", " << name << ": wrote element " << i << " of " << c.count();
    }
  }
  return ::testing::AssertionSuccess();
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_OP_CASE_H_
