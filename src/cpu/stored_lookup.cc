// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/stored_lookup.h"

#include <cstdint>
#include <limits>

#include "vector/intrinsics.h"
#include "vector/target.h"
#include "vector/target_code.h"

namespace bitfold {
namespace {

// The entry of each byte. The table is the caller's own: one that might be the output would be read
// anew for each element.
template <typename Entry>
void LookUpBytes(const uint8_t* bytes, int64_t count, const Entry* table, Entry* output) {
  Entry entries[256];
  for (int i = 0; i < 256; ++i) entries[i] = table[i];
  for (int64_t i = 0; i < count; ++i) output[i] = entries[bytes[i]];
}

namespace portable {
void LookUpBytesByByte(const uint8_t* bytes, int64_t count, const uint8_t* table, uint8_t* output) {
  LookUpBytes(bytes, count, table, output);
}
}  // namespace portable

#if BITFOLD_HAS_TARGETS

// Instructions, not loops: the compiler knows no table in registers. AVX2 has vectors half as long,
// which are no faster than the loop.
BITFOLD_BEGIN_AVX512
namespace avx512 {

// The bytes of 16 rows of a table at 64 places.
inline __m512i ShuffledBytes(const __m512i* rows, __m512i places) {
  __m512i found = _mm512_setzero_si512();
  BITFOLD_UNROLL
  for (int row = 0; row < 16; ++row) {
    // A place in the row keeps its low half; any other one gets its highest bit, which gives 0.
    const __m512i within = _mm512_xor_si512(places, _mm512_set1_epi8(static_cast<char>(row << 4)));
    const __m512i low = _mm512_adds_epu8(within, _mm512_set1_epi8(0x70));
    found = _mm512_or_si512(found, _mm512_shuffle_epi8(rows[row], low));
  }
  return found;
}

void LookUpBytesByByte(const uint8_t* bytes, int64_t count, const uint8_t* table, uint8_t* output) {
  __m512i rows[16];
  for (int row = 0; row < 16; ++row) {
    const auto* entries = reinterpret_cast<const __m128i*>(table + int64_t{16} * row);
    rows[row] = _mm512_broadcast_i32x4(_mm_loadu_si128(entries));
  }
  int64_t i = 0;
  for (; i + 64 <= count; i += 64) {
    _mm512_storeu_si512(output + i, ShuffledBytes(rows, _mm512_loadu_si512(bytes + i)));
  }
  const __mmask64 rest = (uint64_t{1} << (count - i)) - 1;
  const __m512i places = _mm512_maskz_loadu_epi8(rest, bytes + i);
  _mm512_mask_storeu_epi8(output + i, rest, ShuffledBytes(rows, places));
}

}  // namespace avx512
BITFOLD_END_TARGET

#endif

auto CurrentByteLookUp() {
#if BITFOLD_HAS_TARGETS
  if (CurrentTarget() >= Target::kAvx512) return avx512::LookUpBytesByByte;
#endif
  return portable::LookUpBytesByByte;
}

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
  [[maybe_unused]] const auto look_up = CurrentByteLookUp();
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
        look_up(bytes, end - first, entries, reinterpret_cast<uint8_t*>(output));
      } else {
        int16_t entries[256];
        CopyTable<T>(call.table, entries);
        LookUpBytes(bytes, end - first, entries, output);
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
