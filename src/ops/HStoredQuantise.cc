// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#define EIGEN_USE_THREADS

#include "bitfold/HStoredQuantise.h"

#include <cstdint>

#include "cpu/stored_quantise.h"
#include "frame/floating_point_scope.h"
#include "frame/op_frame.h"
#include "frame/op_registration.h"
#include "frame/op_workers.h"
#include "ops/stored_scale.h"
#include "tensorflow/core/framework/common_shape_fns.h"
#include "tensorflow/core/framework/op.h"
#include "tensorflow/core/framework/op_kernel.h"

namespace bitfold {

using tensorflow::DataType;
using tensorflow::OpKernelConstruction;
using tensorflow::OpKernelContext;
using tensorflow::Tensor;

BITFOLD_WHEN_LOADED(RegisterOp) {
  REGISTER_OP("HStoredQuantise")
      .Attr("T_out: {int8, uint8, int16}")
      .Input("values: float")
      .Output("output: T_out")
      .Attr("output_scale: float")
      .Attr("output_zero_point: int")
      .SetShapeFn(tensorflow::shape_inference::UnchangedShape);
}

template <typename Device>
class HStoredQuantiseOp : public GuardedOp {
 public:
  explicit HStoredQuantiseOp(OpKernelConstruction* context) : GuardedOp(context) {
    const DefaultFloatingPointScope scope;
    OP_REQUIRES_OK(context, context->GetAttr("T_out", &type_));
    OP_REQUIRES_OK(context, GetStoredScale(context, "output", type_, &scale_));
  }

  void Run(OpKernelContext* context) override {
    if (type_ == tensorflow::DT_INT8) return RunTo<int8_t>(context);
    if (type_ == tensorflow::DT_UINT8) return RunTo<uint8_t>(context);
    RunTo<int16_t>(context);
  }

 private:
  template <typename T>
  void RunTo(OpKernelContext* context) {
    const Tensor& values = context->input(0);
    Tensor* output = nullptr;
    OP_REQUIRES_OK(context, context->allocate_output(0, values.shape(), &output));
    if (IsEmpty(*output)) return;
    const DefaultFloatingPointScope scope;
    OpWorkers workers(context);
    ComputeStoredQuantise<T>(
        {values.flat<float>().data(), output->flat<T>().data(), values.NumElements(), scale_},
        &workers);
  }

  DataType type_;
  StoredScale scale_ = {};
};

BITFOLD_WHEN_LOADED(RegisterKernels) {
  REGISTER_KERNEL_BUILDER(Name("HStoredQuantise").Device(tensorflow::DEVICE_CPU),
                          HStoredQuantiseOp<CPUDevice>);
}

}  // namespace bitfold
