// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What rounding takes away from the products of bytes that a shift scales, as numbers to be looked
// up ("Remainders" of docs/arithmetic.md).

#ifndef BITFOLD_SRC_CHAIN_REMAINDER_TABLES_H_
#define BITFOLD_SRC_CHAIN_REMAINDER_TABLES_H_

#include <cstdint>

#include "bitfold/int32_arithmetic.h"
#include "chain/plan.h"

namespace bitfold {

// Of a shift s from 1 to kMostRemainderShift. The remainder of x * w is one of the 2^(s - 1)
// entries of x's table, with or without its sign, or 0; which of them, a weight tells. Entries are
// stored with 2^(s - 1) added, so that they are unsigned.
class RemainderTables {
 public:
  // Bytes x are stored with `offset` added.
  RemainderTables(int32_t shift, int32_t offset);

  int32_t shift() const { return shift_; }

  // The bytes of a table.
  int32_t Entries() const { return ShiftLeft(1, shift_ - 1); }

  // out: the tables of `count` stored bytes, one after the other.
  void LookUp(const uint8_t* stored, int64_t count, uint8_t* out) const;

  // Of `vectors` times 16 words, four weights in each, what they choose. For each 16 of them
  // choices has 16 words of places in the four tables of a word of x, and 16 of factors: -1 or 1
  // to subtract the entry or its negative, or 0. What entries are too large by in the sum of a lane
  // is taken off sums, which has 16. Requires fewer than 2^29 vectors.
  void Choose(const int32_t* weights, int64_t vectors, int32_t* choices, int32_t* sums) const;

 private:
  // What an entry is too large by.
  int32_t Excess() const { return Entries(); }

  int32_t shift_;
  uint8_t tables_[(2 << kMostRemainderShift) << (kMostRemainderShift - 1)];  // by the lowest bits
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_CHAIN_REMAINDER_TABLES_H_
