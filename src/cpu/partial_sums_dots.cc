// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/partial_sums_dots.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <mutex>
#include <vector>

#include "chain/lane_windows.h"
#include "cpu/partial_sums_borders.h"
#include "cpu/partial_sums_dot_layer.h"
#include "cpu/partial_sums_record.h"
#include "cpu/partial_sums_tile.h"
#include "cpu/partial_sums_windows.h"

namespace bitfold {
namespace {

constexpr int32_t kInWord = 4;
constexpr int32_t kMostTaps = kMostSegmentSteps / kInWord;

constexpr int32_t kNoExcess[kSumLanes] = {};

// The extremes that all threads have reached.
class SharedExtremes {
 public:
  explicit SharedExtremes(SumRecord record) {
    const auto lanes = static_cast<size_t>(record.panels()) * kSumLanes;
    least_.assign(lanes, std::numeric_limits<int32_t>::max());
    greatest_.assign(lanes, std::numeric_limits<int32_t>::min());
    record.Exchange(&least_, &greatest_);
  }

  void Exchange(SumRecord* record) {
    const std::lock_guard<std::mutex> lock(mutex_);
    record->Exchange(&least_, &greatest_);
  }

 private:
  std::mutex mutex_;
  std::vector<int32_t> least_;
  std::vector<int32_t> greatest_;
};

// The rows of an image as tiles read them: as bytes, or, where these are not the magnitudes of the
// numbers that they stand for, as words of bytes and of magnitudes in turn.
class DotRows {
 public:
  explicit DotRows(const SummedDotLayer& layer)
      : layer_(layer), bytes_(layer.windows, 128, static_cast<uint8_t>(layer.Offset())) {
    if (layer.HasOwnMagnitudes()) return;
    pairs_.resize(static_cast<size_t>(int64_t{2} * (layer.windows.Numbers() + bytes_.kBeyond)));
    images_.assign(static_cast<size_t>(layer.windows.rows.input), -1);
  }

  // Row `row` of the padded image.
  const uint8_t* Row(int32_t image, int32_t row) {
    const uint8_t* const bytes = bytes_.Row(layer_.call.input, image, row);
    if (layer_.HasOwnMagnitudes()) return bytes;
    uint8_t* const pairs = pairs_.data() + int64_t{2} * row * bytes_.row_numbers();
    int32_t& held = images_[static_cast<size_t>(row)];
    if (held != image) Pair(bytes, pairs);
    held = image;
    return pairs;
  }

 private:
  void Pair(const uint8_t* bytes, uint8_t* pairs) const {
    const auto zero = static_cast<uint8_t>(layer_.Offset());
    for (int64_t i = bytes_.row_numbers() / kInWord; i > 0; --i) {
      for (int32_t c = 0; c < kInWord; ++c) {
        const uint8_t byte = bytes[c];
        pairs[c] = byte;
        pairs[kInWord + c] = static_cast<uint8_t>(byte < zero ? zero - byte : byte - zero);
      }
      bytes += kInWord;
      pairs += int64_t{2} * kInWord;
    }
  }

  const SummedDotLayer& layer_;
  PackedRows<uint8_t> bytes_;
  std::vector<uint8_t> pairs_;
  std::vector<int32_t> images_;  // whose row is held in pairs
};

// What a thread sees.
class Part {
 public:
  explicit Part(const SummedDotLayer& layer)
      : layer_(layer),
        record_(layer.begins),
        rows_(layer),
        loudness_(layer.bounds.size()),
        counts_(static_cast<size_t>(layer.layout.size_count * kBorderPixels)) {
    for (int32_t p = 0; p < layer.layout.panels(); ++p) {
      const auto first = loudness_.begin() + p * layer.PanelSegments();
      if (KnowsNothing(record_.panel(p))) std::fill_n(first, layer.PanelSegments(), kLoud);
    }
  }

  SumRecord& record() { return record_; }

  void Run(const SumUnit& unit) {
    for (int32_t p = 0; p < layer_.layout.panels(); ++p) {
      for (int32_t row = unit.first_row; row < unit.end_row; ++row) RunRow(unit, row, p);
    }
  }

