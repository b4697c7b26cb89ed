// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The suppression as the op calls it: as defined while it is logged, by vector loops otherwise.

#ifndef BITFOLD_SRC_CPU_NMS_H_
#define BITFOLD_SRC_CPU_NMS_H_

#include <vector>

#include "bitfold/HNMS.h"
#include "frame/workers.h"

namespace bitfold {

// The frames, the messages and the assertions of NMSTensor, with the same requirements and a
// max_output_size of at least 1; the log is the runtime's. The rows of all frames go to `out`, one
// after the other: in.b * in.k * max_output_size rows of five numbers. Without a log the frames are
// shared out among the workers.
void ComputeNMS(const SuppressionInput& in, const SuppressionOptions& options, float* out,
                Workers* workers);

// The quiet form, with the frame of DefineClassNMS and no message: candidates in the order of their
// selection, each tested against the boxes selected before it. False, and nothing written, where
// the definition is needed: no boxes, scores or coordinates that are NaN, coordinates above 2^20 in
// magnitude, thresholds of 2 and more.
bool ComputeClassNMS(const std::vector<Box>& boxes, const SuppressionOptions& options,
                     Frame* frame);

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_NMS_H_
