// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Fuzzes pools and means of stored tensors: the definitions against the oracle, the vector loops of
// every target against the definitions.

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "fuzz_input.h"
#include "support/stored_pool_case.h"
#include "support/targets.h"
#include "support/workers.h"

namespace bitfold::testing {
namespace {

template <typename Case>
void CompareCase(FuzzInput* input, const Case& c) {
  const int offset = input->Between(0, 3);
  const auto describe = [&c](int64_t i) { return c.Inputs(i); };
  const auto definition = c.Definition(offset);
  RequireSame(c.Oracle().data(), definition.data(), c.count(), "definition", describe);
  BackwardParts parts(1 + input->Byte() % 8);
  for (const auto& [target, name] : SupportedTargets()) {
    const ForcedTarget forced(target);
    const auto loops = c.Loops(&parts, offset);
    RequireSame(definition.data(), loops.data(), c.count(), name, describe);
  }
}

template <typename T>
void ReadData(FuzzInput* input, int64_t count, std::vector<T>* data) {
  for (int64_t i = 0; i < count; ++i) data->push_back(static_cast<T>(input->Word() >> 8));
}

template <typename T>
void ComparePool(FuzzInput* input) {
  StoredPoolCase<T> c;
  const bool is_same = input->Flag();
  for (PoolAxis* axis : {&c.rows, &c.columns}) {
    *axis = {input->Between(1, 12), 1, input->Between(1, 6), is_same};
    axis->window = 1 + input->Byte() % (is_same ? 20 : axis->size);
  }
  c.images = input->Between(1, 2);
  c.channels = input->Between(0, 7) == 0 ? input->Between(1, 130) : input->Between(1, 9);
  c.mode.pooling = input->Flag() ? StoredPooling::kMax : StoredPooling::kAverage;
  c.mode.minimum = static_cast<T>(input->Word());
  c.mode.maximum = static_cast<T>(input->Word());
  if (c.mode.minimum > c.mode.maximum) std::swap(c.mode.minimum, c.mode.maximum);
  ReadData(input, c.data_count(), &c.data);
  CompareCase(input, c);
}

template <typename T>
void CompareMean(FuzzInput* input) {
  StoredMeanCase<T> c;
  for (StoredScale* s : {&c.input, &c.result}) {
    s->scale = input->Byte() < 220
                   ? std::ldexp(1.0F + static_cast<float>(input->Byte()), input->Between(-20, 4))
                   : FloatOf(input->Word());
    if (!(s->scale > 0) || !std::isfinite(s->scale)) return;
    s->zero_point = sizeof(T) == 1 ? static_cast<int8_t>(input->Byte()) : 0;
  }
  c.outer = input->Between(1, 3);
  c.reduced = 1 + input->Count();
  c.inner = input->Flag() ? 1 : 1 + input->Count();
  if (!c.IsTaken()) return;
  ReadData(input, c.outer * c.reduced * c.inner, &c.data);
  CompareCase(input, c);
}

}  // namespace
}  // namespace bitfold::testing

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using bitfold::testing::CompareMean;
  using bitfold::testing::ComparePool;
  bitfold::testing::FuzzInput input(data, size);
  switch (input.Between(0, 3)) {
    case 0:
      ComparePool<int8_t>(&input);
      break;
    case 1:
      ComparePool<int16_t>(&input);
      break;
    case 2:
      CompareMean<int8_t>(&input);
      break;
    default:
      CompareMean<int16_t>(&input);
  }
  return 0;
}
