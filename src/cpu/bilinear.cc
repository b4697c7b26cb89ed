// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/bilinear.h"

#include <vector>

#include "cpu/vector_datapath.h"
#include "frame/replay.h"
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
void ComputeBilinear(const BilinearCall<T>& call, Workers* workers) {
  constexpr int64_t kCost = 1500;  // cycles of a block
  const int64_t size = call.item_size;
  const int64_t blocks = BlocksOf(size);
  const auto datapath = MakeDatapath<ReciprocalDatapath<T>>(call.attributes);
  const T addend = BilinearBias<T>(call.bias);
  const std::vector<T> addends(kDatapathBlock, addend);
  const auto& loops = LoopsOf(datapath);
  const auto compute = [&](int64_t item, int64_t first, int count) {
    const int64_t at = item * size + first;
    BilinearInputs<T> block = call.inputs;
    for (int k = 0; k < 4; ++k) {
      block.neighbours[k] += at;
      block.weights[k] += first;
    }
    T* result = call.output + at;
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
  const auto part = [&](int64_t first, int64_t end, const Replay& replay) {
    int64_t item = first / blocks;
    int64_t block = first % blocks;
    for (int64_t unit = first; unit < end; ++unit) {
      if (compute(item, block * kDatapathBlock, BlockSize(block, size))) replay(unit);
      if (++block < blocks) continue;
      block = 0;
      ++item;
    }
  };
  ShareWithReplay(workers, call.items * blocks, kCost, part, [&](int64_t unit) {
    const int64_t block = unit % blocks;
    DefineBilinear(call, unit / blocks, block * kDatapathBlock, BlockSize(block, size));
  });
}

template void ComputeBilinear<int32_t>(const BilinearCall<int32_t>&, Workers*);
template void ComputeBilinear<float>(const BilinearCall<float>&, Workers*);

}  // namespace bitfold
