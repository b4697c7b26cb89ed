// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The instructions of x86 as functions, where there are any. Before the code of a target.

#ifndef BITFOLD_SRC_VECTOR_INTRINSICS_H_
#define BITFOLD_SRC_VECTOR_INTRINSICS_H_

#ifdef __SSE2__
#include <immintrin.h>
#if !defined(__clang__)
// The compiler's own header leaves what a masked instruction ignores uninitialised, and is told of
// it.
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#endif

#endif  // BITFOLD_SRC_VECTOR_INTRINSICS_H_
