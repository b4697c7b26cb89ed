// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The lines that the emulated units print, formatted in one place each (rules W1 to W3 of
// docs/arithmetic.md). They go to C's standard output, whose buffer the C library owns: whoever
// reads the file descriptor calls fflush first. On the host a thread can count its lines instead.

#ifndef BITFOLD_WARNING_H_
#define BITFOLD_WARNING_H_

#include <cstdio>

#include "bitfold/host_device.h"
#include "bitfold/warning_counts.h"

namespace bitfold {

// Every float sum outside [-8388607, 8388607) is reported, whatever the accumulator's width:
// 2^23 - 1 is the accelerator's widest accumulator. The upper bound itself is reported, the lower
// one is not.
inline constexpr int kWarningLimit = 8388607;

// True for NaN. `negated comparison` on purpose: "not at least the lower bound". Both comparisons
// are made, so that loops of it vectorise.
BITFOLD_HOST_DEVICE inline bool IsOutOfWarningRange(float sum) {
  const bool above = sum >= static_cast<float>(kWarningLimit);
  const bool below = !(sum >= static_cast<float>(-kWarningLimit));
  return above | below;
}

// ---- The lines ---------------------------------------------------------------------------------

// One line; `sum` is printed as the double it widens to.
BITFOLD_HOST_DEVICE inline void PrintAccumulatorWarning(float sum) {
  printf("@@@ WARNING: acc %f is out of bounds <%d,%d>\n", static_cast<double>(sum), -kWarningLimit,
         kWarningLimit);
}

// One red line each, written whole so that lines of several image threads do not mix.
inline void PrintDepthwiseWeightWarning() {
  std::fputs(
      "\033[1;31m"
      "weights should be uint8 for DW, check predecessor has signed output, could cause degradation"
      "\033[0m\n",
      stdout);
}

inline void PrintMatMulWeightWarning() {
  std::fputs(
      "\033[1;31m"
      "weights should be uint8 for matmul, check predecessor has signed output, could cause "
      "degradation"
      "\033[0m\n",
      stdout);
}

inline void PrintSoftmaxWarning() {
  std::puts("Warning, the softmax sum has overflowed.");
  std::fflush(stdout);
}

// ---- Printed or counted ------------------------------------------------------------------------

// Where this thread counts its lines; null where it prints them, as every thread does at first.
inline BitfoldWarningCounts*& CountsOfThisThread() {
  static thread_local BitfoldWarningCounts* counts = nullptr;
  return counts;
}

// For the life of the object this thread counts its lines in `counts`, or prints them where that is
// null.
class WarningScope {
 public:
  explicit WarningScope(BitfoldWarningCounts* counts) : saved_(CountsOfThisThread()) {
    CountsOfThisThread() = counts;
  }
  ~WarningScope() { CountsOfThisThread() = saved_; }
  WarningScope(const WarningScope&) = delete;
  WarningScope& operator=(const WarningScope&) = delete;

 private:
  BitfoldWarningCounts* const saved_;
};

// Adds what was counted elsewhere, on a thread that has ended say.
inline void AddCounts(const BitfoldWarningCounts& from, BitfoldWarningCounts* to) {
  to->out_of_bounds += from.out_of_bounds;
  to->corrected_weights += from.corrected_weights;
  to->softmax_overflows += from.softmax_overflows;
}

inline bool HasCounts(const BitfoldWarningCounts& counts) {
  return (counts.out_of_bounds | counts.corrected_weights | counts.softmax_overflows) != 0;
}

// Prints or counts one line of a kind.
inline void WarnOutOfBounds(float sum) {
  BitfoldWarningCounts* counts = CountsOfThisThread();
  if (counts == nullptr) return PrintAccumulatorWarning(sum);
  ++counts->out_of_bounds;
}

inline void WarnDepthwiseWeights() {
  BitfoldWarningCounts* counts = CountsOfThisThread();
  if (counts == nullptr) return PrintDepthwiseWeightWarning();
  ++counts->corrected_weights;
}

inline void WarnMatMulWeights() {
  BitfoldWarningCounts* counts = CountsOfThisThread();
  if (counts == nullptr) return PrintMatMulWeightWarning();
  ++counts->corrected_weights;
}

inline void WarnSoftmaxOverflow() {
  BitfoldWarningCounts* counts = CountsOfThisThread();
  if (counts == nullptr) return PrintSoftmaxWarning();
  ++counts->softmax_overflows;
}

}  // namespace bitfold

#endif  // BITFOLD_WARNING_H_