 private:
  static bool KnowsNothing(const PanelRecord& panel) {
    for (int l = 0; l < kSumLanes; ++l) {
      if (panel.least[l] > panel.greatest[l]) return true;
    }
    return false;
  }

  // A tile of outputs.
  struct Place {
    int32_t column;
    int32_t pixels;
    int32_t panel;
    TapRange rows;
  };

  // The first row that a row of outputs meets; the others follow it.
  const uint8_t* RowsAt(int32_t image, int32_t row, int32_t taps) {
    const WindowAxis& axis = layer_.windows.rows;
    const uint8_t* first = nullptr;
    for (int32_t r = taps - 1; r >= 0; --r) first = rows_.Row(image, row + r * axis.dilation);
    return first;
  }

  void RunRow(const SumUnit& unit, int32_t row, int32_t panel) {
    const WindowAxis& axis = layer_.windows.rows;
    const TapRange taps = TapsInside(axis, row);
    const uint8_t* const rows = RowsAt(unit.image, axis.Coordinate(row, taps.first), taps.count);
    for (int32_t column = unit.first_column; column < unit.end_column;) {
      int size = 0;
      while (layer_.kernels.pixels[size] > unit.end_column - column) ++size;
      const int32_t pixels = layer_.kernels.pixels[size];
      RunTile({column, pixels, panel, taps}, rows,
              layer_.kernels.advance[size][layer_.HasOwnMagnitudes()]);
      column += pixels;
    }
  }

  BorderTile TileAt(const Place& place, const uint8_t* rows) {
    const SumWindows& windows = layer_.windows;
    BorderTile tile{};
    tile.excess = kNoExcess;
    tile.segment_words = layer_.segment_words;
    tile.words = layer_.words;
    if (place.rows.count == 0) return tile;                   // no addends
    const int64_t bytes = layer_.HasOwnMagnitudes() ? 1 : 2;  // of a number
    tile.x = rows + bytes * windows.ColumnAt(place.column);
    const int64_t vector =
        place.panel * layer_.PanelVectors() + place.rows.first * layer_.RowVectors();
    tile.w = &layer_.weights[static_cast<size_t>(vector)];
    const int64_t segment =
        place.panel * layer_.PanelSegments() + int64_t{place.rows.first} * layer_.row_segments;
    tile.bounds = &layer_.bounds[static_cast<size_t>(segment)];
    tile.x_pixel = bytes * windows.columns.stride * windows.pixel;
    tile.x_row = bytes * windows.rows.dilation * windows.RowNumbers();
    tile.x_tap = bytes * windows.columns.dilation * windows.pixel;
    tile.x_word = static_cast<int32_t>(bytes * kInWord);
    tile.rows = place.rows.count;
    tile.taps = windows.columns.taps;
    tile.channels = layer_.call.in_channels;
    tile.offset = layer_.Offset();
    tile.loudness = loudness_.data() + segment;
    tile.first_plain = FirstPlain(place);
    tile.narrowest = record_.limits();
    if (place.rows.first != 0) tile.excess = (tile.bounds - 1)->excess;
    return tile;
  }

  void RunTile(const Place& place, const uint8_t* rows, BorderKernels::Advance advance) {
    const BorderTile tile = TileAt(place, rows);
    PanelRecord* const panel = &record_.panel(place.panel);
    is_counted_ = false;
    for (int32_t next = 0;;) {
      const int32_t segment = advance(tile, panel, next, &sums_);
      if (segment == tile.Segments()) break;
      Change(place, tile, segment);
      next = segment + 1;
    }
    if (sums_.changes || is_counted_) AddOutputs(place);
  }

