// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/vector_datapath.h"

#include <cstring>

#include "vector/target.h"
#include "vector/vector_steps.h"

namespace bitfold {
namespace {

struct AllLoops {
  DatapathLoops<Datapath<int32_t>, int32_t> integer;
  DatapathLoops<Datapath<float>, float> dividing;
  DatapathLoops<ReciprocalDatapath<float>, float> multiplying;
  PairLoops<int32_t> integer_pairs;
  PairLoops<float> float_pairs;
};

#define BITFOLD_LOOPS "cpu/datapath_loops.inc"
#define BITFOLD_LOOP_TABLE                                                                     \
  AllLoops {                                                                                   \
    kStepsOf<Datapath<int32_t>, int32_t>, kStepsOf<Datapath<float>, float>,                    \
        kStepsOf<ReciprocalDatapath<float>, float>, kPairLoopsOf<int32_t>, kPairLoopsOf<float> \
  }
#include "vector/vector_loops.inc"

}  // namespace

const DatapathLoops<Datapath<int32_t>, int32_t>& LoopsOf(const Datapath<int32_t>&) {
  return CurrentLoops().integer;
}
const DatapathLoops<Datapath<float>, float>& LoopsOf(const Datapath<float>&) {
  return CurrentLoops().dividing;
}
const DatapathLoops<ReciprocalDatapath<float>, float>& LoopsOf(const ReciprocalDatapath<float>&) {
  return CurrentLoops().multiplying;
}

template <>
const PairLoops<int32_t>& CurrentPairLoops<int32_t>() {
  return CurrentLoops().integer_pairs;
}
template <>
const PairLoops<float>& CurrentPairLoops<float>() {
  return CurrentLoops().float_pairs;
}

}  // namespace bitfold
