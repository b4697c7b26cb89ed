// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "chain/remainder_tables.h"

#include <cstring>

#include "bitfold/int32_arithmetic.h"
#include "bitfold/product_scaling.h"
#include "chain/sum_output.h"
#include "vector/target.h"

namespace bitfold {
namespace {

struct ChoiceLoops {
  void (*choose)(const uint8_t*, int32_t, uint8_t*, int8_t*);
  void (*add_bytes)(const int32_t*, int32_t*);
};

#define BITFOLD_LOOPS "chain/remainder_choices.inc"
#define BITFOLD_LOOP_TABLE \
  ChoiceLoops { Choose, AddBytes }
#include "vector/vector_loops.inc"

template <int kEntries>
void Copy(const uint8_t* tables, const uint8_t* stored, int64_t count, uint8_t* out) {
  constexpr int kLowest = 4 * kEntries - 1;  // s + 1 bits
  for (int64_t i = 0; i < count; ++i) {
    std::memcpy(out + i * kEntries, tables + int64_t{kEntries} * (stored[i] & kLowest), kEntries);
  }
}

}  // namespace

RemainderTables::RemainderTables(int32_t shift, int32_t offset) : shift_(shift), tables_{} {
  uint8_t* entry = tables_;
  for (int32_t stored = 0; stored < 2 << shift; ++stored) {
    for (int32_t weight = 1; weight <= Entries(); ++weight) {
      const int32_t product = WrapMultiply(WrapSubtract(stored, offset), weight);
      const int32_t quotient = ShiftRoundHalfToEven(product, shift);
      *entry++ = static_cast<uint8_t>(product - ShiftLeft(quotient, shift) + Excess());
    }
  }
}

void RemainderTables::LookUp(const uint8_t* stored, int64_t count, uint8_t* out) const {
  constexpr decltype(&Copy<1>) kCopies[] = {Copy<1>, Copy<2>, Copy<4>, Copy<8>, Copy<16>};
  kCopies[shift_ - 1](tables_, stored, count, out);
}

void RemainderTables::Choose(const int32_t* weights, int64_t vectors, int32_t* choices,
                             int32_t* sums) const {
  const ChoiceLoops& loops = CurrentLoops();
  constexpr int64_t kBoth = 2 * int64_t{kPanel};
  int32_t factors[kPanel] = {};
  for (int64_t v = 0; v < vectors; ++v, weights += kPanel, choices += kBoth) {
    loops.choose(reinterpret_cast<const uint8_t*>(weights), shift_,
                 reinterpret_cast<uint8_t*>(choices), reinterpret_cast<int8_t*>(choices + kPanel));
    loops.add_bytes(choices + kPanel, factors);
  }
  for (int l = 0; l < kPanel; ++l) {
    sums[l] = WrapSubtract(sums[l], WrapMultiply(Excess(), factors[l]));
  }
}

}  // namespace bitfold
