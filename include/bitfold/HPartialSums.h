// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HPartialSums: which values the sums of a layer take on their way, as whole numbers that never
// wrap: what an accumulator must hold, and what would leave one of w bits. The definition. The
// addends of an output are those of HConv2d, HConv2dDilation or HDepthWise on the numbers less
// their zero points, in their order, and then the bias; with one filter for each image of one row
// and taps of one pixel they are those of HMatmul.
//
//   p(0) = 0,  p(k) = p(k - 1) + a(k)  for 1 <= k <= n,  where a(k) is the k-th addend
//   a(k) = x * w / 2^s  or, at last,  bias / 2^s,  halves to even
//
// p(1) to p(n) are the partial sums, p(n) is the final one. What a window meets outside of the
// padded image is no addend. A sum of no addends is 0, and has no partial sums. Of w bits
//   p is outside    where p < -2^(w-1) or p > 2^(w-1) - 1.

#ifndef BITFOLD_HPARTIAL_SUMS_H_
#define BITFOLD_HPARTIAL_SUMS_H_

#include <algorithm>
#include <cstdint>
#include <limits>

#include "bitfold/HPreparedConvolution.h"
#include "bitfold/geometry.h"

namespace bitfold {

// Sums stay within 64 bits: a chain has fewer products than an image has numbers, each below 2^32
// in magnitude.
inline constexpr int64_t kMostSummedElements = int64_t{1} << 29;
inline constexpr int64_t kLargestSummedBias = int64_t{1} << 62;
inline constexpr int32_t kMostSummedShift = 30;

// x / 2^shift, halves to even. Requires |x| <= 2^62 and 0 <= shift <= 30.
constexpr int64_t ScaledAddend(int64_t x, int32_t shift) {
  if (shift == 0) return x;
  const int64_t below_half = (int64_t{1} << (shift - 1)) - 1;
  return (x + below_half + (x >> shift & 1)) >> shift;
}

// Requires
//   axes     as those of a prepared layer, with fewer than kMostSummedElements numbers in the
//            padded image;
//   filter   HWIO, or, depthwise, HWO; `filters` of them, 1 or batch;
//   bias     null or of out_channels, of at most kLargestSummedBias in magnitude;
//   zero points that the types hold; 0 <= mult_shift <= kMostSummedShift;
//   sizes    from 1 to 32, in any order;
//   depthwise: out_channels <= in_channels.
template <typename In, typename Weight>
struct PartialSumsCall {
  const In* input;
  const Weight* filter;
  const int64_t* bias;
  int32_t batch;
  int32_t in_channels;
  int32_t out_channels;
  LayerAxis rows;
  LayerAxis columns;
  bool is_depthwise;
  int32_t filters;
  int32_t input_zero_point;
  int32_t filter_zero_point;
  int32_t mult_shift;
  const int32_t* sizes;
  int32_t size_count;

  // Of one image and of one filter.
  int64_t InputElements() const { return int64_t{rows.input} * columns.input * in_channels; }
  int64_t FilterElements() const {
    return int64_t{rows.taps} * columns.taps * (is_depthwise ? 1 : in_channels) * out_channels;
  }
  int64_t Positions() const { return int64_t{rows.outputs()} * columns.outputs(); }
};

// The rows of `extremes`, and what is counted of a width and channel.
enum SumExtreme { kLeastFinal, kGreatestFinal, kLeastPartial, kGreatestPartial, kSumExtremes };
enum SumCount { kEndsOutside, kWasOutside, kPartialsOutside, kSumCounts };

// What is found, of all sums of a channel together:
//   extremes  [kSumExtremes][channels]: of p(n) and of all p(1) to p(n), of which a sum of no
//             addends has the 0 that it is;
//   counts    [sizes][channels][kSumCounts]: sums with p(n) outside; with some p(k) outside; the
//             p(k) outside;
//   first     [sizes][channels]: the least k with p(k) outside, 0 where there is none.
struct PartialSumsTables {
  int64_t* extremes;
  int64_t* counts;
  int64_t* first;
};

// Before any sum.
inline void ClearPartialSums(int64_t channels, int64_t sizes, const PartialSumsTables& tables) {
  constexpr int64_t kNone[kSumExtremes] = {
      std::numeric_limits<int64_t>::max(), std::numeric_limits<int64_t>::min(),
      std::numeric_limits<int64_t>::max(), std::numeric_limits<int64_t>::min()};
  for (int e = 0; e < kSumExtremes; ++e) {
    std::fill_n(tables.extremes + e * channels, channels, kNone[e]);
  }
  std::fill_n(tables.counts, sizes * channels * kSumCounts, 0);
  std::fill_n(tables.first, sizes * channels, 0);
}

// The definition, an object per call and thread: adds outputs to the tables.
template <typename In, typename Weight>
class PartialSums {
 public:
  PartialSums(const PartialSumsCall<In, Weight>& call, const PartialSumsTables& tables)
      : call_(call),
        tables_(tables),
        rows_(call.rows.OfPadded()),
        columns_(call.columns.OfPadded()) {}

