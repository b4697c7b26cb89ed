// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Fuzzes prepared layers: the definition against the oracle, the layer that a target makes
// against the definition.

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "fuzz_input.h"
#include "stored_fuzz.h"
#include "support/prepared_case.h"
#include "support/targets.h"
#include "support/workers.h"

namespace bitfold::testing {
namespace {

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

template <typename In, typename Out>
void Compare(FuzzInput* input) {
  PreparedCase<In, Out> c;
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
  if (!ReadMultipliers(input, c.mode, c.out_channels, &c.multipliers)) return;
  if (!is_wide && input->Flag()) c.bias = input->Values<int32_t>(c.out_channels);
  c.filter = ReadStored<int8_t>(input, c.FilterElements());
  c.input = ReadStored<In>(input, c.InputElements());

  const auto describe = [&c](int64_t i) { return c.Inputs(i); };
  const int offset = input->Between(0, 3);
  const auto definition = c.Definition(offset);
  const auto oracle = c.Oracle();
  RequireSame(oracle.values.data(), definition.values.data(), c.count(), "definition", describe);
  RequireSameText(oracle.lines, definition.lines, "definition", c.Inputs(0));
  const auto targets = AllTargets();
  const auto& [target, name] =
      targets[static_cast<size_t>(input->Between(0, static_cast<int>(targets.size()) - 1))];
  const ForcedTarget forced(target);
  CallingThread calling_thread;
  BackwardParts parts(1 + input->Between(0, 3));
  const auto layer = c.Prepare(&parts);
  const auto whole = c.By(*layer, &calling_thread, offset);
  RequireSame(definition.values.data(), whole.values.data(), c.count(), name, describe);
  RequireSameText(definition.lines, whole.lines, name, c.Inputs(0));
  const auto shared = c.By(*layer, &parts, offset);
  RequireSame(definition.values.data(), shared.values.data(), c.count(), name, describe);
}

}  // namespace
}  // namespace bitfold::testing

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  bitfold::testing::FuzzInput input(data, size);
  bitfold::testing::ForStoredTypes(&input, [&input](auto in, auto out) {
    bitfold::testing::Compare<decltype(in), decltype(out)>(&input);
  });
  return 0;
}
