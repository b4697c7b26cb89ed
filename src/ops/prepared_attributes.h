// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What the ops that sum and requantise in one have in common: how they read their arithmetic.

#ifndef BITFOLD_SRC_OPS_PREPARED_ATTRIBUTES_H_
#define BITFOLD_SRC_OPS_PREPARED_ATTRIBUTES_H_

#include <cstdint>
#include <limits>
#include <string>

#include "absl/status/status.h"
#include "absl/strings/str_format.h"
#include "bitfold/HRequantise.h"
#include "ops/requantise_attributes.h"
#include "tensorflow/core/framework/op_kernel.h"
#include "tensorflow/core/framework/types.h"

namespace bitfold {

// Reads how sums are made and requantised into a type: a shift that both forms of sums take.
inline absl::Status GetPreparedArithmetic(tensorflow::OpKernelConstruction* context,
                                          tensorflow::DataType type, bool* use_fp16_acc,
                                          RequantiseMode* mode) {
  TF_RETURN_IF_ERROR(context->GetAttr("mult_shift", &mode->shift));
  TF_RETURN_IF_ERROR(context->GetAttr("use_fp16_acc", use_fp16_acc));
  std::string rounding;
  TF_RETURN_IF_ERROR(context->GetAttr("rounding", &rounding));
  mode->rescaling = RescalingOf(rounding);
  TF_RETURN_IF_ERROR(context->GetAttr("zero_point", &mode->zero_point));
  TF_RETURN_IF_ERROR(context->GetAttr("minimum", &mode->minimum));
  TF_RETURN_IF_ERROR(context->GetAttr("maximum", &mode->maximum));
  TF_RETURN_IF_ERROR(CheckStored(*mode, type));
  const int32_t most = *use_fp16_acc ? 6 : 31;
  if (mode->shift >= 0 && mode->shift <= most) return absl::OkStatus();
  return absl::InvalidArgumentError(absl::StrFormat("Need a mult_shift in [0, %d]%s, got %d", most,
                                                    *use_fp16_acc ? " in half precision" : "",
                                                    mode->shift));
}

// Reads the zero point of an input of stored integers of a type.
template <typename T>
absl::Status GetInputZeroPoint(tensorflow::OpKernelConstruction* context, const char* name,
                               int32_t* zero_point) {
  TF_RETURN_IF_ERROR(context->GetAttr(name, zero_point));
  const int64_t low = std::numeric_limits<T>::min();
  const int64_t high = std::numeric_limits<T>::max();
  if (low <= *zero_point && *zero_point <= high) return absl::OkStatus();
  return absl::InvalidArgumentError(absl::StrFormat(
      "Need %s %s in [%d, %d], got %d", name[0] == 'i' ? "an" : "a", name, low, high, *zero_point));
}

}  // namespace bitfold

#endif  // BITFOLD_SRC_OPS_PREPARED_ATTRIBUTES_H_
