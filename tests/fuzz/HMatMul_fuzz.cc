// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Fuzzes the matrix product: the definition against the oracle, the kernel on every target against
// the definition, printed text included.

#include <cstddef>
#include <cstdint>

#include "fuzz_input.h"
#include "support/matmul_case.h"

namespace bitfold::testing {
namespace {

template <typename T>
void FuzzMatMul(FuzzInput* input) {
  MatMulCase<T> c;
  c.accumulator_size = input->Width<T>();
  c.mult_shift = input->Shift();
  c.use_fp16_acc = input->Flag();
  c.batch = input->Between(0, 2);
  c.rows = input->Between(0, 6);
  c.inner = input->Between(0, 12);
  c.cols = input->Between(0, 15) == 0 ? 60 + input->Between(0, 10) : input->Between(0, 20);
  c.a = input->Values<T>(c.a_count());
  c.b = input->Values<T>(c.b_count());
  Require(CompareCase(c, input->Between(0, 3)));
}

}  // namespace
}  // namespace bitfold::testing

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  bitfold::testing::FuzzInput input(data, size);
  if (input.Flag()) {
    bitfold::testing::FuzzMatMul<int32_t>(&input);
  } else {
    bitfold::testing::FuzzMatMul<float>(&input);
  }
  return 0;
}
