// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/activation.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "vector/target.h"

namespace bitfold {
namespace {

constexpr int kPieceBlock = 256;  // elements at a time: their pieces stay in the nearest cache
constexpr int kMaxPoints = 32;

// A group's row of each table, in the forms that the loops take.
struct PieceTable {
  int points;
  int32_t first_piece;        // breakpoints that every int32 reaches
  int32_t below[kMaxPoints];  // the others less 1; INT32_MAX where there is none
  int32_t slope[kMaxPoints + 1];
  int32_t shift[kMaxPoints + 1];  // 0 to 63
  int32_t offset[kMaxPoints + 1];
  int product_shift;
  int64_t clip_low;
  int64_t clip_high;
};

struct ActivationLoops {
  void (*magnitude)(const int64_t*, int, const PieceTable&, int32_t*);
  void (*plain)(const int64_t*, int, const PieceTable&, int32_t*);
};

#define BITFOLD_LOOPS "cpu/activation_loops.inc"
#define BITFOLD_LOOP_TABLE \
  ActivationLoops { Activate<true>, Activate<false> }
#include "vector/vector_loops.inc"

// False when the group needs the definition: its breakpoints do not ascend, so that the first one
// above x is not found by counting, there are too many, or the clip's bounds cross.
bool MakePieceTable(const ActivationGroups& groups, int64_t group, const ActivationMode& mode,
                    PieceTable* t) {
  if (groups.x_points.columns > kMaxPoints) return false;
  if (mode.clip_bits < 0) return false;
  t->points = static_cast<int>(groups.x_points.columns);
  t->first_piece = 0;
  std::fill_n(t->below, kMaxPoints, std::numeric_limits<int32_t>::max());
  for (int p = 0; p < t->points; ++p) {
    const int64_t point = groups.x_points(group, p);
    if (p > 0 && point < groups.x_points(group, p - 1)) return false;
    if (point <= std::numeric_limits<int32_t>::min()) {
      ++t->first_piece;
    } else if (point <= std::numeric_limits<int32_t>::max()) {
      t->below[p] = static_cast<int32_t>(point - 1);
    }
  }
  for (int p = 0; p <= t->points; ++p) {
    t->slope[p] = LowWord(groups.slopes_m(group, p));
    t->shift[p] =
        static_cast<int32_t>(ActivationShift(LowWord(groups.slopes_e(group, p)), mode) & 63);
    t->offset[p] = LowWord(groups.offsets(group, p));
  }
  t->product_shift = mode.is_8bit_to_16bit_mode ? 8 : 0;
  t->clip_low = -int64_t{mode.clip_bits} - 1;
  t->clip_high = mode.clip_bits;
  return true;
}

// Where the elements of a group lie: `runs` runs of `count` elements, `stride` apart.
struct GroupElements {
  int64_t runs;
  int64_t count;
  int64_t stride;
};

void ActivateGroup(const int64_t* in, const GroupElements& elements, int64_t group,
                   const ActivationGroups& groups, const ActivationMode& mode, int32_t* out) {
  PieceTable table;
  const bool plain = mode.is_16bit_precision_mode || mode.is_velquin;
  const bool by_loop = MakePieceTable(groups, group, mode, &table);
  const auto loop = plain ? CurrentLoops().plain : CurrentLoops().magnitude;
  for (int64_t run = 0; run < elements.runs; ++run) {
    const int64_t first = run * elements.stride;
    const int64_t end = first + elements.count;
    for (int64_t i = first; i < end; i += kPieceBlock) {
      const int block = static_cast<int>(std::min<int64_t>(kPieceBlock, end - i));
      if (by_loop) {
        loop(in + i, block, table, out + i);
      } else {
        for (int k = 0; k < block; ++k) {
          out[i + k] = DefineActivationElement(in[i + k], group, groups, mode);
        }
      }
    }
  }
}

}  // namespace

void ComputeActivation(const int64_t* in, const ActivationShape& shape,
                       const ActivationGroups& groups, const ActivationMode& mode, int32_t* out) {
  const auto [positions, channels] = shape;
  int64_t channel = 0;
  for (int64_t g = 0; g < groups.count; ++g) {
    const int64_t size = groups.size_splits[g];
    if (size <= 0) continue;
    if (size == channels) {  // one run over all positions
      ActivateGroup(in, {1, positions * channels, 0}, g, groups, mode, out);
    } else {
      ActivateGroup(in + channel, {positions, size, channels}, g, groups, mode, out + channel);
    }
    channel += size;
  }
}

}  // namespace bitfold
