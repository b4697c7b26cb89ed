// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Fuzzes the activation: the definition against the oracle, the vector loops of every target
// against the definition.

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "fuzz_input.h"
#include "support/activation_case.h"
#include "support/targets.h"
#include "support/workers.h"

namespace bitfold::testing {
namespace {

// Small, of 32 bits, or of 64.
int64_t ReadInt64(FuzzInput* input) {
  const uint8_t kind = input->Byte();
  if (kind < 160) return static_cast<int8_t>(input->Byte());
  if (kind < 230) return static_cast<int32_t>(input->Word());
  const uint64_t high = input->Word();
  return static_cast<int64_t>(high << 32 | input->Word());
}

ActivationCase ReadActivation(FuzzInput* input) {
  ActivationCase c;
  c.positions = input->Between(0, 3);
  c.channels = input->Between(0, 2);
  for (int g = input->Between(0, 3); g > 0; --g) {
    c.size_splits.push_back(input->Between(-1, 40));
    c.channels += std::max<int64_t>(c.size_splits.back(), 0);
  }
  c.points = input->Between(0, input->Flag() ? 9 : 36);
  c.pieces = c.points + 1;
  const bool ascending = input->Between(0, 3) != 0;
  for (int64_t g = 0; g < c.groups(); ++g) {
    std::vector<int64_t> row;
    for (int64_t p = 0; p < c.points; ++p) row.push_back(ReadInt64(input));
    if (ascending) std::sort(row.begin(), row.end());
    c.x_points.insert(c.x_points.end(), row.begin(), row.end());
    for (int64_t k = 0; k < c.pieces; ++k) {
      c.offsets.push_back(ReadInt64(input));
      c.slopes_m.push_back(ReadInt64(input));
      c.slopes_e.push_back(ReadInt64(input));
    }
  }
  c.mode.is_8bit_to_16bit_mode = input->Flag();
  c.mode.is_velquin = input->Flag();
  c.mode.is_16bit_precision_mode = input->Flag();
  c.mode.ebias = static_cast<int32_t>(ReadInt64(input));
  c.mode.clip_bits = static_cast<int32_t>(ReadInt64(input));
  for (int64_t i = 0; i < c.count(); ++i) c.in.push_back(ReadInt64(input));
  return c;
}

void Compare(FuzzInput* input) {
  const ActivationCase c = ReadActivation(input);
  const int offset = input->Between(0, 3);
  BackwardParts parts(input->Between(1, 4));
  const auto describe = [&c](int64_t i) { return c.Inputs(i); };
  reference::ActivationStatus status;
  const auto oracle = OracleActivation(c, &status);
  if (status != reference::ActivationStatus::kOk) return;
  const auto zeroed = RunActivationBy(c, DefineActivation, offset, 0);
  RequireSame(oracle.data(), zeroed.data(), c.count(), "definition", describe);
  const auto definition = RunActivationBy(c, DefineActivation, offset);
  for (const auto& [target, name] : SupportedTargets()) {
    const ForcedTarget forced(target);
    const auto loops = RunActivationBy(c, SharedBy<ComputeActivation>(&parts), offset);
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
