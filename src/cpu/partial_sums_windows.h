// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// How the fast forms of HPartialSums walk through a layer: the outputs in units that threads share,
// and the rows of an image as numbers that the windows meet side by side.

#ifndef BITFOLD_SRC_CPU_PARTIAL_SUMS_WINDOWS_H_
#define BITFOLD_SRC_CPU_PARTIAL_SUMS_WINDOWS_H_

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <vector>

#include "bitfold/HPartialSums.h"
#include "bitfold/geometry.h"
#include "chain/lane_windows.h"

namespace bitfold {

// Rows and columns of outputs of an image.
struct SumUnit {
  int32_t image;
  int32_t first_row;
  int32_t end_row;
  int32_t first_column;
  int32_t end_column;
};

// The units of a call.
class SumUnits {
 public:
  SumUnits(int32_t batch, int32_t rows, int32_t columns)
      : batch_(batch),
        rows_(rows),
        columns_(columns),
        unit_columns_(std::min(columns, kColumns)),
        unit_rows_(std::min(rows, (kPixels + unit_columns_ - 1) / unit_columns_)) {}

  int64_t count() const { return int64_t{batch_} * RowParts() * ColumnParts(); }
  int64_t Pixels() const { return int64_t{unit_rows_} * unit_columns_; }

  SumUnit operator[](int64_t i) const {
    const auto column = static_cast<int32_t>(i % ColumnParts()) * unit_columns_;
    const auto row = static_cast<int32_t>(i / ColumnParts() % RowParts()) * unit_rows_;
    return {static_cast<int32_t>(i / ColumnParts() / RowParts()), row,
            std::min(row + unit_rows_, rows_), column, std::min(column + unit_columns_, columns_)};
  }

 private:
  // The weights of a few channels are read once for so many outputs.
  static constexpr int32_t kPixels = 196;
  static constexpr int32_t kColumns = 224;

  int32_t RowParts() const { return (rows_ + unit_rows_ - 1) / unit_rows_; }
  int32_t ColumnParts() const { return (columns_ + unit_columns_ - 1) / unit_columns_; }

  const int32_t batch_;
  const int32_t rows_;
  const int32_t columns_;
  const int32_t unit_columns_;
  const int32_t unit_rows_;
};

// Where the windows of a call lie in its packed rows, which begin at the first column that a window
// meets, or would meet, and whose pixels are filled up.
struct SumWindows {
  WindowAxis rows;  // over the padded image
  WindowAxis columns;
  int32_t zeros_above;
  int32_t image_rows;
  int32_t first_column;  // of a packed row, in the padded image
  int64_t packed_columns;
  int64_t image_first;  // column of a packed row where the image's begin
  int32_t image_columns;
  int32_t channels;
  int64_t pixel;  // numbers

  template <typename In, typename Weight>
  SumWindows(const PartialSumsCall<In, Weight>& call, int64_t filled_up_to)
      : rows(call.rows.OfPadded()),
        columns(call.columns.OfPadded()),
        zeros_above(call.rows.before),
        image_rows(call.rows.input),
        first_column(columns.first),
        packed_columns((int64_t{columns.outputs} - 1) * columns.stride +
                       (int64_t{columns.taps} - 1) * columns.dilation + 1),
        image_first(int64_t{call.columns.before} - first_column),
        image_columns(call.columns.input),
        channels(call.in_channels),
        pixel((call.in_channels + filled_up_to - 1) / filled_up_to * filled_up_to) {}

  int64_t RowNumbers() const { return packed_columns * pixel; }
  int64_t Numbers() const { return int64_t{rows.input} * RowNumbers(); }

  // Of one image, from the beginning of a packed row.
  int64_t ColumnAt(int32_t output) const { return int64_t{output} * columns.stride * pixel; }
};

// The rows of an image as X, each packed when it is first met. A number is stored as the image's
// plus `offset`; one of the zeros, and what pixels are filled up with, as `zero`.
template <typename X>
class PackedRows {
 public:
  PackedRows(const SumWindows& windows, int32_t offset, X zero)
      : windows_(windows),
        offset_(static_cast<X>(offset)),
        zero_(zero),
        numbers_(static_cast<size_t>(windows.Numbers() + kBeyond), zero),
        images_(static_cast<size_t>(windows.rows.input), -1) {}

  // Row `row` of the padded image.
  template <typename In>
  const X* Row(const In* images, int32_t image, int32_t row) {
    X* const packed = numbers_.data() + row * windows_.RowNumbers();
    int32_t& held = images_[static_cast<size_t>(row)];
    if (held == image) return packed;
    held = image;
    const int32_t y = row - windows_.zeros_above;
    if (y >= 0 && y < windows_.image_rows) {
      const int64_t line = int64_t{image} * windows_.image_rows + y;
      Pack(images + line * windows_.image_columns * windows_.channels, packed);
    }
    return packed;
  }

  int64_t row_numbers() const { return windows_.RowNumbers(); }

  // What is read beyond the last pixel and does not count.
  static constexpr int64_t kBeyond = 64;

 private:
  template <typename In>
  void Pack(const In* image, X* packed) const {
    const int64_t first = std::max<int64_t>(0, windows_.image_first);
    const int64_t end =
        std::min(windows_.packed_columns, windows_.image_first + windows_.image_columns);
    if (first >= end) return;
    const In* const from = image + (first - windows_.image_first) * windows_.channels;
    X* const to = packed + first * windows_.pixel;
    const int64_t columns = end - first;
    if (windows_.pixel == windows_.channels) return Convert(from, columns * windows_.channels, to);
    if (windows_.channels == 1) return ConvertPixels<1>(from, columns, to);
    if (windows_.channels == 3) return ConvertPixels<3>(from, columns, to);
    for (int64_t column = 0; column < columns; ++column) {
      Convert(from + column * windows_.channels, windows_.channels, to + column * windows_.pixel);
    }
  }

  // Images as they are mostly stored.
  template <int kChannels, typename In>
  void ConvertPixels(const In* from, int64_t columns, X* to) const {
    const X offset = offset_;
    const int64_t pixel = windows_.pixel;
    for (int64_t column = 0; column < columns; ++column, from += kChannels, to += pixel) {
      for (int c = 0; c < kChannels; ++c) to[c] = static_cast<X>(from[c] + offset);
    }
  }

  template <typename In>
  void Convert(const In* from, int64_t count, X* to) const {
    const X offset = offset_;
    for (int64_t i = 0; i < count; ++i) to[i] = static_cast<X>(from[i] + offset);
  }

  const SumWindows& windows_;
  const X offset_;  // modulo its numbers
  const X zero_;
  std::vector<X> numbers_;
  std::vector<int32_t> images_;  // whose row is held
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_PARTIAL_SUMS_WINDOWS_H_
