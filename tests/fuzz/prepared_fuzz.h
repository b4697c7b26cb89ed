// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Prepared layers as fuzz targets read them.

#ifndef BITFOLD_TESTS_FUZZ_PREPARED_FUZZ_H_
#define BITFOLD_TESTS_FUZZ_PREPARED_FUZZ_H_

#include <cstdint>

#include "fuzz_input.h"
#include "stored_fuzz.h"
#include "support/prepared_case.h"

namespace bitfold::testing {

// Makes its sums wide.
template <typename In, typename Out>
void Widen(FuzzInput* input, PreparedCase<In, Out>* c) {
  c->accumulator_size = kWideAccumulator;
  c->use_fp16_acc = false;
  if (c->mode.rescaling == Rescaling::kTwoRoundings) {
    c->mode.rescaling = Rescaling::kShortMultiplier;
  }
  for (int32_t i = 0; i < c->out_channels; ++i) {
    const uint64_t high = input->Word();
    const auto word = static_cast<int64_t>(high << 32 | input->Word());
    c->wide_bias.push_back(word >> input->Between(0, 63));
  }
  if (input->Flag()) c->wide_bias.clear();
}

// Returns whether there was one.
template <typename In, typename Out>
bool ReadPrepared(FuzzInput* input, PreparedCase<In, Out>* layer) {
  PreparedCase<In, Out>& c = *layer;
  c.batch = input->Between(1, 3);
  c.rows = ReadAxis(input);
  c.columns = ReadAxis(input);
  c.rows.padding = c.columns.padding = input->Flag() ? Padding::kSame : Padding::kValid;
  c.is_depthwise = input->Between(0, 3) == 0;
  c.in_channels = input->Between(1, input->Flag() ? 36 : 5);
  c.out_channels = input->Between(1, c.is_depthwise ? c.in_channels : 36);
  c.zero_point = input->Flag() ? 0 : static_cast<In>(input->Word());
  c.use_fp16_acc = input->Between(0, 3) == 0;
  c.accumulator_size = input->Width<int32_t>();
  c.mult_shift = input->Flag() ? 0 : input->Between(0, c.use_fp16_acc ? 6 : 31);
  c.mode = ReadMode<Out>(input, c.mult_shift);
  const bool is_wide = input->Between(0, 3) == 0;
  if (is_wide) Widen(input, &c);
  if (!ReadMultipliers(input, c.mode, c.out_channels, &c.multipliers)) return false;
  if (!is_wide && input->Flag()) c.bias = input->Values<int32_t>(c.out_channels);
  c.filter = ReadStored<int8_t>(input, c.FilterElements());
  c.input = ReadStored<In>(input, c.InputElements());
  return true;
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_FUZZ_PREPARED_FUZZ_H_
