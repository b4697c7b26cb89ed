// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// One fuzzed call of a box decoder: the definition against the oracle, the kernel on every target
// against the definition, printed text included.

#ifndef BITFOLD_TESTS_FUZZ_DECODER_FUZZ_H_
#define BITFOLD_TESTS_FUZZ_DECODER_FUZZ_H_

#include <cstddef>
#include <cstdint>

#include "fuzz_input.h"
#include "support/decoder_case.h"

namespace bitfold::testing {

template <typename Op, typename T>
void FuzzDecoderOf(FuzzInput* input) {
  DecoderCase<Op, T> c;
  c.accumulator_size = input->Width<T>();
  c.mult_shift = input->Shift();
  c.use_fp16_acc = input->Flag();
  c.n = input->Between(0, 2);
  c.h = input->Between(0, 2);
  // Rows of one block of 128 anchors, sometimes of two.
  c.w = input->Between(0, 15) == 0 ? 60 + input->Between(0, 10) : input->Between(0, 6);
  c.anchors = input->Between(0, 4);
  for (size_t k = 0; k < Op::kInputs; ++k) c.inputs[k] = input->Values<T>(c.InputCount(k));
  Require(CompareCase(c, input->Between(0, 3)));
}

template <typename Op>
int FuzzDecoder(const uint8_t* data, size_t size) {
  FuzzInput input(data, size);
  if (input.Flag()) {
    FuzzDecoderOf<Op, int32_t>(&input);
  } else {
    FuzzDecoderOf<Op, float>(&input);
  }
  return 0;
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_FUZZ_DECODER_FUZZ_H_
