// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#ifndef BITFOLD_SRC_CPU_ACTIVATION_H_
#define BITFOLD_SRC_CPU_ACTIVATION_H_

#include <cstdint>

#include "bitfold/activation.h"
#include "frame/workers.h"

namespace bitfold {

// The bits of DefineActivation, with the same requirements, by vector loops, the positions of each
// group or of neighbouring small groups shared out among the workers.
void ComputeActivation(const int64_t* in, const ActivationShape& shape,
                       const ActivationGroups& groups, const ActivationMode& mode, int32_t* out,
                       Workers* workers);

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_ACTIVATION_H_
