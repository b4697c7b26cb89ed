// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/softmax.h"

#include <cstring>
#include <limits>
#include <vector>

#include "bitfold/HSoftmax.h"
#include "frame/replay.h"
#include "vector/target.h"

namespace bitfold {
namespace {

struct SoftmaxLoops {
  float (*maximum)(const float*, int);
  int64_t (*look_up)(const float*, int, float, const int32_t*, int32_t*);
  void (*scale)(const int32_t*, int, int32_t, float*);
};

#define BITFOLD_LOOPS "cpu/softmax_loops.inc"
#define BITFOLD_LOOP_TABLE \
  SoftmaxLoops { Maximum, LookUp, Scale }
#include "vector/vector_loops.inc"

// Up to here every whole number is exact in single precision.
constexpr int64_t kExactFloat = int64_t{1} << 24;

// The sum in single precision, formed in order. All terms are whole and not negative, so while the
// total is exact every partial sum is, and the order does not matter.
float SumInOrder(const std::vector<int32_t>& exponentials, int64_t total) {
  if (total <= kExactFloat) return static_cast<float>(total);
  float sum = 0.0f;
  for (const int32_t exponential : exponentials) sum += static_cast<float>(exponential);
  return sum;
}

}  // namespace

void ComputeSoftmax(const float* in, float* out, int total, int num_vectors,
                    const uint32_t* lut_table, bool is_velquin, Workers* workers) {
  if (num_vectors <= 0 || total < num_vectors) return;
  uint16_t exp_lut[kSoftmaxRows];
  SoftmaxSum sums[kSoftmaxRows];
  parse_lut_table(lut_table, kSoftmaxTableWords, exp_lut, sums);
  int32_t table[kSoftmaxRows + 1];
  for (int k = 0; k < kSoftmaxRows; ++k) table[k] = exp_lut[k];
  table[kSoftmaxRows] = 0;

  const SoftmaxLoops& loops = CurrentLoops();
  const int size = total / num_vectors;
  const int64_t cost = 150 + int64_t{5} * size / 2;  // cycles of a vector
  const auto part = [&](int64_t first, int64_t end, const Replay& replay) {
    std::vector<int32_t> exponentials(static_cast<size_t>(size));
    for (int64_t v = first; v < end; ++v) {
      const float* x = in + v * size;
      const float maximum = loops.maximum(x, size);
      const int64_t whole = loops.look_up(x, size, maximum, table, exponentials.data());
      const float sum = SumInOrder(exponentials, whole);
      if (OverflowsSoftmax(sum, is_velquin)) replay(v);
      const int32_t reciprocal = LimitedSoftmaxReciprocal(sum, sums, is_velquin);
      loops.scale(exponentials.data(), size, reciprocal, out + v * size);
    }
  };
  ShareWithReplay(workers, num_vectors, cost, part, [](int64_t) { WarnSoftmaxOverflow(); });
}

}  // namespace bitfold
