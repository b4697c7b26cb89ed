// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/layernorm.h"

#include <cmath>
#include <vector>

#include "vector/target.h"

namespace bitfold {
namespace {

// What ScaleElements needs of LayerNormScale and LayerNormParams, in the forms that its loop takes.
struct ElementScaling {
  int64_t mean;
  int64_t factor;
  int32_t shift;  // 0 to 63
  int32_t multiplier;
  int32_t activation_shift;  // 0 to 63
  int64_t bias;
  int32_t out_shift;
  int32_t out_mask;
  int32_t out_half;
  int32_t out_max;
};

struct LayerNormLoops {
  bool (*gather)(const float*, int, int32_t, int32_t*, int64_t*, uint64_t*);
  void (*scale_left)(const int32_t*, int, const ElementScaling&, float*);
  void (*scale_right)(const int32_t*, int, const ElementScaling&, float*);
};

#define BITFOLD_LOOPS "cpu/layernorm_loops.inc"
#define BITFOLD_LOOP_TABLE \
  LayerNormLoops { Gather, ScaleLeft, ScaleRight }
#include "vector/vector_loops.inc"

ElementScaling MakeScaling(const LayerNormScale& scale, const LayerNormParams& params) {
  const LayerNormOutput output =
      params.activation_output_mode ? kLayerNormOutput16 : kLayerNormOutput8;
  ElementScaling s;
  s.mean = scale.mean;
  s.factor = scale.factor;
  s.shift = (scale.shift >= 0 ? scale.shift : -scale.shift) & 63;
  s.multiplier = params.mul_act_man;
  s.activation_shift = LayerNormActivationShift(params.mul_act_exp, params.activation_ebias_mode);
  s.bias = params.mul_act_bias;
  s.out_shift = output.shift;
  s.out_half = 1 << (s.out_shift - 1);
  s.out_mask = (1 << s.out_shift) - 1;
  s.out_max = (1 << output.bits) - 1;
  return s;
}

}  // namespace

void ComputeLayernorm(const float* in, float* out, const LayerNormShape& shape, const float* lut,
                      const LayerNormParams& params) {
  if (shape.batch < 1 || shape.height < 1 || shape.width < 1) return;
  // Vectors without elements write nothing, and all end the process or none does.
  if (shape.vector_size == 0) return normalize_vector(in, out, 0, lut, params);
  const LayerNormLoops& loops = CurrentLoops();
  // Of the activation shifts only 64 counts as another one; above it the definition ends the
  // process.
  const bool plain_shift =
      LayerNormActivationShift(params.mul_act_exp, params.activation_ebias_mode) < 64;
  const int vector_size = shape.vector_size;
  std::vector<int32_t> elements(static_cast<size_t>(vector_size));
  for (int64_t v = 0; v < shape.vectors(); ++v) {
    const float* x = in + v * vector_size;
    float* y = out + v * vector_size;
    int64_t sum;
    uint64_t squares;
    if (!plain_shift ||
        !loops.gather(x, vector_size, params.zero_point, elements.data(), &sum, &squares)) {
      normalize_vector(x, y, vector_size, lut, params);
      continue;
    }
    const int64_t rounded_sum =
        RoundedSum(static_cast<int32_t>(static_cast<uint32_t>(sum)), params);
    // Modulo 2^64 the multiplier may follow the sum.
    const uint64_t scaled_squares = CheckedSumOfSquares(squares * params.x_squared_mult);
    const LayerNormScale scale = GetLayerNormScale(rounded_sum, scaled_squares, lut, params);
    const ElementScaling scaling = MakeScaling(scale, params);
    (scale.shift >= 0 ? loops.scale_left : loops.scale_right)(elements.data(), vector_size, scaling,
                                                              y);
  }
}

}  // namespace bitfold
