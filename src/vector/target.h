// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Which instruction set the vector loops use. The binary is built once and runs on any x86-64; the
// choice is made when a loop is called. Loops are plain C++ that the compiler vectorises, compiled
// once for each target (see vector_loops.inc), so all targets share their text.

#ifndef BITFOLD_SRC_VECTOR_TARGET_H_
#define BITFOLD_SRC_VECTOR_TARGET_H_

#include <optional>
#include <string_view>

namespace bitfold {

// The last has dot products besides; loops are the same for it as for kAvx512.
enum class Target { kPortable, kAvx2, kAvx512, kAvx512Vnni };
inline constexpr int kTargets = 4;

// Whether the library has code for the target, which depends on the compiler (target_code.h), and
// this machine its instructions.
bool IsSupported(Target target);

// The widest supported target that is no wider than the named one: "portable", "avx2", "avx512" or
// "avx512_vnni". Any other text is no limit.
Target WidestTarget(std::string_view limit);

// The widest supported target within the limit that the environment variable BITFOLD_TARGET names
// as the first loop is called, or the one that a test has forced.
Target CurrentTarget();

// For tests: forces a target, which must be supported; none lifts it. Not while ops run.
void ForceTarget(std::optional<Target> target);

}  // namespace bitfold

#endif  // BITFOLD_SRC_VECTOR_TARGET_H_
