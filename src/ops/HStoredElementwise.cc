// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#define EIGEN_USE_THREADS

#include "bitfold/HStoredElementwise.h"

#include <cstdint>
#include <string>
#include <vector>

#include "absl/strings/str_cat.h"
#include "absl/strings/str_format.h"
#include "cpu/stored_elementwise.h"
#include "frame/floating_point_scope.h"
#include "frame/op_frame.h"
#include "frame/op_registration.h"
#include "frame/op_workers.h"
#include "ops/common_shape.h"
#include "ops/stored_scale.h"
#include "tensorflow/core/framework/common_shape_fns.h"
#include "tensorflow/core/framework/op.h"
#include "tensorflow/core/framework/op_kernel.h"

namespace bitfold {

using tensorflow::DataType;
using tensorflow::OpKernelConstruction;
using tensorflow::OpKernelContext;
using tensorflow::Tensor;
using tensorflow::TensorShape;

BITFOLD_WHEN_LOADED(RegisterOp) {
  REGISTER_OP("HStoredElementwise")
      .Attr("T: {int8, int16}")
      .Input("first: T")
      .Input("second: T")
      .Output("output: T")
      .Attr("operation: {'add', 'subtract', 'multiply'}")
      .Attr("first_scale: float")
      .Attr("first_zero_point: int")
      .Attr("second_scale: float")
      .Attr("second_zero_point: int")
      .Attr("output_scale: float")
      .Attr("output_zero_point: int")
      .Attr("minimum: int")
      .Attr("maximum: int")
      .SetShapeFn(tensorflow::shape_inference::BroadcastBinaryOpShapeFn);
}

template <typename Device>
class HStoredElementwiseOp : public GuardedOp {
 public:
  explicit HStoredElementwiseOp(OpKernelConstruction* context) : GuardedOp(context) {
    const DefaultFloatingPointScope scope;
    OP_REQUIRES_OK(context, context->GetAttr("T", &type_));
    std::string operation;
    OP_REQUIRES_OK(context, context->GetAttr("operation", &operation));
    mode_.operation = operation == "add"        ? StoredOperation::kAdd
                      : operation == "subtract" ? StoredOperation::kSubtract
                                                : StoredOperation::kMultiply;
    OP_REQUIRES_OK(context, GetStoredScale(context, "first", type_, &mode_.operands[0]));
    OP_REQUIRES_OK(context, GetStoredScale(context, "second", type_, &mode_.operands[1]));
    OP_REQUIRES_OK(context, GetStoredScale(context, "output", type_, &mode_.output));
    OP_REQUIRES_OK(context, context->GetAttr("minimum", &mode_.minimum));
    OP_REQUIRES_OK(context, context->GetAttr("maximum", &mode_.maximum));
    OP_REQUIRES_OK(context, RequireStoredBounds(mode_.minimum, mode_.maximum, type_));
    OP_REQUIRES_OK(context, type_ == tensorflow::DT_INT8 ? CheckMultipliers<int8_t>()
                                                         : CheckMultipliers<int16_t>());
  }

  void Run(OpKernelContext* context) override {
    if (type_ == tensorflow::DT_INT8) return RunOf<int8_t>(context);
    RunOf<int16_t>(context);
  }

 private:
  template <typename T>
  absl::Status CheckMultipliers() const {
    const double result = ResultMultiplier<T>(mode_);
    if (mode_.operation == StoredOperation::kMultiply) {
      if (IsProductMultiplier(result)) return absl::OkStatus();
      return absl::InvalidArgumentError(absl::StrFormat(
          "Need first_scale * second_scale / output_scale below 2^31, got %.9g", result));
    }
    for (const int operand : {0, 1}) {
      if (IsFraction(OperandMultiplier(mode_, operand))) continue;
      return absl::InvalidArgumentError(absl::StrFormat(
          "Need scales of the operands that are above 0 in the larger one, got %.9g and %.9g",
          mode_.operands[0].scale, mode_.operands[1].scale));
    }
    if (IsFraction(result)) return absl::OkStatus();
    return absl::InvalidArgumentError(absl::StrFormat(
        "Need twice the larger scale of the operands / (2^%d * output_scale) above 0 and below 1, "
        "got %.9g",
        kSpareBits<T>, result));
  }

  template <typename T>
  void RunOf(OpKernelContext* context) {
    const Tensor& first = context->input(0);
    const Tensor& second = context->input(1);
    const std::vector<int64_t> sizes[2] = {SizesOf(first), SizesOf(second)};
    OP_REQUIRES(context, HaveCommonShape(sizes[0], sizes[1]),
                absl::InvalidArgumentError(absl::StrCat(
                    "Need operands that broadcast to each other, got shapes ",
                    first.shape().DebugString(), " and ", second.shape().DebugString())));
    TensorShape shape;
    OP_REQUIRES_OK(context, CommonShape(sizes[0], sizes[1], &shape));
    Tensor* output = nullptr;
    OP_REQUIRES_OK(context, context->allocate_output(0, shape, &output));
    if (IsEmpty(*output)) return;
    const Broadcast broadcast = MakeBroadcast(sizes[0], sizes[1]);
    const DefaultFloatingPointScope scope;
    OpWorkers workers(context);
    ComputeStoredElementwise<T>({{first.flat<T>().data(), second.flat<T>().data()},
                                 output->flat<T>().data(),
                                 &broadcast,
                                 mode_},
                                &workers);
  }

  DataType type_;
  StoredElementwiseMode mode_ = {};
};

BITFOLD_WHEN_LOADED(RegisterKernels) {
  REGISTER_KERNEL_BUILDER(Name("HStoredElementwise").Device(tensorflow::DEVICE_CPU),
                          HStoredElementwiseOp<CPUDevice>);
}

}  // namespace bitfold
