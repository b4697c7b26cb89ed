// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The lines that the emulated units print, formatted in one place each (rule W1 of
// docs/arithmetic.md). They go to C's standard output, whose buffer the C library owns: whoever
// reads the file descriptor calls fflush first.

#ifndef BITFOLD_WARNING_H_
#define BITFOLD_WARNING_H_

#include <cstdio>

#include "bitfold/host_device.h"

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

}  // namespace bitfold

#endif  // BITFOLD_WARNING_H_
