// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#define EIGEN_USE_THREADS

#include "bitfold/HStoredPool.h"

#include <cstdint>
#include <string>

#include "absl/strings/str_cat.h"
#include "absl/strings/str_format.h"
#include "cpu/stored_pool.h"
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
using tensorflow::TensorShape;
using tensorflow::shape_inference::DimensionHandle;
using tensorflow::shape_inference::InferenceContext;
using tensorflow::shape_inference::ShapeHandle;

namespace {

// What places windows.
struct PoolAttributes {
  int32_t window[2];
  int32_t stride[2];
  bool is_same;

  PoolAxis Axis(int which, int64_t size) const {
    return {size, window[which], stride[which], is_same};
  }
};

// Reads the attributes of an op's definition or of its kernel.
template <typename Context>
absl::Status GetPoolAttributes(Context* context, PoolAttributes* attributes) {
  const char* const names[] = {"window_height", "window_width", "stride_height", "stride_width"};
  int32_t* const values[] = {&attributes->window[0], &attributes->window[1], &attributes->stride[0],
                             &attributes->stride[1]};
  for (int i = 0; i < 4; ++i) {
    TF_RETURN_IF_ERROR(context->GetAttr(names[i], values[i]));
    if (*values[i] >= 1) continue;
    return absl::InvalidArgumentError(
        absl::StrCat("Need a ", names[i], " of at least 1, got ", *values[i]));
  }
  std::string padding;
  TF_RETURN_IF_ERROR(context->GetAttr("padding", &padding));
  attributes->is_same = padding == "SAME";
  return absl::OkStatus();
}

absl::Status CheckOutputs(const PoolAxis& axis, const char* what) {
  if (axis.size == 0 || axis.Outputs() >= 1) return absl::OkStatus();
  return absl::InvalidArgumentError(absl::StrCat("Need a window of at most the ", axis.size, " ",
                                                 what, " of the data, got one of ", axis.window));
}

absl::Status PoolShape(InferenceContext* context) {
  PoolAttributes attributes;
  TF_RETURN_IF_ERROR(GetPoolAttributes(context, &attributes));
  ShapeHandle data;
  TF_RETURN_IF_ERROR(context->WithRank(context->input(0), 4, &data));
  DimensionHandle outputs[2] = {context->UnknownDim(), context->UnknownDim()};
  for (const int which : {0, 1}) {
    const DimensionHandle size = context->Dim(data, which + 1);
    if (!context->ValueKnown(size)) continue;
    const PoolAxis axis = attributes.Axis(which, context->Value(size));
    TF_RETURN_IF_ERROR(CheckOutputs(axis, which == 0 ? "rows" : "columns"));
    outputs[which] = context->MakeDim(axis.Outputs());
  }
  context->set_output(0, context->MakeShape({context->Dim(data, 0), outputs[0], outputs[1],
                                             context->Dim(data, 3)}));
  return absl::OkStatus();
}

absl::Status MeanShape(InferenceContext* context) {
  ShapeHandle data;
  TF_RETURN_IF_ERROR(context->WithRank(context->input(0), 3, &data));
  context->set_output(0, context->MakeShape({context->Dim(data, 0), context->Dim(data, 2)}));
  return absl::OkStatus();
}

}  // namespace

BITFOLD_WHEN_LOADED(RegisterOp) {
  REGISTER_OP("HStoredPool")
      .Attr("T: {int8, int16}")
      .Input("data: T")
      .Output("output: T")
      .Attr("pooling: {'max', 'average'}")
      .Attr("window_height: int")
      .Attr("window_width: int")
      .Attr("stride_height: int")
      .Attr("stride_width: int")
      .Attr("padding: {'SAME', 'VALID'}")
      .Attr("minimum: int")
      .Attr("maximum: int")
      .SetShapeFn(PoolShape);
  REGISTER_OP("HStoredMean")
      .Attr("T: {int8, int16}")
      .Input("data: T")
      .Output("output: T")
      .Attr("data_scale: float")
      .Attr("data_zero_point: int")
      .Attr("output_scale: float")
      .Attr("output_zero_point: int")
      .SetShapeFn(MeanShape);
}

template <typename Device>
class HStoredPoolOp : public GuardedOp {
 public:
  explicit HStoredPoolOp(OpKernelConstruction* context) : GuardedOp(context) {
    OP_REQUIRES_OK(context, context->GetAttr("T", &type_));
    std::string pooling;
    OP_REQUIRES_OK(context, context->GetAttr("pooling", &pooling));
    mode_.pooling = pooling == "max" ? StoredPooling::kMax : StoredPooling::kAverage;
    OP_REQUIRES_OK(context, GetPoolAttributes(context, &attributes_));
    OP_REQUIRES_OK(context, context->GetAttr("minimum", &mode_.minimum));
    OP_REQUIRES_OK(context, context->GetAttr("maximum", &mode_.maximum));
    OP_REQUIRES_OK(context, RequireStoredBounds(mode_.minimum, mode_.maximum, type_));
  }

