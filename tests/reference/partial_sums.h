// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The test oracle of the partial sums of a layer: the addends of each output as a list.

#ifndef BITFOLD_TESTS_REFERENCE_PARTIAL_SUMS_H_
#define BITFOLD_TESTS_REFERENCE_PARTIAL_SUMS_H_

#include <cstdint>
#include <vector>

namespace reference {

// One axis: the image with zeros before and after it, and the windows.
struct SummedAxis {
  int32_t size;
  int32_t before;
  int32_t after;
  int32_t taps;
  int32_t stride;
  int32_t dilation;
};

struct SummedLayer {
  int32_t batch;
  int32_t in_channels;
  int32_t out_channels;
  SummedAxis rows;
  SummedAxis columns;
  bool is_same;
  bool is_depthwise;
  int32_t filters;  // 1, or one for each image
  int32_t input_zero_point;
  int32_t filter_zero_point;
  int32_t mult_shift;
  std::vector<int32_t> sizes;
};

// Of an output channel. What was never seen is empty in the extremes' sense: the greatest and the
// least number of 64 bits.
struct SummedChannel {
  int64_t least_final;
  int64_t greatest_final;
  int64_t least_partial;
  int64_t greatest_partial;
  // Of each width.
  std::vector<int64_t> ends_outside;
  std::vector<int64_t> was_outside;
  std::vector<int64_t> partials_outside;
  std::vector<int64_t> first_outside;
};

// Stored numbers as int32: of images NHWC, of filters HWIO or HWO. `bias` may be null.
std::vector<SummedChannel> SumsOnTheWay(const SummedLayer& layer, const int32_t* input,
                                        const int32_t* filter, const int64_t* bias);

}  // namespace reference

#endif  // BITFOLD_TESTS_REFERENCE_PARTIAL_SUMS_H_
