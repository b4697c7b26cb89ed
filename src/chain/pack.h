// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Inputs and weights in the form that the dot products read: words of four bytes or two shorts, one
// number for each channel, channels filled up with zeros.

#ifndef BITFOLD_SRC_CHAIN_PACK_H_
#define BITFOLD_SRC_CHAIN_PACK_H_

#include <cstdint>

namespace bitfold {

// Packs `count` whole numbers, each with `offset` added, as bytes or as shorts. For the target in
// use. T is int32_t or float.
template <typename T>
void PackBytes(const T* x, int64_t count, int32_t offset, uint8_t* out);
template <typename T>
void PackShorts(const T* x, int64_t count, int16_t* out);

// One word for each of 16 lanes, of rows[0..4) or rows[0..2), each of 16 whole numbers. A null row
// has zeros.
template <typename T>
void PackWeightBytes(const T* const* rows, int32_t* out);
template <typename T>
void PackWeightShorts(const T* const* rows, int32_t* out);

// sums[i] += |x[i]| of whole numbers.
template <typename T>
void AddMagnitudes(const T* x, int64_t count, int64_t* sums);

// out[i] = the low `bits` bits of sums[i] + elementwise[i], as a number with a sign. elementwise
// may be null; 1 <= bits <= 32.
template <typename T>
void FinishSums(const int32_t* sums, const T* elementwise, int count, int32_t bits, T* out);

}  // namespace bitfold

#endif  // BITFOLD_SRC_CHAIN_PACK_H_
