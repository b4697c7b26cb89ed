// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#define EIGEN_USE_THREADS

#include "bitfold/HPreparedConvolution.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "absl/strings/str_format.h"
#include "absl/strings/str_join.h"
#include "cpu/prepared_convolution.h"
#include "frame/op_frame.h"
#include "frame/op_registration.h"
#include "frame/op_workers.h"
#include "ops/prepared_attributes.h"
#include "ops/requantise_attributes.h"
#include "ops/window_attributes.h"
#include "tensorflow/core/framework/common_shape_fns.h"
#include "tensorflow/core/framework/op.h"
#include "tensorflow/core/framework/op_kernel.h"
#include "tensorflow/core/framework/shape_inference.h"
#include "tensorflow/core/framework/tensor_util.h"

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

// The inputs that a layer is made of.
struct Weights {
  Tensor filter;
  Tensor bias;
  Tensor multipliers;
};

absl::Status InferShape(InferenceContext* c) {
  ShapeHandle input;
  ShapeHandle filter;
  ShapeHandle unused;
  TF_RETURN_IF_ERROR(c->WithRank(c->input(0), 4, &input));
  TF_RETURN_IF_ERROR(c->WithRank(c->input(1), 4, &filter));
  TF_RETURN_IF_ERROR(c->WithRank(c->input(2), 1, &unused));
  TF_RETURN_IF_ERROR(c->WithRank(c->input(3), 1, &unused));
  WindowAttributes windows;
  TF_RETURN_IF_ERROR(windows.Read(c));
  std::vector<DimensionHandle> sizes = {c->Dim(input, 0)};
  for (const int axis : {0, 1}) {
    const DimensionHandle size = c->Dim(input, axis + 1);
    const DimensionHandle taps = c->Dim(filter, axis);
    sizes.push_back(c->UnknownDim());
    if (!c->ValueKnown(size) || !c->ValueKnown(taps)) continue;
    LayerAxis found{};
    TF_RETURN_IF_ERROR(
        windows.AxisOf(static_cast<size_t>(axis), c->Value(size), c->Value(taps), &found));
    sizes.back() = c->MakeDim(found.outputs());
  }
  sizes.push_back(c->Dim(filter, 3));
  c->set_output(0, c->MakeShape(sizes));
  return absl::OkStatus();
}

}  // namespace

BITFOLD_WHEN_LOADED(RegisterOp) {
  REGISTER_OP("HPreparedConvolution")
      .Attr("T: {int8, int16}")
      .Attr("T_out: {int8, int16}")
      .Attr("T_bias: {int32, int64}")
      .Input("input: T")
      .Input("filter: int8")
      .Input("bias: T_bias")
      .Input("multipliers: double")
      .Output("output: T_out")
      .Attr("strides: list(int)")
      .Attr("dilations: list(int)")
      .Attr("padding: {'SAME', 'VALID'}")
      .Attr("zeros: list(int)")
      .Attr("is_depthwise: bool")
      .Attr("input_zero_point: int")
      .Attr("accumulator_size: int")
      .Attr("mult_shift: int")
      .Attr("use_fp16_acc: bool")
      .Attr(kRoundingAttribute)
      .Attr("zero_point: int")
      .Attr("minimum: int")
      .Attr("maximum: int")
      .Attr("has_constant_weights: bool")
      .SetShapeFn(InferShape);
}

// The layer is made at the first call and kept; calls that bring the same weights and image sizes
// use it again. Weights that nothing rewrites in place are known by their memory, which the kernel
// holds, so that no others can come to lie there; of any the kernel has a copy to compare with. A
// bias of 64 bits makes sums of 64.
template <typename In, typename Out>
class HPreparedConvolutionOp : public AccumulatorOp<int64_t> {
 public:
  explicit HPreparedConvolutionOp(OpKernelConstruction* context) : AccumulatorOp<int64_t>(context) {
    if (!context->status().ok()) return;
    DataType bias_type;
    OP_REQUIRES_OK(context, context->GetAttr("T_bias", &bias_type));
    is_wide_ = bias_type == tensorflow::DT_INT64;
    OP_REQUIRES_OK(context, windows_.Read(context));
    OP_REQUIRES_OK(context, context->GetAttr("is_depthwise", &is_depthwise_));
    OP_REQUIRES_OK(context, GetPreparedArithmetic(context, tensorflow::DataTypeToEnum<Out>::value,
                                                  &use_fp16_acc_, &mode_));
    OP_REQUIRES_OK(context, GetInputZeroPoint<In>(context, "input_zero_point", &input_zero_point_));
    OP_REQUIRES_OK(context, context->GetAttr("has_constant_weights", &has_constant_weights_));
    OP_REQUIRES_OK(context, CheckAccumulator());
  }

