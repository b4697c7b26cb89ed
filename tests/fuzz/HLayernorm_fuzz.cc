// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Fuzzes the layer normalisation where it does not end the process: the definition against the
// oracle, the vector loops of every target against the definition.

#include <cstddef>
#include <cstdint>

#include "fuzz_input.h"
#include "support/layernorm_case.h"
#include "support/targets.h"
#include "support/workers.h"

namespace bitfold::testing {
namespace {

LayerNormCase ReadLayerNorm(FuzzInput* input) {
  LayerNormCase c;
  c.vector_size = input->Between(0, 70);
  c.width = input->Between(0, 2);
  c.height = input->Between(1, 2);
  const auto wide = [input] { return input->Flag() ? input->Byte() : input->Word(); };
  LayerNormParams& p = c.params;
  p.zero_point = static_cast<uint16_t>(wide());
  p.exponent_sub_value = input->Byte();
  p.sum_of_x_mult = static_cast<uint16_t>(wide());
  p.sum_of_x_shift = static_cast<uint8_t>(input->Between(0, 64));
  p.sum_of_x_mult_n_shift = static_cast<uint8_t>(input->Between(0, 64));
  p.x_squared_mult = static_cast<uint16_t>(wide());
  p.sum_of_x_squares_shift = static_cast<uint8_t>(input->Between(0, 64));
  p.epsilon = wide();
  p.mul_act_man = static_cast<uint16_t>(wide());
  p.mul_act_exp = static_cast<uint8_t>(input->Between(-11, 58));
  p.mul_act_bias = wide();
  p.activation_output_mode = input->Flag();
  p.activation_ebias_mode = input->Flag();
  p.rms_mode_enable = input->Flag();
  c.in = input->Values<float>(c.count());
  c.lut = input->Flag() ? PlainLut() : input->Values<float>(LUT_DEPTH);
  return c;
}

void Compare(FuzzInput* input) {
  const LayerNormCase c = ReadLayerNorm(input);
  const int offset = input->Between(0, 3);
  BackwardParts parts(input->Between(1, 4));
  const auto describe = [&c](int64_t i) { return c.Inputs(i); };
  ExactBuffer<float> oracle(c.count());
  if (OracleLayerNorm(c, &oracle) != reference::LayernormStatus::kOk) return;
  const auto definition = RunLayerNormBy(c, run_layernorm, offset);
  RequireSame(oracle.data(), definition.data(), c.count(), "definition", describe);
  for (const auto& [target, name] : SupportedTargets()) {
    const ForcedTarget forced(target);
    const auto loops = RunLayerNormBy(c, SharedBy<ComputeLayernorm>(&parts), offset);
    RequireSame(definition.data(), loops.data(), c.count(), name, describe);
  }
}

}  // namespace
}  // namespace bitfold::testing

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  bitfold::testing::FuzzInput input(data, size);
  bitfold::testing::Compare(&input);
  return 0;
}
