// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "chain/dot_tile.h"
#include "target.h"

#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
#define BITFOLD_HAS_TARGETS
#endif

#ifdef __SSE2__
#include <immintrin.h>
#else
#include "bitfold/int32_arithmetic.h"
#endif

#ifdef BITFOLD_HAS_TARGETS
// The compiler's own header leaves what a masked instruction ignores uninitialised, and is told of
// it.
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

namespace bitfold {
namespace {

// 2^31, of two products of -2^15 * -2^15, wraps to -2^31 in the instruction that adds pairs: right
// modulo 2^32.
namespace portable {

#ifdef __SSE2__
using Vector = __m128i;
constexpr int kVectors = 4;
inline Vector Load(const int32_t* x) { return _mm_loadu_si128(reinterpret_cast<const Vector*>(x)); }
inline void Store(int32_t* x, Vector v) { _mm_storeu_si128(reinterpret_cast<Vector*>(x), v); }
inline Vector Same(int32_t x) { return _mm_set1_epi32(x); }
inline Vector DotShorts(Vector acc, Vector x, Vector w) {
  return _mm_add_epi32(acc, _mm_madd_epi16(x, w));
}
#else
using Vector = int32_t;
constexpr int kVectors = 16;
inline Vector Load(const int32_t* x) { return *x; }
inline void Store(int32_t* x, Vector v) { *x = v; }
inline Vector Same(int32_t x) { return x; }
inline Vector DotShorts(Vector acc, Vector x, Vector w) {
  const int32_t low = WrapMultiply(static_cast<int16_t>(x), static_cast<int16_t>(w));
  return WrapAdd(acc, WrapAdd(low, WrapMultiply(x >> 16, w >> 16)));
}
#endif
inline Vector DotBytes(Vector acc, Vector, Vector) { return acc; }

#include "chain/dot_loops.inc"

const DotKernels kKernels = {{2, 1}, {1}, {}, {{Dot<2, 1, false>}, {Dot<1, 1, false>}}};

}  // namespace portable

#ifdef BITFOLD_HAS_TARGETS

#pragma GCC push_options
#pragma GCC target("avx2")
namespace avx2 {

using Vector = __m256i;
constexpr int kVectors = 2;
inline Vector Load(const int32_t* x) {
  return _mm256_loadu_si256(reinterpret_cast<const Vector*>(x));
}
inline void Store(int32_t* x, Vector v) { _mm256_storeu_si256(reinterpret_cast<Vector*>(x), v); }
inline Vector Same(int32_t x) { return _mm256_set1_epi32(x); }
inline Vector DotShorts(Vector acc, Vector x, Vector w) {
  return _mm256_add_epi32(acc, _mm256_madd_epi16(x, w));
}
inline Vector DotBytes(Vector acc, Vector, Vector) { return acc; }

#include "chain/dot_loops.inc"

const DotKernels kKernels = {
    {6, 4, 2, 1},
    {1},
    {},
    {{Dot<6, 1, false>}, {Dot<4, 1, false>}, {Dot<2, 1, false>}, {Dot<1, 1, false>}}};

}  // namespace avx2
#pragma GCC pop_options

// The tables of both AVX-512 targets: 7 columns of 4 panels are 28 registers, 4 hold weights.
#define BITFOLD_DOT_ROW(pixels, bytes) \
  { Dot<pixels, 4, bytes>, Dot<pixels, 2, bytes>, Dot<pixels, 1, bytes> }
#define BITFOLD_DOT_TABLE(bytes)                                                     \
  {                                                                                  \
    BITFOLD_DOT_ROW(7, bytes), BITFOLD_DOT_ROW(4, bytes), BITFOLD_DOT_ROW(2, bytes), \
        BITFOLD_DOT_ROW(1, bytes)                                                    \
  }

#pragma GCC push_options
#pragma GCC target("avx512f,avx512bw,avx512dq,avx512vl")
namespace avx512 {

using Vector = __m512i;
constexpr int kVectors = 1;
inline Vector Load(const int32_t* x) { return _mm512_loadu_si512(x); }
inline void Store(int32_t* x, Vector v) { _mm512_storeu_si512(x, v); }
inline Vector Same(int32_t x) { return _mm512_set1_epi32(x); }
inline Vector DotShorts(Vector acc, Vector x, Vector w) {
  return _mm512_add_epi32(acc, _mm512_madd_epi16(x, w));
}
inline Vector DotBytes(Vector acc, Vector, Vector) { return acc; }

#include "chain/dot_loops.inc"

const DotKernels kKernels = {{7, 4, 2, 1}, {4, 2, 1}, {}, BITFOLD_DOT_TABLE(false)};

}  // namespace avx512
#pragma GCC pop_options

#pragma GCC push_options
#pragma GCC target("avx512f,avx512bw,avx512dq,avx512vl,avx512vnni")
namespace avx512_vnni {

using Vector = __m512i;
constexpr int kVectors = 1;
inline Vector Load(const int32_t* x) { return _mm512_loadu_si512(x); }
inline void Store(int32_t* x, Vector v) { _mm512_storeu_si512(x, v); }
inline Vector Same(int32_t x) { return _mm512_set1_epi32(x); }
inline Vector DotShorts(Vector acc, Vector x, Vector w) { return _mm512_dpwssd_epi32(acc, x, w); }
inline Vector DotBytes(Vector acc, Vector x, Vector w) { return _mm512_dpbusd_epi32(acc, x, w); }

#include "chain/dot_loops.inc"

const DotKernels kKernels = {
    {7, 4, 2, 1}, {4, 2, 1}, BITFOLD_DOT_TABLE(true), BITFOLD_DOT_TABLE(false)};

}  // namespace avx512_vnni
#pragma GCC pop_options

#undef BITFOLD_DOT_TABLE
#undef BITFOLD_DOT_ROW

#endif  // BITFOLD_HAS_TARGETS

}  // namespace

const DotKernels& CurrentDotKernels() {
#ifdef BITFOLD_HAS_TARGETS
  switch (CurrentTarget()) {
    case Target::kAvx512Vnni:
      return avx512_vnni::kKernels;
    case Target::kAvx512:
      return avx512::kKernels;
    case Target::kAvx2:
      return avx2::kKernels;
    case Target::kPortable:
      break;
  }
#endif
  return portable::kKernels;
}

}  // namespace bitfold
