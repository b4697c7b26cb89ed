// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The outputs of an image cut into tiles of lanes, and the taps of each that lie inside the image.

#ifndef BITFOLD_SRC_CHAIN_LANE_WINDOWS_H_
#define BITFOLD_SRC_CHAIN_LANE_WINDOWS_H_

#include <algorithm>
#include <cstdint>
#include <vector>

#include "bitfold/convolution_call.h"
#include "bitfold/geometry.h"
#include "chain/lane_tile.h"
#include "chain/output_blocks.h"

namespace bitfold {

// Whether there are taps and outputs that follow one another forward through the input, at
// coordinates that fit 32 bits.
inline bool GoesForward(const WindowAxis& axis) {
  const int64_t extent = int64_t{axis.taps} * axis.dilation;
  const int64_t reach = int64_t{axis.outputs} * axis.stride;
  return axis.stride >= 1 && axis.dilation >= 1 && axis.taps >= 1 && axis.outputs >= 1 &&
         extent + reach + axis.input < INT32_MAX / 2;
}

struct TapRange {
  int32_t first;
  int32_t count;
};

// The taps of an output that lie inside the input; they follow one another. Requires
// windows that go forward.
inline TapRange TapsInside(const WindowAxis& axis, int32_t output) {
  const int32_t start = axis.Coordinate(output, 0);
  const int32_t first = start < 0 ? (-start + axis.dilation - 1) / axis.dilation : 0;
  const int32_t room = axis.input - start;
  const int32_t end = room <= 0 ? 0 : std::min(axis.taps, (room - 1) / axis.dilation + 1);
  return {first, std::max(0, end - first)};
}

// `pixels` columns of outputs from `column` on that have the same taps, by `panels` panels of
// output channels from `channel` on.
struct LanePlace {
  int32_t column;
  int32_t pixels;
  int32_t channel;
  int32_t panels;
  TapRange taps;
};

// The tiles of an image of a call, whose filters have its output channels, but at least a panel.
// Columns that do not go forward have none.
class LaneWindows {
 public:
  template <typename T>
  explicit LaneWindows(const ConvolutionCall<T>& call)
      : rows_(call.rows),
        columns_(call.columns),
        in_channels_(call.in_channels),
        filter_channels_(std::max(kPanel, call.out_channels)),
        is_depthwise_(call.is_depthwise),
        runs_(RunsOf(columns_)) {}

  // Calls visit(place) until a row of outputs of the block is covered; tiles may overlap, so that
  // whole ones do. What is used again stays in the cache: the weights of a few channels, or,
  // depthwise, the inputs of a few columns. A block ends at a whole panel or at the last channel.
  template <typename Visit>
  void ForEachTile(const OutputBlock& block, Visit visit) const {
    if (is_depthwise_) {
      ForEachColumns(block, kTilePixels, [&](int32_t column, int32_t pixels, const TapRange& taps) {
        ForEachChannels(block, [&](int32_t channel, int32_t panels) {
          visit(LanePlace{column, pixels, channel, panels, taps});
        });
      });
    } else {
      ForEachChannels(block, [&](int32_t channel, int32_t panels) {
        ForEachColumns(block, kTilePixels,
                       [&](int32_t column, int32_t pixels, const TapRange& taps) {
                         visit(LanePlace{column, pixels, channel, panels, taps});
                       });
      });
    }
  }

  // Calls visit(column, pixels, taps) for the columns of a row of the block, `most` at a time or
  // one.
  template <typename Visit>
  void ForEachColumns(const OutputBlock& block, int32_t most, Visit visit) const {
    for (const Run& run : runs_) {
      const int32_t first = std::max(run.first, block.first_column);
      const int32_t end = std::min(run.end, block.end_column);
      const int32_t pixels = end - first >= most ? most : 1;
      for (int32_t column = first; column < end; column += pixels) {
        visit(std::min(column, end - pixels), pixels, run.taps);
      }
    }
  }

