// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#ifndef BITFOLD_PREPARED_ARITHMETIC_H_
#define BITFOLD_PREPARED_ARITHMETIC_H_

#include <cstdint>

#include "bitfold/HRequantise.h"
#include "bitfold/datapath_attributes.h"

namespace bitfold {

// What a datapath takes for the shift of every product: in half precision its divisor.
inline int8_t ShiftOfDatapath(int32_t mult_shift, bool use_fp16_acc) {
  return static_cast<int8_t>(use_fp16_acc && mult_shift != 0 ? 1 << mult_shift : mult_shift);
}

// What an op from stored to stored integers sums and requantises by.
struct PreparedArithmetic {
  int32_t accumulator_size;
  bool use_fp16_acc;          // on float sums
  RequantiseMode requantise;  // whose shift is that of every product

  int8_t Shift() const { return ShiftOfDatapath(requantise.shift, use_fp16_acc); }

  DatapathAttributes DatapathWith(const int8_t* shift) const {
    return {accumulator_size, shift, use_fp16_acc};
  }
};

}  // namespace bitfold

#endif  // BITFOLD_PREPARED_ARITHMETIC_H_
