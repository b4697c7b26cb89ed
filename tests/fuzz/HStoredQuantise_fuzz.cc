// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Fuzzes the quantisation of real numbers: the definition against the oracle, the vector loops of
// every target against the definition.

#include <cmath>
#include <cstddef>
#include <cstdint>

#include "fuzz_input.h"
#include "support/stored_quantise_case.h"
#include "support/targets.h"
#include "support/workers.h"

namespace bitfold::testing {
namespace {

template <typename T>
void Compare(FuzzInput* input) {
  StoredQuantiseCase<T> c;
  c.scale.scale = FloatOf(input->Word() & 0x7fffffff);
  if (!(c.scale.scale > 0) || !std::isfinite(c.scale.scale)) return;
  c.scale.zero_point = sizeof(T) == 2 ? 0 : static_cast<T>(input->Byte());
  const int count = input->Count();
  for (int i = 0; i < count; ++i) {
    const auto steps = static_cast<float>(static_cast<int32_t>(input->Word()) >> 14) / 2.0F;
    c.values.push_back(input->Flag() ? FloatOf(input->Word()) : steps * c.scale.scale);
  }
  const int offset = input->Between(0, 3);
  const auto describe = [&c](int64_t i) { return c.Inputs(i); };
  const auto definition = c.Definition(offset);
  RequireSame(c.Oracle().data(), definition.data(), c.count(), "definition", describe);
  BackwardParts parts(1 + input->Byte());
  for (const auto& [target, name] : SupportedTargets()) {
    const ForcedTarget forced(target);
    const auto loops = c.Loops(&parts, offset);
    RequireSame(definition.data(), loops.data(), c.count(), name, describe);
  }
}

}  // namespace
}  // namespace bitfold::testing

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using bitfold::testing::Compare;
  bitfold::testing::FuzzInput input(data, size);
  switch (input.Between(0, 2)) {
    case 0:
      Compare<int8_t>(&input);
      break;
    case 1:
      Compare<uint8_t>(&input);
      break;
    default:
      Compare<int16_t>(&input);
  }
  return 0;
}
