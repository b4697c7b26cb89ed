// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Fuzzes the softmax: the definition against the oracle, the vector loops of every target against
// the definition, printed text included.

#include <cstddef>
#include <cstdint>

#include "fuzz_input.h"
#include "support/softmax_case.h"
#include "support/targets.h"
#include "support/workers.h"

namespace bitfold::testing {
namespace {

SoftmaxCase ReadSoftmax(FuzzInput* input) {
  SoftmaxCase c;
  c.is_velquin = input->Flag();
  c.vectors = input->Between(1, 3);
  // A table of few bytes: exponentials of one size, sums that fall or do not.
  const bool any = input->Flag();
  const int high = input->Between(0, 255) << 8;
  uint32_t sum = 0xffffff;
  std::vector<SoftmaxRow> rows;
  for (int k = 0; k < kSoftmaxRows; ++k) {
    sum = any ? input->Word() : sum - (sum >> 4) - 1;
    rows.push_back({static_cast<uint16_t>(high + input->Byte()), sum & 0xffffffu, input->Byte()});
  }
  c.table = PackSoftmaxTable(rows);
  // Long vectors reach sums above 2^24.
  const int size = input->Flag() ? input->Between(1, 40) : 256 + input->Between(0, 255);
  const bool near = input->Flag();
  for (int i = 0; i < c.vectors * size; ++i) {
    c.in.push_back(near ? static_cast<float>(input->Byte()) / 2.0f : FloatOf(input->Word()));
  }
  return c;
}

void Compare(FuzzInput* input) {
  const SoftmaxCase c = ReadSoftmax(input);
  const int offset = input->Between(0, 3);
  BackwardParts parts(input->Between(1, 4));
  const auto describe = [&c](int64_t i) { return c.Inputs(i); };
  const auto oracle = OracleSoftmax(c);
  const auto definition = RunSoftmaxBy(c, run_softmax, offset);
  RequireSame(oracle.values.data(), definition.values.data(), c.count(), "definition", describe);
  RequireSameText(oracle.lines, definition.lines, "definition", describe(0));
  for (const auto& [target, name] : SupportedTargets()) {
    const ForcedTarget forced(target);
    const auto loops = RunSoftmaxBy(c, SharedBy<ComputeSoftmax>(&parts), offset);
    RequireSame(definition.values.data(), loops.values.data(), c.count(), name, describe);
    RequireSameText(definition.lines, loops.lines, name, describe(0));
  }
}

}  // namespace
}  // namespace bitfold::testing

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  bitfold::testing::FuzzInput input(data, size);
  bitfold::testing::Compare(&input);
  return 0;
}
