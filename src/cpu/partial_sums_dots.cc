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
constexpr int32_t kSegmentSteps = 16;  // at most, unless a word has more
constexpr int32_t kMostTaps = kMostSegmentSteps / kInWord;

constexpr int32_t kNoExcess[kSumLanes] = {};

// Of each lane four channels' weights.
struct alignas(64) WeightVector {
  int32_t words[kSumLanes];
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
      const TapRange inside = TapsInside(windows.columns, c);
      taps.push_back({inside.first, inside.count});
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
  std::vector<PixelTaps> taps;        // of each column of outputs

 private:
  void PackWeights() {
    weights.resize(static_cast<size_t>(layout.panels() * PanelVectors()));
    const int64_t outputs = call.out_channels;
    const std::vector<int8_t> none(static_cast<size_t>(outputs));
    for (int64_t kh = 0; kh < windows.rows.taps; ++kh) {
      for (int64_t kw = 0; kw < windows.columns.taps; ++kw) {
        const int8_t* tap =
            call.filter + (kh * windows.columns.taps + kw) * call.in_channels * outputs;
        for (int32_t word = 0; word < words; ++word) {
          const int8_t* rows[kInWord];
          for (int32_t c = 0; c < kInWord; ++c) {
            const int32_t channel = word * kInWord + c;
            rows[c] = channel < call.in_channels ? tap + channel * outputs : none.data();
          }
          const int64_t vector = kh * RowVectors() + int64_t{word} * windows.columns.taps + kw;
          loops.pack_words(rows, call.out_channels, PanelVectors() * kSumLanes,
                           weights[static_cast<size_t>(vector)].words);
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
            {weights[static_cast<size_t>(vector)].words, ranges.data() + int64_t{word} * kInWord,
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
        loudness_(layer.bounds.size(), kLoud),
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

  BorderTile TileAt(const Place& place, const uint8_t* rows) {
    const SumWindows& windows = layer_.windows;
    BorderTile tile{};
    tile.excess[0] = tile.excess[1] = kNoExcess;
    tile.segment_words = layer_.segment_words;
    tile.words = layer_.words;
    if (place.rows.count == 0) return tile;  // no addends
    tile.x = rows + windows.ColumnAt(place.column);
    const int64_t vector =
        place.panel * layer_.PanelVectors() + place.rows.first * layer_.RowVectors();
    tile.w = layer_.weights[static_cast<size_t>(vector)].words;
    const int64_t segment =
        place.panel * layer_.PanelSegments() + int64_t{place.rows.first} * layer_.row_segments;
    tile.bounds = &layer_.bounds[static_cast<size_t>(segment)];
    tile.x_pixel = windows.columns.stride * windows.pixel;
    tile.x_row = windows.rows.dilation * windows.RowNumbers();
    tile.x_tap = windows.columns.dilation * windows.pixel;
    tile.w_panel = layer_.PanelVectors() * kSumLanes;
    tile.bounds_panel = layer_.PanelSegments();
    tile.rows = place.rows.count;
    tile.taps = windows.columns.taps;
    tile.channels = layer_.call.in_channels;
    tile.offset = layer_.Offset();
    tile.loudness = loudness_.data() + segment;
    tile.first_plain = FirstPlain(place);
    tile.narrowest = record_.limits();
    for (int32_t n = 0; n < place.panels && place.rows.first != 0; ++n) {
      tile.excess[n] = tile.bounds[n * tile.bounds_panel - 1].excess;
    }
    return tile;
  }

  void RunTile(const Place& place, const uint8_t* rows, BorderKernels::Advance advance) {
    const BorderTile tile = TileAt(place, rows);
    PanelRecord* const panels = &record_.panel(place.panel);
    is_counted_ = false;
    for (int32_t next = 0;;) {
      const int32_t segment = advance(tile, panels, next, &sums_);
      if (segment == tile.Segments()) break;
      for (int32_t n = 0; n < place.panels; ++n) {
        if ((sums_.changes >> n & 1) != 0) Change(place, tile, segment, n);
      }
      next = segment + 1;
    }
    if (sums_.changes != 0 || is_counted_) AddOutputs(place);
  }

  // A segment in which a panel's extremes or counts may change.
  void Change(const Place& place, const BorderTile& tile, int32_t segment, int32_t n) {
    const int32_t row = segment / layer_.row_segments;
    const int32_t word = segment % layer_.row_segments * layer_.segment_words;
    const int32_t words = std::min(layer_.segment_words, layer_.words - word);
    const int32_t first = word * kInWord;
    const int64_t vector = (int64_t{row} * tile.words + word) * tile.taps;
    const SegmentBounds* const bounds = &tile.bounds[n * tile.bounds_panel + segment];
    const PixelTaps* const taps = &layer_.taps[static_cast<size_t>(place.column)];
    const SegmentSpot spot = {tile.x + row * tile.x_row + first,
                              tile.w + n * tile.w_panel + vector * kSumLanes,
                              bounds,
                              segment == 0 ? tile.excess[n] : (bounds - 1)->excess,
                              taps,
                              tile.x_pixel,
                              tile.x_tap,
                              n,
                              place.pixels,
                              words,
                              tile.taps,
                              std::min(words * kInWord, layer_.call.in_channels - first),
                              row * layer_.call.in_channels + first,
                              layer_.Offset(),
                              segment >= tile.first_plain,
                              tile.loudness + segment};
    const int32_t panel = place.panel + n;
    CountedWidths counted = {nullptr, record_.widths(), record_.limits(), nullptr, 0};
    if (counted.count != 0) {
      counted.widths = &record_.width(panel, 0);
      counted.counts = CountsOf(n, 0);
      counted.pixel_counts = int64_t{kBorderPanels} * record_.widths();
    }
    layer_.kernels.resolve(spot, sums_, &record_.panel(panel), counted);
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

  // Of the tile, of each width; all 0 at first.
  OutputCounts* CountsOf(int32_t n, int32_t p) {
    if (!is_counted_) {
      std::fill(counts_.begin(), counts_.end(), OutputCounts{});
      is_counted_ = true;
    }
    return counts_.data() + (int64_t{p} * kBorderPanels + n) * record_.widths();
  }

  void AddOutputs(const Place& place) {
    for (int32_t n = 0; n < place.panels; ++n) {
      for (int32_t p = 0; p < place.pixels; ++p) {
        const PixelTaps taps = layer_.taps[static_cast<size_t>(int64_t{place.column} + p)];
        const int64_t products = int64_t{place.rows.count} * layer_.call.in_channels * taps.count;
        const OutputCounts* const counts = is_counted_ ? CountsOf(n, p) : nullptr;
        for (int32_t i = 0; i < record_.widths(); ++i) {
          layer_.loops.add_output({sums_.end[p][n], counts == nullptr ? nullptr : counts + i,
                                   static_cast<int32_t>(products), record_.has_bias()},
                                  &record_.width(place.panel + n, i));
        }
      }
    }
  }

  const Layer& layer_;
  SumRecord record_;
  PackedRows<uint8_t> rows_;
  BorderSums sums_;
  std::vector<uint8_t> loudness_;  // of the segments of every second panel
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
