// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The test oracle of the piecewise-linear activation.

#ifndef BITFOLD_TESTS_REFERENCE_ACTIVATION_H_
#define BITFOLD_TESTS_REFERENCE_ACTIVATION_H_

#include <cstdint>

namespace reference {

// A table of rows, one after the other.
struct ActivationTable {
  const int64_t* data;
  int64_t rows;
  int64_t columns;
};

struct ActivationTables {
  ActivationTable x_points;
  ActivationTable offsets;
  ActivationTable slopes_m;
  ActivationTable slopes_e;
};

struct ActivationPiece {
  int64_t offset;
  int64_t slope_m;
  int64_t slope_e;
};

struct ActivationSettings {
  bool is_8bit_to_16bit_mode;
  bool is_variant;  // The hardware variant that shifts the signed product.
  int32_t ebias;
  int32_t clip_bits;
  int32_t beta;  // Without influence.
  bool is_16bit_precision_mode;
  bool is_signed_output;  // Without influence.
};

enum class ActivationStatus : int32_t {
  kOk = 0,
  kTableTooShort = 1,   // A group that is read has no row, or too few columns for its pieces.
  kSplitsTooLarge = 2,  // The groups have more channels than the tensor.
};

// The piece of `group` that x falls in; an x on a breakpoint belongs to the piece above it.
ActivationPiece FindPiece(const ActivationTables& tables, int32_t x, int64_t group);

// value / 2^shift, halves to even. Counts of the 64-bit shifts are taken modulo 64, those of the
// 32-bit mask modulo 32; see activation.cc for 0 and for 31 and above.
int64_t BankersRound(int64_t value, uint8_t shift);

// One element: product, shift by slope_e + ebias, rounding, clip and offset. A product of -2^63 has
// the magnitude 2^63.
int64_t Activate(int32_t x, int32_t offset, int32_t slope_m, int32_t slope_e,
                 const ActivationSettings& settings);

// The whole op on `positions` (batch x height x width) vectors of `channels` elements. The groups
// take size_splits[g] channels each from channel 0 on, those of 0 and below none; channels beyond
// them are 0. Only rows of groups that have channels count as read. Nothing is refused when there
// is no position or no group.
ActivationStatus Activation(const int64_t* in, int64_t positions, int64_t channels,
                            const ActivationTables& tables, const int64_t* size_splits,
                            int64_t groups, const ActivationSettings& settings, int32_t* out);

}  // namespace reference

#endif  // BITFOLD_TESTS_REFERENCE_ACTIVATION_H_
