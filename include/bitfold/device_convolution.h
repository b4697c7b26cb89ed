// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The sizes of a convolution on a GPU, where it is a matrix product: a row for each output channel
// times the unfolded image (rules D5 and D6 of docs/arithmetic.md). Worked out and checked on the
// host before anything is launched.

#ifndef BITFOLD_DEVICE_CONVOLUTION_H_
#define BITFOLD_DEVICE_CONVOLUTION_H_

#include <algorithm>
#include <cstdint>

#include "bitfold/convolution_call.h"
#include "bitfold/geometry.h"

namespace bitfold {

// A grid has at most 65535 rows of blocks, each of 16 channels.
inline constexpr int32_t kMaxDeviceChannels = 65535 * 16;

// One axis of the window as the device places it: tap 0 of output 0 lies pad_before outside the
// input, whatever the stride, where the CPU's window is placed by its centre (WindowAxis). Both
// agree for VALID windows that fit, and for SAME at stride and dilation 1. `positions` ignores that
// SAME keeps the size also where taps lie apart: with a dilation above 1 it is less than `outputs`.
struct DeviceWindowAxis {
  int32_t input;
  int32_t taps;
  int32_t stride;
  int32_t dilation;
  int32_t outputs;  // getOutputSize
  int32_t pad_before;
  int32_t positions;  // what is unfolded

  explicit DeviceWindowAxis(const ConvolutionAxis& axis)
      : input(axis.input),
        taps(axis.taps),
        stride(axis.stride),
        dilation(axis.dilation),
        outputs(getOutputSize(axis)),
        pad_before(axis.padding == Padding::kSame ? WrapSubtract(axis.taps, 1) / 2 : 0),
        positions(Positions(axis)) {}

 private:
  static int32_t Positions(const ConvolutionAxis& axis) {
    const int32_t before_last_tap = WrapSubtract(axis.taps, 1);
    const int32_t pad = axis.padding == Padding::kSame ? before_last_tap : 0;
    const int32_t extent = WrapAdd(WrapMultiply(before_last_tap, axis.dilation), 1);
    return WrapAdd(WrapDivide(WrapSubtract(WrapAdd(pad, axis.input), extent), axis.stride), 1);
  }
};

// The sizes of a call.
struct DeviceConvolution {
  int32_t batch;
  int32_t in_channels;
  int32_t out_channels;
  DeviceWindowAxis rows;
  DeviceWindowAxis columns;

  template <typename T>
  explicit DeviceConvolution(const ConvolutionCall<T>& call)
      : batch(call.batch),
        in_channels(call.in_channels),
        out_channels(call.out_channels),
        rows(call.rows),
        columns(call.columns) {}

  int64_t window() const { return int64_t{rows.taps} * columns.taps * in_channels; }
  int64_t outputs() const { return int64_t{rows.outputs} * columns.outputs; }
  int64_t positions() const { return int64_t{rows.positions} * columns.positions; }
  // Without taps there is nothing to unfold, however many positions there are.
  int64_t unfolded() const { return window() == 0 ? 0 : positions() * in_channels; }
  int64_t row_elements() const { return window() * out_channels; }

  // Room for what the product reads and for what is unfolded, which can be more (a dilation below
  // 1 with SAME).
  int64_t column_elements() const { return window() * std::max(outputs(), positions()); }

  // The axis along which no position is left to unfold, null if there is none. Where some are left,
  // rule D5 says where they lie among the outputs; without any it does not, and two such axes have
  // a product above 0.
  const DeviceWindowAxis* AxisWithoutPositions() const {
    if (rows.positions <= 0) return &rows;
    return columns.positions <= 0 ? &columns : nullptr;
  }

  // Whether there is anything to compute.
  bool HasOutputs() const {
    return batch > 0 && rows.outputs > 0 && columns.outputs > 0 && out_channels > 0;
  }
};

}  // namespace bitfold

#endif  // BITFOLD_DEVICE_CONVOLUTION_H_
