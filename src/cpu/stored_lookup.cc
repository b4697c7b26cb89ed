// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/stored_lookup.h"

#include <cstdint>
#include <limits>

#include "vector/intrinsics.h"
#include "vector/target.h"

namespace bitfold {
namespace {

struct LookupLoops {
  void (*bytes_to_bytes)(const uint8_t*, int64_t, const uint8_t*, uint8_t*);
  void (*bytes_to_shorts)(const uint8_t*, int64_t, const int16_t*, int16_t*);
};

#define BITFOLD_LOOPS "cpu/stored_lookup_loops.inc"
#define BITFOLD_LOOP_TABLE \
  LookupLoops { LookUpBytesByByte, LookUpBytes<int16_t> }
#include "vector/vector_loops.inc"

// The table in the order of the elements' bits without a sign.
template <typename T, typename Entry, typename Out>
void CopyTable(const Out* table, Entry* entries) {
  constexpr int kFirst = std::numeric_limits<T>::min() < 0 ? 128 : 0;
  for (int i = 0; i < 256; ++i) entries[i] = static_cast<Entry>(table[(i + kFirst) % 256]);
}

}  // namespace

template <typename T, typename Out>
void ComputeStoredLookup(const StoredLookupCall<T, Out>& call, Workers* workers) {
  constexpr int64_t kCost = 1;  // cycles of an element
  const LookupLoops& loops = CurrentLoops();
  workers->Share(call.count, kCost, [&](int64_t first, int64_t end) {
    if constexpr (sizeof(T) == 2) {
      const Out* const table = call.table - std::numeric_limits<T>::min();
      for (int64_t i = first; i < end; ++i) call.output[i] = table[call.data[i]];
    } else {
      const auto* const bytes = reinterpret_cast<const uint8_t*>(call.data + first);
      Out* const output = call.output + first;
      if constexpr (sizeof(Out) == 1) {
        uint8_t entries[256];
        CopyTable<T>(call.table, entries);
        loops.bytes_to_bytes(bytes, end - first, entries, reinterpret_cast<uint8_t*>(output));
      } else {
        int16_t entries[256];
        CopyTable<T>(call.table, entries);
        loops.bytes_to_shorts(bytes, end - first, entries, output);
      }
    }
  });
}

template void ComputeStoredLookup(const StoredLookupCall<int8_t, int8_t>&, Workers*);
template void ComputeStoredLookup(const StoredLookupCall<int8_t, uint8_t>&, Workers*);
template void ComputeStoredLookup(const StoredLookupCall<int8_t, int16_t>&, Workers*);
template void ComputeStoredLookup(const StoredLookupCall<uint8_t, int8_t>&, Workers*);
template void ComputeStoredLookup(const StoredLookupCall<uint8_t, uint8_t>&, Workers*);
template void ComputeStoredLookup(const StoredLookupCall<uint8_t, int16_t>&, Workers*);
template void ComputeStoredLookup(const StoredLookupCall<int16_t, int8_t>&, Workers*);
template void ComputeStoredLookup(const StoredLookupCall<int16_t, uint8_t>&, Workers*);
template void ComputeStoredLookup(const StoredLookupCall<int16_t, int16_t>&, Workers*);

}  // namespace bitfold
