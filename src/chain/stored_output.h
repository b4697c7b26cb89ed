// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Where the sums of a tile of a prepared layer go: a function adds the bias, requantises and stores
// them while they are in the nearest cache.

#ifndef BITFOLD_SRC_CHAIN_STORED_OUTPUT_H_
#define BITFOLD_SRC_CHAIN_STORED_OUTPUT_H_

#include <algorithm>
#include <cstdint>

namespace bitfold {

class LayerFinish;  // chain/layer_finish.h
class SumWatch;     // chain/sum_watch.h

// Outputs of a layer, from `position` on: positions lie `stride` channels apart.
struct StoredOutput {
  const LayerFinish* finish;
  void* out;  // of position 0, in the type that the finish stores
  int64_t position;
  int64_t stride;
  int32_t channel;   // of the tile's first lane
  int32_t channels;  // of the tile's lanes, those that exist
  // For each position from 0 on, modulo 2^32; or null.
  const int32_t* addends = nullptr;
  SumWatch* watch = nullptr;  // what looks at the sums before they are finished, or null
  int32_t repeated = 0;       // of the tile's positions the first so many were finished before

  // How many of the positions from `first` on were.
  int32_t RepeatedFrom(int32_t first) const { return std::max(0, repeated - first); }

  // The same for `lanes` channels from `first_channel` on, of the outputs from `next` on.
  StoredOutput At(int64_t next, int32_t first_channel, int32_t lanes,
                  int32_t repeated_positions = 0) const {
    return {finish,  out,   position + next,   stride, channel + first_channel, lanes,
            addends, watch, repeated_positions};
  }
};

// What a tile of outputs with addends has of sums, at most.
inline constexpr int kMostTileSums = 512;

// Finishes the sums modulo 2^32 of a tile, [pixels][lanes].
void FinishTile(const int32_t* sums, int32_t pixels, int32_t lanes, const StoredOutput& output);

}  // namespace bitfold

#endif  // BITFOLD_SRC_CHAIN_STORED_OUTPUT_H_
