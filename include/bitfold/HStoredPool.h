// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HStoredPool and HStoredMean: stored elements of a window, or along a dimension, to one; the
// definitions (rules K1 to K5 of docs/arithmetic.md).

#ifndef BITFOLD_HSTOREDPOOL_H_
#define BITFOLD_HSTOREDPOOL_H_

#include <algorithm>
#include <cstdint>
#include <limits>

#include "bitfold/int32_arithmetic.h"
#include "bitfold/requantise.h"
#include "bitfold/stored_scale.h"

namespace bitfold {

// ---- Windows -----------------------------------------------------------------------------------

// Rule K1: the windows along one axis of an image. Requires a window and a stride of at least 1,
// all of 31 bits.
struct PoolAxis {
  int64_t size;
  int64_t window;
  int64_t stride;
  bool is_same;  // windows may reach beyond the image

  // The number of windows; 0 where none fits.
  int64_t Outputs() const {
    const int64_t span = is_same ? size : size - window + 1;
    return span < 1 ? 0 : (span + stride - 1) / stride;
  }

  // How far windows reach beyond the beginning; the odd pixel of a pair is at the end.
  int64_t Before() const {
    if (!is_same) return 0;
    return std::max<int64_t>((Outputs() - 1) * stride + window - size, 0) / 2;
  }

  // The pixels of a window that lie in the image, of which there is one at least.
  int64_t Begin(int64_t output) const { return std::max<int64_t>(output * stride - Before(), 0); }
  int64_t End(int64_t output) const { return std::min(output * stride - Before() + window, size); }

  // As many as a window can have.
  int64_t MostPixels() const { return std::min(window, size); }
};

enum class StoredPooling { kMax, kAverage };

// What the kernel's attributes say of the results. Requires minimum <= maximum, both in the type of
// the elements.
struct StoredPoolMode {
  StoredPooling pooling;
  int32_t minimum;
  int32_t maximum;
};

// [images, rows, columns, channels] to the windows of rows and columns. Of averages requires
// windows whose sums fit 32 bits: MostSummands of them at most.
template <typename T>
struct StoredPoolCall {
  const T* data;
  T* output;
  int64_t images;
  PoolAxis rows;
  PoolAxis columns;
  int64_t channels;
  StoredPoolMode mode;
};

// So many stored elements have a sum of 32 bits.
template <typename T>
constexpr int64_t MostSummands() {
  return ((int64_t{1} << 31) - 1) / -int64_t{std::numeric_limits<T>::min()};
}

// sum / count, halves away from zero. Requires count >= 1.
inline int32_t QuotientAway(int32_t sum, int32_t count) {
  const int64_t magnitude = sum < 0 ? -int64_t{sum} : int64_t{sum};
  const int64_t quotient = (magnitude + count / 2) / count;
  return static_cast<int32_t>(sum < 0 ? -quotient : quotient);
}

// Rules K2 and K3: one element of the output.
template <typename T>
T PooledElement(const StoredPoolCall<T>& call, int64_t image, int64_t row, int64_t column,
                int64_t channel) {
  const PoolAxis& rows = call.rows;
  const PoolAxis& columns = call.columns;
  auto greatest = int32_t{std::numeric_limits<T>::min()};
  int32_t sum = 0;
  int32_t count = 0;
  for (int64_t y = rows.Begin(row); y < rows.End(row); ++y) {
    for (int64_t x = columns.Begin(column); x < columns.End(column); ++x) {
      const int64_t pixel = (image * rows.size + y) * columns.size + x;
      const auto stored = int32_t{call.data[pixel * call.channels + channel]};
      greatest = std::max(greatest, stored);
      sum += call.mode.pooling == StoredPooling::kAverage ? stored : 0;
      ++count;
    }
  }
  const int32_t result =
      call.mode.pooling == StoredPooling::kMax ? greatest : QuotientAway(sum, count);
  return static_cast<T>(std::min(std::max(result, call.mode.minimum), call.mode.maximum));
}

// The op HStoredPool; the definition. T is int8_t or int16_t.
template <typename T>
void DefineStoredPool(const StoredPoolCall<T>& call) {
  T* output = call.output;
  for (int64_t image = 0; image < call.images; ++image) {
    for (int64_t row = 0; row < call.rows.Outputs(); ++row) {
      for (int64_t column = 0; column < call.columns.Outputs(); ++column) {
        for (int64_t channel = 0; channel < call.channels; ++channel) {
          *output++ = PooledElement(call, image, row, column, channel);
        }
      }
    }
  }
}

// ---- Means -------------------------------------------------------------------------------------

// [outer, reduced, inner] to [outer, inner].
template <typename T>
struct StoredMeanCall {
  const T* data;
  T* output;
  int64_t outer;
  int64_t reduced;
  int64_t inner;
  StoredScale input;
  StoredScale result;
};

// Rule K4: what the sum of `count` elements is multiplied by. The mantissa is that of the ratio of
// the scales, shifted left by as many bits as the number has, so that it loses at most one, and
// divided by the number; it is not brought back to 31 bits. Requires 1 <= count < 2^31.
inline FixedMultiplier MeanMultiplier(const StoredScale& input, const StoredScale& result,
                                      int64_t count) {
  const FixedMultiplier ratio = QuantiseMultiplier(double{input.scale} / double{result.scale});
  int32_t spare = 0;
  while (count >> (spare + 1) != 0) ++spare;
  spare = std::min(spare, ratio.exponent - kLowestMultiplierExponent);
  return {static_cast<int32_t>((int64_t{ratio.mantissa} << spare) / count), ratio.exponent - spare};
}

// Whether the sum of `count` elements less their zero point, shifted left by the multiplier, has 32
// bits.
template <typename T>
bool HasNarrowSums(const StoredScale& input, const StoredScale& result, int64_t count) {
  if (count > INT32_MAX) return false;
  const int32_t exponent = MeanMultiplier(input, result, count).exponent;
  if (exponent > 30) return false;
  const int64_t magnitude =
      (input.zero_point < 0 ? -int64_t{input.zero_point} : int64_t{input.zero_point}) -
      std::numeric_limits<T>::min();
  return count * magnitude <= INT32_MAX >> std::max<int32_t>(exponent, 0);
}

// The op HStoredMean; the definition (rule K5). Requires HasNarrowSums. T is int8_t or int16_t.
template <typename T>
void DefineStoredMean(const StoredMeanCall<T>& call) {
  const FixedMultiplier multiplier = MeanMultiplier(call.input, call.result, call.reduced);
  for (int64_t i = 0; i < call.outer * call.inner; ++i) {
    const T* data = call.data + i / call.inner * call.reduced * call.inner + i % call.inner;
    int32_t sum = 0;
    for (int64_t k = 0; k < call.reduced; ++k) {
      sum += int32_t{data[k * call.inner]} - call.input.zero_point;
    }
    const int32_t mean = WrapAdd(RescaleInTwoRoundings(sum, multiplier), call.result.zero_point);
    call.output[i] = static_cast<T>(std::min<int32_t>(
        std::max<int32_t>(mean, std::numeric_limits<T>::min()), std::numeric_limits<T>::max()));
  }
}

}  // namespace bitfold

#endif  // BITFOLD_HSTOREDPOOL_H_
