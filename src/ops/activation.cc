// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#define EIGEN_USE_THREADS

#include "bitfold/activation.h"

#include <algorithm>
#include <cstdint>
#include <limits>

#include "cpu/activation.h"
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
  REGISTER_OP("HActivation")
      .Input("inp: int64")
      .Input("x_points: int64")
      .Input("offsets: int64")
      .Input("slopes_m: int64")
      .Input("slopes_e: int64")
      .Input("size_splits: int64")
      .Attr("is_8bit_to_16bit_mode:bool")
      .Attr("is_velquin: bool")
      .Attr("ebias: int")
      .Attr("clip_bits: int")
      .Attr("beta: int")
      .Attr("is_16bit_precision_mode: bool")
      .Attr("is_signed_output: bool")
      .Output("output: int32")
      .SetShapeFn(tensorflow::shape_inference::UnchangedShape);
}

template <typename Device>
class Activation : public GuardedOp {
 public:
  // Unlike the other kernels' this constructor throws the status of an attribute that cannot be
  // read.
  explicit Activation(OpKernelConstruction* context) : GuardedOp(context) {
    Read(context, "is_8bit_to_16bit_mode", &mode_.is_8bit_to_16bit_mode);
    Read(context, "is_velquin", &mode_.is_velquin);
    Read(context, "ebias", &mode_.ebias);
    Read(context, "clip_bits", &mode_.clip_bits);
    Read(context, "beta", &mode_.beta);
    Read(context, "is_16bit_precision_mode", &mode_.is_16bit_precision_mode);
    Read(context, "is_signed_output", &mode_.is_signed_output);
  }

  void Run(OpKernelContext* context) override {
    // The runtime's own check ends the process for another rank.
    const auto inp = context->input(0).tensor<int64_t, 4>();
    const auto x_points = context->input(1).matrix<int64_t>();
    const auto offsets = context->input(2).matrix<int64_t>();
    const auto slopes_m = context->input(3).matrix<int64_t>();
    const auto slopes_e = context->input(4).matrix<int64_t>();
    const auto size_splits = context->input(5).vec<int64_t>();
    const int64_t channels = inp.dimension(3);
    OP_REQUIRES_OK(context, Check(context, channels));

    Tensor* output = nullptr;
    OP_REQUIRES_OK(context, context->allocate_output(0, context->input(0).shape(), &output));
    if (IsEmpty(*output)) return;
    if (UsedChannels(context->input(5)) < channels) ZeroFill(output, 0);
    const ActivationGroups groups = {{x_points.data(), x_points.dimension(1)},
                                     {offsets.data(), offsets.dimension(1)},
                                     {slopes_m.data(), slopes_m.dimension(1)},
                                     {slopes_e.data(), slopes_e.dimension(1)},
                                     size_splits.data(),
                                     size_splits.dimension(0)};
    const int64_t positions = inp.dimension(0) * inp.dimension(1) * inp.dimension(2);
    OpWorkers workers(context);
    ComputeActivation(inp.data(), {positions, channels}, groups, mode_,
                      output->flat<int32_t>().data(), &workers);
  }

 private:
  template <typename Value>
  static void Read(OpKernelConstruction* context, const char* name, Value* value) {
    const absl::Status status = context->GetAttr(name, value);
    if (!status.ok()) throw status;
  }

  // The channels that the groups take, at most INT64_MAX.
  static int64_t UsedChannels(const Tensor& size_splits) {
    int64_t used = 0;
    for (int64_t g = 0; g < size_splits.NumElements(); ++g) {
      const int64_t size = std::max<int64_t>(size_splits.vec<int64_t>()(g), 0);
      if (__builtin_add_overflow(used, size, &used)) return std::numeric_limits<int64_t>::max();
    }
    return used;
  }

  // The groups must fit the channels, and each table must have a row for every group that has
  // channels, with an entry for each piece.
  static absl::Status Check(OpKernelContext* context, int64_t channels) {
    const Tensor& splits = context->input(5);
    if (UsedChannels(splits) > channels) {
      return absl::InvalidArgumentError(absl::StrCat("Need size_splits to sum to at most the ",
                                                     channels, " channels of inp, got ",
                                                     UsedChannels(splits)));
    }
    int64_t rows = 0;  // up to the last group with channels
    for (int64_t g = 0; g < splits.NumElements(); ++g) {
      if (splits.vec<int64_t>()(g) > 0) rows = g + 1;
    }
    if (rows == 0) return absl::OkStatus();
    const int64_t pieces = context->input(1).dim_size(1) + 1;
    TF_RETURN_IF_ERROR(RequireTable("x_points", context->input(1), rows, 0));
    TF_RETURN_IF_ERROR(RequireTable("offsets", context->input(2), rows, pieces));
    TF_RETURN_IF_ERROR(RequireTable("slopes_m", context->input(3), rows, pieces));
    return RequireTable("slopes_e", context->input(4), rows, pieces);
  }

  static absl::Status RequireTable(const char* input, const Tensor& table, int64_t rows,
                                   int64_t columns) {
    if (table.dim_size(0) >= rows && table.dim_size(1) >= columns) return absl::OkStatus();
    return absl::InvalidArgumentError(absl::StrCat("Need ", input, " of shape [", rows, ", ",
                                                   columns, "] or larger (groups, pieces), got ",
                                                   table.shape().DebugString()));
  }

  ActivationMode mode_ = {};
};

// The factory reports what the constructor throws as the node's failure: nothing above it catches a
// status, and a process that ran into it would end.
tensorflow::OpKernel* CreateActivation(OpKernelConstruction* context) {
  try {
    return new Activation<CPUDevice>(context);
  } catch (const absl::Status& status) {
    context->CtxFailure(__FILE__, __LINE__, status);
    return nullptr;
  }
}

BITFOLD_WHEN_LOADED(RegisterKernels) {
  const tensorflow::kernel_factory::OpKernelRegistrar registrar(
      tensorflow::register_kernel::Name("HActivation").Device(tensorflow::DEVICE_CPU).Build(),
      "Activation<CPUDevice>", CreateActivation);
}

}  // namespace bitfold
