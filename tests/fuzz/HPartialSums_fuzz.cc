// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Fuzzes partial sums: the definition against the oracle, the form of a target against the
// definition.

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "fuzz_input.h"
#include "stored_fuzz.h"
#include "support/partial_sums_case.h"
#include "support/targets.h"
#include "support/workers.h"

namespace bitfold::testing {
namespace {

template <typename In, typename Weight>
void Compare(FuzzInput* input) {
  PartialSumsCase<In, Weight> c;
  c.batch = input->Between(0, 3);
  c.rows = ReadAxis(input);
  c.columns = ReadAxis(input);
  c.rows.padding = c.columns.padding = input->Flag() ? Padding::kSame : Padding::kValid;
  c.is_depthwise = input->Between(0, 3) == 0;
  c.in_channels = input->Between(1, input->Flag() ? 36 : 5);
  c.out_channels = input->Between(1, c.is_depthwise ? c.in_channels : 36);
  c.filters = input->Between(0, 4) == 0 ? std::max(1, c.batch) : 1;
  c.input_zero_point = input->Flag() ? 0 : static_cast<In>(input->Word());
  c.filter_zero_point = input->Flag() ? 0 : static_cast<Weight>(input->Word());
  c.mult_shift = input->Flag() ? 0 : input->Between(0, kMostSummedShift);
  for (int i = input->Between(0, 3); i > 0; --i) c.sizes.push_back(input->Between(1, 32));
  if (input->Flag()) {
    for (const int32_t value : input->Values<int32_t>(c.out_channels)) {
      c.bias.push_back(int64_t{value} * (int64_t{1} << input->Between(0, 31)));
    }
  }
  if (input->Flag()) {
    for (const int32_t value : input->Values<int32_t>(kSumExtremes * c.out_channels)) {
      c.known.push_back(value);
    }
  }
  c.filter = ReadStored<Weight>(input, c.FilterElements());
  c.input = ReadStored<In>(input, c.InputElements());

  const auto describe = [&c](int64_t i) { return c.Inputs(i); };
  const int offset = input->Between(0, 3);
  const auto definition = c.Definition(offset);
  RequireSame(c.Oracle().data(), definition.data(), c.count(), "definition", describe);
  const auto targets = AllTargets();
  const auto& [target, name] =
      targets[static_cast<size_t>(input->Between(0, static_cast<int>(targets.size()) - 1))];
  const ForcedTarget forced(target);
  CallingThread calling_thread;
  BackwardParts parts(1 + input->Between(0, 3));
  const auto whole = c.Computed(&calling_thread, offset);
  RequireSame(definition.data(), whole.data(), c.count(), name, describe);
  const auto shared = c.Computed(&parts, offset);
  RequireSame(definition.data(), shared.data(), c.count(), name, describe);
}

}  // namespace
}  // namespace bitfold::testing

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using bitfold::testing::Compare;
  bitfold::testing::FuzzInput input(data, size);
  switch (input.Between(0, 5)) {
    case 0:
      Compare<int8_t, int16_t>(&input);
      break;
    case 1:
      Compare<int16_t, int8_t>(&input);
      break;
    case 2:
      Compare<int16_t, int16_t>(&input);
      break;
    default:
      Compare<int8_t, int8_t>(&input);
  }
  return 0;
}
