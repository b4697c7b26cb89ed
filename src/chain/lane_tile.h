// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// A tile of outputs computed in vector lanes: a lane is an output channel, its chain has the
// defined order, and every step is the datapath's. Several columns of outputs share the weights.

#ifndef BITFOLD_SRC_CHAIN_LANE_TILE_H_
#define BITFOLD_SRC_CHAIN_LANE_TILE_H_

#include <cstdint>

#include "bitfold/datapath.h"
#include "chain/plan.h"
#include "chain/sum_output.h"

namespace bitfold {

inline constexpr int kTilePixels = 4;       // columns of outputs in a tile, or 1
inline constexpr int kTilePanels = 2;       // panels in a tile, or 1
inline constexpr int kDepthwisePixels = 6;  // columns of plain depthwise sums, or 1

// Part of the chains of a tile: for each row, for each channel, for each tap
//   acc[p][lane] = Accumulate(acc[p][lane], ScaleProduct(w * x))
// where x is one number for all lanes or, depthwise, one for each. Strides are in elements; that of
// x from channel to channel is 1. Depthwise has one channel.
template <typename T>
struct LaneTile {
  const T* x;  // of column 0
  const T* w;  // of lane 0
  int64_t x_pixel;
  int64_t x_row;
  int64_t x_tap;
  int64_t w_row;
  int64_t w_tap;
  int64_t w_channel;
  int32_t rows;
  int32_t channels;
  int32_t taps;
  T* acc;  // [columns][lanes]
  // Floats: [columns][lanes], the largest magnitude of the sums so far, as bits; in half precision
  // where one of the tile may print a line.
  int32_t* largest;
  int32_t* sums;     // RoundedKernel, in place of these: [columns][lanes]
  HalfAddends half;  // in half precision; the sums so far are whole, too, and at most 2^15
};

// What a sum does that needs no wrap: modulo 2^32. The proofs of the plan say when that is enough.
class ModularDatapath {
 public:
  explicit ModularDatapath(int32_t mult_shift) : mult_shift_(mult_shift) {}

  static int32_t Multiply(int32_t a, int32_t b) { return WrapMultiply(a, b); }
  int32_t ScaleProduct(int32_t product) const { return ShiftRoundHalfToEven(product, mult_shift_); }
  static int32_t Accumulate(int32_t acc, int32_t addend) { return WrapAdd(acc, addend); }
  int32_t mult_shift() const { return mult_shift_; }

 private:
  int32_t mult_shift_;
};

// The kernels for one kind of datapath, by [columns == kTilePixels][panels == kTilePanels].
template <typename D, typename T>
struct LaneKernels {
  using Kernel = void (*)(const D&, const LaneTile<T>&);
  Kernel ordinary[2][2];
  Kernel depthwise[2][2];
};

// For the target in use. D is a Datapath<int32_t>, ModularDatapath, Datapath<float> or
// ReciprocalDatapath<float>.
template <typename D, typename T>
const LaneKernels<D, T>& LaneKernelsOf();

// The sums of a tile as they were formed, before they are reduced.
template <typename Sum>
struct TileSums {
  const Sum* sums;  // [pixels][lanes]
  int32_t pixels;
  int32_t lanes;
  int32_t excess;  // what each of them is too large by, modulo 2^32
};

// Sums of products that need no scaling: int32 modulo 2^32, floats of whole numbers that stay
// within 2^24. tile.acc is not looked at. By the same indices.
template <typename T>
struct SumKernels {
  using Kernel = void (*)(const LaneTile<T>&, const SumOutput<T>&);
  Kernel ordinary[2][2];
  Kernel depthwise[2];  // by [columns == kDepthwisePixels], all of output.channels >= kPanel
  // Writes the sums that another kernel formed.
  void (*finish)(const TileSums<int32_t>&, const SumOutput<T>&);
};
template <typename T>
const SumKernels<T>& CurrentSumKernels();

// Products that are scaled to whole numbers and only summed, modulo 2^32: floats that carry
// integers, p = w * x exact. By adding 1.5 * 2^23 they round half to even, and their bits, that
// number's apart, are the integers.
struct RoundedSums {
  // Where the divisor is a power of two the weights carry its reciprocal, and p is rounded as it
  // is.
  bool is_scaled;
  // Otherwise p * low and p * high are rounded, reciprocals a little below and above 1 / s: they
  // agree but for ties, where the even one counts. Requires |p| < 2^19.
  float low;
  float high;

  // Of a divisor other than 0.
  static RoundedSums ByQuotient(int32_t divisor) {
    constexpr double kNear = 1.0 / (1 << 21);
    return {false, static_cast<float>((1.0 - kNear) / divisor),
            static_cast<float>((1.0 + kNear) / divisor)};
  }
};

// Of the bits of 1.5 * 2^23, which each product adds to a sum besides its own value.
inline constexpr uint32_t kRoundingBits = 0x4b400000;

// Adds to tile.sums. By the same indices as LaneKernels.
using RoundedKernel = void (*)(const RoundedSums&, const LaneTile<float>&);
struct RoundedKernels {
  RoundedKernel ordinary[2][2];
  RoundedKernel depthwise[2][2];
};
const RoundedKernels& CurrentRoundedKernels();

}  // namespace bitfold

#endif  // BITFOLD_SRC_CHAIN_LANE_TILE_H_
