// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The layer normalisation unit as its tests see it: one case, its random draws, and the oracle's
// view of it.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_LAYERNORM_CASE_H_
#define BITFOLD_TESTS_CPP_SUPPORT_LAYERNORM_CASE_H_

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "bitfold/HLayernorm.h"
#include "cpu/layernorm.h"
#include "reference/layernorm.h"
#include "support/bits.h"
#include "support/buffer.h"

namespace bitfold::testing {

inline reference::LayernormParams OracleParams(const LayerNormParams& p) {
  reference::LayernormParams q;
  q.zero_point = p.zero_point;
  q.exponent_sub_value = p.exponent_sub_value;
  q.sum_of_x_mult = p.sum_of_x_mult;
  q.sum_of_x_shift = p.sum_of_x_shift;
  q.sum_of_x_mult_n_shift = p.sum_of_x_mult_n_shift;
  q.x_squared_mult = p.x_squared_mult;
  q.sum_of_x_squares_shift = p.sum_of_x_squares_shift;
  q.epsilon = p.epsilon;
  q.mul_act_man = p.mul_act_man;
  q.mul_act_exp = p.mul_act_exp;
  q.mul_act_bias = p.mul_act_bias;
  q.activation_output_mode = p.activation_output_mode;
  q.activation_ebias_mode = p.activation_ebias_mode;
  q.rms_mode_enable = p.rms_mode_enable;
  return q;
}

inline std::string Describe(const LayerNormParams& p) {
  const auto number = [](int64_t x) { return x; };
  return Describe("zero_point", number(p.zero_point), "exponent_sub_value",
                  number(p.exponent_sub_value), "sum_of_x_mult", number(p.sum_of_x_mult),
                  "sum_of_x_shift", number(p.sum_of_x_shift), "sum_of_x_mult_n_shift",
                  number(p.sum_of_x_mult_n_shift)) +
         Describe("x_squared_mult", number(p.x_squared_mult), "sum_of_x_squares_shift",
                  number(p.sum_of_x_squares_shift), "epsilon", number(p.epsilon), "mul_act_man",
                  number(p.mul_act_man), "mul_act_exp", number(p.mul_act_exp), "mul_act_bias",
                  number(p.mul_act_bias)) +
         Describe("activation_output_mode", p.activation_output_mode, "activation_ebias_mode",
                  p.activation_ebias_mode, "rms_mode_enable", p.rms_mode_enable);
}

struct LayerNormCase {
  std::vector<float> in;
  int vector_size = 0;
  int width = 1;
  int height = 1;
  int batch = 1;
  std::vector<float> lut;
  LayerNormParams params = {};

  int64_t count() const { return int64_t{batch} * height * width * vector_size; }

  std::string Inputs(int64_t i) const {
    return Describe("in", in[static_cast<size_t>(i)], "channel", i % vector_size, "of",
                    int64_t{vector_size}) +
           Describe(params);
  }
};

// The oracle's output and whether it has one: not where the unit ends the process.
inline reference::LayernormStatus OracleLayerNorm(const LayerNormCase& c,
                                                  ExactBuffer<float>* output) {
  return reference::RunLayernorm(c.in.data(), output->data(), c.vector_size, c.width, c.height,
                                 c.batch, c.lut.data(), OracleParams(c.params));
}

inline reference::LayernormStatus StatusOf(const LayerNormCase& c) {
  ExactBuffer<float> output(c.count());
  return OracleLayerNorm(c, &output);
}

// Inverse square roots with slopes.
inline std::vector<float> PlainLut() {
  std::vector<float> lut(256, 0.0f);
  for (int i = 64; i < 256; ++i) {
    const auto at = [](int k) { return static_cast<int>(65532.0 / std::sqrt(k / 64.0)); };
    const int slope = (at(i) - at(i + 1) + 128) / 256;
    lut[static_cast<size_t>(i)] = static_cast<float>(at(i) + (slope << 16));
  }
  return lut;
}

// A setting that real networks use: vectors of n elements around zero_point.
inline LayerNormParams PlainParams(int n, int zero_point = 0) {
  LayerNormParams p = {};
  int log2 = 0;
  while (1 << log2 < n) ++log2;
  p.zero_point = static_cast<uint16_t>(zero_point);
  p.exponent_sub_value = static_cast<uint8_t>(log2 + 4);
  p.sum_of_x_mult = static_cast<uint16_t>((1 << (log2 + 7)) / (n > 0 ? n : 1));
  p.sum_of_x_mult_n_shift = static_cast<uint8_t>(log2 + 7);
  p.x_squared_mult = static_cast<uint16_t>(n);
  p.epsilon = 1;
  p.mul_act_man = 91;
  p.mul_act_exp = 4;
  p.mul_act_bias = 131072;
  return p;
}

template <typename Run>
ExactBuffer<float> RunLayerNormBy(const LayerNormCase& c, Run run, int offset = 0) {
  const ExactBuffer<float> in(c.in, offset);
  const ExactBuffer<float> lut(c.lut, (offset + 1) % 4);
  ExactBuffer<float> out(c.count(), (offset + 2) % 4);
  const LayerNormShape shape = {c.vector_size, c.width, c.height, c.batch};
  run(in.data(), out.data(), shape, lut.data(), c.params);
  return out;
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_LAYERNORM_CASE_H_
