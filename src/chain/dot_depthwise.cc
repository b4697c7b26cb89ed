// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "chain/dot_depthwise.h"

#include <algorithm>

#include "bitfold/int32_arithmetic.h"
#include "chain/lane_windows.h"
#include "chain/pack.h"

namespace bitfold {
namespace {

// Enough rows that those of a window never share a place.
int32_t KeptRows(const WindowAxis& rows) {
  return std::min(std::max(rows.input, 1), (rows.taps - 1) * rows.dilation + 1);
}

}  // namespace

template <typename T>
DotDepthwise<T>::DotDepthwise(const ConvolutionCall<T>& call, const ChainPlan& plan)
    : rows_(call.rows),
      columns_(call.columns),
      in_channels_(call.in_channels),
      channels_(call.out_channels),
      plan_(plan),
      groups_((columns_.taps + NumbersInAWord() - 1) / NumbersInAWord()),
      period_((kPanel + channels_ - 1) / channels_ * channels_),
      kept_rows_(KeptRows(rows_)) {}

template <typename T>
bool DotDepthwise<T>::Prepare(const T* filter, int32_t filters, int slots, Scratch* scratch) {
  bool has_memory = true;
  const auto allocate = [&](int64_t count, size_t size) {
    void* memory = scratch->Allocate(static_cast<size_t>(count) * size);
    has_memory &= memory != nullptr;
    return memory;
  };
  const auto words = [&](int64_t count) {
    return static_cast<int32_t*>(allocate(count, sizeof(int32_t)));
  };
  const int64_t rows = int64_t{filters} * rows_.taps;
  weights_ = words(rows * WeightRow());
  corrections_ = words(rows * period_);
  zeros_ = static_cast<T*>(allocate(channels_, sizeof(T)));
  for (int slot = 0; slot < slots; ++slot) {
    int32_t* kept = words(KeptWords());
    int32_t* held = words(kept_rows_);
    auto* used = static_cast<const int32_t**>(
        allocate(int64_t{rows_.taps} * groups_, sizeof(const int32_t*)));
    slots_.push_back({kept, held, used, words(period_)});
  }
  if (!has_memory) return false;
  std::fill_n(zeros_, channels_, T{0});
  for (int64_t row = 0; row < rows; ++row) {
    int32_t* weights = weights_ + row * WeightRow();
    PackWeights(filter + row * columns_.taps * channels_, weights);
    CorrectRow(weights, corrections_ + row * period_);
  }
  return true;
}

// The weights of a row of taps, for each output of a period; taps that do not exist have 0.
template <typename T>
void DotDepthwise<T>::PackWeights(const T* row, int32_t* words) const {
  const int32_t numbers = NumbersInAWord();
  const int32_t bits = 32 / numbers;
  const uint32_t mask = UINT32_MAX >> (32 - bits);
  std::fill_n(words, WeightRow(), 0);
  for (int32_t tap = 0; tap < columns_.taps; ++tap, row += channels_) {
    int32_t* group = words + tap / numbers * int64_t{period_};
    for (int32_t c = 0; c < channels_; ++c) {
      const auto weight = static_cast<uint32_t>(static_cast<int32_t>(row[c]));
      group[c] |= ShiftLeft(static_cast<int32_t>(weight & mask), tap % numbers * bits);
    }
  }
  for (int32_t g = 0; g < groups_; ++g, words += period_) {
    for (int32_t lane = channels_; lane < period_; ++lane) words[lane] = words[lane - channels_];
  }
}

// Minus the offset times the weights of a row, which what lies left and right of the image has,
// too.
template <typename T>
void DotDepthwise<T>::CorrectRow(const int32_t* weights, int32_t* sums) const {
  std::fill_n(sums, period_, 0);
  if (plan_.input_offset == 0) return;
  for (int32_t g = 0; g < groups_; ++g, weights += period_) {
    for (int32_t lane = 0; lane < period_; ++lane) {
      const int32_t weight = WrapMultiply(plan_.input_offset, SumOfBytes(weights[lane]));
      sums[lane] = WrapSubtract(sums[lane], weight);
    }
  }
}

// A word for each channel of each output. Outputs whose taps all lie inside the image are packed in
// one go where they follow one another in it.
template <typename T>
void DotDepthwise<T>::PackGroup(const T* row, int32_t group, int32_t* out) const {
  const int32_t first = group * NumbersInAWord();
  const int32_t count = std::min(NumbersInAWord(), columns_.taps - first);
  const bool is_dense = columns_.stride == 1 && in_channels_ == channels_;
  for (int32_t column = 0; column < columns_.outputs;) {
    const T* taps[4];
    bool is_inside = true;
    for (int32_t k = 0; k < count; ++k) {
      const int32_t x = columns_.Coordinate(column, first + k);
      is_inside &= columns_.Contains(x);
      taps[k] = columns_.Contains(x) ? row + int64_t{x} * in_channels_ : zeros_;
    }
    int32_t end = column + 1;
    while (is_dense && is_inside && end < columns_.outputs &&
           columns_.Contains(columns_.Coordinate(end, first + count - 1))) {
      ++end;
    }
    const int64_t numbers = int64_t{end - column} * channels_;
    IsBytes() ? PackTapBytes(taps, count, numbers, plan_.input_offset, out)
              : PackTapShorts(taps, count, numbers, out);
    out += numbers;
    column = end;
  }
}

// The words of a row of the image.
template <typename T>
const int32_t* DotDepthwise<T>::KeepRow(const T* image, int32_t row, const Slot& slot) const {
  const int32_t place = row % kept_rows_;
  int32_t* words = slot.words + place * (groups_ * RowWords());
  if (slot.held[place] == row) return words;
  slot.held[place] = row;
  const T* numbers = image + int64_t{row} * columns_.input * in_channels_;
  for (int32_t group = 0; group < groups_; ++group) {
    PackGroup(numbers, group, words + group * RowWords());
  }
  return words;
}

template <typename T>
void DotDepthwise<T>::Run(const T* image, int32_t filter, const T* elementwise, T* output,
                          int32_t first_row, int32_t end_row, int slot_index) const {
  const Slot& slot = slots_[static_cast<size_t>(slot_index)];
  const DotKernels<SumOutput<T>>& kernels = CurrentDotKernels<SumOutput<T>>();
  const auto kernel = IsBytes() ? kernels.row_of_bytes : kernels.row_of_shorts;
  std::fill_n(slot.held, kept_rows_, -1);
  for (int32_t row = first_row; row < end_row; ++row) {
    const TapRange taps = TapsInside(rows_, row);
    const int64_t first = int64_t{filter} * rows_.taps + taps.first;
    std::fill_n(slot.initial, period_, 0);
    for (int32_t r = 0; r < taps.count; ++r) {
      const int32_t* words = KeepRow(image, rows_.Coordinate(row, taps.first + r), slot);
      for (int32_t g = 0; g < groups_; ++g) slot.used[r * groups_ + g] = words + g * RowWords();
      const int32_t* corrections = corrections_ + (first + r) * period_;
      std::transform(slot.initial, slot.initial + period_, corrections, slot.initial, WrapAdd);
    }
    const int64_t o = row * RowWords();
    kernel(DotRow{slot.used, weights_ + first * WeightRow(), slot.initial, RowWords(), period_,
                  taps.count * groups_},
           SumOutput<T>{elementwise == nullptr ? nullptr : elementwise + o, output + o, 0, 0,
                        plan_.bits});
  }
}

template class DotDepthwise<int32_t>;
template class DotDepthwise<float>;

}  // namespace bitfold
