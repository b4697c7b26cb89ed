// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Fuzzes checked layers: the definition against the oracle, the layer that a target makes against
// the definition.

#include <cstddef>
#include <cstdint>

#include "fuzz_input.h"
#include "prepared_fuzz.h"
#include "stored_fuzz.h"
#include "support/checked_case.h"
#include "support/targets.h"
#include "support/workers.h"

namespace bitfold::testing {
namespace {

template <typename In, typename Out>
void Compare(FuzzInput* input) {
  PreparedCase<In, Out> layer;
  if (!ReadPrepared(input, &layer) || layer.mult_shift > kMostSummedShift) return;
  const CheckedCase<In, Out> c = Checked(layer);
  const auto describe = [&c](int64_t i) { return c.layer.Inputs(i); };
  const int offset = input->Between(0, 3);
  const auto definition = c.Definition(offset);
  const int64_t wrong = c.layer.OracleWrong();
  RequireSame(&wrong, &definition.wrong, 1, "definition", describe);
  const auto targets = AllTargets();
  const auto& [target, name] =
      targets[static_cast<size_t>(input->Between(0, static_cast<int>(targets.size()) - 1))];
  const ForcedTarget forced(target);
  CallingThread calling_thread;
  BackwardParts parts(1 + input->Between(0, 3));
  const auto checked = c.Prepare(&parts);
  for (Workers* workers : {static_cast<Workers*>(&calling_thread), static_cast<Workers*>(&parts)}) {
    const auto actual = c.By(*checked, workers, offset);
    RequireSame(&wrong, &actual.wrong, 1, name, describe);
    RequireSame(definition.stored.values.data(), actual.stored.values.data(), c.layer.count(), name,
                describe);
  }
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