  void Run(OpKernelContext* context) override {
    const Tensor& input = context->input(0);
    std::shared_ptr<const Held> held;
    OP_REQUIRES_OK(context, Hold(context, &held));
    const PreparedLayer& layer = held->layer->layer();
    TensorShape shape = input.shape();
    OP_REQUIRES_OK(context, shape.SetDimWithStatus(1, layer.rows.outputs()));
    OP_REQUIRES_OK(context, shape.SetDimWithStatus(2, layer.columns.outputs()));
    OP_REQUIRES_OK(context, shape.SetDimWithStatus(3, layer.out_channels));
    Tensor* output = nullptr;
    OP_REQUIRES_OK(context, context->allocate_output(0, shape, &output));
    if (IsEmpty(*output)) return;
    OpWorkers workers(context);
    held->layer->Run(input.flat<In>().data(), static_cast<int32_t>(input.dim_size(0)),
                     output->flat<Out>().data(), &workers);
  }

 private:
  using Layer = PreparedConvolution<In, Out>;

  // A layer and what it was made of.
  struct Held {
    Weights weights;
    std::unique_ptr<const Layer> layer;

    bool IsOf(OpKernelContext* context) const {
      const Tensor& input = context->input(0);
      return input.dims() == 4 && input.dim_size(1) == layer->layer().rows.input &&
             input.dim_size(2) == layer->layer().columns.input &&
             input.dim_size(3) == layer->layer().in_channels && input.dim_size(0) <= kLargestSize &&
             IsSame(weights.bias, context->input(2)) &&
             IsSame(weights.multipliers, context->input(3)) &&
             IsSame(weights.filter, context->input(1));
    }

    // The kernel's own copies share no memory with an input.
    static bool IsSame(const Tensor& held, const Tensor& given) {
      if (held.shape() != given.shape()) return false;
      if (held.SharesBufferWith(given) && held.data() == given.data()) return true;
      return held.tensor_data() == given.tensor_data();
    }
  };

