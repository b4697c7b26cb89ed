// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "chain/lane_sums.h"

#include <algorithm>
#include <cmath>
#include <type_traits>

#include "bitfold/product_scaling.h"

namespace bitfold {

template <typename T>
LaneSums<T>::LaneSums(const ConvolutionCall<T>& call, const ChainPlan& plan, int32_t mult_shift)
    : rows_(call.rows),
      columns_(call.columns),
      in_channels_(call.in_channels),
      out_channels_(call.out_channels),
      is_depthwise_(call.is_depthwise),
      plan_(plan),
      mult_shift_(mult_shift),
      windows_(call) {}

// Divisors that are powers of two go into the weights: their products stay exact.
template <typename T>
bool LaneSums<T>::Prepare(const ConvolutionCall<T>& call, int32_t columns, int slots,
                          Scratch* scratch) {
  if (plan_.path != ChainPath::kRounded) return filter_.Use(call, scratch);
  float scale = 1.0f;
  rounded_ = {true, 0.0f, 0.0f};
  if (std::is_same_v<T, int32_t>) {
    scale = std::exp2(static_cast<float>(-mult_shift_));
  } else if (IsPowerOfTwo(mult_shift_)) {
    scale = ShiftReciprocal(mult_shift_);
  } else {
    rounded_ = RoundedSums::ByQuotient(mult_shift_);
  }
  const auto convert = [scale](T x) { return static_cast<float>(x) * scale; };
  if (!rounded_filter_.Convert(call, scratch, convert)) return false;
  if (std::is_same_v<T, float>) return true;
  const int64_t met = (int64_t{columns} - 1) * columns_.stride +
                      (int64_t{columns_.taps} - 1) * columns_.dilation + 1;
  rounded_row_elements_ = rows_.taps * std::min<int64_t>(met, columns_.input) * in_channels_;
  rounded_rows_ = AllocateFor<float>(scratch, slots * rounded_row_elements_);
  return rounded_rows_ != nullptr;
}

template <typename T>
void LaneSums<T>::Run(const ChainImage<T>& image, const OutputBlock& block, int slot) const {
  if (plan_.path == ChainPath::kRounded) return RunRounded(image, block, slot);
  mult_shift_ == 0 || std::is_same_v<T, float> ? RunPlain(image, block) : RunModular(image, block);
}

template <typename T>
SumOutput<T> LaneSums<T>::OutputAt(const ChainImage<T>& image, int32_t row, int32_t column,
                                   int32_t channel) const {
  const SumOutput<T> all{image.elementwise, image.output, out_channels_, out_channels_, plan_.bits};
  return all.At(int64_t{row} * columns_.outputs + column, channel, out_channels_ - channel);
}

// begin(row, rows) comes before the tiles of a row of outputs, of which add(row, rows, place, sums)
// adds the products to the sums of a tile, each of them `excess` too large.
template <typename T>
template <typename Begin, typename Add>
void LaneSums<T>::RunSums(const ChainImage<T>& image, const OutputBlock& block, uint32_t excess,
                          Begin begin, Add add) const {
  const auto finish = CurrentSumKernels<T>().finish;
  const uint32_t products_of_a_tap = is_depthwise_ ? 1 : static_cast<uint32_t>(in_channels_);
  for (int32_t row = block.first_row; row < block.end_row; ++row) {
    const TapRange rows = TapsInside(rows_, row);
    begin(row, rows);
    windows_.ForEachTile(block, [&](const LanePlace& place) {
      int32_t acc[kTilePixels * kTilePanels * kPanel] = {};
      const uint32_t products = static_cast<uint32_t>(rows.count) *
                                static_cast<uint32_t>(place.taps.count) * products_of_a_tap;
      if (rows.count > 0 && place.taps.count > 0) add(row, rows, place, acc);
      const int32_t lanes = place.panels * kPanel;
      SumOutput<T> output = OutputAt(image, row, place.column, place.channel);
      output.channels = std::min(lanes, output.channels);
      finish(TileSums<int32_t>{acc, place.pixels, lanes, static_cast<int32_t>(products * excess)},
             output);
    });
  }
}

// Int32 with a shift.
template <typename T>
void LaneSums<T>::RunModular(const ChainImage<T>& image, const OutputBlock& block) const {
  if constexpr (std::is_same_v<T, int32_t>) {
    const ModularDatapath datapath(mult_shift_);
    const auto& kernels = LaneKernelsOf<ModularDatapath, int32_t>();
    const auto& table = is_depthwise_ ? kernels.depthwise : kernels.ordinary;
    const int32_t* filter = filter_.Of(image.filter);
    RunSums(
        image, block, 0, [](int32_t, const TapRange&) {},
        [&](int32_t row, const TapRange& rows, const LanePlace& place, int32_t* sums) {
          LaneTile<int32_t> tile = windows_.TileOf(place, row, rows, image.input, filter);
          tile.acc = sums;
          table[place.pixels == kTilePixels][place.panels == kTilePanels](datapath, tile);
        });
  }
}

// Products that need no scaling.
template <typename T>
void LaneSums<T>::RunPlain(const ChainImage<T>& image, const OutputBlock& block) const {
  const SumKernels<T>& kernels = CurrentSumKernels<T>();
  const T* filter = filter_.Of(image.filter);
  for (int32_t row = block.first_row; row < block.end_row; ++row) {
    const TapRange rows = TapsInside(rows_, row);
    const auto run = [&](typename SumKernels<T>::Kernel kernel, const LanePlace& place,
                         int32_t channels) {
      SumOutput<T> output = OutputAt(image, row, place.column, place.channel);
      output.channels = std::min(channels, output.channels);
      kernel(windows_.TileOf(place, row, rows, image.input, filter), output);
    };
    if (is_depthwise_) {
      windows_.ForEachColumns(block, kDepthwisePixels,
                              [&](int32_t column, int32_t pixels, TapRange taps) {
                                run(kernels.depthwise[pixels == kDepthwisePixels],
                                    LanePlace{column, pixels, 0, 0, taps}, out_channels_);
                              });
      continue;
    }
    windows_.ForEachTile(block, [&](const LanePlace& place) {
      run(kernels.ordinary[place.pixels == kTilePixels][place.panels == kTilePanels], place,
          place.panels * kPanel);
    });
  }
}

// What a row of outputs of the block meets, as floats.
template <typename T>
LaneWindows::RowsOf<float> LaneSums<T>::ConvertRows(const ChainImage<T>& image, int32_t row,
                                                    const TapRange& rows, const OutputBlock& block,
                                                    int slot) const {
  const int64_t in_row = windows_.InRow();
  const LaneWindows::Columns columns = windows_.ColumnsOf(block.first_column, block.end_column);
  const int64_t count = int64_t{columns.count} * in_channels_;
  const T* numbers = image.input + rows_.Coordinate(row, rows.first) * in_row +
                     int64_t{columns.first} * in_channels_;
  float* copy = rounded_rows_ + slot * rounded_row_elements_;
  for (int32_t r = 0; r < rows.count; ++r, numbers += rows_.dilation * in_row) {
    std::copy_n(numbers, count, copy + r * count);
  }
  return {copy, count, columns.first};
}

template <typename T>
void LaneSums<T>::RunRounded(const ChainImage<T>& image, const OutputBlock& block, int slot) const {
  const RoundedKernels& kernels = CurrentRoundedKernels();
  const auto& table = is_depthwise_ ? kernels.depthwise : kernels.ordinary;
  const float* filter = rounded_filter_.Of(image.filter);
  LaneWindows::RowsOf<float> numbers{};
  const auto begin = [&](int32_t row, const TapRange& rows) {
    if (rows.count == 0) return;
    if constexpr (std::is_same_v<T, float>) {
      const int64_t in_row = windows_.InRow();
      numbers = {image.input + rows_.Coordinate(row, rows.first) * in_row, rows_.dilation * in_row,
                 0};
    } else {
      numbers = ConvertRows(image, row, rows, block, slot);
    }
  };
  RunSums(image, block, kRoundingBits, begin,
          [&](int32_t, const TapRange& rows, const LanePlace& place, int32_t* sums) {
            LaneTile<float> tile = windows_.TileOfRows(place, rows, numbers, filter);
            tile.sums = sums;
            table[place.pixels == kTilePixels][place.panels == kTilePanels](rounded_, tile);
          });
}

template class LaneSums<int32_t>;
template class LaneSums<float>;

}  // namespace bitfold
