// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/bilinear.h"

#include <vector>

#include "cpu/vector_datapath.h"
#include "vector/target.h"

namespace bitfold {
namespace {

template <typename T>
using AddUnlimitedLoop = void (*)(const BilinearInputs<T>&, T, int, T*);

struct BilinearLoops {
  AddUnlimitedLoop<int32_t> integer;
  AddUnlimitedLoop<float> real;
};

#define BITFOLD_LOOPS "cpu/bilinear_loops.inc"
#define BITFOLD_LOOP_TABLE \
  BilinearLoops { AddUnlimitedProducts<int32_t>, AddUnlimitedProducts<float> }
#include "vector/vector_loops.inc"

AddUnlimitedLoop<int32_t> UnlimitedLoop(int32_t) { return CurrentLoops().integer; }
AddUnlimitedLoop<float> UnlimitedLoop(float) { return CurrentLoops().real; }

}  // namespace

template <typename T>
void ComputeBilinear(const BilinearCall<T>& call) {
  const auto datapath = MakeDatapath<ReciprocalDatapath<T>>(call.attributes);
  const T addend = BilinearBias<T>(call.bias);
  const std::vector<T> addends(kDatapathBlock, addend);
  const auto& loops = LoopsOf(datapath);
  for (int64_t item = 0; item < int64_t{call.items}; ++item) {
    const int64_t base = item * call.item_size;
    const auto fast = [&](int64_t j, int count) {
      T* result = call.output + base + j;
      BilinearInputs<T> block = call.inputs;
      for (int k = 0; k < 4; ++k) {
        block.neighbours[k] += base + j;
        block.weights[k] += j;
      }
      if (call.float_accumulator) {
        UnlimitedLoop(T{})(block, addend, count, result);
        return false;
      }
      bool warned = false;
      const T* acc = addends.data();
      for (int k = 0; k < 4; ++k) {
        warned |= loops.accumulate_products(datapath, acc, block.neighbours[k], block.weights[k],
                                            count, result);
        acc = result;
      }
      return warned;
    };
    ForEachBlock(call.item_size, fast,
                 [&](int64_t first, int64_t count) { DefineBilinear(call, item, first, count); });
  }
}

template void ComputeBilinear<int32_t>(const BilinearCall<int32_t>&);
template void ComputeBilinear<float>(const BilinearCall<float>&);

}  // namespace bitfold
