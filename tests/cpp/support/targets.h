// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The targets of the vector loops, each forced in turn, and the sizes at which loops differ.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_TARGETS_H_
#define BITFOLD_TESTS_CPP_SUPPORT_TARGETS_H_

#include <optional>
#include <vector>

#include "vector/target.h"

namespace bitfold::testing {

struct NamedTarget {
  Target target;
  const char* name;
};

// The targets that this machine has.
inline std::vector<NamedTarget> AllTargets() {
  std::vector<NamedTarget> targets;
  for (const NamedTarget t :
       {NamedTarget{Target::kPortable, "portable"}, NamedTarget{Target::kAvx2, "AVX2"},
        NamedTarget{Target::kAvx512, "AVX-512"},
        NamedTarget{Target::kAvx512Vnni, "AVX-512 VNNI"}}) {
    if (IsSupported(t.target)) targets.push_back(t);
  }
  return targets;
}

// Those of them whose vector loops differ: the last target has but other dot products.
inline std::vector<NamedTarget> SupportedTargets() {
  std::vector<NamedTarget> targets = AllTargets();
  if (targets.back().target == Target::kAvx512Vnni) targets.pop_back();
  return targets;
}

// Forces a target for the life of the object.
class ForcedTarget {
 public:
  explicit ForcedTarget(Target target) { ForceTarget(target); }
  ~ForcedTarget() { ForceTarget(std::nullopt); }
  ForcedTarget(const ForcedTarget&) = delete;
  ForcedTarget& operator=(const ForcedTarget&) = delete;
};

// Sizes around every lane and tile width.
inline std::vector<int> LaneSizes() {
  return {0, 1, 2, 7, 8, 9, 15, 16, 17, 31, 32, 33, 63, 64, 65, 255, 256, 257};
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_TARGETS_H_
