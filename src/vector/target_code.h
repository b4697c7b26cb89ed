// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// How a compiler is told to make code for a target and vectors of a loop: the one place that knows
// compilers. Which targets there are is in target.h.
//
//   BITFOLD_HAS_TARGETS     1 where the library has code for all targets, 0 for the portable alone
//   BITFOLD_BEGIN_AVX2      what follows, up to BITFOLD_END_TARGET, is compiled for that target; no
//   BITFOLD_BEGIN_AVX512    standard header may be included there
//   BITFOLD_BEGIN_AVX512_VNNI
//   BITFOLD_BEGIN_AVX512_VBMI
//   BITFOLD_INDEPENDENT     before a loop whose iterations do not depend on one another
//   BITFOLD_UNROLL          before a loop of a constant number of iterations, at most 16
//
// A target only adds instructions: products and sums stay apart (cmake/numerics.cmake), also where
// a target has a fused instruction, so that no target changes a bit. AVX-512 loops take whole
// registers; clang does so unless it compiles for a processor that it knows to be slow at them.

#ifndef BITFOLD_SRC_VECTOR_TARGET_CODE_H_
#define BITFOLD_SRC_VECTOR_TARGET_CODE_H_

#define BITFOLD_PRAGMA(text) _Pragma(#text)

#if defined(__clang__)
#define BITFOLD_BEGIN_TARGET(features) \
  BITFOLD_PRAGMA(clang attribute push(__attribute__((target(features))), apply_to = function))
#define BITFOLD_END_TARGET BITFOLD_PRAGMA(clang attribute pop)
#define BITFOLD_PREFER_512
#elif defined(__GNUC__)
#define BITFOLD_BEGIN_TARGET(features) \
  BITFOLD_PRAGMA(GCC push_options)     \
  BITFOLD_PRAGMA(GCC target(features))
#define BITFOLD_END_TARGET BITFOLD_PRAGMA(GCC pop_options)
#define BITFOLD_PREFER_512 ",prefer-vector-width=512"
#endif

#if defined(__x86_64__) && defined(BITFOLD_BEGIN_TARGET)
#define BITFOLD_HAS_TARGETS 1
#else
#define BITFOLD_HAS_TARGETS 0
#endif

#define BITFOLD_AVX512 "avx512f,avx512bw,avx512dq,avx512vl"
#define BITFOLD_BEGIN_AVX2 BITFOLD_BEGIN_TARGET("avx2")
#define BITFOLD_BEGIN_AVX512 BITFOLD_BEGIN_TARGET(BITFOLD_AVX512 BITFOLD_PREFER_512)
#define BITFOLD_BEGIN_AVX512_VNNI \
  BITFOLD_BEGIN_TARGET(BITFOLD_AVX512 ",avx512vnni" BITFOLD_PREFER_512)
#define BITFOLD_BEGIN_AVX512_VBMI \
  BITFOLD_BEGIN_TARGET(BITFOLD_AVX512 ",avx512vnni,avx512vbmi" BITFOLD_PREFER_512)

// Never BITFOLD_INDEPENDENT before a loop that sums floats: clang takes its pragma for leave to
// change the order of the sum. It warns where it makes no vectors of such a loop; clang 14 makes
// none of floats, because it takes a flag of cmake/numerics.cmake for a wish to trap.
#if defined(__clang__)
#define BITFOLD_INDEPENDENT BITFOLD_PRAGMA(clang loop vectorize(assume_safety))
#define BITFOLD_UNROLL BITFOLD_PRAGMA(clang loop unroll(full))
#elif defined(__GNUC__)
#define BITFOLD_INDEPENDENT BITFOLD_PRAGMA(GCC ivdep)
#define BITFOLD_UNROLL BITFOLD_PRAGMA(GCC unroll 16)
#else
#define BITFOLD_INDEPENDENT
#define BITFOLD_UNROLL
#endif

#endif  // BITFOLD_SRC_VECTOR_TARGET_CODE_H_
