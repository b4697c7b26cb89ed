// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "chain/facts.h"

#include "vector/quantise_half.h"
#include "vector/target.h"

namespace bitfold {
namespace {

constexpr int32_t kLargestWholeBits = (24 + 127) << 23;  // of 2^24

struct FactsLoops {
  void (*widen)(const int32_t*, int, int32_t*, int32_t*);
  bool (*widen_by_whole)(const float*, int, int32_t*, int32_t*);
};

#define BITFOLD_LOOPS "chain/facts_loops.inc"
#define BITFOLD_LOOP_TABLE \
  FactsLoops { Widen, WidenByWhole }
#include "vector/vector_loops.inc"

// So many at a time: fractions are seen before all of a large array has been read.
constexpr int64_t kStep = 4096;

}  // namespace

Facts FactsOf(const int32_t* x, int64_t count) {
  int32_t min = 0;
  int32_t max = 0;
  for (int64_t i = 0; i < count; i += kStep) {
    CurrentLoops().widen(x + i, static_cast<int>(std::min(kStep, count - i)), &min, &max);
  }
  return {true, min, max};
}

Facts FactsOf(const float* x, int64_t count) {
  int32_t min = 0;
  int32_t max = 0;
  for (int64_t i = 0; i < count; i += kStep) {
    const int n = static_cast<int>(std::min(kStep, count - i));
    if (!CurrentLoops().widen_by_whole(x + i, n, &min, &max)) return {false, 0, 0};
  }
  return {true, min, max};
}

}  // namespace bitfold
