// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "chain/pack.h"

#include <algorithm>

#include "bitfold/int32_arithmetic.h"
#include "chain/sum_output.h"
#include "vector/target.h"
#include "vector/whole_bits.h"

namespace bitfold {
namespace {

template <typename T>
struct PackLoops {
  bool (*bytes)(const T*, int64_t, int32_t, uint8_t*);
  void (*shorts)(const T*, int64_t, int32_t, int16_t*);
  bool (*weight_bytes)(const T*, const WeightShape&, int32_t*, int32_t*);
  bool (*weight_shorts)(const T*, const WeightShape&, int32_t*, int32_t*);
  bool (*byte_columns)(const T*, const ColumnShape&, int32_t, uint8_t*);
  bool (*short_columns)(const T*, const ColumnShape&, int32_t, int16_t*);
  void (*tap_bytes[4])(const T* const*, int64_t, int32_t*);
  void (*tap_shorts[2])(const T* const*, int64_t, int32_t*);
  void (*sums)(const T*, int64_t, int32_t*);
  void (*magnitudes)(const T*, int64_t, int64_t*);
};

struct AllLoops {
  PackLoops<int32_t> integers;
  PackLoops<float> floats;
  PackLoops<int8_t> bytes;
  PackLoops<int16_t> shorts;
};

#define BITFOLD_LOOPS "chain/pack_loops.inc"
#define BITFOLD_LOOP_TABLE                                                                  \
  AllLoops {                                                                                \
    kPackLoopsOf<int32_t>, kPackLoopsOf<float>, kPackLoopsOf<int8_t>, kPackLoopsOf<int16_t> \
  }
#include "vector/vector_loops.inc"

template <typename T>
const PackLoops<T>& LoopsOf();
template <>
const PackLoops<int32_t>& LoopsOf() {
  return CurrentLoops().integers;
}
template <>
const PackLoops<float>& LoopsOf() {
  return CurrentLoops().floats;
}
template <>
const PackLoops<int8_t>& LoopsOf() {
  return CurrentLoops().bytes;
}
template <>
const PackLoops<int16_t>& LoopsOf() {
  return CurrentLoops().shorts;
}

}  // namespace

template <typename T>
bool PackBytes(const T* x, int64_t count, int32_t offset, uint8_t* out) {
  return LoopsOf<T>().bytes(x, count, offset, out);
}

template <typename T>
void PackShorts(const T* x, int64_t count, int32_t offset, int16_t* out) {
  LoopsOf<T>().shorts(x, count, offset, out);
}

template <typename T>
bool PackWeightBytes(const T* weights, const WeightShape& shape, int32_t* out, int32_t* sums) {
  return LoopsOf<T>().weight_bytes(weights, shape, out, sums);
}

template <typename T>
void PackWeightShorts(const T* weights, const WeightShape& shape, int32_t* out, int32_t* sums) {
  LoopsOf<T>().weight_shorts(weights, shape, out, sums);
}

template <typename T>
bool PackColumns(const T* x, const ColumnShape& shape, int32_t offset, uint8_t* out) {
  const int64_t numbers = shape.columns * shape.count;
  if (shape.stride == shape.count) return PackBytes(x, numbers, offset, out);
  return LoopsOf<T>().byte_columns(x, shape, offset, out);
}

template <typename T>
void PackColumns(const T* x, const ColumnShape& shape, int32_t offset, int16_t* out) {
  const int64_t numbers = shape.columns * shape.count;
  if (shape.stride == shape.count) return PackShorts(x, numbers, offset, out);
  LoopsOf<T>().short_columns(x, shape, offset, out);
}

template <typename T>
void PackTapBytes(const T* const* x, int32_t taps, int64_t count, int32_t* out) {
  LoopsOf<T>().tap_bytes[taps - 1](x, count, out);
}

template <typename T>
void PackTapShorts(const T* const* x, int32_t taps, int64_t count, int32_t* out) {
  LoopsOf<T>().tap_shorts[taps - 1](x, count, out);
}

template <typename T>
void AddNumbers(const T* x, int64_t count, int32_t* sums) {
  LoopsOf<T>().sums(x, count, sums);
}

template <typename T>
void AddMagnitudes(const T* x, int64_t count, int64_t* sums) {
  LoopsOf<T>().magnitudes(x, count, sums);
}

#define BITFOLD_INSTANTIATE(T)                                                      \
  template bool PackBytes(const T*, int64_t, int32_t, uint8_t*);                    \
  template void PackShorts(const T*, int64_t, int32_t, int16_t*);                   \
  template bool PackWeightBytes(const T*, const WeightShape&, int32_t*, int32_t*);  \
  template void PackWeightShorts(const T*, const WeightShape&, int32_t*, int32_t*); \
  template bool PackColumns(const T*, const ColumnShape&, int32_t, uint8_t*);       \
  template void PackColumns(const T*, const ColumnShape&, int32_t, int16_t*);       \
  template void PackTapBytes(const T* const*, int32_t, int64_t, int32_t*);          \
  template void AddNumbers(const T*, int64_t, int32_t*);                            \
  template void PackTapShorts(const T* const*, int32_t, int64_t, int32_t*);         \
  template void AddMagnitudes(const T*, int64_t, int64_t*);
BITFOLD_INSTANTIATE(int32_t)
BITFOLD_INSTANTIATE(float)
BITFOLD_INSTANTIATE(int8_t)
BITFOLD_INSTANTIATE(int16_t)
#undef BITFOLD_INSTANTIATE

}  // namespace bitfold
