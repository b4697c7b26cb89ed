// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#define EIGEN_USE_THREADS

#include "bitfold/HPartialSums.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <vector>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_format.h"
#include "cpu/partial_sums.h"
#include "frame/op_frame.h"
#include "frame/op_registration.h"
#include "frame/op_workers.h"
#include "ops/window_attributes.h"
#include "tensorflow/core/framework/common_shape_fns.h"
#include "tensorflow/core/framework/op.h"
#include "tensorflow/core/framework/op_kernel.h"
#include "tensorflow/core/framework/shape_inference.h"

namespace bitfold {

using tensorflow::OpKernelConstruction;
using tensorflow::OpKernelContext;
using tensorflow::Tensor;
using tensorflow::TensorShape;
using tensorflow::shape_inference::DimensionHandle;
using tensorflow::shape_inference::InferenceContext;
using tensorflow::shape_inference::ShapeHandle;

namespace {

absl::Status InferShapes(InferenceContext* c) {
  ShapeHandle unused;
  ShapeHandle filter;
  TF_RETURN_IF_ERROR(c->WithRank(c->input(0), 4, &unused));
  TF_RETURN_IF_ERROR(c->WithRankAtLeast(c->input(1), 4, &filter));
  TF_RETURN_IF_ERROR(c->WithRankAtMost(filter, 5, &filter));
  TF_RETURN_IF_ERROR(c->WithRank(c->input(2), 1, &unused));
  std::vector<int32_t> sizes;
  TF_RETURN_IF_ERROR(c->GetAttr("accumulator_sizes", &sizes));
  const auto widths = static_cast<int64_t>(sizes.size());
  const DimensionHandle channels = c->RankKnown(filter) ? c->Dim(filter, -1) : c->UnknownDim();
  c->set_output(0, c->MakeShape({c->MakeDim(kSumExtremes), channels}));
  c->set_output(1, c->MakeShape({c->MakeDim(widths), channels, c->MakeDim(kSumCounts)}));
  c->set_output(2, c->MakeShape({c->MakeDim(widths), channels}));
  return absl::OkStatus();
}

}  // namespace

BITFOLD_WHEN_LOADED(RegisterOp) {
  REGISTER_OP("HPartialSums")
      .Attr("T: {int8, int16}")
      .Attr("T_filter: {int8, int16}")
      .Attr("T_bias: {int32, int64}")
      .Input("input: T")
      .Input("filter: T_filter")
      .Input("bias: T_bias")
      .Input("known_extremes: int64")
      .Output("extremes: int64")
      .Output("counts: int64")
      .Output("first: int64")
      .Attr("strides: list(int)")
      .Attr("dilations: list(int)")
      .Attr("padding: {'SAME', 'VALID'}")
      .Attr("zeros: list(int)")
      .Attr("is_depthwise: bool")
      .Attr("input_zero_point: int")
      .Attr("filter_zero_point: int")
      .Attr("mult_shift: int")
      .Attr("accumulator_sizes: list(int)")
      .SetShapeFn(InferShapes);
}

template <typename In, typename Weight>
class HPartialSumsOp : public GuardedOp {
 public:
  explicit HPartialSumsOp(OpKernelConstruction* context) : GuardedOp(context) {
    OP_REQUIRES_OK(context, windows_.Read(context));
    OP_REQUIRES_OK(context, context->GetAttr("is_depthwise", &is_depthwise_));
    OP_REQUIRES_OK(context, context->GetAttr("input_zero_point", &input_zero_point_));
    OP_REQUIRES_OK(context, context->GetAttr("filter_zero_point", &filter_zero_point_));
    OP_REQUIRES_OK(context, context->GetAttr("mult_shift", &mult_shift_));
    OP_REQUIRES_OK(context, context->GetAttr("accumulator_sizes", &sizes_));
    OP_REQUIRES_OK(context, CheckZeroPoint<In>("input_zero_point", input_zero_point_));
    OP_REQUIRES_OK(context, CheckZeroPoint<Weight>("filter_zero_point", filter_zero_point_));
    OP_REQUIRES_OK(context, CheckWithin("mult_shift", mult_shift_, 0, kMostSummedShift));
    for (const int32_t size : sizes_) {
      OP_REQUIRES_OK(context, CheckWithin("accumulator_sizes", size, 1, 32));
    }
  }

