// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#define EIGEN_USE_THREADS

#include "bitfold/HRequantise.h"

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>

#include "absl/strings/str_format.h"
#include "cpu/requantise.h"
#include "frame/op_frame.h"
#include "frame/op_registration.h"
#include "frame/op_workers.h"
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

// What is needed of the multipliers, both where shapes are inferred and where the op runs.
absl::Status CheckCount(int64_t channels, int64_t count) {
  if (count == 1 || count == channels) return absl::OkStatus();
  return absl::InvalidArgumentError(absl::StrCat("Need 1 multiplier or one for each of the ",
                                                 channels, " channels of sums, got ", count));
}

BITFOLD_WHEN_LOADED(RegisterOp) {
  REGISTER_OP("HRequantise")
      .Attr("T: {int32, int64}")
      .Attr("T_out: {int8, int16, int32}")
      .Input("sums: T")
      .Input("multipliers: double")
      .Output("output: T_out")
      .Attr("rounding: {'two_roundings', 'short_multiplier', 'one_rounding'}")
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
        return CheckCount(context->Value(channels), context->Value(count));
      });
}

template <typename Device>
class HRequantiseOp : public GuardedOp {
 public:
  explicit HRequantiseOp(OpKernelConstruction* context) : GuardedOp(context) {
    OP_REQUIRES_OK(context, context->GetAttr("T", &sum_type_));
    OP_REQUIRES_OK(context, context->GetAttr("T_out", &output_type_));
    OP_REQUIRES_OK(context, context->GetAttr("rounding", &rounding_));
    OP_REQUIRES_OK(context, context->GetAttr("shift", &mode_.shift));
    OP_REQUIRES_OK(context, context->GetAttr("zero_point", &mode_.zero_point));
    OP_REQUIRES_OK(context, context->GetAttr("minimum", &mode_.minimum));
    OP_REQUIRES_OK(context, context->GetAttr("maximum", &mode_.maximum));
    mode_.rescaling = rounding_ == "two_roundings"      ? Rescaling::kTwoRoundings
                      : rounding_ == "short_multiplier" ? Rescaling::kShortMultiplier
                                                        : Rescaling::kOneRounding;
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
    const int64_t bits = output_type_ == tensorflow::DT_INT8    ? 8
                         : output_type_ == tensorflow::DT_INT16 ? 16
                                                                : 32;
    const int64_t highest = (int64_t{1} << (bits - 1)) - 1;
    const int64_t lowest = -highest - 1;
    if (mode_.zero_point < lowest || mode_.zero_point > highest) {
      return absl::InvalidArgumentError(absl::StrFormat("Need a zero_point in [%d, %d], got %d",
                                                        lowest, highest, mode_.zero_point));
    }
    if (mode_.minimum < lowest || mode_.minimum > mode_.maximum || mode_.maximum > highest) {
      return absl::InvalidArgumentError(
          absl::StrFormat("Need %d <= minimum <= maximum <= %d, got a minimum of %d and a maximum "
                          "of %d",
                          lowest, highest, mode_.minimum, mode_.maximum));
    }
    return absl::OkStatus();
  }

  absl::Status CheckInputs(const Tensor& sums, const Tensor& multipliers) const {
    if (sums.dims() < 1) {
      return absl::InvalidArgumentError("Need sums of rank 1 or more, got a scalar");
    }
    if (multipliers.dims() != 1) {
      return absl::InvalidArgumentError(absl::StrCat("Need multipliers of rank 1, got shape ",
                                                     multipliers.shape().DebugString()));
    }
    const int64_t count = multipliers.NumElements();
    TF_RETURN_IF_ERROR(CheckCount(sums.dim_size(sums.dims() - 1), count));
    for (int64_t i = 0; i < count; ++i) {
      TF_RETURN_IF_ERROR(CheckMultiplier(multipliers.flat<double>()(i), i));
    }
    return absl::OkStatus();
  }

  absl::Status CheckMultiplier(double multiplier, int64_t channel) const {
    if (!(multiplier >= 0) || !std::isfinite(multiplier)) {
      return absl::InvalidArgumentError(absl::StrFormat(
          "Need multipliers that are finite and not negative, got %.17g in channel %d", multiplier,
          channel));
    }
    const ChannelMultiplier shifted = ShiftedMultiplier(multiplier, mode_.shift);
    if (IsDefined(mode_.rescaling, shifted)) return absl::OkStatus();
    const std::string got = absl::StrFormat(" (multiplier %.17g with a shift of %d) in channel %d",
                                            multiplier, mode_.shift, channel);
    if (mode_.rescaling == Rescaling::kOneRounding) {
      return absl::InvalidArgumentError(
          absl::StrCat("Need multipliers that the shift leaves finite, got infinity", got));
    }
    return absl::InvalidArgumentError(
        absl::StrCat("Need exponents from ", kLowestMultiplierExponent, " to ",
                     mode_.rescaling == Rescaling::kTwoRoundings ? kHighestTwoRoundingsExponent
                                                                 : kHighestShortMultiplierExponent,
                     " for ", rounding_, ", got ", shifted.fixed.exponent, got));
  }

  DataType sum_type_;
  DataType output_type_;
  std::string rounding_;
  RequantiseMode mode_ = {};
};

BITFOLD_WHEN_LOADED(RegisterKernels) {
  REGISTER_KERNEL_BUILDER(Name("HRequantise").Device(tensorflow::DEVICE_CPU),
                          HRequantiseOp<CPUDevice>);
}

}  // namespace bitfold
