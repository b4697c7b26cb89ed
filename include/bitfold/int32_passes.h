// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Integer passes that need not be made, on the host and on a device (rule R3 of
// docs/arithmetic.md).
//
// Let P = max - min + 1 be the accumulator's period. If acc is in range and |addend| <= P, one wrap
// after each addition brings acc back into range, congruent to the plain sum modulo P (theorem 1).
// So from the first pass that starts in range, the rest is the one value of [min, max] congruent to
// acc + passes * addend. Two addends a pass are the same with their sum, if each obeys the bound.

#ifndef BITFOLD_INT32_PASSES_H_
#define BITFOLD_INT32_PASSES_H_

#include <cstdint>

#include "bitfold/accumulator.h"
#include "bitfold/host_device.h"

namespace bitfold {

BITFOLD_HOST_DEVICE inline int64_t WholePeriod(const AccumulatorLimits<int32_t>& limits) {
  return int64_t{limits.max} - limits.min + 1;
}

// Whether the passes from `acc` on are proven, as far as this addend is concerned.
BITFOLD_HOST_DEVICE inline bool IsProvenPass(const AccumulatorLimits<int32_t>& limits, int32_t acc,
                                             int64_t addend) {
  const int64_t period = WholePeriod(limits);
  return limits.min <= acc && acc <= limits.max && -period <= addend && addend <= period;
}

// What `passes` proven passes make of acc. Requires 0 < passes <= 2^31 and the sum of one or two
// addends: with the remainder below 2^32 the product fits 63 bits.
BITFOLD_HOST_DEVICE inline int32_t MakeProvenPasses(const AccumulatorLimits<int32_t>& limits,
                                                    int64_t acc, int64_t addends, int64_t passes) {
  const int64_t period = WholePeriod(limits);
  const int64_t min = limits.min;
  const int64_t offset = (passes * (addends % period) % period + acc - min) % period;
  return static_cast<int32_t>(min + (offset < 0 ? offset + period : offset));
}

}  // namespace bitfold

#endif  // BITFOLD_INT32_PASSES_H_
