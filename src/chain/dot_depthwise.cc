// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "chain/dot_depthwise.h"

#include <algorithm>

#include "bitfold/int32_arithmetic.h"
#include "chain/pack.h"

namespace bitfold {
namespace {

// Sums of stored outputs at a time, roughly: a part of the nearest cache.
constexpr int32_t kSumsTogether = 4096;

constexpr int64_t kLine = 64;  // of a cache

int64_t WholeLines(int64_t bytes) { return (bytes + kLine - 1) / kLine * kLine; }

// Whole outputs of at least a block, of which an eighth at most is computed twice.
int32_t PeriodOf(int32_t channels) {
  int32_t period = channels;
  const auto twice = [&period] { return (kRowBlock - period % kRowBlock) % kRowBlock; };
  while (period < kRowBlock || twice() > period / 8) period += channels;
  return period;
}

// The columns modulo the stride that taps meet, each once.
std::vector<int32_t> PhasesOf(const WindowAxis& columns) {
  std::vector<int32_t> phases;
  phases.reserve(static_cast<size_t>(columns.taps));
  for (int32_t tap = 0; tap < columns.taps; ++tap) {
    phases.push_back(tap * columns.dilation % columns.stride);
  }
  std::sort(phases.begin(), phases.end());
  phases.erase(std::unique(phases.begin(), phases.end()), phases.end());
  return phases;
}

// The first `channels` lanes again and again.
void RepeatLanes(int32_t* words, int32_t channels, int32_t lanes) {
  for (int64_t done = channels; done < lanes; done *= 2) {
    std::copy_n(words, std::min(done, lanes - done), words + done);
  }
}

template <typename T>
void RunKernel(const DotRow<uint8_t>& row, const SumOutput<T>& output) {
  CurrentDotRowKernels<T>().bytes(row, output);
}
template <typename T>
void RunKernel(const DotRow<int16_t>& row, const SumOutput<T>& output) {
  CurrentDotRowKernels<T>().shorts(row, output);
}

}  // namespace

template <typename In, typename Output>
DotDepthwise<In, Output>::DotDepthwise(const DotLayer& layer, const ChainPlan& plan)
    : layer_(layer),
      plan_(plan),
      taps_(layer.rows.taps * layer.columns.taps),
      period_(PeriodOf(layer.out_channels)),
      lanes_((period_ + kRowBlock - 1) / kPanel * kPanel + kPanel),
      kept_rows_(
          std::min(std::max(layer.rows.input, 1), (layer.rows.taps - 1) * layer.rows.dilation + 1)),
      phases_(PhasesOf(layer.columns)) {
  const WindowAxis& columns = layer.columns;
  phase_columns_ = columns.outputs + (columns.taps - 1) * columns.dilation / columns.stride;
  for (int32_t tap = 0; tap < columns.taps; ++tap) {
    const int32_t column = tap * columns.dilation;
    const auto phase = std::lower_bound(phases_.begin(), phases_.end(), column % columns.stride);
    const int64_t planes = phase - phases_.begin();
    tap_offsets_.push_back((planes * phase_columns_ + column / columns.stride) *
                           layer.out_channels);
  }
  const auto phases = static_cast<int64_t>(phases_.size());
  row_numbers_ = WholeLines(phases * phase_columns_ * layer.out_channels + kRowBlock);
}

template <typename In, typename Output>
int64_t DotDepthwise<In, Output>::HeldBytes() const {
  return WholeLines(kept_rows_ * int64_t{sizeof(int32_t)});
}

template <typename In, typename Output>
int64_t DotDepthwise<In, Output>::TapBytes() const {
  return WholeLines(int64_t{Words()} * NumbersInAWord() * int64_t{sizeof(void*)});
}

template <typename In, typename Output>
int32_t DotDepthwise<In, Output>::ColumnsTogether() const {
  const int32_t columns = std::max(1, kSumsTogether / layer_.out_channels);
  return std::min(columns, layer_.columns.outputs);
}

template <typename In, typename Output>
int64_t DotDepthwise<In, Output>::SumBytes() const {
  if constexpr (!std::is_same_v<Output, StoredOutput>) return 0;
  // FinishTile reads whole panels.
  const int64_t sums = int64_t{ColumnsTogether()} * layer_.out_channels + kPanel;
  return WholeLines(sums * int64_t{sizeof(int32_t)});
}

template <typename In, typename Output>
int64_t DotDepthwise<In, Output>::MemoryBytes() const {
  int64_t bytes;
  const bool overflows =
      __builtin_mul_overflow(int64_t{kept_rows_}, RowBytes(), &bytes) ||
      __builtin_add_overflow(bytes, HeldBytes() + TapBytes() + SumBytes(), &bytes);
  return overflows ? INT64_MAX : bytes;
}

template <typename In, typename Output>
bool DotDepthwise<In, Output>::Prepare(const Weight* filter, int32_t filters, Scratch* scratch,
                                       const int32_t* addends) {
  const auto words = [scratch](int64_t count) {
    return static_cast<int32_t*>(scratch->Allocate(static_cast<size_t>(count) * sizeof(int32_t)));
  };
  const int64_t filter_words = int64_t{Words()} * lanes_;
  weights_ = words(filters * filter_words);
  initial_sums_ = words(int64_t{filters} * lanes_);
  outside_ = scratch->Allocate(static_cast<size_t>(RowBytes()));
  if (weights_ == nullptr || initial_sums_ == nullptr || outside_ == nullptr) return false;
  // Shorts have no offset.
  std::fill_n(static_cast<uint8_t*>(outside_), RowBytes(),
              static_cast<uint8_t>(plan_.input_offset));
  for (int32_t i = 0; i < filters; ++i, filter += int64_t{taps_} * layer_.out_channels) {
    PackWeights(filter, weights_ + i * filter_words);
    SumWeights(filter, addends, initial_sums_ + int64_t{i} * lanes_);
  }
  return true;
}

template <typename In, typename Output>
void DotDepthwise<In, Output>::PackWeights(const Weight* filter, int32_t* words) const {
  const int32_t each = NumbersInAWord();
  const int32_t channels = layer_.out_channels;
  for (int32_t first = 0; first < taps_; first += each, words += lanes_) {
    const int32_t taps = std::min(each, taps_ - first);
    const Weight* x[4] = {};
    for (int32_t k = 0; k < taps; ++k) x[k] = filter + int64_t{first + k} * channels;
    IsBytes() ? PackTapBytes(x, taps, channels, words) : PackTapShorts(x, taps, channels, words);
    RepeatLanes(words, channels, lanes_);
  }
}

// The addends minus the offset times the weights, which what lies outside the image has, too.
template <typename In, typename Output>
void DotDepthwise<In, Output>::SumWeights(const Weight* filter, const int32_t* addends,
                                          int32_t* sums) const {
  const int32_t channels = layer_.out_channels;
  std::fill_n(sums, channels, 0);
  for (int32_t tap = 0; tap < taps_ && plan_.input_offset != 0; ++tap) {
    AddNumbers(filter + int64_t{tap} * channels, channels, sums);
  }
  for (int32_t c = 0; c < channels; ++c) {
    const int32_t addend = addends == nullptr ? 0 : addends[c];
    sums[c] = WrapSubtract(addend, WrapMultiply(plan_.input_offset, sums[c]));
  }
  RepeatLanes(sums, channels, lanes_);
}

// Phase by phase; what lies left and right of the image is 0 there.
template <typename In, typename Output>
template <typename Number>
bool DotDepthwise<In, Output>::PackRow(const In* row, Number* out) const {
  const WindowAxis& columns = layer_.columns;
  const int64_t channels = layer_.out_channels;
  const auto outside = static_cast<Number>(plan_.input_offset);
  bool fits = true;
  for (const int32_t phase : phases_) {
    const int32_t first = columns.first + phase;
    // Columns [begin, end) of the phase lie inside.
    const int64_t before = first < 0 ? (int64_t{-first} + columns.stride - 1) / columns.stride : 0;
    const int64_t room = int64_t{columns.input} - first;
    const int64_t inside = room <= 0 ? 0 : (room - 1) / columns.stride + 1;
    const int64_t begin = std::min(before, phase_columns_);
    const int64_t end = std::max(begin, std::min(inside, phase_columns_));
    std::fill_n(out, begin * channels, outside);
    if (end > begin) {
      const In* x = row + (first + begin * columns.stride) * layer_.in_channels;
      const ColumnShape shape = {end - begin, int64_t{columns.stride} * layer_.in_channels,
                                 channels};
      const int32_t offset = plan_.input_offset - layer_.zero_point;
      Number* to = out + begin * channels;
      if constexpr (std::is_same_v<Number, uint8_t>) {
        fits &= PackColumns(x, shape, offset, to);
      } else {
        PackColumns(x, shape, offset, to);
      }
    }
    std::fill(out + end * channels, out + phase_columns_ * channels, outside);
    out += phase_columns_ * channels;
  }
  return fits;
}

template <typename In, typename Output>
template <typename Number>
const Number* DotDepthwise<In, Output>::KeepRow(const In* image, int32_t row,
                                                Kept<Number>* kept) const {
  const int32_t place = row % kept_rows_;
  Number* numbers = kept->rows + place * row_numbers_;
  if (kept->held[place] == row) return numbers;
  kept->held[place] = row;
  const int64_t image_row = int64_t{layer_.columns.input} * layer_.in_channels;
  kept->fits &= PackRow(image + row * image_row, numbers);
  return numbers;
}

// The taps of a row of outputs; those that fill up the last word are its last tap again.
template <typename In, typename Output>
template <typename Number>
void DotDepthwise<In, Output>::FindTaps(const In* image, int32_t row, Kept<Number>* kept) const {
  const WindowAxis& rows = layer_.rows;
  const Number** next = kept->taps;
  for (int32_t tap = 0; tap < rows.taps; ++tap) {
    const int32_t y = rows.Coordinate(row, tap);
    const Number* numbers =
        rows.Contains(y) ? KeepRow(image, y, kept) : static_cast<const Number*>(outside_);
    for (const int64_t offset : tap_offsets_) *next++ = numbers + offset;
  }
  const Number* last = next[-1];
  std::fill(next, kept->taps + Words() * NumbersInAWord(), last);
}

template <typename In, typename Output>
bool DotDepthwise<In, Output>::Run(const In* image, const DepthwiseBlock& block,
                                   const Output& output, void* memory) const {
  return IsBytes() ? RunAs<uint8_t>(image, block, output, memory)
                   : RunAs<int16_t>(image, block, output, memory);
}

template <typename In, typename Output>
template <typename Number>
bool DotDepthwise<In, Output>::RunAs(const In* image, const DepthwiseBlock& block,
                                     const Output& output, void* memory) const {
  char* next = static_cast<char*>(memory);
  const auto carve = [&next](int64_t bytes) -> void* {
    char* part = next;
    next += bytes;
    return part;
  };
  Kept<Number> kept{};
  kept.rows = static_cast<Number*>(carve(kept_rows_ * RowBytes()));
  kept.held = static_cast<int32_t*>(carve(HeldBytes()));
  kept.taps = static_cast<const Number**>(carve(TapBytes()));
  kept.sums = static_cast<int32_t*>(carve(SumBytes()));
  kept.fits = true;
  std::fill_n(kept.held, kept_rows_, -1);

  const int32_t channels = layer_.out_channels;
  const int32_t outputs = layer_.columns.outputs;
  DotRow<Number> dots{};
  dots.x = kept.taps;
  dots.w = weights_ + block.filter * (int64_t{Words()} * lanes_);
  dots.initial = initial_sums_ + int64_t{block.filter} * lanes_;
  dots.length = int64_t{outputs} * channels;
  dots.period = period_;
  dots.lanes = lanes_;
  dots.taps = taps_;
  for (int32_t row = block.first_row; row < block.end_row; ++row) {
    FindTaps(image, row, &kept);
    if (!kept.fits) return false;
    const Output row_output = output.At(int64_t{row} * outputs, 0, channels);
    if constexpr (std::is_same_v<Output, StoredOutput>) {
      StoreRow(dots, row_output, kept);
    } else {
      RunKernel(dots, row_output);
    }
  }
  return true;
}

// A few columns at a time, whose sums stay in the nearest cache.
template <typename In, typename Output>
template <typename Number>
void DotDepthwise<In, Output>::StoreRow(DotRow<Number> dots, const StoredOutput& output,
                                        const Kept<Number>& kept) const {
  const int32_t channels = layer_.out_channels;
  const int32_t outputs = layer_.columns.outputs;
  for (int32_t column = 0; column < outputs;) {
    const int32_t columns = std::min(ColumnsTogether(), outputs - column);
    dots.length = int64_t{columns} * channels;
    RunKernel(dots, SumOutput<int32_t>{nullptr, kept.sums, 0, 0, 32});
    FinishTile(kept.sums, columns, channels, output.At(column, 0, channels));
    column += columns;
    for (int32_t k = 0; k < Words() * NumbersInAWord(); ++k) kept.taps[k] += dots.length;
  }
}

template class DotDepthwise<int32_t, SumOutput<int32_t>>;
template class DotDepthwise<float, SumOutput<float>>;
template class DotDepthwise<int8_t, StoredOutput>;
template class DotDepthwise<int16_t, StoredOutput>;

}  // namespace bitfold
