// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// One fuzzed addition: the definition against the oracle, the kernels' passes against the
// definition, printed text included.

#ifndef BITFOLD_TESTS_FUZZ_ADDITION_FUZZ_H_
#define BITFOLD_TESTS_FUZZ_ADDITION_FUZZ_H_

#include <cstdint>
#include <string>
#include <type_traits>

#include "fuzz_input.h"
#include "support/addition.h"

namespace bitfold::testing {

template <typename T>
Addition<T> ReadAddition(FuzzInput* input, bool per_channel) {
  Addition<T> c;
  c.accumulator_size = input->Between(0, std::is_same_v<T, float> ? 140 : 32);
  c.mult_shift = input->Flag() ? input->Between(0, 8) : static_cast<int8_t>(input->Byte());
  c.use_fp16_acc = input->Flag();
  c.feed_repeat = static_cast<float>(input->Between(-2, 60)) / 4.0f;
  if constexpr (std::is_same_v<T, int32_t>) {
    if (input->Between(0, 15) == 0) c.feed_repeat *= 100.0f;
  }
  const int count = input->Between(0, 40);
  c.factor = input->Values<T>(1)[0];
  c.value = input->Values<T>(count);
  c.operand = input->Values<T>(per_channel ? input->Between(1, 9) : count);
  return c;
}

template <typename Call, typename T>
void FuzzAdditionOf(FuzzInput* input) {
  const Addition<T> c = ReadAddition<T>(input, Call::kPerChannel);
  const int offset = input->Between(0, 3);
  const auto describe = [&c](int64_t i) { return c.Inputs(i, Call::kPerChannel); };
  const std::string first = c.count() > 0 ? describe(0) : "no elements";
  const auto oracle = OracleAddition<Call>(c);
  const auto every = RunAddition<Call>(c, EveryPass{}, offset);
  RequireSame(oracle.values.data(), every.values.data(), c.count(), "EveryPass", describe);
  RequireSameText(oracle.lines, every.lines, "EveryPass", first);
  const auto proven = RunAddition<Call>(c, ProvenPasses{}, offset);
  RequireSame(every.values.data(), proven.values.data(), c.count(), "ProvenPasses", describe);
  RequireSameText(every.lines, proven.lines, "ProvenPasses", first);
}

template <typename Call>
int FuzzAddition(const uint8_t* data, size_t size) {
  FuzzInput input(data, size);
  if (input.Flag()) {
    FuzzAdditionOf<Call, int32_t>(&input);
  } else {
    FuzzAdditionOf<Call, float>(&input);
  }
  return 0;
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_FUZZ_ADDITION_FUZZ_H_
