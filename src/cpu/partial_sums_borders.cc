// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/partial_sums_borders.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "vector/intrinsics.h"
#include "vector/target.h"
#include "vector/target_code.h"

namespace bitfold {

#if BITFOLD_HAS_TARGETS
namespace {

inline int32_t WordAt(const uint8_t* x) {
  int32_t word;
  std::memcpy(&word, x, sizeof word);
  return word;
}

// From a word's bytes to their magnitudes.
constexpr int32_t MagnitudesAt(int32_t x_word) { return x_word - 4; }

BITFOLD_BEGIN_AVX512_VNNI
namespace avx512_vnni {

// A tile in registers, step by step.
#include "cpu/partial_sums_steps.inc"
// From segment to segment, and what one may have inside.
#include "cpu/partial_sums_advance.inc"
#include "cpu/partial_sums_spans.inc"
// What it has inside.
#include "cpu/partial_sums_count.inc"
#include "cpu/partial_sums_resolve.inc"

#define BITFOLD_ADVANCE(pixels) \
  { Advance<pixels, false>, Advance<pixels, true> }
constexpr BorderKernels kKernels = {
    {14, 7, 2, 1},
    {BITFOLD_ADVANCE(14), BITFOLD_ADVANCE(7), BITFOLD_ADVANCE(2), BITFOLD_ADVANCE(1)},
    Resolve};
#undef BITFOLD_ADVANCE

}  // namespace avx512_vnni
BITFOLD_END_TARGET

}  // namespace
#endif  // BITFOLD_HAS_TARGETS

const BorderKernels* CurrentBorderKernels() {
#if BITFOLD_HAS_TARGETS
  if (CurrentTarget() == Target::kAvx512Vnni) return &avx512_vnni::kKernels;
#endif
  return nullptr;
}

}  // namespace bitfold
