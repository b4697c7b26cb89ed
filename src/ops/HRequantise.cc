// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#define EIGEN_USE_THREADS

#include "bitfold/HRequantise.h"

#include <cstdint>
#include <string>

#include "cpu/requantise.h"
#include "frame/op_frame.h"
#include "frame/op_registration.h"
#include "frame/op_workers.h"
#include "ops/requantise_attributes.h"
#include "tensorflow/core/framework/common_shape_fns.h"
#include "tensorflow/core/framework/op.h"
#include "tensorflow/core/framework/op_kernel.h"

namespace bitfold {

using tensorflow::DataType;
using tensorflow::OpKernelConstruction;
using tensorflow::OpKernelContext;
using tensorflow::Tensor;
using tensorflow::shape_inference::InferenceContext;
using tensorflow::shape_inference::ShapeHandle;

BITFOLD_WHEN_LOADED(RegisterOp) {
  REGISTER_OP("HRequantise")
      .Attr("T: {int32, int64}")
      .Attr("T_out: {int8, int16, int32}")
      .Input("sums: T")
      .Input("multipliers: double")
      .Output("output: T_out")
      .Attr(kRoundingAttribute)
      .Attr("shift: int")
      .Attr("zero_point: int")
      .Attr("minimum: int")
      .Attr("maximum: int")
      .SetShapeFn([](InferenceContext* context) {
        ShapeHandle sums;
        ShapeHandle multipliers;
        TF_RETURN_IF_ERROR(context->WithRankAtLeast(context->input(0), 1, &sums));
        TF_RETURN_IF_ERROR(context->WithRank(context->input(1), 1, &multipliers));
        context->set_output(0, sums);
        if (!context->RankKnown(sums)) return absl::OkStatus();
        const auto channels = context->Dim(sums, -1);
        const auto count = context->Dim(multipliers, 0);
        if (!context->ValueKnown(channels) || !context->ValueKnown(count)) return absl::OkStatus();
        return CheckMultiplierCount(context->Value(channels), context->Value(count));
      });
}

template <typename Device>
class HRequantiseOp : public GuardedOp {
 public:
  explicit HRequantiseOp(OpKernelConstruction* context) : GuardedOp(context) {
    OP_REQUIRES_OK(context, context->GetAttr("T", &sum_type_));
    OP_REQUIRES_OK(context, context->GetAttr("T_out", &output_type_));
    std::string rounding;
    OP_REQUIRES_OK(context, context->GetAttr("rounding", &rounding));
    OP_REQUIRES_OK(context, context->GetAttr("shift", &mode_.shift));
    OP_REQUIRES_OK(context, context->GetAttr("zero_point", &mode_.zero_point));
    OP_REQUIRES_OK(context, context->GetAttr("minimum", &mode_.minimum));
    OP_REQUIRES_OK(context, context->GetAttr("maximum", &mode_.maximum));
    mode_.rescaling = RescalingOf(rounding);
    OP_REQUIRES_OK(context, CheckAttributes());
  }

  void Run(OpKernelContext* context) override {
    if (sum_type_ == tensorflow::DT_INT32) return RunFrom<int32_t>(context);
    RunFrom<int64_t>(context);
  }

 private:
  template <typename T>
  void RunFrom(OpKernelContext* context) {
    if (output_type_ == tensorflow::DT_INT8) return RunFromTo<T, int8_t>(context);
    if (output_type_ == tensorflow::DT_INT16) return RunFromTo<T, int16_t>(context);
    RunFromTo<T, int32_t>(context);
  }

  template <typename T, typename Out>
  void RunFromTo(OpKernelContext* context) {
    const Tensor& sums = context->input(0);
    const Tensor& multipliers = context->input(1);
    OP_REQUIRES_OK(context, CheckInputs(sums, multipliers));
    Tensor* output = nullptr;
    OP_REQUIRES_OK(context, context->allocate_output(0, sums.shape(), &output));
    if (IsEmpty(*output)) return;
    const int64_t channels = sums.dim_size(sums.dims() - 1);
    OpWorkers workers(context);
    ComputeRequantise<T, Out>(
        {sums.flat<T>().data(), output->flat<Out>().data(), sums.NumElements() / channels, channels,
         multipliers.flat<double>().data(), multipliers.NumElements() > 1, mode_},
        &workers);
  }

  absl::Status CheckAttributes() const {
    if (sum_type_ == tensorflow::DT_INT64 && mode_.rescaling == Rescaling::kTwoRoundings) {
      return absl::InvalidArgumentError("Need int32 sums for two_roundings, got int64");
    }
    return CheckStored(mode_, output_type_);
  }

  absl::Status CheckInputs(const Tensor& sums, const Tensor& multipliers) const {
    if (sums.dims() < 1) {
      return absl::InvalidArgumentError("Need sums of rank 1 or more, got a scalar");
    }
    return CheckMultipliers(mode_, multipliers, sums.dim_size(sums.dims() - 1));
  }

  DataType sum_type_;
  DataType output_type_;
  RequantiseMode mode_ = {};
};

BITFOLD_WHEN_LOADED(RegisterKernels) {
  REGISTER_KERNEL_BUILDER(Name("HRequantise").Device(tensorflow::DEVICE_CPU),
                          HRequantiseOp<CPUDevice>);
}

}  // namespace bitfold
