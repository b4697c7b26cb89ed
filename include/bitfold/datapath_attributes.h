// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#ifndef BITFOLD_DATAPATH_ATTRIBUTES_H_
#define BITFOLD_DATAPATH_ATTRIBUTES_H_

#include <cstdint>

namespace bitfold {

// What selects a datapath: the op's attributes and its scalar input, as one member of the record
// that describes a call.
struct DatapathAttributes {
  int32_t accumulator_size;
  const int8_t* mult_shift;  // element 0, in the memory of the op's device
  bool use_fp16_acc;
};

// The datapath D that they select. Requires mult_shift in host memory.
template <typename D>
D MakeDatapath(const DatapathAttributes& attributes) {
  return D(attributes.accumulator_size, attributes.mult_shift[0], attributes.use_fp16_acc);
}

}  // namespace bitfold

#endif  // BITFOLD_DATAPATH_ATTRIBUTES_H_