  void Run(OpKernelContext* context) override {
    std::vector<int64_t> bias;
    PartialSumsCall<In, Weight> call{};
    OP_REQUIRES_OK(context, Describe(context, &bias, &call));
    PartialSumsTables tables{};
    OP_REQUIRES_OK(context, AllocateTables(context, call.out_channels, &tables));
    if (call.batch == 0) return;
    OpWorkers workers(context);
    ComputePartialSums(call, tables, &workers);
  }

 private:
  static absl::Status CheckWithin(const char* name, int32_t value, int64_t low, int64_t high) {
    if (low <= value && value <= high) return absl::OkStatus();
    return absl::InvalidArgumentError(
        absl::StrFormat("Need %s in [%d, %d], got %d", name, low, high, value));
  }

  template <typename Stored>
  static absl::Status CheckZeroPoint(const char* name, int32_t value) {
    using Limits = std::numeric_limits<Stored>;
    return CheckWithin(name, value, Limits::min(), Limits::max());
  }

  // The call points to the inputs and to `bias`.
  absl::Status Describe(OpKernelContext* context, std::vector<int64_t>* bias,
                        PartialSumsCall<In, Weight>* call) const {
    const Tensor& input = context->input(0);
    const Tensor& filter = context->input(1);
    TF_RETURN_IF_ERROR(CheckOperands(input, filter));
    const int first = filter.dims() - 4;
    LayerAxis rows{};
    LayerAxis columns{};
    TF_RETURN_IF_ERROR(windows_.AxisOf(0, input.dim_size(1), filter.dim_size(first), &rows));
    TF_RETURN_IF_ERROR(windows_.AxisOf(1, input.dim_size(2), filter.dim_size(first + 1), &columns));
    const int64_t outputs = filter.dim_size(first + 3);
    TF_RETURN_IF_ERROR(ReadBias(context->input(2), outputs, bias));
    *call = {input.flat<In>().data(),
             filter.flat<Weight>().data(),
             bias->empty() ? nullptr : bias->data(),
             static_cast<int32_t>(input.dim_size(0)),
             static_cast<int32_t>(input.dim_size(3)),
             static_cast<int32_t>(outputs),
             rows,
             columns,
             is_depthwise_,
             first == 0 ? 1 : static_cast<int32_t>(filter.dim_size(0)),
             input_zero_point_,
             filter_zero_point_,
             mult_shift_,
             sizes_.data(),
             static_cast<int32_t>(sizes_.size())};
    return CheckSizes(*call);
  }

  absl::Status CheckOperands(const Tensor& input, const Tensor& filter) const {
    const int first = filter.dims() - 4;
    bool fits = input.dims() == 4 && (first == 0 || first == 1);
    if (fits) {
      const int64_t channels = input.dim_size(3);
      const int64_t outputs = filter.dim_size(first + 3);
      const int64_t summed = filter.dim_size(first + 2);
      fits = is_depthwise_ ? summed == 1 && outputs <= channels : summed == channels;
      fits = fits && channels >= 1 && outputs >= 1 && std::max(channels, outputs) <= kLargestSize &&
             input.dim_size(0) <= kLargestSize &&
             (first == 0 || filter.dim_size(0) == input.dim_size(0));
    }
    if (fits) return absl::OkStatus();
    return absl::InvalidArgumentError(absl::StrCat(
        "Need an input of images x height x width x channels and a filter of height x width x ",
        is_depthwise_ ? "1 x at most the input's channels" : "input channels x output channels",
        ", or one for each image, got shapes ", input.shape().DebugString(), " and ",
        filter.shape().DebugString()));
  }

