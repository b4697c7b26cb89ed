// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HStoredLookup: a function of a stored element by a table of all its results; the definition (rule
// T1 of docs/arithmetic.md).

#ifndef BITFOLD_HSTOREDLOOKUP_H_
#define BITFOLD_HSTOREDLOOKUP_H_

#include <cstdint>
#include <limits>

namespace bitfold {

// The number of stored elements of a type of 8 or 16 bits, and so of entries of its tables.
template <typename T>
inline constexpr int64_t kTableEntries = int64_t{1} << (8 * sizeof(T));

// `count` elements and the entries of all, from that of the least element on.
template <typename T, typename Out>
struct StoredLookupCall {
  const T* data;
  Out* output;
  int64_t count;
  const Out* table;
};

// The op; the definition. T and Out are int8_t, uint8_t or int16_t.
template <typename T, typename Out>
void DefineStoredLookup(const StoredLookupCall<T, Out>& call) {
  for (int64_t i = 0; i < call.count; ++i) {
    call.output[i] = call.table[int32_t{call.data[i]} - std::numeric_limits<T>::min()];
  }
}

}  // namespace bitfold

#endif  // BITFOLD_HSTOREDLOOKUP_H_
