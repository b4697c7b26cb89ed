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
#include "cpu/partial_sums_record.h"
#include "cpu/partial_sums_tile.h"
#include "cpu/partial_sums_windows.h"

namespace bitfold {
namespace {

constexpr int32_t kInWord = 4;
constexpr int32_t kSegmentSteps = 12;  // about as many, in whole words
constexpr int32_t kMostTaps = kMostSegmentSteps / kInWord;

struct alignas(64) WeightVector {
  int8_t bytes[kSumLanes][kInWord];
};

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

// What threads share.
class Layer {
 public:
  Layer(const BytesCall& of, const PartialSumsTables& tables)
      : call(of),
        layout{of.out_channels, of.bias, of.mult_shift, of.sizes, of.size_count},
        windows(of, kInWord),
        units(of.batch, windows.rows.outputs, windows.columns.outputs),
        begins(layout, tables),
        kernels(*CurrentBorderKernels()),
        loops(CurrentSummedLoops()),
        words((of.in_channels + kInWord - 1) / kInWord),
        segment_words(std::clamp(kSegmentSteps / kInWord / windows.columns.taps, 1, words)),
        row_segments((words + segment_words - 1) / segment_words) {
    PackWeights();
    Bound();
    for (int32_t c = 0; c < windows.columns.outputs; ++c) {
      taps.push_back(TapsInside(windows.columns, c));
    }
  }

  int64_t RowVectors() const { return int64_t{words} * windows.columns.taps; }
  int64_t PanelVectors() const { return windows.rows.taps * RowVectors(); }
  int64_t PanelSegments() const { return int64_t{windows.rows.taps} * row_segments; }
  int32_t Offset() const { return call.input_zero_point + 128; }

  const BytesCall& call;
  const RecordLayout layout;
  const SumWindows windows;
  const SumUnits units;
  const SumRecord begins;
  const BorderKernels& kernels;
  const SummedLoops& loops;
  const int32_t words;  // of a pixel
  const int32_t segment_words;
  const int32_t row_segments;
  std::vector<WeightVector> weights;  // [panel][row][word][column]
  std::vector<SegmentBounds> bounds;  // [panel][row][segment]
  std::vector<TapRange> taps;         // of each column of outputs

 private:
  void PackWeights() {
    weights.resize(static_cast<size_t>(layout.panels() * PanelVectors()));
    const int8_t* from = call.filter;
    for (int32_t kh = 0; kh < windows.rows.taps; ++kh) {
      for (int32_t kw = 0; kw < windows.columns.taps; ++kw) {
        for (int32_t ic = 0; ic < call.in_channels; ++ic, from += call.out_channels) {
          const int64_t vector =
              kh * RowVectors() + int64_t{ic} / kInWord * windows.columns.taps + kw;
          for (int32_t p = 0; p < layout.panels(); ++p) {
            WeightVector& to = weights[static_cast<size_t>(p * PanelVectors() + vector)];
            const int32_t lanes = std::min(kSumLanes, call.out_channels - p * kSumLanes);
            for (int32_t l = 0; l < lanes; ++l) to.bytes[l][ic % kInWord] = from[p * kSumLanes + l];
          }
        }
      }
    }
  }

  // Each channel's numbers, less the zero point, and 0.
  std::vector<ChannelRange> Ranges() const {
    const auto zero_point = static_cast<int8_t>(call.input_zero_point);
    const auto channels = static_cast<size_t>(call.in_channels);
    std::vector<int8_t> least(channels, zero_point);
    std::vector<int8_t> greatest(channels, zero_point);
    const int64_t pixels = call.batch * call.InputElements() / call.in_channels;
    loops.channel_ranges(call.input, pixels, call.in_channels, least.data(), greatest.data());
    std::vector<ChannelRange> ranges(static_cast<size_t>(words) * kInWord);
    for (size_t c = 0; c < channels; ++c) {
      ranges[c] = {least[c] - call.input_zero_point, greatest[c] - call.input_zero_point};
    }
    return ranges;
  }

  void Bound() {
    bounds.resize(static_cast<size_t>(layout.panels() * PanelSegments()));
    const std::vector<ChannelRange> ranges = Ranges();
    for (int32_t p = 0; p < layout.panels(); ++p) {
      const SegmentBounds* before = nullptr;
      for (int64_t s = 0; s < PanelSegments(); ++s) {
        const int64_t row = s / row_segments;
        const auto word = static_cast<int32_t>(s % row_segments) * segment_words;
        const int64_t vector =
            p * PanelVectors() + row * RowVectors() + int64_t{word} * windows.columns.taps;
        SegmentBounds& of = bounds[static_cast<size_t>(p * PanelSegments() + s)];
        loops.bound(
            {&weights[static_cast<size_t>(vector)].bytes[0][0], ranges.data() + word * kInWord,
             std::min(segment_words, words - word), windows.columns.taps, Offset()},
            before, &of);
        before = &of;
      }
    }
  }
};

// What a thread sees.
class Part {
 public:
  explicit Part(const Layer& layer)
      : layer_(layer),
        record_(layer.begins),
        rows_(layer.windows, 128, static_cast<uint8_t>(layer.Offset())),
        counts_(static_cast<size_t>(layer.layout.size_count * kBorderPixels * kBorderPanels)) {}

