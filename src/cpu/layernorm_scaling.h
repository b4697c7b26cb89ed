// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What the vector loops of layer normalisation scale elements by.

#ifndef BITFOLD_SRC_CPU_LAYERNORM_SCALING_H_
#define BITFOLD_SRC_CPU_LAYERNORM_SCALING_H_

#include <cstdint>

#include "bitfold/HLayernorm.h"

namespace bitfold {

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

inline ElementScaling MakeScaling(const LayerNormScale& scale, const LayerNormParams& params) {
  const LayerNormOutput output =
      params.activation_output_mode ? kLayerNormOutput16 : kLayerNormOutput8;
  ElementScaling s;
  s.mean = scale.mean;
  s.factor = scale.factor;
  s.shift = (scale.shift < 0 ? -scale.shift : int32_t{scale.shift}) & 63;
  s.multiplier = params.mul_act_man;
  s.activation_shift = LayerNormActivationShift(params.mul_act_exp, params.activation_ebias_mode);
  s.bias = params.mul_act_bias;
  s.out_shift = output.shift;
  s.out_half = 1 << (s.out_shift - 1);
  s.out_mask = (1 << s.out_shift) - 1;
  s.out_max = (1 << output.bits) - 1;
  return s;
}

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_LAYERNORM_SCALING_H_
