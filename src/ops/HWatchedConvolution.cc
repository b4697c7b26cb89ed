// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#define EIGEN_USE_THREADS

#include "bitfold/HWatchedConvolution.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

#include "absl/strings/str_format.h"
#include "cpu/watched_convolution.h"
#include "frame/op_registration.h"
#include "frame/op_workers.h"
#include "ops/prepared_convolution_op.h"
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

namespace {

absl::Status InferShapes(InferenceContext* c) {
  TF_RETURN_IF_ERROR(InferPreparedConvolution(c));
  std::vector<int32_t> sizes;
  TF_RETURN_IF_ERROR(c->GetAttr("accumulator_sizes", &sizes));
  const DimensionHandle channels = c->Dim(c->output(0), 3);
  c->set_output(1, c->Matrix(c->MakeDim(2), channels));
  c->set_output(2, c->Matrix(c->MakeDim(static_cast<int64_t>(sizes.size())), channels));
  return absl::OkStatus();
}

}  // namespace

BITFOLD_WHEN_LOADED(RegisterOp) {
  REGISTER_OP("HWatchedConvolution")
      .Attr("T: {int8, int16}")
      .Attr("T_out: {int8, int16}")
      .Attr("T_bias: {int32, int64}")
      .Input("input: T")
      .Input("filter: int8")
      .Input("bias: T_bias")
      .Input("multipliers: double")
      .Output("output: T_out")
      .Output("extremes: int64")
      .Output("outside: int64")
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
      .Attr("accumulator_sizes: list(int)")
      .SetShapeFn(InferShapes);
}

template <typename In, typename Out>
class HWatchedConvolutionOp : public PreparedConvolutionOp<In, Out, WatchedConvolution<In, Out>> {
 public:
  using Base = PreparedConvolutionOp<In, Out, WatchedConvolution<In, Out>>;

  explicit HWatchedConvolutionOp(OpKernelConstruction* context) : Base(context) {
    if (!context->status().ok()) return;
    OP_REQUIRES_OK(context, context->GetAttr("accumulator_sizes", &sizes_));
    for (const int32_t size : sizes_) {
      OP_REQUIRES(context, 1 <= size && size <= 32,
                  absl::InvalidArgumentError(
                      absl::StrFormat("Need accumulator_sizes in [1, 32], got %d", size)));
    }
  }

  void Run(OpKernelContext* context) override {
    std::shared_ptr<const typename Base::Held> held;
    Tensor* output = nullptr;
    OP_REQUIRES_OK(context, this->Prepare(context, &held, &output));
    WatchedTables tables{};
    OP_REQUIRES_OK(context, AllocateTables(context, output->dim_size(3), &tables));
    if (IsEmpty(*output)) return;
    const Tensor& input = context->input(0);
    OpWorkers workers(context);
    held->layer->Run(input.flat<In>().data(), static_cast<int32_t>(input.dim_size(0)),
                     output->flat<Out>().data(), tables, &workers);
  }

 private:
  std::unique_ptr<const WatchedConvolution<In, Out>> Make(const PreparedLayer& layer,
                                                          Workers* workers) const override {
    const WatchedSizes sizes = {sizes_.data(), static_cast<int32_t>(sizes_.size())};
    return std::make_unique<const WatchedConvolution<In, Out>>(layer, sizes, workers);
  }

  // Sums of such addends stay within 64 bits.
  absl::Status CheckLayer(const PreparedLayer& layer) const override {
    if (layer.mult_shift > kMostSummedShift) {
      return absl::InvalidArgumentError(absl::StrFormat("Need a mult_shift in [0, %d], got %d",
                                                        kMostSummedShift, layer.mult_shift));
    }
    if (layer.PaddedElements() >= kMostSummedElements) {
      return absl::InvalidArgumentError(absl::StrFormat(
          "Need images of fewer than 2^29 elements, padded, got %d", layer.PaddedElements()));
    }
    if (layer.wide_bias == nullptr) return absl::OkStatus();
    const int64_t* const end = layer.wide_bias + layer.out_channels;
    const int64_t* const found = std::find_if(layer.wide_bias, end, [](int64_t bias) {
      return bias < -kLargestSummedBias || bias > kLargestSummedBias;
    });
    if (found == end) return absl::OkStatus();
    return absl::InvalidArgumentError(
        absl::StrFormat("Need a bias of at most 2^62 in magnitude, got %d", *found));
  }

  // With nothing seen.
  absl::Status AllocateTables(OpKernelContext* context, int64_t channels,
                              WatchedTables* tables) const {
    const auto sizes = static_cast<int64_t>(sizes_.size());
    Tensor* extremes = nullptr;
    Tensor* outside = nullptr;
    TF_RETURN_IF_ERROR(context->allocate_output(1, TensorShape({2, channels}), &extremes));
    TF_RETURN_IF_ERROR(context->allocate_output(2, TensorShape({sizes, channels}), &outside));
    *tables = {extremes->flat<int64_t>().data(), outside->flat<int64_t>().data()};
    ClearWatched(channels, sizes, *tables);
    return absl::OkStatus();
  }

  std::vector<int32_t> sizes_;
};

BITFOLD_WHEN_LOADED(RegisterKernels) {
#define BITFOLD_REGISTER_TYPES(In, Out)                       \
  REGISTER_KERNEL_BUILDER(Name("HWatchedConvolution")         \
                              .Device(tensorflow::DEVICE_CPU) \
                              .TypeConstraint<In>("T")        \
                              .TypeConstraint<Out>("T_out"),  \
                          HWatchedConvolutionOp<In, Out>)
  BITFOLD_REGISTER_TYPES(int8_t, int8_t);
  BITFOLD_REGISTER_TYPES(int8_t, int16_t);
  BITFOLD_REGISTER_TYPES(int16_t, int8_t);
  BITFOLD_REGISTER_TYPES(int16_t, int16_t);
#undef BITFOLD_REGISTER_TYPES
}

}  // namespace bitfold
