// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// One fuzzed addition: the definition against the oracle, the kernel on every target against the
// definition, printed text included.

#ifndef BITFOLD_TESTS_FUZZ_ADDITION_FUZZ_H_
#define BITFOLD_TESTS_FUZZ_ADDITION_FUZZ_H_

#include <cstdint>
#include <type_traits>

#include "fuzz_input.h"
#include "support/addition.h"

namespace bitfold::testing {

template <typename Op, typename T>
Addition<T> ReadAddition(FuzzInput* input) {
  Addition<T> c;
  c.accumulator_size = input->Width<T>();
  c.mult_shift = input->Shift();
  c.use_fp16_acc = input->Flag();
  c.feed_repeat = static_cast<float>(input->Between(-2, 60)) / 4.0f;
  if constexpr (std::is_same_v<T, int32_t>) {
    if (input->Between(0, 15) == 0) c.feed_repeat *= 100.0f;
  }
  const int count = input->Count();
  const int channels = input->Between(1, 9);
  c.factor = input->Values<T>(1)[0];
  c.second_factor = input->Values<T>(1)[0];
  c.value = input->Values<T>(count);
  c.operand = input->Values<T>(Op::kPerChannel ? channels : count);
  c.second = input->Values<T>(Op::kSecondSets * channels);
  return c;
}

template <typename Op>
int FuzzAddition(const uint8_t* data, size_t size) {
  FuzzInput input(data, size);
  if (input.Flag()) {
    const auto c = ReadAddition<Op, int32_t>(&input);
    Require(CompareCase(AdditionCase<Op, int32_t>{c}, input.Between(0, 3)));
  } else {
    const auto c = ReadAddition<Op, float>(&input);
    Require(CompareCase(AdditionCase<Op, float>{c}, input.Between(0, 3)));
  }
  return 0;
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_FUZZ_ADDITION_FUZZ_H_
