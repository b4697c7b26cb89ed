// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What the ops have in common that are a prepared convolution: their output's shape, and a kernel
// that makes its layer once. Layer is what they make of it.

#ifndef BITFOLD_SRC_OPS_PREPARED_CONVOLUTION_OP_H_
#define BITFOLD_SRC_OPS_PREPARED_CONVOLUTION_OP_H_

#include <algorithm>
#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "absl/strings/str_cat.h"
#include "absl/strings/str_format.h"
#include "bitfold/HPreparedConvolution.h"
#include "frame/op_frame.h"
#include "frame/op_workers.h"
#include "ops/prepared_attributes.h"
#include "ops/requantise_attributes.h"
#include "ops/window_attributes.h"
#include "tensorflow/core/framework/op_kernel.h"
#include "tensorflow/core/framework/shape_inference.h"
#include "tensorflow/core/framework/tensor_util.h"

namespace bitfold {

// The inputs that a layer is made of.
struct PreparedWeights {
  tensorflow::Tensor filter;
  tensorflow::Tensor bias;
  tensorflow::Tensor multipliers;
};

// Sets the shape of the first output.
inline absl::Status InferPreparedConvolution(tensorflow::shape_inference::InferenceContext* c) {
  using tensorflow::shape_inference::DimensionHandle;
  using tensorflow::shape_inference::ShapeHandle;
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

// The layer is made at the first call and kept; calls that bring the same weights and image sizes
// use it again. Weights that nothing rewrites in place are known by their memory, which the kernel
// holds, so that no others can come to lie there; of any the kernel has a copy to compare with. A
// bias of 64 bits makes sums of 64.
template <typename In, typename Out, typename Layer>
class PreparedConvolutionOp : public AccumulatorOp<int64_t> {
 public:
  explicit PreparedConvolutionOp(tensorflow::OpKernelConstruction* context)
      : AccumulatorOp<int64_t>(context) {
    if (!context->status().ok()) return;
    tensorflow::DataType bias_type;
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

  // A layer and what it was made of.
  struct Held {
    PreparedWeights weights;
    std::unique_ptr<const Layer> layer;

    bool IsOf(tensorflow::OpKernelContext* context) const {
      const tensorflow::Tensor& input = context->input(0);
      return input.dims() == 4 && input.dim_size(1) == layer->layer().rows.input &&
             input.dim_size(2) == layer->layer().columns.input &&
             input.dim_size(3) == layer->layer().in_channels && input.dim_size(0) <= kLargestSize &&
             IsSame(weights.bias, context->input(2)) &&
             IsSame(weights.multipliers, context->input(3)) &&
             IsSame(weights.filter, context->input(1));
    }

    // The kernel's own copies share no memory with an input.
    static bool IsSame(const tensorflow::Tensor& held, const tensorflow::Tensor& given) {
      if (held.shape() != given.shape()) return false;
      if (held.SharesBufferWith(given) && held.data() == given.data()) return true;
      return held.tensor_data() == given.tensor_data();
    }
  };

 protected:
  // Finds or makes the layer of a call, and allocates its output.
  absl::Status Prepare(tensorflow::OpKernelContext* context, std::shared_ptr<const Held>* held,
                       tensorflow::Tensor** output) {
    TF_RETURN_IF_ERROR(Hold(context, held));
    const PreparedLayer& layer = (*held)->layer->layer();
    tensorflow::TensorShape shape = context->input(0).shape();
    TF_RETURN_IF_ERROR(shape.SetDimWithStatus(1, layer.rows.outputs()));
    TF_RETURN_IF_ERROR(shape.SetDimWithStatus(2, layer.columns.outputs()));
    TF_RETURN_IF_ERROR(shape.SetDimWithStatus(3, layer.out_channels));
    return context->allocate_output(0, shape, output);
  }

 private:
  virtual std::unique_ptr<const Layer> Make(const PreparedLayer& layer, Workers* workers) const = 0;

  // What an op asks of a layer beside what all have.
  virtual absl::Status CheckLayer(const PreparedLayer&) const { return absl::OkStatus(); }

  // Finds or makes the layer of a call.
  absl::Status Hold(tensorflow::OpKernelContext* context, std::shared_ptr<const Held>* held) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (held_ == nullptr || !held_->IsOf(context)) {
      PreparedLayer layer{};
      OpWorkers workers(context);
      PreparedWeights weights = {WeightsOf(context, 1), WeightsOf(context, 2),
                                 WeightsOf(context, 3)};
      TF_RETURN_IF_ERROR(Describe(context->input(0), weights, &layer));
      TF_RETURN_IF_ERROR(CheckLayer(layer));
      held_ = std::make_shared<const Held>(Held{std::move(weights), Make(layer, &workers)});
    }
    *held = held_;
    return absl::OkStatus();
  }

  tensorflow::Tensor WeightsOf(tensorflow::OpKernelContext* context, int index) const {
    const tensorflow::Tensor& given = context->input(index);
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
  absl::Status Describe(const tensorflow::Tensor& input, const PreparedWeights& weights,
                        PreparedLayer* layer) const {
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

  absl::Status CheckChannels(const tensorflow::Tensor& input,
                             const tensorflow::Tensor& filter) const {
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
  static absl::Status CheckSizes(const tensorflow::Tensor& input, const PreparedLayer& layer) {
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

}  // namespace bitfold

#endif  // BITFOLD_SRC_OPS_PREPARED_CONVOLUTION_OP_H_
