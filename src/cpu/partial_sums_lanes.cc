// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/partial_sums_lanes.h"

#include <algorithm>
#include <cstdint>
#include <mutex>
#include <vector>

#include "cpu/partial_sums_record.h"
#include "cpu/partial_sums_tile.h"
#include "cpu/partial_sums_windows.h"

namespace bitfold {
namespace {

// What threads share.
template <typename In, typename Weight>
struct Layer {
  Layer(const PartialSumsCall<In, Weight>& of, const PartialSumsTables& tables)
      : call(of),
        layout{of.out_channels, of.bias, of.mult_shift, of.sizes, of.size_count},
        windows(of, of.is_depthwise ? kSumLanes : 1),
        units(of.batch, windows.rows.outputs, windows.columns.outputs),
        begins(layout, tables),
        loops(CurrentSummedLoops()) {
    PackWeights();
    for (int32_t c = 0; c < windows.columns.outputs; ++c) {
      taps.push_back(TapsInside(windows.columns, c));
    }
  }

  int64_t ChannelNumbers() const { return int64_t{windows.columns.taps} * kSumLanes; }
  int32_t SummedChannels() const { return call.is_depthwise ? 1 : call.in_channels; }
  int64_t WeightRow() const { return SummedChannels() * ChannelNumbers(); }
  const int16_t* PanelWeights(int32_t p) const {
    return weights.data() + p * windows.rows.taps * WeightRow();
  }

  // [panel][row][channel][column][lane]
  void PackWeights() {
    weights.assign(static_cast<size_t>(layout.panels() * windows.rows.taps * WeightRow()), 0);
    const Weight* from = call.filter;
    for (int32_t kh = 0; kh < windows.rows.taps; ++kh) {
      for (int32_t kw = 0; kw < windows.columns.taps; ++kw) {
        for (int32_t ic = 0; ic < SummedChannels(); ++ic) {
          for (int32_t c = 0; c < call.out_channels; ++c) {
            const int64_t place = int64_t{c} / kSumLanes * windows.rows.taps * WeightRow() +
                                  kh * WeightRow() + ic * ChannelNumbers() + kw * kSumLanes +
                                  c % kSumLanes;
            weights[static_cast<size_t>(place)] =
                static_cast<int16_t>(*from++ - call.filter_zero_point);
          }
        }
      }
    }
  }

  const PartialSumsCall<In, Weight>& call;
  const RecordLayout layout;
  const SumWindows windows;
  const SumUnits units;
  const SumRecord begins;
  const SummedLoops& loops;
  std::vector<int16_t> weights;
  std::vector<TapRange> taps;  // of each column of outputs
};

// What a thread sees.
template <typename In, typename Weight>
class Part {
 public:
  explicit Part(const Layer<In, Weight>& layer)
      : layer_(layer),
        record_(layer.begins),
        rows_(layer.windows, -layer.call.input_zero_point, 0) {}

  const SumRecord& record() const { return record_; }

  void Run(const SumUnit& unit) {
    for (int32_t row = unit.first_row; row < unit.end_row; ++row) {
      const TapRange taps = TapsInside(layer_.windows.rows, row);
      const int32_t y = layer_.windows.rows.Coordinate(row, taps.first);
      const int16_t* first = nullptr;
      for (int32_t r = taps.count - 1; r >= 0; --r) {
        first = rows_.Row(layer_.call.input, unit.image, y + r * layer_.windows.rows.dilation);
      }
      for (int32_t p = 0; p < layer_.layout.panels(); ++p) {
        RunPanel(unit, p, {first, taps});
      }
    }
  }

 private:
  struct InputRows {
    const int16_t* first;
    TapRange taps;
  };

  void RunPanel(const SumUnit& unit, int32_t p, const InputRows& input) {
    for (int32_t column = unit.first_column; column < unit.end_column;) {
      const int size = SizeAt(column, unit.end_column);
      RunTile(p, TileAt(p, column, input), size);
      column += kSummedPixels[size];
    }
  }

