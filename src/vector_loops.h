// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Compiles a file of plain loops once for each target and defines CurrentLoops(), the table of
// function pointers for the target in use. To be included once in a source file, in an anonymous
// namespace, with
//   BITFOLD_LOOPS       the file's name, and
//   BITFOLD_LOOP_TABLE  an aggregate that names its functions.
// All targets compile the same text, with the flags of cmake/numerics.cmake, so that they can
// differ in speed alone. GCC's target pragma does it; other compilers use the portable form.

// No include guard: included once in each source file that has loops.

#include "target.h"

namespace portable {
#include BITFOLD_LOOPS
const auto kLoops = BITFOLD_LOOP_TABLE;
}  // namespace portable

#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)

#pragma GCC push_options
#pragma GCC target("avx2")
namespace avx2 {
#include BITFOLD_LOOPS
const auto kLoops = BITFOLD_LOOP_TABLE;
}  // namespace avx2
#pragma GCC pop_options

#pragma GCC push_options
#pragma GCC target("avx512f,avx512bw,avx512dq,avx512vl,prefer-vector-width=512")
namespace avx512 {
#include BITFOLD_LOOPS
const auto kLoops = BITFOLD_LOOP_TABLE;
}  // namespace avx512
#pragma GCC pop_options

const auto& CurrentLoops() {
  switch (CurrentTarget()) {
    case Target::kAvx512:
      return avx512::kLoops;
    case Target::kAvx2:
      return avx2::kLoops;
    default:
      return portable::kLoops;
  }
}

#else

const auto& CurrentLoops() { return portable::kLoops; }

#endif
