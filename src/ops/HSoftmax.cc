// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#define EIGEN_USE_THREADS

#include "bitfold/HSoftmax.h"

#include "bitfold/assertion.h"
#include "cpu/softmax.h"
#include "frame/floating_point_scope.h"
#include "frame/op_frame.h"
#include "frame/op_registration.h"
#include "frame/op_workers.h"
#include "tensorflow/core/framework/common_shape_fns.h"
#include "tensorflow/core/framework/op.h"
#include "tensorflow/core/framework/op_kernel.h"

namespace bitfold {

using tensorflow::OpKernelConstruction;
using tensorflow::OpKernelContext;
using tensorflow::Tensor;

BITFOLD_WHEN_LOADED(RegisterOp) {
  REGISTER_OP("HSoftmax")
      .Input("value: float32")
      .Input("lut_table: uint32")
      .Attr("is_velquin: bool")
      .Output("output: float32")
      .SetShapeFn(tensorflow::shape_inference::UnchangedShape);
}

template <typename Device>
class HSoftmaxOp : public GuardedOp {
 public:
  explicit HSoftmaxOp(OpKernelConstruction* context) : GuardedOp(context) {
    OP_REQUIRES_OK(context, context->GetAttr("is_velquin", &is_velquin_));
  }

  void Run(OpKernelContext* context) override {
    const Tensor& value = context->input(0);
    const Tensor& lut_table = context->input(1);
    BITFOLD_ASSERT(lut_table.NumElements() == static_cast<int64_t>(kSoftmaxTableWords),
                   "lut_table_flat.size() == 512", "src/HSoftmax",
                   "void HSoftmaxOp<Device>::Compute(tensorflow::OpKernelContext*) "
                   "[with Device = Eigen::ThreadPoolDevice]");
    OP_REQUIRES_OK(context, RequireInt32Elements("value", value));

    Tensor* output = nullptr;
    OP_REQUIRES_OK(context, context->allocate_output(0, value.shape(), &output));
    if (IsEmpty(*output)) return;
    const DefaultFloatingPointScope scope;
    OpWorkers workers(context);
    ComputeSoftmax(value.flat<float>().data(), output->flat<float>().data(),
                   static_cast<int>(value.NumElements()),
                   value.dims() > 1 ? static_cast<int>(value.dim_size(0)) : 1,
                   lut_table.flat<uint32_t>().data(), is_velquin_, &workers);
  }

 private:
  bool is_velquin_ = false;
};

BITFOLD_WHEN_LOADED(RegisterKernels) {
  REGISTER_KERNEL_BUILDER(Name("HSoftmax").Device(tensorflow::DEVICE_CPU), HSoftmaxOp<CPUDevice>);
}

}  // namespace bitfold
