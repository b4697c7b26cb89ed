// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The test oracles of the two box decoders.
//
// `inputs` are the data inputs in the order of the op's registration. Of N x H x W positions the
// first two inputs hold 2A values each, the third holds 2A values per row, the fourth 2A per
// column, and the others A values. The output holds 4A values per position: y_min, x_min, y_max and
// x_max of each anchor. A count below 1 writes nothing. T is int32_t or float; `lines` may be null.

#ifndef BITFOLD_TESTS_REFERENCE_DECODER_H_
#define BITFOLD_TESTS_REFERENCE_DECODER_H_

#include <cstdint>
#include <string>

namespace reference {

// Ten inputs: detection_centers, detection_w_h, y_centers, x_centers, then the heights of the
// anchors, their halves and their negated halves, and the same of the widths.
template <typename T>
void DecodeBoxes(const T* const* inputs, int64_t N, int64_t H, int64_t W, int64_t A,
                 int32_t accumulator_size, int32_t mult_shift, bool use_fp16_acc, T* out,
                 std::string* lines);

// Eight inputs: the same four, then the scale factor of the anchors' heights, that of the minimum
// edges, and the same of the widths.
template <typename T>
void DecodeBoxesSingleWeight(const T* const* inputs, int64_t N, int64_t H, int64_t W, int64_t A,
                             int32_t accumulator_size, int32_t mult_shift, bool use_fp16_acc,
                             T* out, std::string* lines);

}  // namespace reference

#endif  // BITFOLD_TESTS_REFERENCE_DECODER_H_
