// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/stored_pool.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <type_traits>

#include "cpu/result_scaling.h"
#include "vector/rescale_steps.h"
#include "vector/target.h"

namespace bitfold {
namespace {

// The pixels of a window, in elements from one to the next.
struct WindowTaps {
  int64_t rows;
  int64_t columns;
  int64_t row_step;
  int64_t column_step;
};

// (x + half) * factor / 2^shift is (x + half) / count for x + half < 2^31. With the factor
// (2^shift + e) / count, 0 < e <= count <= 2^(shift - 31), the product is too large by
// e (x + half) / count / 2^shift < 1 / count, too little to reach the next whole number.
struct Division {
  int32_t half;
  uint64_t factor;
  int32_t shift;
};

// Requires 1 <= count < 2^31.
Division DivisionBy(int64_t count) {
  int32_t bits = 0;
  while (int64_t{1} << bits < count) ++bits;
  const int32_t shift = 31 + bits;
  return {static_cast<int32_t>(count / 2),
          (uint64_t{1} << shift) / static_cast<uint64_t>(count) + 1, shift};
}

template <typename T>
struct LoopsOf {
  using Average = void (*)(const T*, const WindowTaps&, int64_t, const Division&,
                           const StoredPoolMode&, T*);
  using Mean = void (*)(const T*, const WindowTaps&, int64_t, int32_t, const ResultScaling&, T*);

  void (*max)(const T*, const WindowTaps&, int64_t, const StoredPoolMode&, T*);
  Average average;
  Average short_average;
  Mean mean;
  Mean short_mean;
  void (*mean_of_row)(const T*, int64_t, int32_t, const ResultScaling&, T*);
};

struct PoolLoops {
  LoopsOf<int8_t> int8;
  LoopsOf<int16_t> int16;
};

#define BITFOLD_LOOPS "cpu/stored_pool_loops.inc"
#define BITFOLD_LOOP_TABLE                                                                        \
  PoolLoops {                                                                                     \
    {MaxOfWindow<int8_t>,                                                                         \
     AverageOfWindow<int8_t, int32_t>,                                                            \
     AverageOfWindow<int8_t, int16_t>,                                                            \
     MeanOfChannels<int8_t, int32_t>,                                                             \
     MeanOfChannels<int8_t, int16_t>,                                                             \
     MeanOfRow<int8_t>},                                                                          \
    {                                                                                             \
      MaxOfWindow<int16_t>, AverageOfWindow<int16_t, int32_t>, AverageOfWindow<int16_t, int32_t>, \
          MeanOfChannels<int16_t, int32_t>, MeanOfChannels<int16_t, int32_t>, MeanOfRow<int16_t>  \
    }                                                                                             \
  }
#include "vector/vector_loops.inc"

template <typename T>
const LoopsOf<T>& CurrentLoopsOf() {
  if constexpr (std::is_same_v<T, int8_t>) {
    return CurrentLoops().int8;
  } else {
    return CurrentLoops().int16;
  }
}

// Whether so many stored bytes have a sum of 16 bits.
bool HasShortSums(int64_t count) { return count <= INT16_MAX / 128; }

// The pool's windows of some rows of the output.
template <typename T>
class Pool {
 public:
  explicit Pool(const StoredPoolCall<T>& call)
      : call_(call),
        loops_(CurrentLoopsOf<T>()),
        row_outputs_(std::max<int64_t>(call.rows.Outputs(), 1)),
        outputs_(call.columns.Outputs()),
        average_(HasShortSums(call.rows.MostPixels() * call.columns.MostPixels())
                     ? loops_.short_average
                     : loops_.average) {}

  // Row `row` of all images' rows of the output.
  void ComputeRow(int64_t row) const {
    const auto& [data, output, images, rows, columns, channels, mode] = call_;
    const int64_t image = row / row_outputs_;
    const int64_t y = row % row_outputs_;
    const int64_t width = columns.size * channels;
    const T* const first_row = data + (image * rows.size + rows.Begin(y)) * width;
    WindowTaps taps = {rows.End(y) - rows.Begin(y), 0, width, channels};
    Division division = {};
    T* out = output + row * outputs_ * channels;
    for (int64_t x = 0; x < outputs_; ++x, out += channels) {
      const int64_t begin = columns.Begin(x);
      const int64_t taps_of_row = columns.End(x) - begin;
      const bool is_new = taps_of_row != taps.columns;
      taps.columns = taps_of_row;
      const T* const window = first_row + begin * channels;
      if (mode.pooling == StoredPooling::kMax) {
        loops_.max(window, taps, channels, mode, out);
        continue;
      }
      if (is_new) division = DivisionBy(taps.rows * taps.columns);
      average_(window, taps, channels, division, mode, out);
    }
  }

 private:
  const StoredPoolCall<T>& call_;
  const LoopsOf<T>& loops_;
  int64_t row_outputs_;  // where there is none, no row is computed
  int64_t outputs_;
  typename LoopsOf<T>::Average average_;
};

}  // namespace

template <typename T>
void ComputeStoredPool(const StoredPoolCall<T>& call, Workers* workers) {
  const Pool<T> pool(call);
  const int64_t taps = call.rows.MostPixels() * call.columns.MostPixels();
  // Cycles of a row: some for each window, and one for a few bytes of a tap.
  const int64_t cost = call.columns.Outputs() * (30 + taps * (1 + call.channels / 16));
  workers->Share(call.images * call.rows.Outputs(), cost, [&](int64_t first, int64_t end) {
    for (int64_t row = first; row < end; ++row) pool.ComputeRow(row);
  });
}

template <typename T>
void ComputeStoredMean(const StoredMeanCall<T>& call, Workers* workers) {
  const LoopsOf<T>& loops = CurrentLoopsOf<T>();
  const ResultScaling scaling = {MeanMultiplier(call.input, call.result, call.reduced),
                                 call.result.zero_point, std::numeric_limits<T>::min(),
                                 std::numeric_limits<T>::max()};
  const auto offset = static_cast<int32_t>(call.reduced * call.input.zero_point);
  const WindowTaps taps = {call.reduced, 1, call.inner, call.inner};
  const auto mean = HasShortSums(call.reduced) ? loops.short_mean : loops.mean;
  const int64_t cost = 30 + call.reduced * (1 + call.inner / 16);
  workers->Share(call.outer, cost, [&](int64_t first, int64_t end) {
    for (int64_t i = first; i < end; ++i) {
      const T* const data = call.data + i * call.reduced * call.inner;
      if (call.inner == 1) {
        loops.mean_of_row(data, call.reduced, offset, scaling, call.output + i);
      } else {
        mean(data, taps, call.inner, offset, scaling, call.output + i * call.inner);
      }
    }
  });
}

template void ComputeStoredPool(const StoredPoolCall<int8_t>&, Workers*);
template void ComputeStoredPool(const StoredPoolCall<int16_t>&, Workers*);
template void ComputeStoredMean(const StoredMeanCall<int8_t>&, Workers*);
template void ComputeStoredMean(const StoredMeanCall<int16_t>&, Workers*);

}  // namespace bitfold