  void Run(OpKernelContext* context) override {
    if (type_ == tensorflow::DT_INT8) return RunOf<int8_t>(context);
    RunOf<int16_t>(context);
  }

 private:
  template <typename T>
  void RunOf(OpKernelContext* context) {
    const Tensor& data = context->input(0);
    OP_REQUIRES(context, data.dims() == 4,
                absl::InvalidArgumentError(
                    absl::StrCat("Need data of rank 4, got shape ", data.shape().DebugString())));
    const PoolAxis rows = attributes_.Axis(0, data.dim_size(1));
    const PoolAxis columns = attributes_.Axis(1, data.dim_size(2));
    OP_REQUIRES_OK(context, CheckOutputs(rows, "rows"));
    OP_REQUIRES_OK(context, CheckOutputs(columns, "columns"));
    OP_REQUIRES_OK(context, CheckPixels<T>(rows, columns));
    TensorShape shape = data.shape();
    shape.set_dim(1, rows.Outputs());
    shape.set_dim(2, columns.Outputs());
    Tensor* output = nullptr;
    OP_REQUIRES_OK(context, context->allocate_output(0, shape, &output));
    if (IsEmpty(*output)) return;
    OpWorkers workers(context);
    ComputeStoredPool<T>({data.flat<T>().data(), output->flat<T>().data(), data.dim_size(0), rows,
                          columns, data.dim_size(3), mode_},
                         &workers);
  }

  template <typename T>
  absl::Status CheckPixels(const PoolAxis& rows, const PoolAxis& columns) const {
    if (mode_.pooling == StoredPooling::kMax) return absl::OkStatus();
    const int64_t pixels = SaturatingProduct({rows.MostPixels(), columns.MostPixels()});
    if (pixels <= MostSummands<T>()) return absl::OkStatus();
    return absl::InvalidArgumentError(absl::StrCat("Need windows of at most ", MostSummands<T>(),
                                                   " pixels, whose sums have 32 bits, got ",
                                                   pixels));
  }

  DataType type_;
  PoolAttributes attributes_ = {};
  StoredPoolMode mode_ = {};
};

template <typename Device>
class HStoredMeanOp : public GuardedOp {
 public:
  explicit HStoredMeanOp(OpKernelConstruction* context) : GuardedOp(context) {
    const DefaultFloatingPointScope scope;
    OP_REQUIRES_OK(context, context->GetAttr("T", &type_));
    OP_REQUIRES_OK(context, GetStoredScale(context, "data", type_, &data_));
    OP_REQUIRES_OK(context, GetStoredScale(context, "output", type_, &output_));
  }

  void Run(OpKernelContext* context) override {
    if (type_ == tensorflow::DT_INT8) return RunOf<int8_t>(context);
    RunOf<int16_t>(context);
  }

 private:
  template <typename T>
  void RunOf(OpKernelContext* context) {
    const DefaultFloatingPointScope scope;
    const Tensor& data = context->input(0);
    OP_REQUIRES(context, data.dims() == 3,
                absl::InvalidArgumentError(
                    absl::StrCat("Need data of rank 3, got shape ", data.shape().DebugString())));
    const int64_t reduced = data.dim_size(1);
    OP_REQUIRES(
        context, reduced >= 1,
        absl::InvalidArgumentError(absl::StrCat("Need an element to take the mean of, got shape ",
                                                data.shape().DebugString())));
    OP_REQUIRES(context, HasNarrowSums<T>(data_, output_, reduced),
                absl::InvalidArgumentError(absl::StrFormat(
                    "Need sums of 32 bits in the output's scale, got those of %d elements of scale "
                    "%.9g to %.9g",
                    reduced, data_.scale, output_.scale)));
    Tensor* output = nullptr;
    OP_REQUIRES_OK(context, context->allocate_output(
                                0, TensorShape({data.dim_size(0), data.dim_size(2)}), &output));
    if (IsEmpty(*output)) return;
    OpWorkers workers(context);
    ComputeStoredMean<T>({data.flat<T>().data(), output->flat<T>().data(), data.dim_size(0),
                          reduced, data.dim_size(2), data_, output_},
                         &workers);
  }

  DataType type_;
  StoredScale data_ = {};
  StoredScale output_ = {};
};

BITFOLD_WHEN_LOADED(RegisterKernels) {
  REGISTER_KERNEL_BUILDER(Name("HStoredPool").Device(tensorflow::DEVICE_CPU),
                          HStoredPoolOp<CPUDevice>);
  REGISTER_KERNEL_BUILDER(Name("HStoredMean").Device(tensorflow::DEVICE_CPU),
                          HStoredMeanOp<CPUDevice>);
}

}  // namespace bitfold
