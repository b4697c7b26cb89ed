// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#define EIGEN_USE_THREADS

#include "bitfold/HLayernorm.h"

#include <cstdint>
#include <type_traits>

#include "cpu/layernorm.h"
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
  REGISTER_OP("HLayernorm")
      .Input("value: float32")
      .Input("zero_point: uint32")
      .Input("exponent_sub_value: uint32")
      .Input("sum_of_x_mult: uint32")
      .Input("sum_of_x_shift: uint32")
      .Input("sum_of_x_mult_n_shift: uint32")
      .Input("x_squared_mult: uint32")
      .Input("sum_of_x_squares_shift: uint32")
      .Input("epsilon: uint32")
      .Input("mul_act_man: uint32")
      .Input("mul_act_exp: uint32")
      .Input("mul_act_bias: uint32")
      .Input("rms_mode_enable: uint32")
      .Input("activation_ebias_mode: uint32")
      .Input("activation_output_mode: uint32")
      .Input("lut: float32")
      .Output("output: float32")
      .SetShapeFn(tensorflow::shape_inference::UnchangedShape);
}

namespace {

// The scalar inputs stand between value and lut.
constexpr int kFirstScalar = 1;

struct ScalarInput {
  const char* name;
  void (*set)(LayerNormParams* params, float value);
};

// 32-bit fields keep the low bits of the value as an int64, narrower ones of the value as an int32;
// a flag tells whether it is not 0.
template <auto kField>
void Set(LayerNormParams* params, float value) {
  auto& field = params->*kField;
  using Field = std::remove_reference_t<decltype(field)>;
  if constexpr (std::is_same_v<Field, bool>) {
    field = value != 0.0f;
  } else if constexpr (std::is_same_v<Field, uint32_t>) {
    field = static_cast<uint32_t>(TruncateToInt64(value));
  } else {
    field = static_cast<Field>(static_cast<uint32_t>(TruncateToInt32(value)));
  }
}

// In the order of registration.
constexpr ScalarInput kScalars[] = {
    {"zero_point", Set<&LayerNormParams::zero_point>},
    {"exponent_sub_value", Set<&LayerNormParams::exponent_sub_value>},
    {"sum_of_x_mult", Set<&LayerNormParams::sum_of_x_mult>},
    {"sum_of_x_shift", Set<&LayerNormParams::sum_of_x_shift>},
    {"sum_of_x_mult_n_shift", Set<&LayerNormParams::sum_of_x_mult_n_shift>},
    {"x_squared_mult", Set<&LayerNormParams::x_squared_mult>},
    {"sum_of_x_squares_shift", Set<&LayerNormParams::sum_of_x_squares_shift>},
    {"epsilon", Set<&LayerNormParams::epsilon>},
    {"mul_act_man", Set<&LayerNormParams::mul_act_man>},
    {"mul_act_exp", Set<&LayerNormParams::mul_act_exp>},
    {"mul_act_bias", Set<&LayerNormParams::mul_act_bias>},
    {"rms_mode_enable", Set<&LayerNormParams::rms_mode_enable>},
    {"activation_ebias_mode", Set<&LayerNormParams::activation_ebias_mode>},
    {"activation_output_mode", Set<&LayerNormParams::activation_output_mode>},
};

// Element 0 of a uint32 input in single precision: exact up to 2^24. Requires a non-empty tensor.
float get_value(OpKernelContext* context, int index) {
  return static_cast<float>(context->input(index).flat<uint32_t>()(0));
}

LayerNormParams ReadLayerNormParams(OpKernelContext* context) {
  LayerNormParams params;
  int index = kFirstScalar;
  for (const ScalarInput& scalar : kScalars) scalar.set(&params, get_value(context, index++));
  return params;
}

}  // namespace

template <typename Device>
class HLayernormOp : public GuardedOp {
 public:
  explicit HLayernormOp(OpKernelConstruction* context) : GuardedOp(context) {}

  void Run(OpKernelContext* context) override {
    constexpr char kFunction[] =
        "void HLayernormOp<Device>::Compute(tensorflow::OpKernelContext*) "
        "[with Device = Eigen::ThreadPoolDevice]";
    const Tensor& value = context->input(0);
    OP_REQUIRES_OK(context, Check(context));
    const auto size = [&value](int i) { return static_cast<int>(value.dim_size(i)); };
    const LayerNormShape shape{size(3), size(2), size(1), size(0)};
    BITFOLD_LAYERNORM_ASSERT(shape.vector_size <= MAX_VECTOR_SIZE, "vector_size <= MAX_VECTOR_SIZE",
                             kFunction);
    BITFOLD_LAYERNORM_ASSERT(WrapMultiply(shape.width, shape.height) <= MAX_NUM_VECTORS_IN_BATCH,
                             "(width_size * hight_size) <= MAX_NUM_VECTORS_IN_BATCH", kFunction);
    const LayerNormParams params = ReadLayerNormParams(context);
    const Tensor* lut_table = nullptr;
    TF_CHECK_OK(context->input("lut", &lut_table));
    BITFOLD_LAYERNORM_ASSERT(lut_table->NumElements() == LUT_DEPTH,
                             "lut_table_flat.size() == LUT_DEPTH", kFunction);

    Tensor* output = nullptr;
    OP_REQUIRES_OK(context, context->allocate_output(0, value.shape(), &output));
    const DefaultFloatingPointScope scope;
    OpWorkers workers(context);
    ComputeLayernorm(value.flat<float>().data(), output->flat<float>().data(), shape,
                     lut_table->flat<float>().data(), params, &workers);
  }

 private:
  // Rank 4, and an element 0 in each of the scalar inputs.
  static absl::Status Check(OpKernelContext* context) {
    const Tensor& value = context->input(0);
    if (value.dims() != 4) {
      return absl::InvalidArgumentError(
          absl::StrCat("Need value of rank 4, got shape ", value.shape().DebugString()));
    }
    TF_RETURN_IF_ERROR(RequireInt32Dimensions("value", value));
    int index = kFirstScalar;
    for (const ScalarInput& scalar : kScalars) {
      TF_RETURN_IF_ERROR(RequireScalar(scalar.name, context->input(index++)));
    }
    return absl::OkStatus();
  }
};

BITFOLD_WHEN_LOADED(RegisterKernels) {
  REGISTER_KERNEL_BUILDER(Name("HLayernorm").Device(tensorflow::DEVICE_CPU),
                          HLayernormOp<CPUDevice>);
}

}  // namespace bitfold
