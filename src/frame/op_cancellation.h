// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The cancellation of a call by the runtime.

#ifndef BITFOLD_SRC_FRAME_OP_CANCELLATION_H_
#define BITFOLD_SRC_FRAME_OP_CANCELLATION_H_

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "frame/cancellation.h"
#include "tensorflow/core/framework/cancellation.h"
#include "tensorflow/core/framework/op_kernel.h"

namespace bitfold {

class OpCancellation : public Cancellation {
 public:
  explicit OpCancellation(tensorflow::OpKernelContext* context) : context_(context) {}

  bool IsRequested() const override {
    tensorflow::CancellationManager* manager = context_->cancellation_manager();
    return manager != nullptr && manager->IsCancelled();
  }

  // After the computation: an error if it may have ended early.
  absl::Status Status() const {
    if (!IsRequested()) return absl::OkStatus();
    return absl::CancelledError(
        absl::StrCat(context_->op_kernel().type_string(), " was cancelled while it computed"));
  }

 private:
  tensorflow::OpKernelContext* context_;
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_FRAME_OP_CANCELLATION_H_
