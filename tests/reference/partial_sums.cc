// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Every output's addends are listed, their sums listed, and the lists searched.

#include "partial_sums.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

#include "exact.h"
#include "reference.h"

namespace reference {
namespace {

using exact::DivideHalfEven;
using exact::PowerOfTwo;
using exact::Wide;

struct Output {
  int32_t image;
  int32_t row;
  int32_t column;
  int32_t channel;
};

int32_t Padded(const SummedAxis& axis) { return axis.before + axis.size + axis.after; }

int32_t Outputs(const SummedAxis& axis, bool is_same) {
  return OutputSize(Padded(axis), axis.taps, axis.stride, axis.dilation, is_same);
}

// Where a tap lies, counted from the image's own first number.
int64_t Place(const SummedAxis& axis, bool is_same, int64_t output, int64_t tap) {
  const int32_t extent = (axis.taps - 1) * axis.dilation + 1;
  const int32_t centre = StartIndex(Padded(axis), axis.taps, axis.stride, axis.dilation, is_same);
  return output * axis.stride + centre - extent / 2 + tap * axis.dilation - axis.before;
}

bool IsSummed(const SummedAxis& axis, int64_t place) {
  return place >= -axis.before && place < int64_t{axis.size} + axis.after;
}

bool IsInImage(const SummedAxis& axis, int64_t place) { return place >= 0 && place < axis.size; }

class Lists {
 public:
  Lists(const SummedLayer& layer, const int32_t* input, const int32_t* filter, const int64_t* bias)
      : layer_(layer), input_(input), filter_(filter), bias_(bias) {}

  std::vector<Wide> AddendsOf(const Output& o) const {
    std::vector<Wide> addends;
    for (int32_t y = 0; y < layer_.rows.taps; ++y) {
      for (int32_t k = 0; k < layer_.in_channels; ++k) {
        if (layer_.is_depthwise && k != o.channel) continue;
        for (int32_t x = 0; x < layer_.columns.taps; ++x) {
          const int64_t row = Place(layer_.rows, layer_.is_same, o.row, y);
          const int64_t column = Place(layer_.columns, layer_.is_same, o.column, x);
          if (!IsSummed(layer_.rows, row) || !IsSummed(layer_.columns, column)) continue;
          addends.push_back(Number(o, row, column, k) * WeightOf(o, y, x, k));
        }
      }
    }
    if (bias_ != nullptr) addends.push_back(bias_[o.channel]);
    for (Wide& addend : addends) addend = DivideHalfEven(addend, PowerOfTwo(layer_.mult_shift));
    return addends;
  }

 private:
  Wide Number(const Output& o, int64_t row, int64_t column, int64_t k) const {
    if (!IsInImage(layer_.rows, row) || !IsInImage(layer_.columns, column)) return 0;
    const int64_t line = int64_t{o.image} * layer_.rows.size + row;
    const int64_t at = (line * layer_.columns.size + column) * layer_.in_channels + k;
    return Wide{input_[at]} - layer_.input_zero_point;
  }

  Wide WeightOf(const Output& o, int64_t y, int64_t x, int64_t k) const {
    const int64_t depth = layer_.is_depthwise ? 1 : layer_.in_channels;
    const int64_t area = int64_t{layer_.rows.taps} * layer_.columns.taps;
    const int64_t image = layer_.filters > 1 ? o.image : 0;
    const int64_t tap = image * area + y * layer_.columns.taps + x;
    const int64_t at = (tap * depth + (layer_.is_depthwise ? 0 : k)) * layer_.out_channels;
    return Wide{filter_[at + o.channel]} - layer_.filter_zero_point;
  }

  const SummedLayer& layer_;
  const int32_t* const input_;
  const int32_t* const filter_;
  const int64_t* const bias_;
};

void Widen(Wide sum, int64_t* least, int64_t* greatest) {
  *least = static_cast<int64_t>(std::min<Wide>(*least, sum));
  *greatest = static_cast<int64_t>(std::max<Wide>(*greatest, sum));
}

void AddSums(const std::vector<Wide>& sums, const std::vector<int32_t>& sizes,
             SummedChannel* channel) {
  const Wide last = sums.empty() ? 0 : sums.back();
  Widen(last, &channel->least_final, &channel->greatest_final);
  Widen(sums.empty() ? last : *std::min_element(sums.begin(), sums.end()), &channel->least_partial,
        &channel->greatest_partial);
  Widen(sums.empty() ? last : *std::max_element(sums.begin(), sums.end()), &channel->least_partial,
        &channel->greatest_partial);
  for (size_t i = 0; i < sizes.size(); ++i) {
    const Wide end = PowerOfTwo(sizes[i] - 1);
    const auto is_outside = [end](Wide sum) { return sum < -end || end <= sum; };
    channel->ends_outside[i] += is_outside(last) ? 1 : 0;
    channel->partials_outside[i] += std::count_if(sums.begin(), sums.end(), is_outside);
    const auto first = std::find_if(sums.begin(), sums.end(), is_outside);
    if (first == sums.end()) continue;
    channel->was_outside[i] += 1;
    const int64_t step = first - sums.begin() + 1;
    int64_t& least = channel->first_outside[i];
    least = least == 0 ? step : std::min(least, step);
  }
}

}  // namespace

std::vector<SummedChannel> SumsOnTheWay(const SummedLayer& layer, const int32_t* input,
                                        const int32_t* filter, const int64_t* bias) {
  const std::vector<int64_t> none(layer.sizes.size());
  constexpr int64_t kGreatest = std::numeric_limits<int64_t>::max();
  const SummedChannel empty = {kGreatest, -kGreatest - 1, kGreatest, -kGreatest - 1,
                               none,      none,           none,      none};
  std::vector<SummedChannel> channels(static_cast<size_t>(layer.out_channels), empty);
  const Lists lists(layer, input, filter, bias);
  for (int32_t image = 0; image < layer.batch; ++image) {
    for (int32_t row = 0; row < Outputs(layer.rows, layer.is_same); ++row) {
      for (int32_t column = 0; column < Outputs(layer.columns, layer.is_same); ++column) {
        for (int32_t k = 0; k < layer.out_channels; ++k) {
          std::vector<Wide> sums = lists.AddendsOf({image, row, column, k});
          for (size_t i = 1; i < sums.size(); ++i) sums[i] += sums[i - 1];
          AddSums(sums, layer.sizes, &channels[static_cast<size_t>(k)]);
        }
      }
    }
  }
  return channels;
}

}  // namespace reference
