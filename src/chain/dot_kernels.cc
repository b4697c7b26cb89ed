// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include <algorithm>
#include <cstring>

#include "bitfold/int32_arithmetic.h"
#include "chain/dot_row.h"
#include "chain/dot_tile.h"
#include "vector/intrinsics.h"
#include "vector/target.h"
#include "vector/target_code.h"

namespace bitfold {
namespace {

// 2^31, of two products of -2^15 * -2^15, wraps to -2^31 in the instruction that adds pairs: right
// modulo 2^32.
namespace portable {

#ifdef __SSE2__
using Vector = __m128i;
constexpr int kVectors = 4;
inline Vector Load(const int32_t* x) { return _mm_loadu_si128(reinterpret_cast<const Vector*>(x)); }
inline Vector LoadWhole(const int32_t* x) { return Load(x); }
inline Vector LoadWhole(const float* x) { return _mm_cvttps_epi32(_mm_loadu_ps(x)); }
inline void StoreWhole(int32_t* x, Vector v) { _mm_storeu_si128(reinterpret_cast<Vector*>(x), v); }
inline void StoreWhole(float* x, Vector v) { _mm_storeu_ps(x, _mm_cvtepi32_ps(v)); }
inline Vector Same(int32_t x) { return _mm_set1_epi32(x); }
inline Vector Add(Vector a, Vector b) { return _mm_add_epi32(a, b); }
inline Vector SignExtend(Vector v, int32_t unused) {
  const __m128i count = _mm_cvtsi32_si128(unused);
  return _mm_sra_epi32(_mm_sll_epi32(v, count), count);
}
inline Vector DotShorts(Vector acc, Vector x, Vector w) {
  return _mm_add_epi32(acc, _mm_madd_epi16(x, w));
}
inline Vector LoadShorts(const int16_t* x) {
  return _mm_loadu_si128(reinterpret_cast<const Vector*>(x));
}
inline void TapWords(const int16_t* const* x, int64_t i, Vector (&words)[2]) {
  const Vector a = LoadShorts(x[0] + i);
  const Vector b = LoadShorts(x[1] + i);
  words[0] = _mm_unpacklo_epi16(a, b);
  words[1] = _mm_unpackhi_epi16(a, b);
}
inline void LastTapWords(const int16_t* x, int64_t i, Vector (&words)[2]) {
  const Vector a = LoadShorts(x + i);
  words[0] = _mm_unpacklo_epi16(a, a);
  words[1] = _mm_unpackhi_epi16(a, a);
}
#else
using Vector = int32_t;
constexpr int kVectors = 16;
inline Vector Load(const int32_t* x) { return *x; }
inline Vector LoadWhole(const int32_t* x) { return *x; }
inline Vector LoadWhole(const float* x) { return static_cast<Vector>(*x); }
inline void StoreWhole(int32_t* x, Vector v) { *x = v; }
inline void StoreWhole(float* x, Vector v) { *x = static_cast<float>(v); }
inline Vector Same(int32_t x) { return x; }
inline Vector Add(Vector a, Vector b) { return WrapAdd(a, b); }
inline Vector SignExtend(Vector v, int32_t unused) {
  return ShiftRight(ShiftLeft(v, unused), unused);
}
inline Vector DotShorts(Vector acc, Vector x, Vector w) {
  const int32_t low = WrapMultiply(static_cast<int16_t>(x), static_cast<int16_t>(w));
  return WrapAdd(acc, WrapAdd(low, WrapMultiply(x >> 16, w >> 16)));
}
inline void TapWords(const int16_t* const* x, int64_t i, Vector (&words)[1]) {
  words[0] = (x[0][i] & UINT16_MAX) | ShiftLeft(x[1][i], 16);
}
inline void LastTapWords(const int16_t* x, int64_t i, Vector (&words)[1]) { words[0] = x[i]; }
#endif
inline Vector DotBytes(Vector acc, Vector, Vector) { return acc; }

#include "chain/dot_loops.inc"
#include "chain/dot_row_loops.inc"

template <typename Output>
constexpr DotKernels<Output> kKernels = {
    {2, 1}, {1}, {}, {{Dot<2, 1, false, Output>}, {Dot<1, 1, false, Output>}}};

template <typename T>
constexpr DotRowKernels<T> kRowKernels = {nullptr, Row<int16_t, T>};

}  // namespace portable

#if BITFOLD_HAS_TARGETS

BITFOLD_BEGIN_AVX2
namespace avx2 {

using Vector = __m256i;
constexpr int kVectors = 2;
inline Vector Load(const int32_t* x) {
  return _mm256_loadu_si256(reinterpret_cast<const Vector*>(x));
}
inline Vector LoadWhole(const int32_t* x) { return Load(x); }
inline Vector LoadWhole(const float* x) { return _mm256_cvttps_epi32(_mm256_loadu_ps(x)); }
inline void StoreWhole(int32_t* x, Vector v) {
  _mm256_storeu_si256(reinterpret_cast<Vector*>(x), v);
}
inline void StoreWhole(float* x, Vector v) { _mm256_storeu_ps(x, _mm256_cvtepi32_ps(v)); }
inline Vector Same(int32_t x) { return _mm256_set1_epi32(x); }
inline Vector Add(Vector a, Vector b) { return _mm256_add_epi32(a, b); }
inline Vector SignExtend(Vector v, int32_t unused) {
  const __m128i count = _mm_cvtsi32_si128(unused);
  return _mm256_sra_epi32(_mm256_sll_epi32(v, count), count);
}
inline Vector DotShorts(Vector acc, Vector x, Vector w) {
  return _mm256_add_epi32(acc, _mm256_madd_epi16(x, w));
}
// In the order in which unpacking leaves them.
inline Vector LoadShorts(const int16_t* x) {
  const Vector shorts = _mm256_loadu_si256(reinterpret_cast<const Vector*>(x));
  return _mm256_permute4x64_epi64(shorts, _MM_SHUFFLE(3, 1, 2, 0));
}
inline void TapWords(const int16_t* const* x, int64_t i, Vector (&words)[2]) {
  const Vector a = LoadShorts(x[0] + i);
  const Vector b = LoadShorts(x[1] + i);
  words[0] = _mm256_unpacklo_epi16(a, b);
  words[1] = _mm256_unpackhi_epi16(a, b);
}
inline void LastTapWords(const int16_t* x, int64_t i, Vector (&words)[2]) {
  const auto* shorts = reinterpret_cast<const __m128i*>(x + i);
  words[0] = _mm256_cvtepi16_epi32(_mm_loadu_si128(shorts));
  words[1] = _mm256_cvtepi16_epi32(_mm_loadu_si128(shorts + 1));
}
inline Vector DotBytes(Vector acc, Vector, Vector) { return acc; }

#include "chain/dot_loops.inc"
#include "chain/dot_row_loops.inc"

template <typename Output>
constexpr DotKernels<Output> kKernels = {{6, 4, 2, 1},
                                         {1},
                                         {},
                                         {{Dot<6, 1, false, Output>},
                                          {Dot<4, 1, false, Output>},
                                          {Dot<2, 1, false, Output>},
                                          {Dot<1, 1, false, Output>}}};

template <typename T>
constexpr DotRowKernels<T> kRowKernels = {nullptr, Row<int16_t, T>};

}  // namespace avx2
BITFOLD_END_TARGET

// The tables of both AVX-512 targets: 7 columns of 4 panels are 28 registers, 4 hold weights.
#define BITFOLD_DOT_ROW(pixels, bytes) \
  { Dot<pixels, 4, bytes, Output>, Dot<pixels, 2, bytes, Output>, Dot<pixels, 1, bytes, Output> }
#define BITFOLD_DOT_TABLE(bytes)                                                     \
  {                                                                                  \
    BITFOLD_DOT_ROW(7, bytes), BITFOLD_DOT_ROW(4, bytes), BITFOLD_DOT_ROW(2, bytes), \
        BITFOLD_DOT_ROW(1, bytes)                                                    \
  }

BITFOLD_BEGIN_AVX512
namespace avx512 {

using Vector = __m512i;
constexpr int kVectors = 1;
inline Vector Load(const int32_t* x) { return _mm512_loadu_si512(x); }
inline Vector LoadWhole(const int32_t* x) { return Load(x); }
inline Vector LoadWhole(const float* x) { return _mm512_cvttps_epi32(_mm512_loadu_ps(x)); }
inline void StoreWhole(int32_t* x, Vector v) { _mm512_storeu_si512(x, v); }
inline void StoreWhole(float* x, Vector v) { _mm512_storeu_ps(x, _mm512_cvtepi32_ps(v)); }
inline Vector Same(int32_t x) { return _mm512_set1_epi32(x); }
inline Vector Add(Vector a, Vector b) { return _mm512_add_epi32(a, b); }
inline Vector SignExtend(Vector v, int32_t unused) {
  const __m128i count = _mm_cvtsi32_si128(unused);
  return _mm512_sra_epi32(_mm512_sll_epi32(v, count), count);
}
inline Vector DotShorts(Vector acc, Vector x, Vector w) {
  return _mm512_add_epi32(acc, _mm512_madd_epi16(x, w));
}
// In the order in which unpacking leaves them.
inline Vector LoadShorts(const int16_t* x) {
  const Vector order = _mm512_setr_epi64(0, 4, 1, 5, 2, 6, 3, 7);
  return _mm512_permutexvar_epi64(order, _mm512_loadu_si512(x));
}
inline void TapWords(const int16_t* const* x, int64_t i, Vector (&words)[2]) {
  const Vector a = LoadShorts(x[0] + i);
  const Vector b = LoadShorts(x[1] + i);
  words[0] = _mm512_unpacklo_epi16(a, b);
  words[1] = _mm512_unpackhi_epi16(a, b);
}
inline void LastTapWords(const int16_t* x, int64_t i, Vector (&words)[2]) {
  const auto* shorts = reinterpret_cast<const __m256i*>(x + i);
  words[0] = _mm512_cvtepi16_epi32(_mm256_loadu_si256(shorts));
  words[1] = _mm512_cvtepi16_epi32(_mm256_loadu_si256(shorts + 1));
}
inline Vector DotBytes(Vector acc, Vector, Vector) { return acc; }

#include "chain/dot_loops.inc"
#include "chain/dot_row_loops.inc"

template <typename Output>
constexpr DotKernels<Output> kKernels = {{7, 4, 2, 1}, {4, 2, 1}, {}, BITFOLD_DOT_TABLE(false)};

template <typename T>
constexpr DotRowKernels<T> kRowKernels = {nullptr, Row<int16_t, T>};

}  // namespace avx512
BITFOLD_END_TARGET

BITFOLD_BEGIN_AVX512_VNNI
namespace avx512_vnni {

using avx512::Add;
using avx512::kVectors;
using avx512::LastTapWords;
using avx512::Load;
using avx512::LoadWhole;
using avx512::Same;
using avx512::SignExtend;
using avx512::StoreWhole;
using avx512::TapWords;
using avx512::Vector;
inline Vector DotShorts(Vector acc, Vector x, Vector w) { return _mm512_dpwssd_epi32(acc, x, w); }
inline Vector DotBytes(Vector acc, Vector x, Vector w) { return _mm512_dpbusd_epi32(acc, x, w); }

// In the order in which unpacking twice leaves them.
inline Vector LoadBytes(const uint8_t* x) {
  const Vector order = _mm512_setr_epi32(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
  return _mm512_permutexvar_epi32(order, _mm512_loadu_si512(x));
}
inline void TapWords(const uint8_t* const* x, int64_t i, Vector (&words)[4]) {
  const Vector a = LoadBytes(x[0] + i);
  const Vector b = LoadBytes(x[1] + i);
  const Vector c = LoadBytes(x[2] + i);
  const Vector d = LoadBytes(x[3] + i);
  const Vector ab_low = _mm512_unpacklo_epi8(a, b);
  const Vector ab_high = _mm512_unpackhi_epi8(a, b);
  const Vector cd_low = _mm512_unpacklo_epi8(c, d);
  const Vector cd_high = _mm512_unpackhi_epi8(c, d);
  words[0] = _mm512_unpacklo_epi16(ab_low, cd_low);
  words[1] = _mm512_unpackhi_epi16(ab_low, cd_low);
  words[2] = _mm512_unpacklo_epi16(ab_high, cd_high);
  words[3] = _mm512_unpackhi_epi16(ab_high, cd_high);
}
inline void LastTapWords(const uint8_t* x, int64_t i, Vector (&words)[4]) {
  const auto* bytes = reinterpret_cast<const __m128i*>(x + i);
  BITFOLD_UNROLL
  for (int v = 0; v < 4; ++v) words[v] = _mm512_cvtepu8_epi32(_mm_loadu_si128(bytes + v));
}

#include "chain/dot_loops.inc"
#include "chain/dot_row_loops.inc"

template <typename Output>
constexpr DotKernels<Output> kKernels = {
    {7, 4, 2, 1}, {4, 2, 1}, BITFOLD_DOT_TABLE(true), BITFOLD_DOT_TABLE(false)};

template <typename T>
constexpr DotRowKernels<T> kRowKernels = {Row<uint8_t, T>, Row<int16_t, T>};

}  // namespace avx512_vnni
BITFOLD_END_TARGET

// The same with what permutes bytes.
BITFOLD_BEGIN_AVX512_VBMI
namespace avx512_vbmi {

using avx512::Add;
using avx512::kVectors;
using avx512::Load;
using avx512::LoadWhole;
using avx512::Same;
using avx512::SignExtend;
using avx512::StoreWhole;
using avx512::Vector;
using avx512_vnni::DotBytes;
using avx512_vnni::DotShorts;

#include "chain/dot_loops.inc"
#include "chain/remainder_loops.inc"

#define BITFOLD_REMAINDER_ROW(pixels, wide)                                   \
  {                                                                           \
    Remainders<pixels, 4, wide, Output>, Remainders<pixels, 2, wide, Output>, \
        Remainders<pixels, 1, wide, Output>                                   \
  }
#define BITFOLD_REMAINDER_TABLE(wide)                                  \
  {                                                                    \
    BITFOLD_REMAINDER_ROW(7, wide), BITFOLD_REMAINDER_ROW(4, wide),    \
        BITFOLD_REMAINDER_ROW(2, wide), BITFOLD_REMAINDER_ROW(1, wide) \
  }

template <typename Output>
constexpr DotKernels<Output> WithRemainders(DotKernels<Output> kernels) {
  const DotKernels<Output> remainders = {
      {}, {}, {}, {}, {BITFOLD_REMAINDER_TABLE(false), BITFOLD_REMAINDER_TABLE(true)}};
  for (int size = 0; size < 4; ++size) {
    for (int panels = 0; panels < 3; ++panels) {
      for (const bool wide : {false, true}) {
        kernels.remainders[wide][size][panels] = remainders.remainders[wide][size][panels];
      }
    }
  }
  return kernels;
}

template <typename Output>
constexpr DotKernels<Output> kKernels = WithRemainders(avx512_vnni::kKernels<Output>);

}  // namespace avx512_vbmi
BITFOLD_END_TARGET

#undef BITFOLD_REMAINDER_TABLE
#undef BITFOLD_REMAINDER_ROW

#undef BITFOLD_DOT_TABLE
#undef BITFOLD_DOT_ROW

#endif  // BITFOLD_HAS_TARGETS

}  // namespace

template <typename T>
const DotRowKernels<T>& CurrentDotRowKernels() {
#if BITFOLD_HAS_TARGETS
  switch (CurrentTarget()) {
    case Target::kAvx512Vnni:
      return avx512_vnni::kRowKernels<T>;
    case Target::kAvx512:
      return avx512::kRowKernels<T>;
    case Target::kAvx2:
      return avx2::kRowKernels<T>;
    case Target::kPortable:
      break;
  }
#endif
  return portable::kRowKernels<T>;
}

template <typename Output>
const DotKernels<Output>& CurrentDotKernels() {
#if BITFOLD_HAS_TARGETS
  static const bool permutes_bytes = __builtin_cpu_supports("avx512vbmi") != 0;
  switch (CurrentTarget()) {
    case Target::kAvx512Vnni:
      return permutes_bytes ? avx512_vbmi::kKernels<Output> : avx512_vnni::kKernels<Output>;
    case Target::kAvx512:
      return avx512::kKernels<Output>;
    case Target::kAvx2:
      return avx2::kKernels<Output>;
    case Target::kPortable:
      break;
  }
#endif
  return portable::kKernels<Output>;
}

template const DotKernels<SumOutput<int32_t>>& CurrentDotKernels();
template const DotKernels<SumOutput<float>>& CurrentDotKernels();
template const DotRowKernels<int32_t>& CurrentDotRowKernels();
template const DotRowKernels<float>& CurrentDotRowKernels();
template const DotKernels<StoredOutput>& CurrentDotKernels();

}  // namespace bitfold
