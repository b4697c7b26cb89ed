// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The activation oracle.

#include "activation.h"

#include <cstdint>

#include "exact.h"

namespace reference {
namespace {

using exact::PowerOfTwo;
using exact::Wide;
using exact::Wrap32;
using exact::Wrap64;

int64_t At(const ActivationTable& table, int64_t row, int64_t column) {
  return table.data[row * table.columns + column];
}

// True when `table` has a cell for every piece of `group`.
bool HoldsPieces(const ActivationTable& table, int64_t group, int64_t pieces) {
  return group < table.rows && pieces <= table.columns;
}

ActivationStatus CheckTables(const ActivationTables& tables, const int64_t* size_splits,
                             int64_t groups, int64_t channels) {
  const int64_t points = tables.x_points.columns;
  Wide used = 0;
  for (int64_t g = 0; g < groups; ++g) {
    if (size_splits[g] <= 0) continue;
    used += size_splits[g];
    if (!HoldsPieces(tables.x_points, g, points) || !HoldsPieces(tables.offsets, g, points + 1) ||
        !HoldsPieces(tables.slopes_m, g, points + 1) ||
        !HoldsPieces(tables.slopes_e, g, points + 1)) {
      return ActivationStatus::kTableTooShort;
    }
  }
  return used > channels ? ActivationStatus::kSplitsTooLarge : ActivationStatus::kOk;
}

}  // namespace

ActivationPiece FindPiece(const ActivationTables& tables, int32_t x, int64_t group) {
  int64_t piece = 0;
  while (piece < tables.x_points.columns && At(tables.x_points, group, piece) <= x) ++piece;
  return {At(tables.offsets, group, piece), At(tables.slopes_m, group, piece),
          At(tables.slopes_e, group, piece)};
}

int64_t BankersRound(int64_t value, uint8_t shift) {
  if (shift >= 1 && shift <= 30) {
    return static_cast<int64_t>(exact::DivideHalfEven(value, PowerOfTwo(shift)));
  }
  // Outside these the mask, a 32-bit number whose counts wrap, is not the bits around the half any
  // more, and may be negative.
  const int64_t above_half = exact::ShiftRight64(value, Wide{shift} - 1);
  const int64_t down = exact::ShiftRight64(above_half, 1);
  const bool half = exact::Bit(above_half, 0);
  const int32_t all = Wrap32(Wide{exact::OneShifted32(Wide{shift} + 1)} - 1);
  const int32_t mask = Wrap32(Wide{all} - exact::OneShifted32(Wide{shift} - 1));
  const bool up = half && exact::And64(mask, value) > 0;
  return up ? Wrap64(Wide{down} + 1) : down;
}

int64_t Activate(int32_t x, int32_t offset, int32_t slope_m, int32_t slope_e,
                 const ActivationSettings& settings) {
  const Wide scale = settings.is_8bit_to_16bit_mode ? 256 : 1;
  const int64_t product = Wrap64(Wide{x} * slope_m * scale);
  const Wide exponent = Wrap32(Wide{slope_e} + settings.ebias);
  const Wide divisor = PowerOfTwo(exact::FloorModulo(exponent - 6, 64));
  // The signed shift rounds toward minus infinity, that of the magnitude toward zero, which is how
  // the quotient of two integers is rounded anyway.
  const bool toward_minus_infinity = settings.is_16bit_precision_mode || settings.is_variant;
  const Wide shifted =
      toward_minus_infinity ? exact::FloorDivide(product, divisor) : Wide{product} / divisor;
  const int64_t rounded = BankersRound(static_cast<int64_t>(shifted), 6);
  const int64_t high = settings.clip_bits;
  const int64_t low = -high - 1;
  if (rounded < low) return low + offset;
  return (rounded < high ? rounded : high) + offset;
}

ActivationStatus Activation(const int64_t* in, int64_t positions, int64_t channels,
                            const ActivationTables& tables, const int64_t* size_splits,
                            int64_t groups, const ActivationSettings& settings, int32_t* out) {
  if (positions < 1) return ActivationStatus::kOk;
  for (int64_t i = 0; i < positions * channels; ++i) out[i] = 0;
  if (groups < 1) return ActivationStatus::kOk;
  const ActivationStatus status = CheckTables(tables, size_splits, groups, channels);
  if (status != ActivationStatus::kOk) return status;
  for (int64_t position = 0; position < positions; ++position) {
    int64_t channel = 0;
    for (int64_t g = 0; g < groups; ++g) {
      for (int64_t k = 0; k < size_splits[g]; ++k, ++channel) {
        const int64_t i = position * channels + channel;
        const int32_t x = Wrap32(in[i]);
        const ActivationPiece piece = FindPiece(tables, x, g);
        out[i] = Wrap32(Activate(x, Wrap32(piece.offset), Wrap32(piece.slope_m),
                                 Wrap32(piece.slope_e), settings));
      }
    }
  }
  return ActivationStatus::kOk;
}

}  // namespace reference
