// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Fuzzes the resampler: the definition against the oracle, the kernel on every target against the
// definition, printed text included.

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "fuzz_input.h"
#include "support/bilinear_case.h"

namespace bitfold::testing {
namespace {

// Any width for floats and for the float mode; int32 data models no more than 32 bits.
template <typename T>
int ReadWidth(FuzzInput* input, bool float_accumulator) {
  if (!std::is_same_v<T, float> && !float_accumulator) return input->Between(-160, 32);
  return input->Flag() ? input->Between(0, 140) : static_cast<int32_t>(input->Word());
}

template <typename T>
void FuzzBilinear(FuzzInput* input) {
  BilinearCase<T> c;
  c.float_accumulator = input->Between(0, 3) == 0;
  c.accumulator_size = ReadWidth<T>(input, c.float_accumulator);
  c.mult_shift = static_cast<int8_t>(input->Shift());
  c.bias = input->Values<float>(1)[0];
  c.items = static_cast<unsigned>(input->Between(0, 3));
  const int size = input->Count();
  for (int k = 0; k < 4; ++k) {
    c.neighbours[k] = input->Values<T>(int64_t{c.items} * size);
    c.weights[k] = input->Values<T>(size);
  }
  Require(CompareCase(c, input->Between(0, 3)));
}

}  // namespace
}  // namespace bitfold::testing

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  bitfold::testing::FuzzInput input(data, size);
  if (input.Flag()) {
    bitfold::testing::FuzzBilinear<int32_t>(&input);
  } else {
    bitfold::testing::FuzzBilinear<float>(&input);
  }
  return 0;
}
