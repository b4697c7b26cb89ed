// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The suppression within one class: as defined, and the form that NMSTensor takes while nothing is
// logged.

#ifndef BITFOLD_SRC_CPU_NMS_H_
#define BITFOLD_SRC_CPU_NMS_H_

#include <cstdint>
#include <vector>

#include "bitfold/HNMS.h"

namespace bitfold {

struct SuppressionOptions {
  float scores_threshold;
  float iou_threshold;
  float max_output_size;
  bool debug_precise_numeric;
  bool is_velquin;

  // The overlap threshold as an unsigned fixed-point fraction of 16 bits.
  uint64_t IouThreshold() const { return SaturateToUint64(iou_threshold * 65536.0f); }
};

// The definition: the frame of the boxes of one class, without its padding.
Frame SuppressClass(std::vector<Box> boxes, const SuppressionOptions& options);

// The same frame without a log line: candidates in the order of their selection, each tested
// against the boxes selected before it. False, and nothing written, where the definition is needed:
// scores or coordinates that are NaN, coordinates above 2^20 in magnitude, thresholds of 2 and
// more.
bool SuppressClassQuietly(const std::vector<Box>& boxes, const SuppressionOptions& options,
                          Frame* frame);

}  // namespace bitfold

#endif  // BITFOLD_SRC_CPU_NMS_H_
