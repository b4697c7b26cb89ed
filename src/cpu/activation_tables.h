// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The tables of activations in the forms that the vector loops take.

#ifndef BITFOLD_SRC_CPU_ACTIVATION_TABLES_H_
#define BITFOLD_SRC_CPU_ACTIVATION_TABLES_H_

#include <cstdint>

namespace bitfold {

inline const int kPieceBlock = 256;  // elements at a time: their pieces stay in the nearest cache
inline const int kMaxPoints = 32;
inline const int kMaxLanes = 128;

// A group's row of each table, in the forms that the loops take.
struct PieceTable {
  int points;
  int32_t first_piece;        // breakpoints that every int32 reaches
  int32_t below[kMaxPoints];  // the others less 1; INT32_MAX where there is none
  int32_t slope[kMaxPoints + 1];
  int32_t shift[kMaxPoints + 1];  // 0 to 63
  int32_t offset[kMaxPoints + 1];
};

// The tables of groups side by side, a column for each element of a block.
struct LaneTables {
  int rows;  // of breakpoints: 2, 8, 16 or 32; those that a group does not have are never reached
  int32_t below[kMaxPoints][kMaxLanes];
  int32_t slope[kMaxPoints + 1][kMaxLanes];
  int32_t shift[kMaxPoints + 1][kMaxLanes];
  int32_t offset[kMaxPoints + 1][kMaxLanes];
};

// Where elements lie: `runs` runs of `count` elements, `stride` apart.
struct Runs {
  int64_t runs;
  int64_t count;
  int64_t stride;
};

// What the groups share.
struct ActivationClip {
  int product_shift;
  int64_t low;
  int64_t high;
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_ACTIVATION_TABLES_H_
