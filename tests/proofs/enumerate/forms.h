// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Forms of the loops that ship, for each target of the machine.

#ifndef BITFOLD_TESTS_PROOFS_ENUMERATE_FORMS_H_
#define BITFOLD_TESTS_PROOFS_ENUMERATE_FORMS_H_

#include <algorithm>
#include <array>
#include <string>

#include "chain/lane_tile.h"
#include "chain/pack.h"
#include "cpu/vector_datapath.h"
#include "proofs/enumerate/enumeration.h"
#include "vector/target.h"

namespace bitfold::enumeration {

// Calls add(name) for each target that has loops of its own and that the machine has, with the
// target forced.
template <typename Add>
void ForEachTarget(Add add) {
  struct Named {
    Target target;
    const char* name;
  };
  for (const Named& named : {Named{Target::kPortable, "portable"}, Named{Target::kAvx2, "AVX2"},
                             Named{Target::kAvx512, "AVX-512"}}) {
    if (!IsSupported(named.target)) continue;
    ForceTarget(named.target);
    add(std::string(named.name));
    ForceTarget({});
  }
}

// Calls step(first, count, results) for pieces of a block that the loops take.
template <typename Step>
void InPieces(const Block& block, Word* results, Step step) {
  std::array<float, kDatapathBlock> piece;
  for (int first = 0; first < block.count; first += kDatapathBlock) {
    const int count = std::min(kDatapathBlock, block.count - first);
    step(first, count, piece.data());
    for (int i = 0; i < count; ++i) results[first + i] = WordOf(piece[static_cast<size_t>(i)]);
  }
}

// The kernel of one tap and one column: acc + scaled(w * 1) in each lane, of the target that is
// forced as this is called. D is a datapath of floats.
template <typename D>
class LaneStep {
 public:
  LaneStep() : kernel_(LaneKernelsOf<D, float>().ordinary[0][1]) {}

  void operator()(const D& datapath, const Block& block, Word* results) const {
    constexpr int kLanes = kTilePanels * kPanel;
    const float one = 1.0f;
    for (int first = 0; first < block.count; first += kLanes) {
      const int count = std::min(kLanes, block.count - first);
      std::array<float, kLanes> weights = {};
      std::array<float, kLanes> acc = {};
      std::array<int32_t, kLanes> largest = {};
      std::copy_n(block.x + first, count, weights.begin());
      std::copy_n(block.acc + first, count, acc.begin());
      LaneTile<float> tile = {};
      tile.x = &one;
      tile.w = weights.data();
      tile.rows = tile.channels = tile.taps = 1;
      tile.acc = acc.data();
      tile.largest = largest.data();
      tile.half = HalfAddends::kAny;
      kernel_(datapath, tile);
      for (int i = 0; i < count; ++i) results[first + i] = WordOf(acc[static_cast<size_t>(i)]);
    }
  }

 private:
  typename LaneKernels<D, float>::Kernel kernel_;
};

}  // namespace bitfold::enumeration

#endif  // BITFOLD_TESTS_PROOFS_ENUMERATE_FORMS_H_
