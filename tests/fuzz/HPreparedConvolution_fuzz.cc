// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Fuzzes prepared layers: the definition against the oracle, the layer that a target makes
// against the definition.

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "fuzz_input.h"
#include "prepared_fuzz.h"
#include "stored_fuzz.h"
#include "support/prepared_case.h"
#include "support/targets.h"
#include "support/workers.h"

namespace bitfold::testing {
namespace {

template <typename In, typename Out>
void Compare(FuzzInput* input) {
  PreparedCase<In, Out> c;
  if (!ReadPrepared(input, &c)) return;

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
