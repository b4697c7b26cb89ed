// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include <utility>
#include <vector>

#include "proofs/enumerate/enumeration.h"

namespace bitfold::enumeration {

std::vector<Enumeration> AllEnumerations() {
  std::vector<Enumeration> all;
  for (const auto table : {HalfPrecision, HalfAccumulators, FloatAccumulators, Scalings,
                           RoundingByAddition, Conversions, NarrowFloats}) {
    for (Enumeration& enumeration : table()) all.push_back(std::move(enumeration));
  }
  return all;
}

}  // namespace bitfold::enumeration
