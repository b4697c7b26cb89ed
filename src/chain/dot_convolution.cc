// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "chain/dot_convolution.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#include "bitfold/int32_arithmetic.h"
#include "chain/pack.h"

namespace bitfold {
namespace {

// That hold so many bytes and what a word reads beyond them.
int64_t WordsOf(int64_t bytes) { return bytes / int64_t{sizeof(int32_t)} + 2; }

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
      is_dense_((layer.columns.dilation == 1 || layer.columns.taps == 1) &&
                int64_t{layer.columns.taps} * layer.in_channels <= INT32_MAX),
      taps_(is_dense_ ? 1 : layer.columns.taps),
      tap_size_(int64_t{layer.in_channels} * (is_dense_ ? layer.columns.taps : 1)),
      pixel_(is_dense_ ? layer.in_channels : WholeWords(layer.in_channels)),
      words_(static_cast<int32_t>(WholeWords(tap_size_) / NumbersInAWord())),
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
  int64_t bytes;
  const bool overflows = __builtin_mul_overflow(packed_rows, RowBytes(), &bytes);
  return overflows ? INT64_MAX : WithTables(bytes);
}

template <typename In, typename Output>
int64_t DotConvolution<In, Output>::PixelWords(int64_t pixels) const {
  return WithTables(pixels * PixelBytes());
}

// The words of so many packed bytes and of their tables, and those of what is read beyond them.
template <typename In, typename Output>
int64_t DotConvolution<In, Output>::WithTables(int64_t bytes) const {
  if (!remainders_) return WordsOf(bytes);
  constexpr int64_t kMost = INT64_MAX / (2 << kMostRemainderShift);
  if (bytes > kMost) return INT64_MAX;
  constexpr int64_t kReadBehindTables = 32;
  const int64_t looked_up = bytes + int64_t{sizeof(int32_t)};
  return WordsOf(bytes) + WordsOf(looked_up * remainders_->Entries() + kReadBehindTables);
}

template <typename In, typename Output>
template <typename Weight>
bool DotConvolution<In, Output>::Prepare(const Weight* filter, Workers* workers, Scratch* scratch,
                                         const int32_t* addends) {
  const auto words = [scratch](int64_t count) {
    return static_cast<int32_t*>(scratch->Allocate(static_cast<size_t>(count) * sizeof(int32_t)));
  };
  weights_ = words(panels_ * PanelStride());
  initial_sums_ = words(panels_ * kPanel);
  if (remainders_) choices_ = words(2 * panels_ * PanelStride());
  if (weights_ == nullptr || initial_sums_ == nullptr) return false;
  if (remainders_ && choices_ == nullptr) return false;
  std::atomic<bool> fits{true};
  workers->Share(panels_, PanelWords(), [&](int64_t first, int64_t end) {
    if (!PackPanels(filter, addends, first, end)) fits = false;
  });
  return fits;
}

template <typename In, typename Output>
template <typename Weight>
bool DotConvolution<In, Output>::PackPanels(const Weight* filter, const int32_t* addends,
                                            int64_t first, int64_t end) {
  const int64_t channel = first * kPanel;
  const int64_t stride = layer_.out_channels;
  const int64_t channels = std::min(end * kPanel, stride) - channel;
  const WeightShape shape = {tap_size_, channels, stride, PanelStride()};
  int32_t* sums = initial_sums_ + channel;
  std::fill_n(sums, (end - first) * kPanel, 0);
  for (int64_t tap = 0; tap < int64_t{layer_.rows.taps} * taps_; ++tap) {
    const Weight* weights = filter + tap * tap_size_ * stride + channel;
    int32_t* out = weights_ + first * PanelStride() + tap * words_ * kPanel;
    int32_t* of_columns = plan_.input_offset == 0 ? nullptr : sums;  // else nobody asks for them
    if (!IsBytes()) {
      PackWeightShorts(weights, shape, out, of_columns);
    } else if (!PackWeightBytes(weights, shape, out, of_columns)) {
      return false;
    }
  }
  // What surrounds the image has the offset, too.
  for (int64_t c = 0; c < channels; ++c) {
    const int32_t addend = addends == nullptr ? 0 : ShiftLeft(addends[channel + c], plan_.shift);
    sums[c] = WrapSubtract(addend, WrapMultiply(plan_.input_offset, sums[c]));
  }
  for (int64_t panel = first; remainders_ && panel < end; ++panel) {
    remainders_->Choose(weights_ + panel * PanelStride(), PanelWords() / kPanel,
                        choices_ + 2 * panel * PanelStride(), initial_sums_ + panel * kPanel);
  }
  return true;
}

// What fills a pixel up meets 0 in the weights.
template <typename In, typename Output>
bool DotConvolution<In, Output>::PackPixels(const In* pixels, int64_t count, uint8_t* out) const {
  const auto pack = [this](const In* x, int64_t numbers, uint8_t* to) {
    if (IsBytes()) return PackBytes(x, numbers, StoredOffset(), to);
    PackShorts(x, numbers, StoredOffset(), reinterpret_cast<int16_t*>(to));
    return true;
  };
  const int64_t channels = layer_.in_channels;
  const int64_t stride = layer_.PixelStride();
  if (pixel_ == channels && stride == channels) return pack(pixels, count * channels, out);
  if (pixel_ != channels) std::memset(out, 0, static_cast<size_t>(count * PixelBytes()));
  for (int64_t pixel = 0; pixel < count; ++pixel) {
    if (!pack(pixels + pixel * stride, channels, out + pixel * PixelBytes())) return false;
  }
  return true;
}

// `rows` rows from the image's row `first` on, which may lie outside: there all is 0. After them
// comes what the last tap's words read beyond its numbers.
template <typename In, typename Output>
bool DotConvolution<In, Output>::PackStrip(const In* image, int32_t first, int32_t rows,
                                           uint8_t* out) const {
  const int zero = IsBytes() ? plan_.input_offset : 0;
  const auto fill = [zero](uint8_t* to, int64_t bytes) {
    std::memset(to, zero, static_cast<size_t>(bytes));
  };
  const int32_t inside = std::min(layer_.columns.input, padded_columns_ - before_);
  const int64_t before = before_ * PixelBytes();
  const int64_t used = inside * PixelBytes();
  const int64_t image_row = int64_t{layer_.columns.input} * layer_.PixelStride();
  for (int32_t row = first; row < first + rows; ++row, out += RowBytes()) {
    if (row < 0 || row >= layer_.rows.input) {
      fill(out, RowBytes());
      continue;
    }
    fill(out, before);
    if (!PackPixels(image + row * image_row, inside, out + before)) return false;
    fill(out + before + used, RowBytes() - before - used);
  }
  fill(out, sizeof(int32_t));
  return true;
}

// Those of all packed bytes and of what follows them, behind them; null where there are none.
template <typename In, typename Output>
const uint8_t* DotConvolution<In, Output>::LookUpTables(uint8_t* numbers, int64_t bytes) const {
  if (!remainders_) return nullptr;
  uint8_t* tables = numbers + WordsOf(bytes) * int64_t{sizeof(int32_t)};
  remainders_->LookUp(numbers, bytes + int64_t{sizeof(int32_t)}, tables);
  return tables;
}

template <typename In, typename Output>
bool DotConvolution<In, Output>::Run(const In* image, const DotBlock& block, const Output& output,
                                     int32_t* words) const {
  const WindowAxis& rows = layer_.rows;
  auto* numbers = reinterpret_cast<uint8_t*>(words);
  const int32_t first = rows.Coordinate(block.first_row, 0);
  const int32_t end = rows.Coordinate(block.end_row - 1, rows.taps - 1) + 1;
  if (!PackStrip(image, first, end - first, numbers)) return false;
  const uint8_t* tables = LookUpTables(numbers, (end - first) * RowBytes());
  const int64_t column = (int64_t{layer_.columns.first} + before_) * PixelBytes();
  const Strip strip = {numbers + column,
                       remainders_ ? tables + column * remainders_->Entries() : nullptr,
                       rows.stride * RowBytes(),
                       layer_.columns.stride * PixelBytes(),
                       block.end_row - block.first_row,
                       layer_.columns.outputs};
  RunStrip(strip, block.first_panel, block.end_panel, output);
  return true;
}

template <typename In, typename Output>
bool DotConvolution<In, Output>::RunPixels(const In* pixels, int32_t count, const DotBlock& panels,
                                           const Output& output, int32_t* words) const {
  auto* numbers = reinterpret_cast<uint8_t*>(words);
  if (!PackPixels(pixels, count, numbers)) return false;
  std::memset(numbers + count * PixelBytes(), 0, sizeof(int32_t));
  const uint8_t* tables = LookUpTables(numbers, count * PixelBytes());
  RunStrip({numbers, tables, 0, PixelBytes(), 1, count}, panels.first_panel, panels.end_panel,
           output);
  return true;
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

  RemainderTile with_remainders{};
  DotTile& tile = with_remainders.dot;
  tile.w = weights_ + panel * PanelStride();
  tile.initial = initial_sums_ + first_channel;
  tile.x_pixel = strip.column;
  tile.x_tap = layer_.columns.dilation * PixelBytes();
  tile.x_row = layer_.rows.dilation * RowBytes();
  tile.w_panel = PanelStride();
  tile.rows = layer_.rows.taps;
  tile.taps = taps_;
  tile.words = words_;
  if (remainders_) {
    with_remainders.choices = choices_ + 2 * panel * PanelStride();
    with_remainders.entries = remainders_->Entries();
    with_remainders.shift = plan_.shift;
  }
  const bool is_wide = with_remainders.entries == 16;
  for (int32_t row = 0; row < strip.rows; ++row) {
    for (int32_t next = 0; next < strip.columns;) {
      const int32_t left = strip.columns - next;
      int size = 0;
      while (kernels.pixels[size] > strip.columns) ++size;
      while (kernels.pixels[size] > left && kernels.pixels[size + 1] >= left) ++size;
      const int32_t pixels = kernels.pixels[size];
      const int32_t column = std::min(next, strip.columns - pixels);
      const int64_t x = row * strip.row + column * strip.column;
      const Output at =
          output.At(int64_t{row} * strip.columns + column, first_channel, channels, next - column);
      tile.x = strip.numbers + x;
      if (remainders_) {
        with_remainders.tables = strip.tables + x * with_remainders.entries;
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
template class DotConvolution<int8_t, SumOutput<int32_t>>;
template class DotConvolution<int16_t, SumOutput<int32_t>>;
template class DotConvolution<int8_t, StoredOutput>;
template class DotConvolution<int16_t, StoredOutput>;

#define BITFOLD_INSTANTIATE(In, Output, Weight)                                        \
  template bool DotConvolution<In, Output>::Prepare(const Weight*, Workers*, Scratch*, \
                                                    const int32_t*);
BITFOLD_INSTANTIATE(int32_t, SumOutput<int32_t>, int32_t)
BITFOLD_INSTANTIATE(float, SumOutput<float>, float)
BITFOLD_INSTANTIATE(int8_t, SumOutput<int32_t>, int32_t)
BITFOLD_INSTANTIATE(int16_t, SumOutput<int32_t>, int32_t)
BITFOLD_INSTANTIATE(int8_t, StoredOutput, int32_t)
BITFOLD_INSTANTIATE(int8_t, StoredOutput, int16_t)
BITFOLD_INSTANTIATE(int16_t, StoredOutput, int32_t)
BITFOLD_INSTANTIATE(int16_t, StoredOutput, int16_t)
#undef BITFOLD_INSTANTIATE

}  // namespace bitfold