  // A segment in which extremes or counts may change.
  void Change(const Place& place, const BorderTile& tile, int32_t segment) {
    const int32_t row = segment / layer_.row_segments;
    const int32_t word = segment % layer_.row_segments * layer_.segment_words;
    const int32_t words = std::min(layer_.segment_words, layer_.words - word);
    const int32_t first = word * kInWord;
    const SegmentBounds* const bounds = &tile.bounds[segment];
    const SegmentSpot spot = {tile.x + row * tile.x_row + int64_t{word} * tile.x_word,
                              tile.w + (int64_t{row} * tile.words + word) * tile.taps,
                              bounds,
                              segment == 0 ? tile.excess : (bounds - 1)->excess,
                              &layer_.taps[static_cast<size_t>(place.column)],
                              tile.x_pixel,
                              tile.x_tap,
                              tile.x_word,
                              place.pixels,
                              words,
                              tile.taps,
                              std::min(words * kInWord, layer_.call.in_channels - first),
                              row * layer_.call.in_channels + first,
                              layer_.Offset(),
                              segment >= tile.first_plain,
                              tile.loudness + segment};
    CountedWidths counted = {nullptr, record_.widths(), record_.limits(), nullptr, 0};
    if (counted.count != 0) {
      counted.widths = &record_.width(place.panel, 0);
      counted.counts = CountsOf(0);
      counted.pixel_counts = record_.widths();
    }
    layer_.kernels.resolve(spot, sums_, &record_.panel(place.panel), counted);
  }

  // In the first segment taps may come before the first addend, and some pixels have none.
  int32_t FirstPlain(const Place& place) const {
    const PixelTaps* const taps = &layer_.taps[static_cast<size_t>(place.column)];
    int32_t first = 0;
    for (int32_t p = 0; p < place.pixels; ++p) {
      if (taps[p].count == 0) return std::numeric_limits<int32_t>::max();
      if (taps[p].first != 0) first = 1;
    }
    return first;
  }

  // Of a pixel of the tile, of each width; all 0 at first.
  OutputCounts* CountsOf(int32_t p) {
    if (!is_counted_) {
      std::fill(counts_.begin(), counts_.end(), OutputCounts{});
      is_counted_ = true;
    }
    return counts_.data() + int64_t{p} * record_.widths();
  }

  void AddOutputs(const Place& place) {
    for (int32_t p = 0; p < place.pixels; ++p) {
      const PixelTaps taps = layer_.taps[static_cast<size_t>(int64_t{place.column} + p)];
      const int64_t products = int64_t{place.rows.count} * layer_.call.in_channels * taps.count;
      const OutputCounts* const counts = is_counted_ ? CountsOf(p) : nullptr;
      for (int32_t i = 0; i < record_.widths(); ++i) {
        layer_.loops.add_output({sums_.end[p], counts == nullptr ? nullptr : counts + i,
                                 static_cast<int32_t>(products), record_.has_bias()},
                                &record_.width(place.panel, i));
      }
    }
  }

  const SummedDotLayer& layer_;
  SumRecord record_;
  DotRows rows_;
  BorderSums sums_;
  std::vector<uint8_t> loudness_;  // of the segments
  bool is_counted_ = false;
  std::vector<OutputCounts> counts_;  // of the tile: [pixel][width]
};

}  // namespace

bool HasSumDots(const BytesCall& call) {
  return CurrentBorderKernels() != nullptr && !call.is_depthwise && call.filter_zero_point == 0 &&
         call.mult_shift == 0 && call.columns.taps <= kMostTaps;
}

void SumByDots(const BytesCall& call, const PartialSumsTables& tables, Workers* workers) {
  const SummedDotLayer layer(call, tables);
  SharedExtremes extremes(layer.begins);
  const int64_t products = layer.units.Pixels() * call.FilterElements();
  constexpr int64_t kProductsInACycle = 32;
  std::mutex mutex;
  workers->Share(layer.units.count(), products / kProductsInACycle + 1,
                 [&](int64_t first, int64_t end) {
                   Part part(layer);
                   for (int64_t i = first; i < end; ++i) {
                     extremes.Exchange(&part.record());
                     part.Run(layer.units[i]);
                   }
                   extremes.Exchange(&part.record());
                   const std::lock_guard<std::mutex> lock(mutex);
                   part.record().AddTo(tables);
                 });
}

}  // namespace bitfold
