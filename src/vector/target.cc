// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "vector/target.h"

#include "vector/target_code.h"

namespace bitfold {
namespace {

std::optional<Target> forced;

Target WidestTarget() {
  for (const Target target : {Target::kAvx512Vnni, Target::kAvx512, Target::kAvx2}) {
    if (IsSupported(target)) return target;
  }
  return Target::kPortable;
}

}  // namespace

bool IsSupported(Target target) {
#if BITFOLD_HAS_TARGETS
  switch (target) {
    case Target::kPortable:
      return true;
    case Target::kAvx2:
      return __builtin_cpu_supports("avx2") != 0;
    case Target::kAvx512:
      return __builtin_cpu_supports("avx512f") != 0 && __builtin_cpu_supports("avx512bw") != 0 &&
             __builtin_cpu_supports("avx512dq") != 0 && __builtin_cpu_supports("avx512vl") != 0;
    case Target::kAvx512Vnni:
      return IsSupported(Target::kAvx512) && __builtin_cpu_supports("avx512vnni") != 0;
  }
#endif
  return target == Target::kPortable;
}

Target CurrentTarget() {
  static const Target widest = WidestTarget();
  return forced.value_or(widest);
}

void ForceTarget(std::optional<Target> target) { forced = target; }

}  // namespace bitfold