  // The largest tile of columns with the same taps that begins here.
  int SizeAt(int32_t column, int32_t end) const {
    const TapRange a = layer_.taps[static_cast<size_t>(column)];
    for (int size = 0;; ++size) {
      const int32_t last = column + kSummedPixels[size] - 1;
      if (last == column) return size;
      if (last >= end) continue;
      const TapRange b = layer_.taps[static_cast<size_t>(last)];
      if (a.first == b.first && a.count == b.count) return size;
    }
  }

  SummedTile TileAt(int32_t p, int32_t column, const InputRows& input) const {
    const SumWindows& windows = layer_.windows;
    const TapRange taps = layer_.taps[static_cast<size_t>(column)];
    const int64_t tap = windows.columns.dilation * windows.pixel;
    SummedTile tile{};
    if (input.taps.count == 0 || taps.count == 0) return tile;  // no addends
    tile.x = input.first + windows.ColumnAt(column) + taps.first * tap;
    if (layer_.call.is_depthwise) tile.x += int64_t{p} * kSumLanes;
    tile.w =
        layer_.PanelWeights(p) + input.taps.first * layer_.WeightRow() + taps.first * kSumLanes;
    tile.x_pixel = windows.columns.stride * windows.pixel;
    tile.x_row = windows.rows.dilation * windows.RowNumbers();
    tile.x_tap = tap;
    tile.w_row = layer_.WeightRow();
    tile.w_channel = layer_.ChannelNumbers();
    tile.rows = input.taps.count;
    tile.channels = layer_.SummedChannels();
    tile.taps = taps.count;
    tile.shift = layer_.call.mult_shift;
    return tile;
  }

  void RunTile(int32_t p, const SummedTile& tile, int size) {
    TileRanges ranges;
    const int32_t pixels = kSummedPixels[size];
    layer_.loops.ranges[size][layer_.call.is_depthwise][layer_.call.mult_shift != 0](tile, &ranges);
    const bool may_be_outside =
        layer_.loops.record(ranges, pixels, record_.limits(), &record_.panel(p));
    if (!may_be_outside) return;
    for (int32_t i = 0; i < record_.widths(); ++i) {
      WidthRecord* const width = &record_.width(p, i);
      OutputCounts counts[kMostSummedPixels];
      layer_.loops.count[size][layer_.call.is_depthwise][layer_.call.mult_shift != 0](tile, width,
                                                                                      counts);
      for (int32_t pixel = 0; pixel < pixels; ++pixel) {
        layer_.loops.add_output({ranges.sums[pixel], &counts[pixel],
                                 static_cast<int32_t>(tile.Products()), record_.has_bias()},
                                width);
      }
    }
  }

  const Layer<In, Weight>& layer_;
  SumRecord record_;
  PackedRows<int16_t> rows_;
};

}  // namespace

template <typename In, typename Weight>
void SumInLanes(const PartialSumsCall<In, Weight>& call, const PartialSumsTables& tables,
                Workers* workers) {
  const Layer<In, Weight> layer(call, tables);
  const int64_t products = layer.units.Pixels() * call.FilterElements();
  constexpr int64_t kProductsInACycle = 4;
  std::mutex mutex;
  workers->Share(layer.units.count(), products / kProductsInACycle + 1,
                 [&](int64_t first, int64_t end) {
                   Part<In, Weight> part(layer);
                   for (int64_t i = first; i < end; ++i) part.Run(layer.units[i]);
                   const std::lock_guard<std::mutex> lock(mutex);
                   part.record().AddTo(tables);
                 });
}

#define BITFOLD_INSTANTIATE(In, Weight) \
  template void SumInLanes(const PartialSumsCall<In, Weight>&, const PartialSumsTables&, Workers*);
BITFOLD_INSTANTIATE(int8_t, int8_t)
BITFOLD_INSTANTIATE(int8_t, int16_t)
BITFOLD_INSTANTIATE(int16_t, int8_t)
BITFOLD_INSTANTIATE(int16_t, int16_t)
#undef BITFOLD_INSTANTIATE

}  // namespace bitfold
