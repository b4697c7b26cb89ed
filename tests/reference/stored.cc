// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The oracle of the ops on stored tensors: whole numbers, quotients rounded by division.

#include "stored.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "exact.h"
#include "requantise.h"

namespace reference {
namespace {

using exact::FloorDivide;
using exact::PowerOfTwo;
using exact::Wide;
using exact::Wrap32;

int32_t Clamp(int32_t value, int32_t minimum, int32_t maximum) {
  return std::min(std::max(value, minimum), maximum);
}

// An operand of a sum, in fractions of twice the larger scale.
Wide InCommonScale(Wide centred, float scale, float larger, int32_t spare) {
  const FixedPoint multiplier = ToFixedPoint(double{scale} / (2.0 * double{larger}));
  return TwoRoundings(Wrap32(centred * PowerOfTwo(spare)), multiplier);
}

// quotient = dividend / divisor to the nearest, halves away from zero.
int32_t NearestQuotient(Wide dividend, Wide divisor) {
  const Wide magnitude = dividend < 0 ? -dividend : dividend;
  const auto quotient = static_cast<int32_t>(FloorDivide(2 * magnitude + divisor, 2 * divisor));
  return dividend < 0 ? -quotient : quotient;
}

}  // namespace

int32_t StoredElementwise(int32_t first, int32_t second, const ElementwiseSettings& settings) {
  const auto& [operation, bits, a, b, output, minimum, maximum] = settings;
  const Wide x = Wide{first} - a.zero_point;
  const Wide y = Wide{second} - b.zero_point;
  Wide sum = 0;
  double multiplier = 0.0;
  if (operation == ElementwiseOperation::kMultiply) {
    sum = x * y;
    const float product = exact::Product(a.scale, b.scale);
    multiplier = exact::Round(double{product} / double{output.scale});
  } else {
    const int32_t spare = bits == 8 ? 20 : 15;
    const float larger = std::max(a.scale, b.scale);
    const bool is_sum = operation == ElementwiseOperation::kAdd;
    sum = InCommonScale(x, a.scale, larger, spare) +
          InCommonScale(is_sum ? y : -y, b.scale, larger, spare);
    const auto unit = static_cast<double>(PowerOfTwo(spare));
    multiplier = 2.0 * double{larger} / (unit * double{output.scale});
  }
  const int32_t rescaled = TwoRoundings(Wrap32(sum), ToFixedPoint(multiplier));
  return Clamp(Wrap32(Wide{rescaled} + output.zero_point), minimum, maximum);
}

int32_t WindowCount(const WindowSettings& axis) {
  // The positions at which a window may begin.
  const Wide places = axis.is_same ? axis.size : Wide{axis.size} - axis.window + 1;
  return places < 1 ? 0 : static_cast<int32_t>(FloorDivide(places - 1, axis.stride) + 1);
}

bool IsInWindow(const WindowSettings& axis, int32_t window, int32_t pixel) {
  Wide before = 0;
  if (axis.is_same) {
    // From the first window's beginning to the last one's end, less the image.
    const Wide beyond = (Wide{WindowCount(axis)} - 1) * axis.stride + axis.window - Wide{axis.size};
    before = beyond > 0 ? FloorDivide(beyond, 2) : 0;
  }
  const Wide begin = Wide{window} * axis.stride - before;
  return pixel >= begin && pixel < begin + axis.window;
}

int32_t StoredPool(const int32_t* image, int32_t row, int32_t column, int32_t channel,
                   const PoolSettings& settings) {
  const auto& [is_average, rows, columns, channels, minimum, maximum] = settings;
  int32_t greatest = INT32_MIN;
  Wide sum = 0;
  Wide count = 0;
  for (int32_t y = 0; y < rows.size; ++y) {
    if (!IsInWindow(rows, row, y)) continue;
    for (int32_t x = 0; x < columns.size; ++x) {
      if (!IsInWindow(columns, column, x)) continue;
      const int64_t pixel = int64_t{y} * columns.size + x;
      const int32_t stored = image[pixel * channels + channel];
      greatest = std::max(greatest, stored);
      sum += stored;
      count += 1;
    }
  }
  const bool divides = is_average && count > 0;
  return Clamp(divides ? NearestQuotient(sum, count) : greatest, minimum, maximum);
}

int32_t StoredMean(const int32_t* data, int64_t count, int64_t step, const Scale& input,
                   const Scale& output, int32_t bits) {
  Wide sum = 0;
  for (int64_t i = 0; i < count; ++i) sum += Wide{data[i * step]} - input.zero_point;
  FixedPoint multiplier = ToFixedPoint(double{input.scale} / double{output.scale});
  // As many bits as the number has, but for its leading one; no exponent falls below -31.
  int64_t spare = exact::BitLength(count) - 1;
  spare = std::min(spare, multiplier.exponent + 31);
  multiplier.mantissa =
      static_cast<int64_t>(FloorDivide(multiplier.mantissa * PowerOfTwo(spare), count));
  multiplier.exponent -= spare;
  const int32_t mean = Wrap32(Wide{TwoRoundings(Wrap32(sum), multiplier)} + output.zero_point);
  const auto end = static_cast<int32_t>(PowerOfTwo(bits - 1));
  return Clamp(mean, -end, end - 1);
}

int32_t StoredLookup(int32_t stored, const int32_t* table, int32_t lowest) {
  for (; lowest < stored; ++lowest) ++table;
  return *table;
}

int32_t StoredQuantise(float value, const Scale& scale, int32_t lowest, int32_t highest) {
  if (std::isnan(value)) return scale.zero_point;
  const double quotient = double{value} / double{scale.scale};
  // No stored type goes so far, wherever its zero point is.
  if (quotient > 1e6) return highest;
  if (quotient < -1e6) return lowest;
  const auto steps = double{exact::Round(quotient)};
  const auto twice = static_cast<Wide>(std::fabs(2.0 * steps));
  const auto magnitude = static_cast<int32_t>(FloorDivide(twice + 1, 2));
  return Clamp((steps < 0 ? -magnitude : magnitude) + scale.zero_point, lowest, highest);
}

}  // namespace reference