  // One output.
  void AddOutput(int32_t image, int32_t row, int32_t column, int32_t channel) {
    channel_ = channel;
    sum_ = 0;
    addends_ = 0;
    was_outside_ = 0;
    for (int32_t kh = 0; kh < rows_.taps; ++kh) {
      const int32_t ih = rows_.Coordinate(row, kh);
      if (rows_.Contains(ih)) AddRow(image, kh, ih, column);
    }
    if (call_.bias != nullptr) AddAddend(call_.bias[channel]);
    End();
  }

 private:
  // Input channels outside, filter columns inside; depthwise the one of the same number.
  void AddRow(int32_t image, int32_t kh, int32_t ih, int32_t column) {
    const int32_t first = call_.is_depthwise ? channel_ : 0;
    const int32_t end = call_.is_depthwise ? channel_ + 1 : call_.in_channels;
    for (int32_t ic = first; ic < end; ++ic) {
      for (int32_t kw = 0; kw < columns_.taps; ++kw) {
        const int32_t iw = columns_.Coordinate(column, kw);
        if (columns_.Contains(iw)) {
          AddAddend(Number(image, ih, iw, ic) * WeightAt(image, kh, ic, kw));
        }
      }
    }
  }

  // At coordinates of the padded image, around which there are zeros.
  int64_t Number(int32_t image, int32_t ih, int32_t iw, int32_t ic) const {
    const int32_t r = ih - call_.rows.before;
    const int32_t c = iw - call_.columns.before;
    if (r < 0 || r >= call_.rows.input || c < 0 || c >= call_.columns.input) return 0;
    const int64_t pixel = (int64_t{image} * call_.rows.input + r) * call_.columns.input + c;
    return int64_t{call_.input[pixel * call_.in_channels + ic]} - call_.input_zero_point;
  }

  int64_t WeightAt(int32_t image, int32_t kh, int32_t ic, int32_t kw) const {
    int64_t tap = int64_t{kh} * columns_.taps + kw;
    if (!call_.is_depthwise) tap = tap * call_.in_channels + ic;
    const int64_t filter = call_.filters > 1 ? image * call_.FilterElements() : 0;
    return int64_t{call_.filter[filter + tap * call_.out_channels + channel_]} -
           call_.filter_zero_point;
  }

  bool IsOutside(int32_t size) const {
    const int64_t limit = int64_t{1} << (size - 1);
    return sum_ < -limit || sum_ > limit - 1;
  }

  void AddAddend(int64_t addend) {
    sum_ += ScaledAddend(addend, call_.mult_shift);
    ++addends_;
    Include(kLeastPartial, kGreatestPartial);
    for (int32_t i = 0; i < call_.size_count; ++i) {
      if (!IsOutside(call_.sizes[i])) continue;
      was_outside_ |= uint64_t{1} << call_.sizes[i];
      ++Count(i, kPartialsOutside);
      int64_t& first = tables_.first[int64_t{i} * call_.out_channels + channel_];
      if (first == 0 || addends_ < first) first = addends_;
    }
  }

  void End() {
    Include(kLeastFinal, kGreatestFinal);
    if (addends_ == 0) Include(kLeastPartial, kGreatestPartial);
    for (int32_t i = 0; i < call_.size_count; ++i) {
      Count(i, kEndsOutside) += IsOutside(call_.sizes[i]) ? 1 : 0;
      Count(i, kWasOutside) += was_outside_ >> call_.sizes[i] & 1;
    }
  }

  void Include(SumExtreme least, SumExtreme greatest) {
    int64_t& low = tables_.extremes[int64_t{least} * call_.out_channels + channel_];
    int64_t& high = tables_.extremes[int64_t{greatest} * call_.out_channels + channel_];
    low = std::min(low, sum_);
    high = std::max(high, sum_);
  }

  int64_t& Count(int32_t size, SumCount what) {
    return tables_.counts[(int64_t{size} * call_.out_channels + channel_) * kSumCounts + what];
  }

  const PartialSumsCall<In, Weight>& call_;
  const PartialSumsTables tables_;
  const WindowAxis rows_;
  const WindowAxis columns_;
  int32_t channel_ = 0;
  int64_t sum_ = 0;
  int64_t addends_ = 0;
  uint64_t was_outside_ = 0;  // a bit for each width
};

// The op; the definition. Adds all outputs to the tables.
template <typename In, typename Weight>
void DefinePartialSums(const PartialSumsCall<In, Weight>& call, const PartialSumsTables& tables) {
  PartialSums<In, Weight> sums(call, tables);
  for (int32_t image = 0; image < call.batch; ++image) {
    for (int32_t row = 0; row < call.rows.outputs(); ++row) {
      for (int32_t column = 0; column < call.columns.outputs(); ++column) {
        for (int32_t channel = 0; channel < call.out_channels; ++channel) {
          sums.AddOutput(image, row, column, channel);
        }
      }
    }
  }
}

}  // namespace bitfold

#endif  // BITFOLD_HPARTIAL_SUMS_H_
