// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Sums, differences and products of stored tensors as their tests see them: one case, computed by
// the oracle, by the definition and by the vector loops.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_STORED_ELEMENTWISE_CASE_H_
#define BITFOLD_TESTS_CPP_SUPPORT_STORED_ELEMENTWISE_CASE_H_

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "bitfold/HStoredElementwise.h"
#include "cpu/stored_elementwise.h"
#include "frame/workers.h"
#include "reference/stored.h"
#include "support/bits.h"
#include "support/buffer.h"

namespace bitfold::testing {

template <typename T>
struct StoredElementwiseCase {
  std::vector<int64_t> shapes[2];
  std::vector<T> operands[2];
  StoredElementwiseMode mode = {};

  Broadcast Common() const { return MakeBroadcast(shapes[0], shapes[1]); }
  int64_t count() const { return CountOf(Common()); }

  // Which of an operand's elements meets element i of the result.
  T Element(int operand, int64_t i) const {
    return operands[operand][static_cast<size_t>(PlaceInOperand(Common(), operand, i))];
  }

  // Whether the multipliers are such as the op takes.
  bool IsTaken() const {
    const double result = ResultMultiplier<T>(mode);
    if (mode.operation == StoredOperation::kMultiply) return IsProductMultiplier(result);
    return IsFraction(OperandMultiplier(mode, 0)) && IsFraction(OperandMultiplier(mode, 1)) &&
           IsFraction(result);
  }

  std::string Inputs(int64_t i) const {
    std::string text = Describe("operation", static_cast<int32_t>(mode.operation), "first",
                                int32_t{Element(0, i)}, "second", int32_t{Element(1, i)});
    for (const StoredScale& s : {mode.operands[0], mode.operands[1], mode.output}) {
      text += Describe("scale", s.scale, "zero point", s.zero_point);
    }
    return text + Describe("minimum", mode.minimum, "maximum", mode.maximum);
  }

  template <typename Run>
  ExactBuffer<T> By(Run run, int offset = 0) const {
    const ExactBuffer<T> first(operands[0], offset);
    const ExactBuffer<T> second(operands[1], (offset + 2) % 4);
    const Broadcast broadcast = Common();
    ExactBuffer<T> out(CountOf(broadcast), (offset + 1) % 4);
    run({{first.data(), second.data()}, out.data(), &broadcast, mode});
    return out;
  }

  ExactBuffer<T> Definition(int offset = 0) const {
    return By([](const StoredElementwiseCall<T>& call) { DefineStoredElementwise(call); }, offset);
  }

  ExactBuffer<T> Loops(Workers* workers, int offset = 0) const {
    return By(
        [=](const StoredElementwiseCall<T>& call) { ComputeStoredElementwise(call, workers); },
        offset);
  }

  ExactBuffer<T> Oracle() const {
    const auto scale = [](const StoredScale& s) { return reference::Scale{s.scale, s.zero_point}; };
    const reference::ElementwiseSettings settings = {
        static_cast<reference::ElementwiseOperation>(mode.operation),
        8 * int32_t{sizeof(T)},
        scale(mode.operands[0]),
        scale(mode.operands[1]),
        scale(mode.output),
        mode.minimum,
        mode.maximum};
    ExactBuffer<T> out(count());
    for (int64_t i = 0; i < out.count(); ++i) {
      out[i] = static_cast<T>(reference::StoredElementwise(Element(0, i), Element(1, i), settings));
    }
    return out;
  }
};

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_STORED_ELEMENTWISE_CASE_H_
