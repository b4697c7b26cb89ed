// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#ifndef BITFOLD_SRC_CPU_ACTIVATION_H_
#define BITFOLD_SRC_CPU_ACTIVATION_H_

#include <cstdint>

#include "bitfold/activation.h"

namespace bitfold {

// The bits of ActivateChannelsByDefinition, whose contract it shares, by vector loops.
void ActivateChannels(const int64_t* in, int64_t positions, int64_t channels,
                      const ActivationTables& tables, const int64_t* size_splits, int64_t groups,
                      const ActivationMode& mode, int32_t* out);

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_ACTIVATION_H_