  // Finds or makes the layer of a call.
  absl::Status Hold(OpKernelContext* context, std::shared_ptr<const Held>* held) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (held_ == nullptr || !held_->IsOf(context)) {
      PreparedLayer layer{};
      OpWorkers workers(context);
      Weights weights = {WeightsOf(context, 1), WeightsOf(context, 2), WeightsOf(context, 3)};
      TF_RETURN_IF_ERROR(Describe(context->input(0), weights, &layer));
      held_ = std::make_shared<const Held>(
          Held{std::move(weights), std::make_unique<const Layer>(layer, &workers)});
    }
    *held = held_;
    return absl::OkStatus();
  }

  Tensor WeightsOf(OpKernelContext* context, int index) const {
    const Tensor& given = context->input(index);
    return has_constant_weights_ ? given : tensorflow::tensor::DeepCopy(given);
  }

  absl::Status CheckAccumulator() const {
    if (!is_wide_) return RequireInt32AccumulatorSize(accumulator_size_);
    if (accumulator_size_ != kWideAccumulator) {
      return absl::InvalidArgumentError(absl::StrCat("Need an accumulator_size of ",
                                                     kWideAccumulator, " for a bias of int64, got ",
                                                     accumulator_size_));
    }
    if (use_fp16_acc_) {
      return absl::InvalidArgumentError("Need a bias of int32 in half precision, got int64");
    }
    if (mode_.rescaling == Rescaling::kTwoRoundings) {
      return absl::InvalidArgumentError("Need a bias of int32 for two_roundings, got int64");
    }
    return absl::OkStatus();
  }

  // The layer points to the weights.
  absl::Status Describe(const Tensor& input, const Weights& weights, PreparedLayer* layer) const {
    const auto& [filter, bias, multipliers] = weights;
    if (input.dims() != 4 || filter.dims() != 4) {
      return absl::InvalidArgumentError(absl::StrCat("Need input and filter of rank 4, got shapes ",
                                                     input.shape().DebugString(), " and ",
                                                     filter.shape().DebugString()));
    }
    TF_RETURN_IF_ERROR(CheckChannels(input, filter));
    LayerAxis rows{};
    LayerAxis columns{};
    TF_RETURN_IF_ERROR(windows_.AxisOf(0, input.dim_size(1), filter.dim_size(0), &rows));
    TF_RETURN_IF_ERROR(windows_.AxisOf(1, input.dim_size(2), filter.dim_size(1), &columns));
    const int64_t out_channels = filter.dim_size(3);
    if (bias.dims() != 1 || (bias.NumElements() != 0 && bias.NumElements() != out_channels)) {
      return absl::InvalidArgumentError(absl::StrCat("Need a bias of 0 or ", out_channels,
                                                     " elements, got shape ",
                                                     bias.shape().DebugString()));
    }
    TF_RETURN_IF_ERROR(CheckMultipliers(mode_, multipliers, out_channels));
    *layer = {static_cast<int32_t>(input.dim_size(3)),
              static_cast<int32_t>(out_channels),
              rows,
              columns,
              is_depthwise_,
              input_zero_point_,
              filter.flat<int8_t>().data(),
              is_wide_ || bias.NumElements() == 0 ? nullptr : bias.flat<int32_t>().data(),
              multipliers.flat<double>().data(),
              multipliers.NumElements() > 1,
              accumulator_size_,
              mode_.shift,
              use_fp16_acc_,
              mode_,
              !is_wide_ || bias.NumElements() == 0 ? nullptr : bias.flat<int64_t>().data()};
    return CheckSizes(input, *layer);
  }

  absl::Status CheckChannels(const Tensor& input, const Tensor& filter) const {
    const int64_t channels = input.dim_size(3);
    const int64_t outputs = filter.dim_size(3);
    const bool fits = is_depthwise_ ? filter.dim_size(2) == 1 && outputs <= channels
                                    : filter.dim_size(2) == channels;
    if (fits && channels >= 1 && outputs >= 1 && std::max(channels, outputs) <= kLargestSize) {
      return absl::OkStatus();
    }
    return absl::InvalidArgumentError(absl::StrCat(
        "Need a filter of height x width x ",
        is_depthwise_ ? "1 x at most the input's channels" : "input channels x output channels",
        ", got shapes ", filter.shape().DebugString(), " and ", input.shape().DebugString()));
  }

  // What is made of an image's sizes and of padding can be larger than what came.
  static absl::Status CheckSizes(const Tensor& input, const PreparedLayer& layer) {
    const int64_t padded =
        SaturatingProduct({layer.rows.padded(), layer.columns.padded(), layer.in_channels});
    const int64_t outputs =
        SaturatingProduct({layer.rows.outputs(), layer.columns.outputs(), layer.out_channels});
    constexpr int64_t kMost = int64_t{1} << 31;
    if (padded < kMost && outputs < kMost && input.dim_size(0) <= kLargestSize) {
      return absl::OkStatus();
    }
    return absl::InvalidArgumentError(absl::StrFormat(
        "Need at most %d images of fewer than 2^31 elements, padded and as outputs, got %d of %d "
        "and %d",
        kLargestSize, input.dim_size(0), padded, outputs));
  }

  WindowAttributes windows_;
  bool is_wide_ = false;
  bool is_depthwise_ = false;
  int32_t input_zero_point_ = 0;
  bool use_fp16_acc_ = false;
  RequantiseMode mode_ = {};
  bool has_constant_weights_ = false;

  std::mutex mutex_;
  std::shared_ptr<const Held> held_;
};

BITFOLD_WHEN_LOADED(RegisterKernels) {
#define BITFOLD_REGISTER_TYPES(In, Out)                       \
  REGISTER_KERNEL_BUILDER(Name("HPreparedConvolution")        \
                              .Device(tensorflow::DEVICE_CPU) \
                              .TypeConstraint<In>("T")        \
                              .TypeConstraint<Out>("T_out"),  \
                          HPreparedConvolutionOp<In, Out>)
  BITFOLD_REGISTER_TYPES(int8_t, int8_t);
  BITFOLD_REGISTER_TYPES(int8_t, int16_t);
  BITFOLD_REGISTER_TYPES(int16_t, int8_t);
  BITFOLD_REGISTER_TYPES(int16_t, int16_t);
#undef BITFOLD_REGISTER_TYPES
}

}  // namespace bitfold
