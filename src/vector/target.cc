// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "vector/target.h"

#include <cstdlib>

#include "vector/target_code.h"

namespace bitfold {
namespace {

struct NamedTarget {
  Target target;
  std::string_view name;
};
// From the widest on.
constexpr NamedTarget kNamedTargets[kTargets] = {{Target::kAvx512Vnni, "avx512_vnni"},
                                                 {Target::kAvx512, "avx512"},
                                                 {Target::kAvx2, "avx2"},
                                                 {Target::kPortable, "portable"}};

std::optional<Target> forced;

std::string_view LimitInEnvironment() {
  const char* name = std::getenv("BITFOLD_TARGET");
  return name != nullptr ? name : "";
}

bool IsName(std::string_view text) {
  for (const NamedTarget& named : kNamedTargets) {
    if (named.name == text) return true;
  }
  return false;
}

}  // namespace

Target WidestTarget(std::string_view limit) {
  bool is_within = !IsName(limit);
  for (const NamedTarget& named : kNamedTargets) {
    is_within = is_within || named.name == limit;
    if (is_within && IsSupported(named.target)) return named.target;
  }
  return Target::kPortable;
}

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
  static const Target widest = WidestTarget(LimitInEnvironment());
  return forced.value_or(widest);
}

void ForceTarget(std::optional<Target> target) { forced = target; }

}  // namespace bitfold
