// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Fuzzes tables of stored elements: the definition against the oracle, the vector loops of every
// target against the definition.

#include <cstddef>
#include <cstdint>

#include "fuzz_input.h"
#include "support/stored_lookup_case.h"
#include "support/targets.h"
#include "support/workers.h"

namespace bitfold::testing {
namespace {

template <typename T, typename Out>
void Compare(FuzzInput* input) {
  StoredLookupCase<T, Out> c;
  const uint32_t factor = input->Word() | 1;
  for (uint32_t i = 0; i < kTableEntries<T>; ++i) {
    c.table.push_back(static_cast<Out>((i * factor) >> 7));
  }
  const int count = input->Count();
  for (int i = 0; i < count; ++i) c.data.push_back(static_cast<T>(input->Word() >> 8));
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
  switch (input.Between(0, 4)) {
    case 0:
      Compare<int8_t, int8_t>(&input);
      break;
    case 1:
      Compare<uint8_t, int8_t>(&input);
      break;
    case 2:
      Compare<int8_t, int16_t>(&input);
      break;
    case 3:
      Compare<int16_t, uint8_t>(&input);
      break;
    default:
      Compare<int16_t, int16_t>(&input);
  }
  return 0;
}
