// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Fuzzes watched layers: the definition against the oracle, the layer that a target makes against
// the definition.

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "fuzz_input.h"
#include "prepared_fuzz.h"
#include "stored_fuzz.h"
#include "support/targets.h"
#include "support/watched_case.h"
#include "support/workers.h"

namespace bitfold::testing {
namespace {

template <typename In, typename Out>
void Compare(FuzzInput* input) {
  PreparedCase<In, Out> layer;
  if (!ReadPrepared(input, &layer) || layer.mult_shift > kMostSummedShift) return;
  std::vector<int32_t> sizes;
  for (int i = input->Between(0, 4); i > 0; --i) sizes.push_back(input->Between(1, 32));
  const WatchedCase<In, Out> c = Watched(layer, sizes);

  const auto entry = [&c](int64_t i) { return c.Entry(i); };
  const auto describe = [&c](int64_t i) { return c.layer.Inputs(i); };
  const int offset = input->Between(0, 3);
  const auto definition = c.Definition(offset);
  const auto oracle = c.OracleTables();
  RequireSame(oracle.data(), definition.tables.data(), c.TableCount(), "definition", entry);
  const auto targets = AllTargets();
  const auto& [target, name] =
      targets[static_cast<size_t>(input->Between(0, static_cast<int>(targets.size()) - 1))];
  const ForcedTarget forced(target);
  CallingThread calling_thread;
  BackwardParts parts(1 + input->Between(0, 3));
  const auto watched = c.Prepare(&parts);
  for (Workers* workers : {static_cast<Workers*>(&calling_thread), static_cast<Workers*>(&parts)}) {
    const auto actual = c.By(*watched, workers, offset);
    RequireSame(definition.tables.data(), actual.tables.data(), c.TableCount(), name, entry);
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
