// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/layernorm.h"

#include <cmath>
#include <vector>

#include "cpu/layernorm_scaling.h"
#include "frame/replay.h"
#include "vector/target.h"

namespace bitfold {
namespace {

struct LayerNormLoops {
  bool (*gather)(const float*, int, int32_t, int32_t*, int64_t*, uint64_t*);
  void (*scale_left)(const int32_t*, int, const ElementScaling&, float*);
  void (*scale_right)(const int32_t*, int, const ElementScaling&, float*);
};

#define BITFOLD_LOOPS "cpu/layernorm_loops.inc"
#define BITFOLD_LOOP_TABLE \
  LayerNormLoops { Gather, ScaleLeft, ScaleRight }
#include "vector/vector_loops.inc"

// Whether no shift of the parameters ends the process, and the activation stage's is one that the
// loops make: of those above 63 only 64 counts as another one.
bool HasPlainShifts(const LayerNormParams& params) {
  constexpr uint8_t kMost = 64;
  return params.sum_of_x_shift <= kMost && params.sum_of_x_squares_shift <= kMost &&
         params.sum_of_x_mult_n_shift <= kMost &&
         LayerNormActivationShift(params.mul_act_exp, params.activation_ebias_mode) < kMost;
}

// What vectors share.
struct VectorSetting {
  const float* lut;
  const LayerNormParams& params;
  const LayerNormLoops& loops;
};

// False where the definition is needed, which may end the process. Requires plain shifts.
bool NormalizeByLoops(const float* x, float* y, std::vector<int32_t>* elements,
                      const VectorSetting& setting) {
  const auto size = static_cast<int>(elements->size());
  const LayerNormParams& params = setting.params;
  int64_t sum;
  uint64_t squares;
  if (!setting.loops.gather(x, size, params.zero_point, elements->data(), &sum, &squares)) {
    return false;
  }
  const uint64_t scaled_squares = squares * params.x_squared_mult;  // modulo 2^64, as each term is
  if (!IsSumOfSquares(scaled_squares)) return false;
  const int64_t rounded_sum = RoundedSum(static_cast<int32_t>(static_cast<uint32_t>(sum)), params);
  const uint64_t variance = LayerNormVariance(rounded_sum, scaled_squares, params);
  if (variance == 0) return false;
  const LayerNormScale scale = GetLayerNormScale(rounded_sum, variance, setting.lut, params);
  const auto scale_elements =
      scale.shift >= 0 ? setting.loops.scale_left : setting.loops.scale_right;
  scale_elements(elements->data(), size, MakeScaling(scale, params), y);
  return true;
}

}  // namespace

void ComputeLayernorm(const float* in, float* out, const LayerNormShape& shape, const float* lut,
                      const LayerNormParams& params, Workers* workers) {
  if (shape.batch < 1 || shape.height < 1 || shape.width < 1) return;
  const int64_t size = shape.vector_size;
  // Vectors without elements write nothing, and all end the process or none does.
  if (size == 0) return normalize_vector(in, out, 0, lut, params);
  if (!HasPlainShifts(params)) return run_layernorm(in, out, shape, lut, params);
  const VectorSetting setting{lut, params, CurrentLoops()};
  const auto part = [&](int64_t first, int64_t end, const Replay& replay) {
    std::vector<int32_t> elements(static_cast<size_t>(size));
    for (int64_t v = first; v < end; ++v) {
      if (!NormalizeByLoops(in + v * size, out + v * size, &elements, setting)) replay(v);
    }
  };
  const int64_t cost = 150 + 2 * size;  // cycles of a vector
  ShareWithReplay(workers, shape.vectors(), cost, part, [&](int64_t v) {
    normalize_vector(in + v * size, out + v * size, shape.vector_size, lut, params);
  });
}

}  // namespace bitfold
