// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#define EIGEN_USE_THREADS

#include "bitfold/HBilinear.h"

#include "cpu/bilinear.h"
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
  REGISTER_OP("HBilinear")
      .Attr("T: {float, int32}")
      .Input("im_out_upper_left: T")
      .Input("im_out_upper_right: T")
      .Input("im_out_bottom_left: T")
      .Input("im_out_bottom_right: T")
      .Input("one_m_rx_one_m_ry: T")
      .Input("rx_one_m_ry: T")
      .Input("ry_one_m_rx: T")
      .Input("rx_ry: T")
      .Input("mult_shift: int8")
      .Input("bias: float32")
      .Output("output: T")
      .Attr("accumulator_size: int")
      .Attr("float_accumulator: bool")
      .SetShapeFn(tensorflow::shape_inference::UnchangedShape);
}

template <typename Device, typename T>
class HBilinearOp : public GuardedOp {
 public:
  // The width is not range-checked here: the float mode takes any, and negative ones are defined.
  explicit HBilinearOp(OpKernelConstruction* context) : GuardedOp(context) {
    OP_REQUIRES_OK(context, context->GetAttr("accumulator_size", &accumulator_size_));
    OP_REQUIRES_OK(context, context->GetAttr("float_accumulator", &float_accumulator_));
  }

  void Run(OpKernelContext* context) override {
    OP_REQUIRES_OK(context, Check(context));
    const Tensor& first = context->input(0);
    Tensor* output = nullptr;
    OP_REQUIRES_OK(context, context->allocate_output(0, first.shape(), &output));
    if (IsEmpty(*output)) return;

    const DefaultFloatingPointScope scope;
    const auto data = [context](int i) { return context->input(i).flat<T>().data(); };
    const int64_t items = first.dim_size(0);
    OpWorkers workers(context);
    ComputeBilinear<T>(
        {{{data(0), data(1), data(2), data(3)}, {data(4), data(5), data(6), data(7)}},
         output->flat<T>().data(),
         static_cast<unsigned>(first.NumElements() / items),
         static_cast<unsigned>(items),
         context->input(9).flat<float>()(0),
         float_accumulator_,
         {accumulator_size_, context->input(8).flat<int8_t>().data(), false}},
        &workers);
  }

 private:
  absl::Status Check(OpKernelContext* context) const {
    static constexpr const char* kNames[] = {
        "im_out_upper_left", "im_out_upper_right", "im_out_bottom_left", "im_out_bottom_right",
        "one_m_rx_one_m_ry", "rx_one_m_ry",        "ry_one_m_rx",        "rx_ry"};
    const Tensor& first = context->input(0);
    if (first.dims() < 1 || first.dim_size(0) < 1) {
      return absl::InvalidArgumentError(absl::StrCat(
          "Need im_out_upper_left with a batch of at least 1 as dimension 0, got shape ",
          first.shape().DebugString()));
    }
    TF_RETURN_IF_ERROR(RequireInt32Elements(kNames[0], first));
    const int64_t all = first.NumElements();
    const int64_t item = all / first.dim_size(0);
    for (int i = 1; i < 8; ++i) {
      TF_RETURN_IF_ERROR(RequireElements(
          kNames[i], context->input(i), i < 4 ? all : item,
          i < 4 ? "as many as im_out_upper_left" : "one for each element of a batch item"));
    }
    TF_RETURN_IF_ERROR(RequireScalar("mult_shift", context->input(8)));
    TF_RETURN_IF_ERROR(RequireScalar("bias", context->input(9)));
    if (std::is_same_v<T, int32_t> && !float_accumulator_) {
      return RequireInt32AccumulatorSize(accumulator_size_);
    }
    return absl::OkStatus();
  }

  int32_t accumulator_size_ = 0;
  bool float_accumulator_ = false;
};

BITFOLD_WHEN_LOADED(RegisterKernels) {
  REGISTER_KERNEL_BUILDER(
      Name("HBilinear").Device(tensorflow::DEVICE_CPU).TypeConstraint<int32_t>("T"),
      HBilinearOp<CPUDevice, int32>);
  REGISTER_KERNEL_BUILDER(
      Name("HBilinear").Device(tensorflow::DEVICE_CPU).TypeConstraint<float>("T"),
      HBilinearOp<CPUDevice, float>);
}

}  // namespace bitfold
