// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Inputs and weights in the form that the dot products read: words of four bytes or two shorts, one
// number for each channel, channels filled up with zeros.

#ifndef BITFOLD_SRC_CHAIN_PACK_H_
#define BITFOLD_SRC_CHAIN_PACK_H_

#include <cstdint>

namespace bitfold {

// Packs `count` numbers, each with `offset` added, as bytes or as shorts. For the target in use. T
// is int32_t, float or a stored int8_t or int16_t.
//
// What packs bytes takes any int32_t or float, and tells whether with the offset all were whole
// numbers of 0 to 255: otherwise what is packed means nothing. Shorts, and bytes of stored numbers,
// are to be numbers that fit.
template <typename T>
bool PackBytes(const T* x, int64_t count, int32_t offset, uint8_t* out);
template <typename T>
void PackShorts(const T* x, int64_t count, int32_t offset, int16_t* out);

// Rows of weights, whose columns belong to an output channel each, and panels of 16 of these.
struct WeightShape {
  int64_t rows;
  int64_t columns;
  int64_t stride;  // weights from a row to the next
  int64_t panel;   // words from a panel to the next
};

// Packs numbers as words of four signed bytes or two shorts: of a panel a word of each column for
// the first rows, one for the next, and so on. Rows and columns are filled up with zeros, columns
// to whole panels. Adds the numbers of each column to `sums`, modulo 2^32, unless it is null. Tells
// whether all were whole numbers of -128 to 127, and takes any, where those are to be bytes.
template <typename T>
bool PackWeightBytes(const T* weights, const WeightShape& shape, int32_t* out, int32_t* sums);
template <typename T>
void PackWeightShorts(const T* weights, const WeightShape& shape, int32_t* out, int32_t* sums);

// Columns of numbers that follow one another, `stride` from one to the next.
struct ColumnShape {
  int64_t columns;
  int64_t stride;
  int64_t count;  // numbers of a column
};

// PackBytes and PackShorts of columns, packed without what lies between them.
template <typename T>
bool PackColumns(const T* x, const ColumnShape& shape, int32_t offset, uint8_t* out);
template <typename T>
void PackColumns(const T* x, const ColumnShape& shape, int32_t offset, int16_t* out);

// out[i] holds the low bits of the whole numbers x[0][i], x[1][i], ... of `taps` arrays, as up to
// four bytes or two shorts.
template <typename T>
void PackTapBytes(const T* const* x, int32_t taps, int64_t count, int32_t* out);
template <typename T>
void PackTapShorts(const T* const* x, int32_t taps, int64_t count, int32_t* out);

// sums[i] += x[i] of whole numbers, modulo 2^32.
template <typename T>
void AddNumbers(const T* x, int64_t count, int32_t* sums);

// sums[i] += |x[i]| of whole numbers.
template <typename T>
void AddMagnitudes(const T* x, int64_t count, int64_t* sums);

}  // namespace bitfold

#endif  // BITFOLD_SRC_CHAIN_PACK_H_
