// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The geometry of a convolution's window along one axis (rules G1 to G3 of docs/arithmetic.md).
// All arithmetic is 32-bit two's complement and division truncates toward zero, so that absurd
// strides and dilations are defined too. Strides must not be 0.

#ifndef BITFOLD_GEOMETRY_H_
#define BITFOLD_GEOMETRY_H_

#include <cstdint>

#include "bitfold/host_device.h"
#include "bitfold/int32_arithmetic.h"

namespace bitfold {

// Same values as the runtime's enumeration, which this header does not include.
enum class Padding : int { kValid = 1, kSame = 2 };

// Indices of the filter's dimensions: [height, width, in channels, out channels], one further on
// when `more_than_four_dimensions` is 1 (a leading dimension that selects a filter per image).
BITFOLD_HOST_DEVICE constexpr int get_filter_dim_height(int more_than_four_dimensions) {
  return more_than_four_dimensions;
}
BITFOLD_HOST_DEVICE constexpr int get_filter_dim_width(int more_than_four_dimensions) {
  return more_than_four_dimensions + 1;
}
BITFOLD_HOST_DEVICE constexpr int get_filter_dim_in_channels(int more_than_four_dimensions) {
  return more_than_four_dimensions + 2;
}
BITFOLD_HOST_DEVICE constexpr int get_filter_dim_out_channels(int more_than_four_dimensions) {
  return more_than_four_dimensions + 3;
}

// One axis of a convolution, as its caller states it.
struct ConvolutionAxis {
  int32_t input;     // extent of the input
  int32_t taps;      // extent of the filter
  int32_t stride;    // not 0
  int32_t dilation;  // distance of the taps
  Padding padding;
};

// The extent of a filter whose taps lie `dilation` apart.
BITFOLD_HOST_DEVICE constexpr int32_t EffectiveFilterSize(int32_t filter, int32_t dilation) {
  return WrapAdd(WrapMultiply(WrapSubtract(filter, 1), WrapSubtract(dilation, 1)), filter);
}

// The number of outputs. VALID with a window larger than the input can still give 1, because the
// division truncates; below 0 the caller refuses.
BITFOLD_HOST_DEVICE constexpr int32_t getOutputSize(const ConvolutionAxis& axis) {
  const int32_t span = axis.padding == Padding::kValid
                           ? WrapSubtract(axis.input, EffectiveFilterSize(axis.taps, axis.dilation))
                           : WrapSubtract(axis.input, 1);
  return WrapAdd(WrapDivide(span, axis.stride), 1);
}

// The input coordinate of the centre of the first output's window; its first tap lies
// EffectiveFilterSize / 2 before it.
//
// The second rule for SAME is the accelerator's and wins even where the third would give a
// positive start: an input of 9 with a filter of 5 at stride 3 pads 2 in all, and starts at 0, not
// at 1.
BITFOLD_HOST_DEVICE constexpr int32_t getInputStartIndex(const ConvolutionAxis& axis) {
  const int32_t effective = EffectiveFilterSize(axis.taps, axis.dilation);
  const int32_t half = effective / 2;
  if (axis.padding == Padding::kValid) return half;
  const int32_t reach = WrapMultiply(WrapSubtract(getOutputSize(axis), 1), axis.stride);
  const int32_t pad_total = WrapAdd(WrapSubtract(reach, axis.input), effective);
  if (pad_total % 2 == 0 && effective % 2 != 0) return 0;
  if (pad_total < 0) return 0;
  return WrapSubtract(half, pad_total / 2);
}

// The windows of one axis, ready for the loops.
struct WindowAxis {
  int32_t input;    // extent of the input
  int32_t taps;     // extent of the filter
  int32_t outputs;  // getOutputSize
  int32_t first;    // input coordinate of tap 0 of output 0
  int32_t half;     // distance of the centre tap from tap 0
  int32_t stride;
  int32_t dilation;

  BITFOLD_HOST_DEVICE explicit constexpr WindowAxis(const ConvolutionAxis& axis)
      : input(axis.input),
        taps(axis.taps),
        outputs(getOutputSize(axis)),
        first(WrapSubtract(getInputStartIndex(axis),
                           EffectiveFilterSize(axis.taps, axis.dilation) / 2)),
        half(EffectiveFilterSize(axis.taps, axis.dilation) / 2),
        stride(axis.stride),
        dilation(axis.dilation) {}

  // The input coordinate of a tap; it may lie outside the input.
  BITFOLD_HOST_DEVICE constexpr int32_t Coordinate(int32_t output, int32_t tap) const {
    return WrapAdd(WrapAdd(first, WrapMultiply(output, stride)), WrapMultiply(tap, dilation));
  }

  BITFOLD_HOST_DEVICE constexpr bool Contains(int32_t coordinate) const {
    return 0 <= coordinate && coordinate < input;
  }

  // True for exactly one tap when the filter's extent is odd or its dilation is 1. Never for an
  // even extent with a dilation above 1: no tap lies in the middle then.
  BITFOLD_HOST_DEVICE constexpr bool IsCentre(int32_t tap) const {
    return WrapMultiply(tap, dilation) == half;
  }
};

// The taps of an axis that are the centre, found without walking them: there can be 2^31.
struct CentreTaps {
  int32_t first = -1;  // -1 where there are none
  int64_t count = 0;

  // A centre tap has tap * dilation = half modulo 2^32. Of an odd multiple of 2^z they lie
  // 2^(32 - z) apart, where half has that factor, too; of a dilation of 0 they are all taps or
  // none.
  explicit constexpr CentreTaps(const WindowAxis& axis) {
    if (axis.taps <= 0) return;
    if (axis.dilation == 0) {
      if (axis.half != 0) return;
      first = 0;
      count = axis.taps;
      return;
    }
    const auto dilation = static_cast<uint32_t>(axis.dilation);
    const auto half = static_cast<uint32_t>(axis.half);
    const int32_t zeros = __builtin_ctz(dilation);
    if ((half & ((uint32_t{1} << zeros) - 1)) != 0) return;
    const uint32_t odd = dilation >> zeros;
    uint32_t inverse = odd;  // right in 3 bits, and in twice as many with each step
    for (int step = 0; step < 4; ++step) inverse *= 2 - odd * inverse;
    const uint32_t mask = UINT32_MAX >> zeros;
    const int64_t least = (half >> zeros) * inverse & mask;
    if (least >= axis.taps) return;
    first = static_cast<int32_t>(least);
    count = (axis.taps - 1 - least) / (int64_t{mask} + 1) + 1;
  }
};

}  // namespace bitfold

#endif  // BITFOLD_GEOMETRY_H_
