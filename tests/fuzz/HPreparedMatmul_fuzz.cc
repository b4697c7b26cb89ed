// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Fuzzes products of stored matrices: the definition against the oracle, what a target makes
// against the definition.

#include <cstddef>
#include <cstdint>

#include "fuzz_input.h"
#include "stored_fuzz.h"
#include "support/prepared_matmul_case.h"
#include "support/targets.h"
#include "support/workers.h"

namespace bitfold::testing {
namespace {

template <typename In, typename Out>
void Compare(FuzzInput* input) {
  PreparedMatmulCase<In, Out> c;
  for (int i = input->Between(0, 2); i > 0; --i) {
    const int32_t size = input->Between(1, 4);
    c.fronts[0].push_back(input->Flag() ? size : 1);
    c.fronts[1].push_back(input->Flag() ? size : 1);
  }
  if (c.fronts[1].empty()) c.matrices = input->Between(1, 3);
  c.rows = input->Between(1, input->Flag() ? 20 : 4);
  c.inner = input->Between(1, input->Flag() ? 36 : 5);
  c.cols = input->Between(1, input->Flag() ? 36 : 5);
  c.transpose_first = input->Flag();
  c.transpose_second = input->Flag();
  for (int32_t& zero_point : c.zero_points) {
    zero_point = input->Flag() ? 0 : static_cast<In>(input->Word());
  }
  c.use_fp16_acc = input->Between(0, 3) == 0;
  c.accumulator_size = input->Width<int32_t>();
  c.mode = ReadMode<Out>(input, input->Flag() ? 0 : input->Between(0, c.use_fp16_acc ? 6 : 31));
  if (!ReadMultipliers(input, c.mode, c.cols, &c.multipliers)) return;
  c.first = ReadStored<In>(input, c.FirstCount());
  c.second = ReadStored<In>(input, c.SecondCount());

  const int offset = input->Between(0, 3);
  const auto definition = c.Definition(offset);
  Require(SameMatmul(c, c.Oracle(), definition, "definition"));
  const auto targets = AllTargets();
  const auto& [target, name] =
      targets[static_cast<size_t>(input->Between(0, static_cast<int>(targets.size()) - 1))];
  const ForcedTarget forced(target);
  CallingThread calling_thread;
  BackwardParts parts(1 + input->Between(0, 3));
  const auto matmul = c.Prepare();
  Require(SameMatmul(c, definition, c.By(*matmul, &calling_thread, offset), name));
  Require(SameMatmul(c, definition, c.By(*matmul, &parts, offset), name));
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
