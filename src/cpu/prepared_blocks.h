// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// How the outputs of a prepared layer of dot products are cut into blocks that threads share.

#ifndef BITFOLD_SRC_CPU_PREPARED_BLOCKS_H_
#define BITFOLD_SRC_CPU_PREPARED_BLOCKS_H_

#include <algorithm>
#include <cstdint>

namespace bitfold {

// Blocks for each thread, so that all end at about the same time.
inline constexpr int64_t kBlocksForEach = 4;

// Weights of so many panels go by together.
inline constexpr int32_t kPanelsTogether = 4;

// In a cycle.
inline constexpr int64_t kProducts = 96;
inline constexpr int64_t kFinishedSums = 3;

inline int64_t Parts(int64_t all, int64_t step) { return (all + step - 1) / step; }

// Panels of a block: fewer than all where the blocks would else be too few for the threads.
inline int32_t PanelsOfBlock(int32_t panels, int64_t blocks, int threads) {
  if (threads == 1 || blocks >= threads) return panels;
  const int64_t pieces = Parts(kBlocksForEach * threads, blocks);
  const int64_t groups = std::max<int64_t>(1, Parts(panels, kPanelsTogether) / pieces);
  return static_cast<int32_t>(std::min<int64_t>(panels, groups * kPanelsTogether));
}

// The cycles of outputs of so many products each, roughly.
inline int64_t CyclesOf(int64_t outputs, int64_t products) {
  return outputs * products / kProducts + outputs / kFinishedSums;
}

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_PREPARED_BLOCKS_H_
