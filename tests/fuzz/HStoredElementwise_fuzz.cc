// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Fuzzes sums, differences and products of stored tensors: the definition against the oracle, the
// vector loops of every target against the definition.

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <utility>

#include "fuzz_input.h"
#include "support/stored_elementwise_case.h"
#include "support/targets.h"
#include "support/workers.h"

namespace bitfold::testing {
namespace {

// A usual one, or any that is finite and above 0; 0 for none.
float ReadScale(FuzzInput* input) {
  if (input->Byte() < 220) {
    const auto fraction = static_cast<float>(input->Word() >> 8);
    return std::ldexp(1.0F + fraction / 16777216.0F, input->Between(-12, 12));
  }
  const float scale = FloatOf(input->Word());
  return scale > 0 && std::isfinite(scale) ? scale : 0.0F;
}

template <typename T>
StoredElementwiseMode ReadMode(FuzzInput* input) {
  StoredElementwiseMode mode = {};
  mode.operation = static_cast<StoredOperation>(input->Between(0, 2));
  for (StoredScale* s : {&mode.operands[0], &mode.operands[1], &mode.output}) {
    s->scale = ReadScale(input);
    s->zero_point = sizeof(T) == 1 ? static_cast<int8_t>(input->Byte()) : 0;
  }
  mode.minimum = static_cast<T>(input->Word());
  mode.maximum = static_cast<T>(input->Word());
  if (mode.minimum > mode.maximum) std::swap(mode.minimum, mode.maximum);
  return mode;
}

template <typename T>
void Compare(FuzzInput* input) {
  StoredElementwiseCase<T> c;
  c.mode = ReadMode<T>(input);
  if (c.mode.operands[0].scale == 0 || c.mode.operands[1].scale == 0) return;
  if (c.mode.output.scale == 0 || !c.IsTaken()) return;
  for (int axis = input->Between(0, 3); axis-- > 0;) {
    const int64_t size = 1 + (axis == 0 ? input->Count() : input->Between(0, 3));
    const int kind = input->Between(0, 3);
    c.shapes[0].push_back(kind == 0 ? 1 : size);
    c.shapes[1].push_back(kind == 1 ? 1 : size);
  }
  for (const int k : {0, 1}) {
    int64_t count = 1;
    for (const int64_t size : c.shapes[k]) count *= size;
    for (int64_t i = 0; i < count; ++i) c.operands[k].push_back(static_cast<T>(input->Word() >> 8));
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
  if (input.Flag()) {
    Compare<int8_t>(&input);
  } else {
    Compare<int16_t>(&input);
  }
  return 0;
}
