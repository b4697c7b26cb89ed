// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/bilinear.h"

#include <vector>

#include "bitfold/HBilinear.h"
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
void RunBilinear(const T* ul, const T* ur, const T* bl, const T* br, const T* w00, const T* w10,
                 const T* w01, const T* w11, T* out, unsigned s, unsigned n, int8_t mult_shift,
                 float bias, int accumulator_size, bool float_accumulator) {
  const ReciprocalDatapath<T> datapath(accumulator_size, mult_shift, false);
  const BilinearInputs<T> in{{ul, ur, bl, br}, {w00, w10, w01, w11}};
  const T addend = BilinearBias<T>(bias);
  const std::vector<T> addends(kDatapathBlock, addend);
  const auto& loops = LoopsOf(datapath);
  for (int64_t item = 0; item < int64_t{n}; ++item) {
    const int64_t base = item * s;
    const auto fast = [&](int64_t j, int count) {
      T* result = out + base + j;
      BilinearInputs<T> block = in;
      for (int k = 0; k < 4; ++k) {
        block.neighbours[k] += base + j;
        block.weights[k] += j;
      }
      if (float_accumulator) {
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
    ForEachBlock(s, fast, [&](int64_t first, int64_t count) {
      HBilinearElements(datapath, in, addend, false, base, first, count, out);
    });
  }
}

template void RunBilinear<int32_t>(const int32_t*, const int32_t*, const int32_t*, const int32_t*,
                                   const int32_t*, const int32_t*, const int32_t*, const int32_t*,
                                   int32_t*, unsigned, unsigned, int8_t, float, int, bool);
template void RunBilinear<float>(const float*, const float*, const float*, const float*,
                                 const float*, const float*, const float*, const float*, float*,
                                 unsigned, unsigned, int8_t, float, int, bool);

}  // namespace bitfold
