// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Memory for the length of a call from the runtime's allocator.

#ifndef BITFOLD_SRC_FRAME_OP_SCRATCH_H_
#define BITFOLD_SRC_FRAME_OP_SCRATCH_H_

#include <cstdint>
#include <deque>

#include "frame/scratch.h"
#include "tensorflow/core/framework/op_kernel.h"
#include "tensorflow/core/framework/tensor.h"

namespace bitfold {

class OpScratch : public Scratch {
 public:
  explicit OpScratch(tensorflow::OpKernelContext* context) : context_(context) {}

  void* Allocate(size_t bytes) override {
    constexpr size_t kMost = size_t{1} << 62;  // as the sizes of shapes
    if (bytes > kMost) return nullptr;
    tensorflow::Tensor tensor;
    const tensorflow::TensorShape shape({static_cast<int64_t>(bytes) + 1});
    if (!context_->allocate_temp(tensorflow::DT_UINT8, shape, &tensor).ok()) return nullptr;
    tensors_.push_back(tensor);
    return tensor.data();
  }

 private:
  tensorflow::OpKernelContext* context_;
  std::deque<tensorflow::Tensor> tensors_;
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_FRAME_OP_SCRATCH_H_
