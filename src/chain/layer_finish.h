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
  // For each channel where sums have 64 bits from here on, else null. Not of two roundings; then
  // `bits` is 32, there is no other bias and no largest sum counts.
  const int64_t* wide_bias = nullptr;
};

// The arrays and numbers that the loops read: arrays are filled up to whole panels.
struct FinishTerms {
  Datapath<int32_t> datapath;
  int32_t unused_bits;  // above those of a sum
  const int32_t* bias;  // scaled
  const int64_t* wide_bias;
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

  // The same, and adds those sums to `output.wrong` that differ from the given ones with the bias.
  // Requires that 32 bits hold these, and no wide bias.
  void RunChecked(const int32_t* sums, int32_t pixels, int32_t lanes,
                  const StoredOutput& output) const;

  // The same as Run of sums of 64 bits. Requires a wide bias.
  void Run(const int64_t* sums, int32_t pixels, int32_t lanes, const StoredOutput& output) const;

 private:
  template <typename T>
  using Loop = void (*)(const T*, int32_t, int32_t, const FinishTerms&, const StoredOutput&);

  void FillMultipliers(const LayerFinishCall& call, int32_t lanes);
  bool IsModest(const LayerFinishCall& call) const;
  Loop<int32_t> LoopOf(const LayerFinishCall& call, bool checks) const;

  std::vector<int32_t> bias_;
  std::vector<int64_t> wide_bias_;
  std::vector<int32_t> mantissas_;
  std::vector<int32_t> exponents_;
  std::vector<uint64_t> addends_;
  std::vector<int32_t> shifts_;
  std::vector<uint32_t> excesses_;
  std::vector<double> reals_;
  FinishTerms terms_;
  Loop<int32_t> loop_ = nullptr;
  Loop<int32_t> checked_loop_ = nullptr;
  Loop<int64_t> wide_loop_ = nullptr;
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_CHAIN_LAYER_FINISH_H_
