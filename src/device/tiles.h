// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// How the factors of a product come into shared memory: tiles of 16 x 16 numbers, or of as many
// words of four bytes.

#ifndef BITFOLD_SRC_DEVICE_TILES_H_
#define BITFOLD_SRC_DEVICE_TILES_H_

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "bitfold/float_bits.h"
#include "device/device.h"

namespace bitfold {

inline constexpr int kTile = 16;

// Numbers lie in tiles as words, which have their bits.
__device__ __forceinline__ uint32_t WordOf(int32_t x) { return static_cast<uint32_t>(x); }
__device__ __forceinline__ uint32_t WordOf(float x) { return static_cast<uint32_t>(BitsOf(x)); }

// What a thread reads of a tile at once.
struct alignas(16) FourWords {
  uint32_t of[4];
};

template <typename T>
__device__ __forceinline__ T NumberOf(const FourWords& words, int i) {
  const auto bits = static_cast<int32_t>(words.of[i]);
  if constexpr (std::is_same_v<T, float>) {
    return FloatOf(bits);
  } else {
    return bits;
  }
}

// Two tiles of each factor, of which one is written while the other is read, side by side. Columns
// lie such that the threads which read at once, one column each, do not wait for each other.
struct Tiles {
  FourWords a_row[kTile][kTile / 2];
  FourWords b_col[kTile][kTile / 2 + 1];
};

// Where one thread writes into the tiles and what it reads of them.
class TilePlaces {
 public:
  __device__ explicit TilePlaces(Tiles* tiles)
      : a_to_(tiles->a_row[threadIdx.y][threadIdx.x / 4].of + threadIdx.x % 4),
        b_to_(tiles->b_col[threadIdx.x][threadIdx.y / 4].of + threadIdx.y % 4),
        a_row_(tiles->a_row[threadIdx.y]),
        b_col_(tiles->b_col[threadIdx.x]) {}

  __device__ void Write(uint32_t a, uint32_t b) {
    a_to_[4 * other_] = a;
    b_to_[4 * other_] = b;
  }
  __device__ const FourWords* a_row() const { return a_row_ + other_; }
  __device__ const FourWords* b_col() const { return b_col_ + other_; }
  // To the other pair.
  __device__ void Turn() { other_ = kTile / 4 - other_; }

 private:
  uint32_t* a_to_;
  uint32_t* b_to_;
  const FourWords* a_row_;
  const FourWords* b_col_;
  ptrdiff_t other_ = 0;  // or how many FourWords a tile is wide
};

// The factors of a product. Outside of them there are zeros.
template <typename T>
struct Factors {
  const T* a;
  uint32_t a_cols;
  uint32_t a_rows;
  const T* b;
  uint32_t b_cols;
  uint32_t b_rows;
};

// What one thread brings into tiles of numbers, one pair after the other.
template <typename T>
class TileReader {
 public:
  // The first tile begins with `step`.
  __device__ TileReader(const Factors<T>& factors, uint32_t row, uint32_t col, uint32_t step)
      : factors_(&factors),
        a_end_(row < factors.a_rows ? factors.a_cols : 0),
        b_end_(col < factors.b_cols ? factors.b_rows : 0),
        a_col_(step + threadIdx.x),
        b_row_(step + threadIdx.y),
        a_at_(row * factors.a_cols + a_col_),
        b_at_(b_row_ * factors.b_cols + col) {}

  __device__ void Read() {
    a = a_col_ < a_end_ ? factors_->a[a_at_] : T{0};
    b = b_row_ < b_end_ ? factors_->b[b_at_] : T{0};
    a_col_ += uint32_t{kTile};
    a_at_ += uint32_t{kTile};
    b_row_ += uint32_t{kTile};
    b_at_ += uint32_t{kTile} * factors_->b_cols;
  }

  T a{0};
  T b{0};

 private:
  const Factors<T>* factors_;
  uint32_t a_end_;  // 0 for a row that there is not
  uint32_t b_end_;
  uint32_t a_col_;
  uint32_t b_row_;
  uint32_t a_at_;
  uint32_t b_at_;
};

// What one thread brings into tiles of words, one pair after the other: four numbers of each
// factor, 16 steps apart, so that threads which read at once read what lies together. Threads
// without an output bring another's. Requires factors that are not empty, and whole tiles.
template <typename T>
class ByteTileReader {
 public:
  __device__ ByteTileReader(const Factors<T>& factors, uint32_t row, uint32_t col)
      : factors_(&factors),
        a_at_(AtMost(row, factors.a_rows - 1) * factors.a_cols + threadIdx.x),
        b_at_(threadIdx.y * factors.b_cols + AtMost(col, factors.b_cols - 1)) {}

  // The tile at hand.
  __device__ void Read() {
    const T* const a_from = factors_->a + a_at_;
    const uint32_t step = uint32_t{kTile} * factors_->b_cols;
    BITFOLD_UNROLL_ALL
    for (uint32_t i = 0; i < 4; ++i) {
      a[i] = a_from[size_t{i} * kTile];
      b[i] = factors_->b[b_at_ + i * step];
    }
  }
  // To the next one.
  __device__ void Step() {
    a_at_ += uint32_t{4 * kTile};
    b_at_ += uint32_t{4 * kTile} * factors_->b_cols;
  }

  T a[4];
  T b[4];

 private:
  __device__ static uint32_t AtMost(uint32_t x, uint32_t most) { return x < most ? x : most; }

  const Factors<T>* factors_;
  uint32_t a_at_;
  uint32_t b_at_;
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_DEVICE_TILES_H_
