// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Outputs as dot products modulo 2^32: of bytes, four in a word, or of shorts, two in a word. Every
// output of a tile has all taps of a row of them, so the image is padded.

#ifndef BITFOLD_SRC_CHAIN_DOT_TILE_H_
#define BITFOLD_SRC_CHAIN_DOT_TILE_H_

#include <cstdint>

#include "chain/stored_output.h"
#include "chain/sum_output.h"

namespace bitfold {

// The sum of lane l of panel n in column p is
//   initial[n * 16 + l] + the dot products of x and w over rows, taps and words,
// where x is one word for all lanes of a column and w one word for each lane. Words of x lie
// anywhere, one after the other those of a tap; strides of x in bytes, of w in words.
struct DotTile {
  const uint8_t* x;  // of column 0
  const int32_t* w;  // [row][tap][word][lane] of panel 0
  const int32_t* initial;
  int64_t x_pixel;
  int64_t x_row;
  int64_t x_tap;
  int64_t w_panel;
  int32_t rows;
  int32_t taps;
  int32_t words;  // for each tap
};

// The same of bytes whose products are scaled by a shift: of the dot products of `dot` the
// remainders are taken off (remainder_tables.h), and 2^shift divides what is left. initial takes
// the entries' excess off.
struct RemainderTile {
  DotTile dot;
  const uint8_t* tables;   // of the byte dot.x and those that follow it, one after the other
  const int32_t* choices;  // of dot.w, two vectors for each of its vectors
  int32_t entries;         // of a byte's table: 1 to 16
  int32_t shift;
};

// The kernels of a target that write to a kind of output, by the number of columns and of panels,
// largest first; 0 ends a list. Where there are no dot products of bytes theirs are null, and where
// no instruction permutes bytes those of remainders.
template <typename Output>
struct DotKernels {
  using Kernel = void (*)(const DotTile&, const Output&);
  using RemainderKernel = void (*)(const RemainderTile&, const Output&);
  int pixels[5];
  int panels[4];
  Kernel bytes[4][3];                        // of unsigned x and signed w
  Kernel shorts[4][3];                       // of signed x and w
  RemainderKernel remainders[2][4][3] = {};  // by whether tables have 16 entries; or null
  bool HasBytes() const { return bytes[0][0] != nullptr; }
  bool HasRemainders() const { return remainders[0][0][0] != nullptr; }
};

// For the target in use. Output is SumOutput<int32_t>, SumOutput<float> or StoredOutput.
template <typename Output>
const DotKernels<Output>& CurrentDotKernels();

}  // namespace bitfold

#endif  // BITFOLD_SRC_CHAIN_DOT_TILE_H_
