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

// A row of outputs is one long one where each output has one tap of its own: tiles are whole then.
WindowAxis WholeImage(const ConvolutionAxis& row_axis, const ConvolutionAxis& column_axis,
                      bool of_rows) {
  const WindowAxis rows(row_axis);
  const WindowAxis columns(column_axis);
  const auto is_plain = [](const WindowAxis& a) {
    return a.taps == 1 && a.stride == 1 && a.first == 0 && a.outputs == a.input;
  };
  const int64_t size = int64_t{rows.input} * columns.input;
  if (!is_plain(rows) || !is_plain(columns) || size > INT32_MAX) return of_rows ? rows : columns;
  const int32_t input = of_rows ? 1 : static_cast<int32_t>(size);
  return WindowAxis({input, 1, 1, 1, Padding::kValid});
}

}  // namespace

template <typename T>
DotConvolution<T>::PaddedAxis::PaddedAxis(const WindowAxis& axis) {
  before = std::max(0, -axis.first);
  const int32_t last = axis.Coordinate(axis.outputs - 1, axis.taps - 1);
  size = before + std::max(axis.input, last + 1);
}

template <typename T>
DotConvolution<T>::DotConvolution(const ConvolutionCall<T>& call, const ChainPlan& plan)
    : rows_(WholeImage(call.rows, call.columns, true)),
      columns_(WholeImage(call.rows, call.columns, false)),
      in_channels_(call.in_channels),
      out_channels_(call.out_channels),
      plan_(plan),
      padded_rows_(rows_),
      padded_columns_(columns_),
      words_((call.in_channels + NumbersInAWord() - 1) / NumbersInAWord()),
      panels_((call.out_channels + kPanel - 1) / kPanel) {}

template <typename T>
int64_t DotConvolution<T>::ImageElements() const {
  const int64_t positions = int64_t{padded_rows_.size} * padded_columns_.size;
  int64_t elements;
  const bool overflows =
      __builtin_mul_overflow(positions, int64_t{words_} * NumbersInAWord(), &elements);
  return overflows ? INT64_MAX : elements;
}

template <typename T>
bool DotConvolution<T>::Prepare(const T* filter, int slots, Scratch* scratch) {
  const auto words = [scratch](int64_t count) {
    return static_cast<int32_t*>(scratch->Allocate(static_cast<size_t>(count) * sizeof(int32_t)));
  };
  images_ = words(slots * ImageWords());
  weights_ = words(panels_ * PanelWords());
  initial_sums_ = words(panels_ * kPanel);
  if (images_ == nullptr || weights_ == nullptr || initial_sums_ == nullptr) return false;
  const int64_t taps = int64_t{rows_.taps} * columns_.taps;
  for (int64_t tap = 0; tap < taps; ++tap) PackTap(filter, tap);
  for (int32_t panel = 0; panel < panels_; ++panel) SumPanel(panel);
  return true;
}

// A few input channels of all panels at a time, which lie near each other: twice as fast for a
// layer of 512 to 512 channels as panel by panel. The filter is read in place but for a panel that
// is not full, which zeros fill up.
template <typename T>
void DotConvolution<T>::PackTap(const T* filter, int64_t tap) {
  T filled[kChannelsTogether * kPanel];
  for (int32_t first = 0; first < in_channels_; first += kChannelsTogether) {
    const int32_t channels = std::min(kChannelsTogether, in_channels_ - first);
    const T* rows = filter + (tap * in_channels_ + first) * out_channels_;
    int32_t* words = weights_ + (tap * words_ + first / NumbersInAWord()) * kPanel;
    for (int32_t panel = 0; panel < panels_; ++panel) {
      const T* weights = rows + panel * kPanel;
      int32_t* out = words + panel * PanelWords();
      int64_t stride = out_channels_;
      const int32_t lanes = std::min(kPanel, out_channels_ - panel * kPanel);
      if (lanes < kPanel) {
        for (int32_t c = 0; c < channels; ++c) {
          T* end = std::copy_n(weights + c * stride, lanes, filled + c * kPanel);
          std::fill_n(end, kPanel - lanes, T{0});
        }
        weights = filled;
        stride = kPanel;
      }
      IsBytes() ? PackWeightBytes(weights, channels, stride, out)
                : PackWeightShorts(weights, channels, stride, out);
    }
  }
}

// Minus the offset times the weights of a lane, which the padding has, too.
template <typename T>
void DotConvolution<T>::SumPanel(int32_t panel) {
  int32_t* sums = initial_sums_ + int64_t{panel} * kPanel;
  std::fill_n(sums, kPanel, 0);
  if (plan_.input_offset == 0) return;
  const int32_t* weights = weights_ + panel * PanelWords();
  for (int64_t i = 0; i < PanelWords(); ++i) {
    int32_t& sum = sums[i % kPanel];
    sum = WrapSubtract(sum, WrapMultiply(plan_.input_offset, SumOfBytes(weights[i])));
  }
}

