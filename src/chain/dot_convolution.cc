// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "chain/dot_convolution.h"

#include <algorithm>

#include "bitfold/int32_arithmetic.h"
#include "chain/pack.h"

namespace bitfold {
namespace {

// Whole words of any kind.
constexpr int32_t kChannelsTogether = 16;

// The tables of a word are read with what follows them.
constexpr int64_t kWordsBehindTables = 8;

std::optional<RemainderTables> TablesOf(const ChainPlan& plan) {
  if (plan.path != ChainPath::kDotRemainders) return std::nullopt;
  return RemainderTables(plan.shift, plan.input_offset);
}

}  // namespace

template <typename In, typename Output>
DotConvolution<In, Output>::DotConvolution(const DotLayer& layer, const ChainPlan& plan)
    : layer_(layer),
      plan_(plan),
      before_(std::max(0, -layer.columns.first)),
      padded_columns_(before_ + std::max(0, layer.columns.Coordinate(layer.columns.outputs - 1,
                                                                     layer.columns.taps - 1) +
                                                1)),
      words_((layer.in_channels + NumbersInAWord() - 1) / NumbersInAWord()),
      panels_((layer.out_channels + kPanel - 1) / kPanel),
      remainders_(TablesOf(plan)) {}

template <typename In, typename Output>
bool DotConvolution<In, Output>::IsPixelwise() const {
  const auto is_plain = [](const WindowAxis& a) {
    return a.taps == 1 && a.stride == 1 && a.first == 0 && a.outputs == a.input;
  };
  return is_plain(layer_.rows) && is_plain(layer_.columns);
}

template <typename In, typename Output>
int64_t DotConvolution<In, Output>::StripWords(int32_t rows) const {
  const int64_t packed_rows = (int64_t{rows} - 1) * layer_.rows.stride +
                              (int64_t{layer_.rows.taps} - 1) * layer_.rows.dilation + 1;
  int64_t words;
  const bool overflows =
      __builtin_mul_overflow(packed_rows, int64_t{padded_columns_} * words_, &words);
  return overflows ? INT64_MAX : WithTables(words);
}

template <typename In, typename Output>
int64_t DotConvolution<In, Output>::PixelWords(int64_t pixels) const {
  return WithTables(pixels * words_);
}

// So many words and their tables.
template <typename In, typename Output>
int64_t DotConvolution<In, Output>::WithTables(int64_t words) const {
  if (!remainders_) return words;
  constexpr int64_t kMost = INT64_MAX / (2 << kMostRemainderShift);
  return words > kMost ? INT64_MAX : words * (1 + TableWords()) + kWordsBehindTables;
}

template <typename In, typename Output>
bool DotConvolution<In, Output>::Prepare(const Weight* filter, Scratch* scratch,
                                         const int32_t* addends) {
  const auto words = [scratch](int64_t count) {
    return static_cast<int32_t*>(scratch->Allocate(static_cast<size_t>(count) * sizeof(int32_t)));
  };
  weights_ = words(panels_ * PanelWords());
  initial_sums_ = words(panels_ * kPanel);
  if (remainders_) choices_ = words(2 * panels_ * PanelWords());
  if (weights_ == nullptr || initial_sums_ == nullptr) return false;
  if (remainders_ && choices_ == nullptr) return false;
  const int64_t taps = int64_t{layer_.rows.taps} * layer_.columns.taps;
  for (int64_t tap = 0; tap < taps; ++tap) PackTap(filter, tap);
  for (int32_t panel = 0; panel < panels_; ++panel) SumPanel(panel, addends);
  return true;
}

// A few input channels of all panels at a time, which lie near each other: twice as fast for a
// layer of 512 to 512 channels as panel by panel. The filter is read in place but for a panel that
// is not full, which zeros fill up.
template <typename In, typename Output>
void DotConvolution<In, Output>::PackTap(const Weight* filter, int64_t tap) {
  Weight filled[kChannelsTogether * kPanel];
  for (int32_t first = 0; first < layer_.in_channels; first += kChannelsTogether) {
    const int32_t channels = std::min(kChannelsTogether, layer_.in_channels - first);
    const Weight* rows = filter + (tap * layer_.in_channels + first) * layer_.out_channels;
    int32_t* words = weights_ + (tap * words_ + first / NumbersInAWord()) * kPanel;
    for (int32_t panel = 0; panel < panels_; ++panel) {
      const Weight* weights = rows + panel * kPanel;
      int32_t* out = words + panel * PanelWords();
      int64_t stride = layer_.out_channels;
      const int32_t lanes = std::min(kPanel, layer_.out_channels - panel * kPanel);
      if (lanes < kPanel) {
        for (int32_t c = 0; c < channels; ++c) {
          Weight* end = std::copy_n(weights + c * stride, lanes, filled + c * kPanel);
          std::fill_n(end, kPanel - lanes, Weight{0});
        }
        weights = filled;
        stride = kPanel;
      }
      IsBytes() ? PackWeightBytes(weights, channels, stride, out)
                : PackWeightShorts(weights, channels, stride, out);
    }
  }
}

// Minus the offset times the weights of a lane, which the padding has, too. And what remainders
// need.
template <typename In, typename Output>
void DotConvolution<In, Output>::SumPanel(int32_t panel, const int32_t* addends) {
  int32_t* sums = initial_sums_ + int64_t{panel} * kPanel;
  std::fill_n(sums, kPanel, 0);
  if (addends != nullptr) {
    const int32_t first = panel * kPanel;
    const int32_t lanes = std::min(kPanel, layer_.out_channels - first);
    std::transform(addends + first, addends + first + lanes, sums,
                   [this](int32_t x) { return ShiftLeft(x, plan_.shift); });
  }
  const int32_t* weights = weights_ + panel * PanelWords();
  if (plan_.input_offset != 0) {
    for (int64_t i = 0; i < PanelWords(); ++i) {
      int32_t& sum = sums[i % kPanel];
      sum = WrapSubtract(sum, WrapMultiply(plan_.input_offset, SumOfBytes(weights[i])));
    }
  }
  if (!remainders_) return;
  remainders_->Choose(weights, PanelWords() / kPanel, choices_ + 2 * panel * PanelWords(), sums);
}

// Channels are filled up to whole words: what they meet is 0 in the weights.
template <typename In, typename Output>
void DotConvolution<In, Output>::PackPixels(const In* pixels, int64_t count, int32_t* words) const {
  const auto pack = [this](const In* x, int64_t numbers, int32_t* out) {
    if (IsBytes()) {
      PackBytes(x, numbers, StoredOffset(), reinterpret_cast<uint8_t*>(out));
    } else {
      PackShorts(x, numbers, StoredOffset(), reinterpret_cast<int16_t*>(out));
    }
  };
  const int32_t channels = layer_.in_channels;
  if (channels % NumbersInAWord() == 0) return pack(pixels, count * channels, words);
  for (int64_t pixel = 0; pixel < count; ++pixel) {
    words[(pixel + 1) * words_ - 1] = 0;
    pack(pixels + pixel * channels, channels, words + pixel * words_);
  }
}

// `rows` rows from the image's row `first` on, which may lie outside: there all is 0.
template <typename In, typename Output>
void DotConvolution<In, Output>::PackStrip(const In* image, int32_t first, int32_t rows,
                                           int32_t* words) const {
  const int32_t zero = IsBytes() ? WrapMultiply(plan_.input_offset, 0x01010101) : 0;
  const int32_t inside = std::min(layer_.columns.input, padded_columns_ - before_);
  const int64_t padded_row = int64_t{padded_columns_} * words_;
  const int64_t before = int64_t{before_} * words_;
  const int64_t used = int64_t{inside} * words_;
  const int64_t image_row = int64_t{layer_.columns.input} * layer_.in_channels;
  for (int32_t row = first; row < first + rows; ++row, words += padded_row) {
    if (row < 0 || row >= layer_.rows.input) {
      std::fill_n(words, padded_row, zero);
      continue;
    }
    std::fill_n(words, before, zero);
    PackPixels(image + row * image_row, inside, words + before);
    std::fill_n(words + before + used, padded_row - before - used, zero);
  }
}

// The tables of all words, written behind them; null where there are none.
template <typename In, typename Output>
const uint8_t* DotConvolution<In, Output>::LookUpTables(int32_t* words, int64_t count) const {
  if (!remainders_) return nullptr;
  auto* tables = reinterpret_cast<uint8_t*>(words + count);
  remainders_->LookUp(reinterpret_cast<const uint8_t*>(words), 4 * count, tables);
  return tables;
}

template <typename In, typename Output>
void DotConvolution<In, Output>::Run(const In* image, const DotBlock& block, const Output& output,
                                     int32_t* words) const {
  const WindowAxis& rows = layer_.rows;
  const int32_t first = rows.Coordinate(block.first_row, 0);
  const int32_t end = rows.Coordinate(block.end_row - 1, rows.taps - 1) + 1;
  PackStrip(image, first, end - first, words);
  const int64_t padded_row = int64_t{padded_columns_} * words_;
  const uint8_t* tables = LookUpTables(words, (end - first) * padded_row);
  const int64_t column = (int64_t{layer_.columns.first} + before_) * words_;
  const Strip strip = {words + column,
                       tables + 4 * TableWords() * column,
                       rows.stride * padded_row,
                       int64_t{layer_.columns.stride} * words_,
                       block.end_row - block.first_row,
                       layer_.columns.outputs};
  const int64_t position = int64_t{block.first_row} * layer_.columns.outputs;
  RunStrip(strip, block.first_panel, block.end_panel, output.At(position, 0, layer_.out_channels));
}

template <typename In, typename Output>
void DotConvolution<In, Output>::RunPixels(const In* pixels, int32_t count, const DotBlock& panels,
                                           const Output& output, int32_t* words) const {
  PackPixels(pixels, count, words);
  const uint8_t* tables = LookUpTables(words, int64_t{count} * words_);
  RunStrip({words, tables, 0, words_, 1, count}, panels.first_panel, panels.end_panel, output);
}

template <typename In, typename Output>
void DotConvolution<In, Output>::RunStrip(const Strip& strip, int32_t first_panel,
                                          int32_t end_panel, const Output& output) const {
  const DotKernels<Output>& kernels = CurrentDotKernels<Output>();
  for (int32_t panel = first_panel; panel < end_panel;) {
    int index = 0;
    while (kernels.panels[index] > end_panel - panel) ++index;
    RunPanels(strip, panel, index, output);
    panel += kernels.panels[index];
  }
}

// All outputs of kernels.panels[size_index] panels: their weights stay in the cache while the strip
// goes by. Of a row's last columns the tile may overlap the one before it, where that is larger
// than what is left.
template <typename In, typename Output>
void DotConvolution<In, Output>::RunPanels(const Strip& strip, int32_t panel, int size_index,
                                           const Output& output) const {
  const DotKernels<Output>& kernels = CurrentDotKernels<Output>();
  const auto& table = IsBytes() ? kernels.bytes : kernels.shorts;
  const int32_t first_channel = panel * kPanel;
  const int32_t lanes = kernels.panels[size_index] * kPanel;
  const int32_t channels = std::min(lanes, layer_.out_channels - first_channel);

  RemainderTile with_remainders;
  DotTile& tile = with_remainders.dot;
  tile.w = weights_ + panel * PanelWords();
  tile.initial = initial_sums_ + first_channel;
  tile.x_pixel = strip.column;
  tile.x_tap = int64_t{layer_.columns.dilation} * words_;
  tile.x_row = int64_t{layer_.rows.dilation} * padded_columns_ * words_;
  tile.w_panel = PanelWords();
  tile.rows = layer_.rows.taps;
  tile.taps = layer_.columns.taps;
  tile.words = words_;
  // Taps that follow one another are one long one.
  const int64_t words_in_a_row = int64_t{layer_.columns.taps} * words_;
  if (layer_.columns.dilation == 1 && words_in_a_row <= INT32_MAX) {
    tile.taps = 1;
    tile.words = static_cast<int32_t>(words_in_a_row);
  }
  with_remainders.choices = remainders_ ? choices_ + 2 * panel * PanelWords() : nullptr;
  with_remainders.table_bytes = 4 * TableWords();
  with_remainders.shift = plan_.shift;
  const bool is_wide = with_remainders.table_bytes > 32;
  for (int32_t row = 0; row < strip.rows; ++row) {
    for (int32_t next = 0; next < strip.columns;) {
      const int32_t left = strip.columns - next;
      int size = 0;
      while (kernels.pixels[size] > strip.columns) ++size;
      while (kernels.pixels[size] > left && kernels.pixels[size + 1] >= left) ++size;
      const int32_t pixels = kernels.pixels[size];
      const int32_t column = std::min(next, strip.columns - pixels);
      const int64_t x = row * strip.row + column * strip.column;
      tile.x = strip.words + x;
      const Output at = output.At(int64_t{row} * strip.columns + column, first_channel, channels);
      if (remainders_) {
        with_remainders.tables = strip.tables + x * with_remainders.table_bytes;
        kernels.remainders[is_wide][size][size_index](with_remainders, at);
      } else {
        table[size][size_index](tile, at);
      }
      next = column + pixels;
    }
  }
}

template class DotConvolution<int32_t, SumOutput<int32_t>>;
template class DotConvolution<float, SumOutput<float>>;
template class DotConvolution<int8_t, StoredOutput>;
template class DotConvolution<int16_t, StoredOutput>;

}  // namespace bitfold
