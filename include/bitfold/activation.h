// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HActivation: the piecewise-linear activation unit's definition (rules P1 to P3 of
// docs/arithmetic.md).

#ifndef BITFOLD_ACTIVATION_H_
#define BITFOLD_ACTIVATION_H_

#include <cstdint>

#include "bitfold/int32_arithmetic.h"
#include "bitfold/int64_arithmetic.h"

namespace bitfold {

// A two-dimensional table, row-major.
struct Table64 {
  const int64_t* data;
  int64_t columns;

  int64_t operator()(int64_t row, int64_t column) const { return data[row * columns + column]; }
};

struct Piece {
  int64_t offset;
  int64_t slope_m;
  int64_t slope_e;
};

// What the kernel's attributes select. `beta` and `is_signed_output` do not influence the result.
struct ActivationMode {
  bool is_8bit_to_16bit_mode;
  bool is_velquin;  // the second variant of the unit: it shifts the signed product, not its
                    // magnitude
  int32_t ebias;
  int32_t clip_bits;  // the limit of the clip itself, not a number of bits: 127, not 7
  int32_t beta;
  bool is_16bit_precision_mode;
  bool is_signed_output;
};

// The piece of x in a group: that of the first breakpoint above x, the last one where there is
// none. x_points has at least `group` + 1 rows, the other tables x_points.columns + 1 columns.
inline Piece get_piece_index(const Table64& x_points, int32_t x, int64_t group,
                             const Table64& offsets, const Table64& slopes_m,
                             const Table64& slopes_e) {
  int64_t piece = 0;
  while (piece < x_points.columns && x_points(group, piece) <= x) ++piece;
  return {offsets(group, piece), slopes_m(group, piece), slopes_e(group, piece)};
}

// value / 2^shift rounded half to even; the mask is formed in 32 bits and sign-extended.
inline int64_t bankers_round(int64_t value, uint8_t shift) {
  const int64_t doubled = ShiftRight64(value, shift - 1);
  const int64_t mask =
      int64_t{WrapSubtract(WrapSubtract(ShiftLeft(1, shift + 1), 1), ShiftLeft(1, shift - 1))};
  const int64_t round = (mask & value) > 0 ? doubled & 1 : 0;
  return WrapAdd64(ShiftRight64(doubled, 1), round);
}

inline constexpr int kActivationFractionBits = 6;

// The shift of a product; counts are taken modulo 64.
inline int64_t ActivationShift(int32_t slope_e, const ActivationMode& mode) {
  return int64_t{WrapAdd(slope_e, mode.ebias)} - kActivationFractionBits;
}

// One element: slope times x, shifted right by the slope's exponent with six bits kept for the
// rounding, clipped to [-clip_bits - 1, clip_bits], plus the offset.
inline int64_t activate(int32_t x, int32_t offset, int32_t slope_m, int32_t slope_e,
                        const ActivationMode& mode) {
  int64_t product = int64_t{x} * slope_m;
  if (mode.is_8bit_to_16bit_mode) product = ShiftLeft64(product, 8);
  const int64_t shift = ActivationShift(slope_e, mode);
  int64_t shifted;
  if (mode.is_16bit_precision_mode || mode.is_velquin) {
    shifted = ShiftRight64(product, shift);
  } else {  // of the magnitude, which for -2^63 only an unsigned word holds
    const uint64_t bits = static_cast<uint64_t>(product);
    const uint64_t magnitude =
        ShiftRightUnsigned64(product < 0 ? 0 - bits : bits, static_cast<int32_t>(shift & 63));
    shifted = static_cast<int64_t>(product < 0 ? 0 - magnitude : magnitude);
  }
  const int64_t rounded = bankers_round(shifted, kActivationFractionBits);
  const int64_t clip = mode.clip_bits;
  if (rounded < -clip - 1) return int64_t{offset} - clip - 1;
  return (rounded < clip ? rounded : clip) + offset;
}

// The groups of channels. Group g takes the next size_splits[g] channels, none where that is not
// positive, and has row g of each table.
struct ActivationGroups {
  Table64 x_points;
  Table64 offsets;
  Table64 slopes_m;
  Table64 slopes_e;
  const int64_t* size_splits;
  int64_t count;
};

// What is activated: `positions` rows of `channels` elements.
struct ActivationShape {
  int64_t positions;
  int64_t channels;
};

// The low 32 bits, as the unit's registers hold what arrives as int64.
inline int32_t LowWord(int64_t x) { return static_cast<int32_t>(static_cast<uint32_t>(x)); }

// One element of a group.
inline int32_t DefineActivationElement(int64_t x, int64_t group, const ActivationGroups& groups,
                                       const ActivationMode& mode) {
  const Piece piece = get_piece_index(groups.x_points, LowWord(x), group, groups.offsets,
                                      groups.slopes_m, groups.slopes_e);
  return LowWord(activate(LowWord(x), LowWord(piece.offset), LowWord(piece.slope_m),
                          LowWord(piece.slope_e), mode));
}

// The unit; the definition. The groups take together at most shape.channels channels, and what they
// do not take is not written. The tables have a row for each group with channels, all but x_points
// one column more than x_points.
inline void DefineActivation(const int64_t* in, const ActivationShape& shape,
                             const ActivationGroups& groups, const ActivationMode& mode,
                             int32_t* out) {
  for (int64_t position = 0; position < shape.positions; ++position) {
    int64_t i = position * shape.channels;
    for (int64_t g = 0; g < groups.count; ++g) {
      for (int64_t k = 0; k < groups.size_splits[g]; ++k, ++i) {
        out[i] = DefineActivationElement(in[i], g, groups, mode);
      }
    }
  }
}

}  // namespace bitfold

#endif  // BITFOLD_ACTIVATION_H_