  SumRecord& record() { return record_; }

  void Run(const SumUnit& unit) {
    for (int32_t p = 0; p < layer_.layout.panels(); p += kBorderPanels) {
      const int32_t panels = std::min(kBorderPanels, layer_.layout.panels() - p);
      for (int32_t row = unit.first_row; row < unit.end_row; ++row) {
        RunRow(unit, row, p, panels);
      }
    }
  }

 private:
  // A tile of outputs.
  struct Place {
    int32_t column;
    int32_t pixels;
    int32_t panel;
    int32_t panels;
    TapRange rows;
  };

  void RunRow(const SumUnit& unit, int32_t row, int32_t panel, int32_t panels) {
    const SumWindows& windows = layer_.windows;
    const TapRange rows = TapsInside(windows.rows, row);
    const int32_t y = windows.rows.Coordinate(row, rows.first);
    const uint8_t* first = nullptr;
    for (int32_t r = rows.count - 1; r >= 0; --r) {
      first = rows_.Row(layer_.call.input, unit.image, y + r * windows.rows.dilation);
    }
    for (int32_t column = unit.first_column; column < unit.end_column;) {
      int size = 0;
      while (layer_.kernels.pixels[size] > unit.end_column - column) ++size;
      const int32_t pixels = layer_.kernels.pixels[size];
      RunTile({column, pixels, panel, panels, rows}, first,
              layer_.kernels.advance[size][panels - 1]);
      column += pixels;
    }
  }

  BorderTile TileAt(const Place& place, const uint8_t* rows) const {
    const SumWindows& windows = layer_.windows;
    BorderTile tile{};
    if (place.rows.count == 0) return tile;  // no addends
    tile.x = rows + windows.ColumnAt(place.column);
    const int64_t vector =
        place.panel * layer_.PanelVectors() + place.rows.first * layer_.RowVectors();
    tile.w = reinterpret_cast<const int32_t*>(&layer_.weights[static_cast<size_t>(vector)]);
    const int64_t segment =
        place.panel * layer_.PanelSegments() + int64_t{place.rows.first} * layer_.row_segments;
    tile.bounds = &layer_.bounds[static_cast<size_t>(segment)];
    tile.x_pixel = windows.columns.stride * windows.pixel;
    tile.x_row = windows.rows.dilation * windows.RowNumbers();
    tile.x_tap = windows.columns.dilation * windows.pixel;
    tile.w_panel = layer_.PanelVectors() * kSumLanes;
    tile.bounds_panel = layer_.PanelSegments();
    tile.rows = place.rows.count;
    tile.words = layer_.words;
    tile.segment_words = layer_.segment_words;
    tile.taps = windows.columns.taps;
    return tile;
  }

  // What the bytes' offset has added before a segment of the tile.
  const int32_t* ExcessBefore(const Place& place, const BorderTile& tile, int32_t segment,
                              int32_t n) const {
    static constexpr int32_t kNone[kSumLanes] = {};
    const bool is_first = segment == 0 && place.rows.first == 0;
    return is_first || tile.rows == 0 ? kNone
                                      : tile.bounds[n * tile.bounds_panel + segment - 1].excess;
  }

  void RunTile(const Place& place, const uint8_t* rows, BorderKernels::Advance advance) {
    const BorderTile tile = TileAt(place, rows);
    is_counted_ = false;
    for (int32_t n = 0; n < place.panels; ++n) {
      const int32_t* excess = ExcessBefore(place, tile, 0, n);
      std::fill_n(sums_.least[n], kSumLanes, 0);
      std::fill_n(sums_.greatest[n], kSumLanes, 0);
      for (int32_t p = 0; p < place.pixels; ++p) std::copy_n(excess, kSumLanes, sums_.end[p][n]);
    }
    const int32_t end = tile.rows == 0 ? 0 : tile.Segments();
    for (int32_t segment = 0; segment < end; ++segment) {
      segment = advance(tile, &record_.panel(place.panel), segment, &sums_);
      if (segment == end) break;
      for (int32_t n = 0; n < place.panels; ++n) {
        if ((sums_.changes >> n & 1) != 0) Change(place, tile, segment, n);
      }
    }
    for (int32_t n = 0; n < place.panels; ++n) End(place, tile, end, n);
  }

  // One pixel and panel of a tile, within a segment.
  struct Spot {
    int32_t segment;
    int32_t n;
    int32_t p;
    TapRange taps;
  };

