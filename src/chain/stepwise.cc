// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "chain/stepwise.h"

#include <algorithm>
#include <type_traits>

#include "bitfold/datapath.h"
#include "vector/vector_steps.h"

namespace bitfold {

template <typename D, typename T>
Stepwise<D, T>::Stepwise(const ConvolutionCall<T>& call, const D& datapath, HalfAddends half)
    : datapath_(datapath),
      half_(half),
      rows_(call.rows),
      columns_(call.columns),
      centre_(CentreTaps{rows_}.first),
      out_channels_(call.out_channels),
      is_depthwise_(call.is_depthwise),
      windows_(call) {}

template <typename D, typename T>
void Stepwise<D, T>::Run(const ChainImage<T>& image, const OutputBlock& block,
                         const DefineOutput& define) const {
  const int64_t in_a_row = int64_t{block.columns()} * out_channels_;
  Marks may_print{block.first_column, {}};
  if (std::is_same_v<T, float>) may_print.marks.resize(static_cast<size_t>(in_a_row));
  for (int32_t row = block.first_row; row < block.end_row; ++row) {
    bool any = false;
    windows_.ForEachTile(
        block, [&](const LanePlace& place) { any |= RunTile(image, row, place, &may_print); });
    if (!any) continue;
    for (int32_t column = block.first_column; column < block.end_column; ++column) {
      for (int32_t channel = block.first_channel; channel < block.end_channel; ++channel) {
        char& mark = *MarksFrom(column, channel, &may_print);
        if (mark != 0) define(OutputIndex(row, column, channel));
        mark = 0;
      }
    }
  }
}

template <typename D, typename T>
int32_t Stepwise<D, T>::ChannelsOf(const LanePlace& place) const {
  return std::min(place.panels * kPanel, out_channels_ - place.channel);
}

// Marks the outputs that may print a line; true where there are any.
template <typename D, typename T>
bool Stepwise<D, T>::RunTile(const ChainImage<T>& image, int32_t row, const LanePlace& place,
                             Marks* may_print) const {
  T acc[kTilePixels * kTilePanels * kPanel] = {};
  int32_t largest[kTilePixels * kTilePanels * kPanel] = {};
  const auto& kernels = LaneKernelsOf<D, T>();
  const auto& table = is_depthwise_ ? kernels.depthwise : kernels.ordinary;
  const auto kernel = table[place.pixels == kTilePixels][place.panels == kTilePanels];
  const auto add_rows = [&](int32_t first, int32_t end) {
    if (first >= end || place.taps.count == 0) return;
    LaneTile<T> tile = windows_.TileOf(place, row, TapRange{first, end - first}, image.input,
                                       filter_.Of(image.filter));
    tile.acc = acc;
    tile.largest = largest;
    tile.half = half_;
    kernel(datapath_, tile);
  };

  const TapRange rows = TapsInside(rows_, row);
  const int32_t end = rows.first + rows.count;
  const bool has_addend = image.elementwise != nullptr;
  const int32_t middle = has_addend ? std::min(end, centre_ + 1) : end;
  add_rows(rows.first, middle);
  if (has_addend) AddElementwise(image.elementwise, place, row, acc, largest);
  add_rows(std::max(rows.first, middle), end);
  return Write(image, row, place, acc, largest, may_print);
}

template <typename D, typename T>
void Stepwise<D, T>::AddElementwise(const T* addends, const LanePlace& place, int32_t row, T* acc,
                                    int32_t* largest) const {
  const int32_t lanes = place.panels * kPanel;
  const int32_t channels = ChannelsOf(place);
  for (int32_t p = 0; p < place.pixels; ++p, acc += lanes, largest += lanes) {
    const T* values = addends + OutputIndex(row, place.column + p, place.channel);
    for (int32_t l = 0; l < channels; ++l) {
      acc[l] = datapath_.use_fp16_acc()
                   ? Accumulate<true>(datapath_, acc[l], values[l], &largest[l])
                   : Accumulate<false>(datapath_, acc[l], values[l], &largest[l]);
    }
  }
}

template <typename D, typename T>
bool Stepwise<D, T>::Write(const ChainImage<T>& image, int32_t row, const LanePlace& place,
                           const T* acc, const int32_t* largest, Marks* may_print) const {
  const int32_t lanes = place.panels * kPanel;
  const int32_t channels = ChannelsOf(place);
  bool any = false;
  for (int32_t p = 0; p < place.pixels; ++p, acc += lanes, largest += lanes) {
    std::copy_n(acc, channels, image.output + OutputIndex(row, place.column + p, place.channel));
    if (std::is_same_v<T, int32_t>) continue;
    char* marks = MarksFrom(place.column + p, place.channel, may_print);
    for (int32_t l = 0; l < channels; ++l) {
      const bool may = MayWarn(largest[l]);
      marks[l] = may ? 1 : 0;
      any |= may;
    }
  }
  return any;
}

template class Stepwise<Datapath<int32_t>, int32_t>;
template class Stepwise<Datapath<float>, float>;
template class Stepwise<ReciprocalDatapath<float>, float>;

}  // namespace bitfold
