// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/stored_quantise.h"

#include <cstdint>
#include <limits>
#include <type_traits>

#include "vector/target.h"

namespace bitfold {
namespace {

template <typename T>
using QuantiseLoop = void (*)(const float*, int64_t, const StoredScale&, int32_t, int32_t, T*);

struct QuantiseLoops {
  QuantiseLoop<int8_t> int8;
  QuantiseLoop<uint8_t> uint8;
  QuantiseLoop<int16_t> int16;
};

#define BITFOLD_LOOPS "cpu/stored_quantise_loops.inc"
#define BITFOLD_LOOP_TABLE \
  QuantiseLoops { QuantiseValues<int8_t>, QuantiseValues<uint8_t>, QuantiseValues<int16_t> }
#include "vector/vector_loops.inc"

template <typename T>
QuantiseLoop<T> CurrentLoop() {
  if constexpr (std::is_same_v<T, int8_t>) return CurrentLoops().int8;
  if constexpr (std::is_same_v<T, uint8_t>) return CurrentLoops().uint8;
  if constexpr (std::is_same_v<T, int16_t>) return CurrentLoops().int16;
}

}  // namespace

template <typename T>
void ComputeStoredQuantise(const StoredQuantiseCall<T>& call, Workers* workers) {
  constexpr int64_t kCost = 1;  // cycles of an element
  const QuantiseLoop<T> loop = CurrentLoop<T>();
  workers->Share(call.count, kCost, [&](int64_t first, int64_t end) {
    loop(call.values + first, end - first, call.scale, std::numeric_limits<T>::min(),
         std::numeric_limits<T>::max(), call.output + first);
  });
}

template void ComputeStoredQuantise(const StoredQuantiseCall<int8_t>&, Workers*);
template void ComputeStoredQuantise(const StoredQuantiseCall<uint8_t>&, Workers*);
template void ComputeStoredQuantise(const StoredQuantiseCall<int16_t>&, Workers*);

}  // namespace bitfold