template <typename T>
void DotConvolution<T>::PackImage(const T* image, int32_t* words) const {
  // What lies outside has the bytes of 0.
  const int32_t zero = IsBytes() ? WrapMultiply(plan_.input_offset, 0x01010101) : 0;
  const int64_t padded_row = int64_t{padded_columns_.size} * words_;
  const int64_t used = int64_t{columns_.input} * words_;
  const int64_t before = int64_t{padded_columns_.before} * words_;
  std::fill_n(words, padded_rows_.before * padded_row, zero);
  words += padded_rows_.before * padded_row;
  for (int32_t row = 0; row < rows_.input; ++row, words += padded_row) {
    std::fill_n(words, before, zero);
    PackRow(image + int64_t{row} * columns_.input * in_channels_, words + before);
    std::fill_n(words + before + used, padded_row - before - used, zero);
  }
  const int32_t after = padded_rows_.size - padded_rows_.before - rows_.input;
  std::fill_n(words, after * padded_row, zero);
}

// Channels are filled up to whole words: what they meet is 0 in the weights.
template <typename T>
void DotConvolution<T>::PackRow(const T* row, int32_t* words) const {
  const auto pack = [this](const T* x, int64_t count, int32_t* out) {
    if (IsBytes()) {
      PackBytes(x, count, plan_.input_offset, reinterpret_cast<uint8_t*>(out));
    } else {
      PackShorts(x, count, reinterpret_cast<int16_t*>(out));
    }
  };
  if (in_channels_ % NumbersInAWord() == 0) {
    return pack(row, int64_t{columns_.input} * in_channels_, words);
  }
  for (int32_t column = 0; column < columns_.input; ++column) {
    words[(column + 1) * words_ - 1] = 0;
    pack(row + int64_t{column} * in_channels_, in_channels_, words + int64_t{column} * words_);
  }
}

template <typename T>
void DotConvolution<T>::Run(const T* image, const T* elementwise, T* output, int slot) const {
  int32_t* words = images_ + slot * ImageWords();
  PackImage(image, words);
  const DotKernels<T>& kernels = CurrentDotKernels<T>();
  for (int32_t panel = 0; panel < panels_;) {
    int index = 0;
    while (kernels.panels[index] > panels_ - panel) ++index;
    RunPanels(words, elementwise, output, panel, index);
    panel += kernels.panels[index];
  }
}

// All outputs of kernels.panels[size_index] panels: their weights stay in the cache while the image
// goes by. The last tile of a row may overlap the one before it.
template <typename T>
void DotConvolution<T>::RunPanels(const int32_t* words, const T* elementwise, T* output,
                                  int32_t panel, int size_index) const {
  const DotKernels<T>& kernels = CurrentDotKernels<T>();
  int size = 0;
  while (kernels.pixels[size] > columns_.outputs) ++size;
  const int32_t pixels = kernels.pixels[size];
  const auto kernel =
      IsBytes() ? kernels.bytes[size][size_index] : kernels.shorts[size][size_index];
  const int64_t first_channel = int64_t{panel} * kPanel;
  const int32_t lanes = kernels.panels[size_index] * kPanel;
  const int32_t channels = std::min(lanes, out_channels_ - panel * kPanel);

  DotTile tile;
  tile.w = weights_ + panel * PanelWords();
  tile.initial = initial_sums_ + first_channel;
  tile.x_pixel = int64_t{columns_.stride} * words_;
  tile.x_tap = int64_t{columns_.dilation} * words_;
  tile.x_row = int64_t{rows_.dilation} * padded_columns_.size * words_;
  tile.w_panel = PanelWords();
  tile.rows = rows_.taps;
  tile.taps = columns_.taps;
  tile.words = words_;
  // Taps that follow one another are one long one.
  const int64_t words_in_a_row = int64_t{columns_.taps} * words_;
  if (columns_.dilation == 1 && words_in_a_row <= INT32_MAX) {
    tile.taps = 1;
    tile.words = static_cast<int32_t>(words_in_a_row);
  }
  for (int32_t row = 0; row < rows_.outputs; ++row) {
    const int64_t y = rows_.Coordinate(row, 0) + padded_rows_.before;
    for (int32_t next = 0; next < columns_.outputs; next += pixels) {
      const int32_t column = std::min(next, columns_.outputs - pixels);
      const int64_t x = columns_.Coordinate(column, 0) + padded_columns_.before;
      tile.x = words + (y * padded_columns_.size + x) * words_;
      const int64_t o = (int64_t{row} * columns_.outputs + column) * out_channels_ + first_channel;
      kernel(tile, SumOutput<T>{elementwise == nullptr ? nullptr : elementwise + o, output + o,
                                out_channels_, channels, plan_.bits});
    }
  }
}

template class DotConvolution<int32_t>;
template class DotConvolution<float>;

}  // namespace bitfold
