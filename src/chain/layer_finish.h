// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What becomes of a layer's sums: reduced to the accumulator's width, plus the bias with a wrap of
// its own, requantised, clamped and stored. Made once for a layer.

#ifndef BITFOLD_SRC_CHAIN_LAYER_FINISH_H_
#define BITFOLD_SRC_CHAIN_LAYER_FINISH_H_

#include <cstdint>
#include <vector>

#include "bitfold/HRequantise.h"
#include "bitfold/datapath.h"
#include "chain/stored_output.h"

namespace bitfold {

enum class StoredType { kInt8, kInt16 };

struct LayerFinishCall {
  int32_t channels;
  int32_t bits;                // the sums are sign-extended from this many, 1 to 32
  const int32_t* bias;         // for each channel; null where the sums have it
  Datapath<int32_t> datapath;  // of the bias
  const double* multipliers;   // for each channel, or one; the rescaling is defined for them
  bool per_channel;
  RequantiseMode mode;
  StoredType type;
  int64_t largest_sum;  // the magnitude of every sum with its bias is at most this
};

// The arrays and numbers that the loops read: arrays are filled up to whole panels.
struct FinishTerms {
  Datapath<int32_t> datapath;
  int32_t unused_bits;  // above those of a sum
  const int32_t* bias;  // scaled
  const int32_t* mantissas;
  const int32_t* exponents;
  const uint64_t* addends;
  const int32_t* shifts;
  const uint32_t* excesses;
  const double* reals;
  int32_t zero_point;
  int32_t minimum;
  int32_t maximum;
};

class LayerFinish {
 public:
  explicit LayerFinish(const LayerFinishCall& call);

  LayerFinish(const LayerFinish&) = delete;
  LayerFinish& operator=(const LayerFinish&) = delete;

  // FinishTile. Of a position whole panels of sums are read, for channels that do not exist, too.
  void Run(const int32_t* sums, int32_t pixels, int32_t lanes, const StoredOutput& output) const;

 private:
  using Loop = void (*)(const int32_t*, int32_t, int32_t, const FinishTerms&, const StoredOutput&);

  void FillMultipliers(const LayerFinishCall& call, int32_t lanes);
  bool IsModest(const LayerFinishCall& call) const;
  Loop LoopOf(const LayerFinishCall& call) const;

  std::vector<int32_t> bias_;
  std::vector<int32_t> mantissas_;
  std::vector<int32_t> exponents_;
  std::vector<uint64_t> addends_;
  std::vector<int32_t> shifts_;
  std::vector<uint32_t> excesses_;
  std::vector<double> reals_;
  FinishTerms terms_;
  Loop loop_ = nullptr;
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_CHAIN_LAYER_FINISH_H_
