// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The outputs of an image cut into blocks, each of which a thread computes for itself.

#ifndef BITFOLD_SRC_CHAIN_OUTPUT_BLOCKS_H_
#define BITFOLD_SRC_CHAIN_OUTPUT_BLOCKS_H_

#include <algorithm>
#include <cstdint>

namespace bitfold {

// Rows by columns by channels of outputs; ends are not in it.
struct OutputBlock {
  int32_t first_row;
  int32_t end_row;
  int32_t first_column;
  int32_t end_column;
  int32_t first_channel;
  int32_t end_channel;

  int32_t rows() const { return end_row - first_row; }
  int32_t columns() const { return end_column - first_column; }
};

struct OutputExtent {
  int32_t rows;
  int32_t columns;
  int32_t channels;
};

// Blocks of `step` each, but for the last ones; those of one range of channels follow one another,
// from the top. Only the columns of a single row are cut.
class OutputBlocks {
 public:
  OutputBlocks(const OutputExtent& all, const OutputExtent& step)
      : all_(all),
        step_(step),
        rows_(Parts(all.rows, step.rows)),
        columns_(Parts(all.columns, step.columns)),
        channels_(Parts(all.channels, step.channels)) {}

  int64_t count() const { return rows_ * columns_ * channels_; }
  const OutputExtent& largest() const { return step_; }

  OutputBlock operator[](int64_t index) const {
    const int64_t place = index % (rows_ * columns_);
    const auto row = static_cast<int32_t>(place / columns_) * step_.rows;
    const auto column = static_cast<int32_t>(place % columns_) * step_.columns;
    const auto channel = static_cast<int32_t>(index / (rows_ * columns_)) * step_.channels;
    return {row,     End(row, step_.rows, all_.rows),
            column,  End(column, step_.columns, all_.columns),
            channel, End(channel, step_.channels, all_.channels)};
  }

 private:
  static int64_t Parts(int32_t all, int32_t step) { return (int64_t{all} + step - 1) / step; }
  static int32_t End(int32_t first, int32_t step, int32_t all) {
    return first + std::min(step, all - first);
  }

  OutputExtent all_;
  OutputExtent step_;
  int64_t rows_;
  int64_t columns_;
  int64_t channels_;
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_CHAIN_OUTPUT_BLOCKS_H_