  static absl::Status ReadBias(const Tensor& given, int64_t outputs, std::vector<int64_t>* bias) {
    if (given.dims() != 1 || (given.NumElements() != 0 && given.NumElements() != outputs)) {
      return absl::InvalidArgumentError(absl::StrCat(
          "Need a bias of 0 or ", outputs, " elements, got shape ", given.shape().DebugString()));
    }
    if (given.dtype() == tensorflow::DT_INT32) {
      const auto values = given.flat<int32_t>();
      bias->assign(values.data(), values.data() + values.size());
      return absl::OkStatus();
    }
    const auto values = given.flat<int64_t>();
    bias->assign(values.data(), values.data() + values.size());
    for (const int64_t value : *bias) {
      if (value >= -kLargestSummedBias && value <= kLargestSummedBias) continue;
      return absl::InvalidArgumentError(
          absl::StrFormat("Need a bias of at most 2^62 in magnitude, got %d", value));
    }
    return absl::OkStatus();
  }

  // Sums of so many numbers fit 64 bits, and no call computes much more than its tensors hold.
  static absl::Status CheckSizes(const PartialSumsCall<In, Weight>& call) {
    const int64_t padded =
        SaturatingProduct({call.rows.padded(), call.columns.padded(), call.in_channels});
    const int64_t outputs =
        SaturatingProduct({call.rows.outputs(), call.columns.outputs(), call.out_channels});
    if (padded < kMostSummedElements && outputs < int64_t{1} << 31) return absl::OkStatus();
    return absl::InvalidArgumentError(
        absl::StrFormat("Need images of fewer than 2^29 elements, padded, and fewer than 2^31 "
                        "outputs, got %d and %d",
                        padded, outputs));
  }

  // With what is known of the extremes, and nothing else.
  absl::Status AllocateTables(OpKernelContext* context, int64_t channels,
                              PartialSumsTables* tables) const {
    const auto sizes = static_cast<int64_t>(sizes_.size());
    const TensorShape of_extremes({kSumExtremes, channels});
    const Tensor& known = context->input(3);
    if (known.NumElements() != 0 && known.shape() != of_extremes) {
      return absl::InvalidArgumentError(
          absl::StrCat("Need known_extremes of no elements or of shape ", of_extremes.DebugString(),
                       ", got ", known.shape().DebugString()));
    }
    Tensor* extremes = nullptr;
    Tensor* counts = nullptr;
    Tensor* first = nullptr;
    TF_RETURN_IF_ERROR(context->allocate_output(0, of_extremes, &extremes));
    TF_RETURN_IF_ERROR(
        context->allocate_output(1, TensorShape({sizes, channels, kSumCounts}), &counts));
    TF_RETURN_IF_ERROR(context->allocate_output(2, TensorShape({sizes, channels}), &first));
    *tables = {extremes->flat<int64_t>().data(), counts->flat<int64_t>().data(),
               first->flat<int64_t>().data()};
    ClearPartialSums(channels, sizes, *tables);
    const auto values = known.flat<int64_t>();
    std::copy_n(values.data(), values.size(), tables->extremes);
    return absl::OkStatus();
  }

  WindowAttributes windows_;
  bool is_depthwise_ = false;
  int32_t input_zero_point_ = 0;
  int32_t filter_zero_point_ = 0;
  int32_t mult_shift_ = 0;
  std::vector<int32_t> sizes_;
};

BITFOLD_WHEN_LOADED(RegisterKernels) {
#define BITFOLD_REGISTER_TYPES(In, Weight)                         \
  REGISTER_KERNEL_BUILDER(Name("HPartialSums")                     \
                              .Device(tensorflow::DEVICE_CPU)      \
                              .TypeConstraint<In>("T")             \
                              .TypeConstraint<Weight>("T_filter"), \
                          HPartialSumsOp<In, Weight>)
  BITFOLD_REGISTER_TYPES(int8_t, int8_t);
  BITFOLD_REGISTER_TYPES(int8_t, int16_t);
  BITFOLD_REGISTER_TYPES(int16_t, int8_t);
  BITFOLD_REGISTER_TYPES(int16_t, int16_t);
#undef BITFOLD_REGISTER_TYPES
}

}  // namespace bitfold
