// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// A tile of outputs as dot products modulo 2^32: of bytes, four in a word, or of shorts, two in a
// word. Every output of the tile has all taps, so the image is padded.

#ifndef BITFOLD_SRC_CHAIN_DOT_TILE_H_
#define BITFOLD_SRC_CHAIN_DOT_TILE_H_

#include <cstdint>

namespace bitfold {

// acc[p][n * 16 + lane] += the dot products of x and w over rows, taps and words, where x is one
// word for all lanes of a column p and w one word for each lane of a panel n. Strides in words.
struct DotTile {
  const int32_t* x;  // of column 0
  const int32_t* w;  // [row][tap][word][lane] of panel 0
  int64_t x_pixel;
  int64_t x_row;
  int64_t x_tap;
  int64_t w_panel;
  int32_t rows;
  int32_t taps;
  int32_t words;  // for each tap
  int32_t* acc;   // [columns][lanes]
};

using DotKernel = void (*)(const DotTile&);

inline constexpr int kMaxDotPixels = 7;
inline constexpr int kMaxDotPanels = 4;

// The kernels of a target by the number of columns and of panels, largest first; 0 ends a list.
struct DotKernels {
  int pixels[5];
  int panels[4];
  DotKernel bytes[4][3];   // of unsigned x and signed w; null where the target has none
  DotKernel shorts[4][3];  // of signed x and w
  bool HasBytes() const { return bytes[0][0] != nullptr; }
};

// For the target in use.
const DotKernels& CurrentDotKernels();

}  // namespace bitfold

#endif  // BITFOLD_SRC_CHAIN_DOT_TILE_H_