  // A segment in which a panel's extremes or counts may change.
  void Change(const Place& place, const BorderTile& tile, int32_t segment, int32_t n) {
    const SegmentBounds& bounds = tile.bounds[n * tile.bounds_panel + segment];
    const int32_t* before = ExcessBefore(place, tile, segment, n);
    const PanelRecord& panel = record_.panel(place.panel + n);
    for (int32_t p = 0; p < place.pixels; ++p) {
      SegmentSums sums;
      const SegmentChange change =
          layer_.loops.look({sums_.start[p][n], sums_.end[p][n], before, &bounds}, panel, &sums);
      if (change == SegmentChange::kNone) continue;
      const Spot spot = {segment, n, p, layer_.taps[static_cast<size_t>(place.column + p)]};
      if (spot.taps.count == 0) continue;
      if (change == SegmentChange::kCounts && CountWhole(place, spot, sums)) continue;
      StepThrough(place, tile, spot, sums);
    }
  }

  int32_t FirstChannel(int32_t segment) const {
    return segment % layer_.row_segments * layer_.segment_words * kInWord;
  }
  int32_t ChannelsOf(int32_t segment) const {
    return std::min(layer_.segment_words * kInWord,
                    layer_.call.in_channels - FirstChannel(segment));
  }
  // The addends before a segment.
  int32_t StepsBefore(const Spot& spot) const {
    const int32_t row = spot.segment / layer_.row_segments;
    return (row * layer_.call.in_channels + FirstChannel(spot.segment)) * spot.taps.count;
  }

  // Counts a segment whose partial sums are all on one side of each limit; false where not.
  bool CountWhole(const Place& place, const Spot& spot, const SegmentSums& sums) {
    const int32_t panel = place.panel + spot.n;
    int32_t outside[kSumLanes];
    for (int32_t i = 0; i < record_.widths(); ++i) {
      if (!layer_.loops.is_whole(sums, record_.width(panel, i), outside)) return false;
    }
    for (int32_t i = 0; i < record_.widths(); ++i) {
      WidthRecord& width = record_.width(panel, i);
      layer_.loops.is_whole(sums, width, outside);
      layer_.loops.count_whole(outside, ChannelsOf(spot.segment) * spot.taps.count,
                               StepsBefore(spot), &width, CountsOf(spot.n, spot.p) + i);
    }
    return true;
  }

  void StepThrough(const Place& place, const BorderTile& tile, const Spot& spot,
                   const SegmentSums& sums) {
    const int32_t row = spot.segment / layer_.row_segments;
    const int32_t first = FirstChannel(spot.segment);
    const int64_t vector = (int64_t{row} * tile.words + first / kInWord) * tile.taps;
    const int32_t count = layer_.kernels.step(
        {tile.x + spot.p * tile.x_pixel + row * tile.x_row + first,
         tile.w + spot.n * tile.w_panel + vector * kSumLanes, tile.x_tap, layer_.Offset(),
         ChannelsOf(spot.segment), tile.taps, spot.taps.first, spot.taps.first + spot.taps.count},
        sums.start, partial_);
    const StepSums steps = {partial_, count, StepsBefore(spot)};
    const int32_t panel = place.panel + spot.n;
    if (!layer_.loops.include(steps, record_.limits(), &record_.panel(panel))) return;
    for (int32_t i = 0; i < record_.widths(); ++i) {
      layer_.loops.count_steps(steps, &record_.width(panel, i), CountsOf(spot.n, spot.p) + i);
    }
  }

  // Of the tile, of each width; all 0 at first.
  OutputCounts* CountsOf(int32_t n, int32_t p) {
    if (!is_counted_) {
      std::fill(counts_.begin(), counts_.end(), OutputCounts{});
      is_counted_ = true;
    }
    return counts_.data() + (p * kBorderPanels + n) * record_.widths();
  }

  void End(const Place& place, const BorderTile& tile, int32_t segments, int32_t n) {
    const int32_t panel = place.panel + n;
    const int32_t* excess = ExcessBefore(place, tile, segments, n);
    int32_t sums[kBorderPixels][kSumLanes];
    for (int32_t p = 0; p < place.pixels; ++p) {
      for (int32_t l = 0; l < kSumLanes; ++l) sums[p][l] = sums_.end[p][n][l] - excess[l];
    }
    const bool ends_outside = layer_.loops.end(&sums[0], place.pixels, &record_.panel(panel));
    if (!ends_outside && !is_counted_) return;
    for (int32_t p = 0; p < place.pixels; ++p) {
      const TapRange taps = layer_.taps[static_cast<size_t>(place.column + p)];
      const int64_t products = int64_t{place.rows.count} * layer_.call.in_channels * taps.count;
      record_.AddOutput(panel, sums[p], products, is_counted_ ? CountsOf(n, p) : nullptr);
    }
  }

  const Layer& layer_;
  SumRecord record_;
  PackedRows<uint8_t> rows_;
  BorderSums sums_;
  alignas(64) int32_t partial_[kMostSegmentSteps][kSumLanes];
  bool is_counted_ = false;
  std::vector<OutputCounts> counts_;  // of the tile: [pixel][panel][width]
};

}  // namespace

bool HasSumDots(const BytesCall& call) {
  return CurrentBorderKernels() != nullptr && !call.is_depthwise && call.filter_zero_point == 0 &&
         call.mult_shift == 0 && call.columns.taps <= kMostTaps;
}

void SumByDots(const BytesCall& call, const PartialSumsTables& tables, Workers* workers) {
  const Layer layer(call, tables);
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