  // The columns of the image that some columns of outputs meet.
  struct Columns {
    int32_t first;
    int32_t count;  // at least 0
  };
  Columns ColumnsOf(int32_t first_output, int32_t end_output) const {
    const int32_t first = std::max(0, columns_.Coordinate(first_output, 0));
    const int32_t last = columns_.Coordinate(end_output - 1, columns_.taps - 1);
    return {first, std::max(0, std::min(last + 1, columns_.input) - first)};
  }

  // The numbers of an image's row.
  int64_t InRow() const { return int64_t{columns_.input} * in_channels_; }

  // The rows of taps `rows` of a tile at output row `row`; where there are no taps it has no rows.
  // Where its results go is left to the caller.
  template <typename X>
  LaneTile<X> TileOf(const LanePlace& place, int32_t row, const TapRange& rows, const X* image,
                     const X* filter) const {
    if (rows.count == 0) return {};
    const int64_t y = rows_.Coordinate(row, rows.first);
    return TileOfRows(place, rows, RowsOf<X>{image + y * InRow(), rows_.dilation * InRow(), 0},
                      filter);
  }

  // Rows of an image from a column of it on, `row` numbers from one to the next.
  template <typename X>
  struct RowsOf {
    const X* first;
    int64_t row;
    int32_t column;
  };

  // The same of other rows than the image's own; there are some.
  template <typename X>
  LaneTile<X> TileOfRows(const LanePlace& place, const TapRange& rows, const RowsOf<X>& numbers,
                         const X* filter) const {
    const int64_t channels = is_depthwise_ ? 1 : in_channels_;
    const int64_t x = columns_.Coordinate(place.column, place.taps.first) - numbers.column;
    LaneTile<X> tile{};
    if (place.taps.count == 0) return tile;
    tile.x = numbers.first + x * in_channels_ + (is_depthwise_ ? place.channel : 0);
    tile.x_pixel = int64_t{columns_.stride} * in_channels_;
    tile.x_row = numbers.row;
    tile.x_tap = int64_t{columns_.dilation} * in_channels_;
    tile.w_channel = filter_channels_;
    tile.w_tap = channels * filter_channels_;
    tile.w_row = columns_.taps * tile.w_tap;
    tile.w = filter + rows.first * tile.w_row + place.taps.first * tile.w_tap + place.channel;
    tile.rows = rows.count;
    tile.channels = static_cast<int32_t>(channels);
    tile.taps = place.taps.count;
    return tile;
  }

 private:
  // Columns [first, end) that have the same taps.
  struct Run {
    int32_t first;
    int32_t end;
    TapRange taps;
  };

  static std::vector<Run> RunsOf(const WindowAxis& columns) {
    std::vector<Run> runs;
    if (!GoesForward(columns)) return runs;
    for (int32_t column = 0; column < columns.outputs; ++column) {
      const TapRange taps = TapsInside(columns, column);
      const bool is_next = runs.empty() || runs.back().taps.first != taps.first ||
                           runs.back().taps.count != taps.count;
      if (is_next) runs.push_back({column, column, taps});
      runs.back().end = column + 1;
    }
    return runs;
  }

  template <typename Visit>
  void ForEachChannels(const OutputBlock& block, Visit visit) const {
    const int32_t end = std::max(kPanel, block.end_channel);  // fewer are filled up
    for (int32_t channel = block.first_channel; channel < end;) {
      const int32_t left = end - channel;
      const bool has_two = left > kPanel && end - block.first_channel >= kTilePanels * kPanel;
      const int32_t panels = has_two ? kTilePanels : 1;
      const int32_t from = std::min(channel, end - panels * kPanel);
      visit(from, panels);
      channel = from + panels * kPanel;
    }
  }

  const WindowAxis rows_;
  const WindowAxis columns_;
  const int32_t in_channels_;
  const int32_t filter_channels_;
  const bool is_depthwise_;
  const std::vector<Run> runs_;
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_CHAIN_LANE_WINDOWS_H_
