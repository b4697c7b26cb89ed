// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include <algorithm>
#include <cstring>
#include <type_traits>

#include "chain/lane_tile.h"
#include "vector/intrinsics.h"
#include "vector/target.h"
#include "vector/vector_steps.h"

namespace bitfold {
namespace {

struct AllKernels {
  LaneKernels<Datapath<int32_t>, int32_t> integer;
  LaneKernels<ModularDatapath, int32_t> modular;
  LaneKernels<Datapath<float>, float> dividing;
  LaneKernels<ReciprocalDatapath<float>, float> multiplying;
  RoundedKernels rounded;
  SumKernels<int32_t> integer_sums;
  SumKernels<float> float_sums;
};

template <bool kHalf>
inline int32_t Accumulate(const ModularDatapath&, int32_t acc, int32_t addend, int32_t*) {
  return ModularDatapath::Accumulate(acc, addend);
}

#define BITFOLD_LOOPS "chain/lane_loops.inc"
#define BITFOLD_LOOP_TABLE                                                                        \
  AllKernels {                                                                                    \
    kLaneKernelsOf<Datapath<int32_t>, int32_t>, kLaneKernelsOf<ModularDatapath, int32_t>,         \
        kLaneKernelsOf<Datapath<float>, float>, kLaneKernelsOf<ReciprocalDatapath<float>, float>, \
        kRoundedKernels, kSumKernelsOf<int32_t>, kSumKernelsOf<float>                             \
  }
#include "vector/vector_loops.inc"

}  // namespace

template <>
const LaneKernels<Datapath<int32_t>, int32_t>& LaneKernelsOf() {
  return CurrentLoops().integer;
}
template <>
const LaneKernels<ModularDatapath, int32_t>& LaneKernelsOf() {
  return CurrentLoops().modular;
}
template <>
const LaneKernels<Datapath<float>, float>& LaneKernelsOf() {
  return CurrentLoops().dividing;
}
template <>
const LaneKernels<ReciprocalDatapath<float>, float>& LaneKernelsOf() {
  return CurrentLoops().multiplying;
}

template <>
const SumKernels<int32_t>& CurrentSumKernels() {
  return CurrentLoops().integer_sums;
}
template <>
const SumKernels<float>& CurrentSumKernels() {
  return CurrentLoops().float_sums;
}

const RoundedKernels& CurrentRoundedKernels() { return CurrentLoops().rounded; }

}  // namespace bitfold
