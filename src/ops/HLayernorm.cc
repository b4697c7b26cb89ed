// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#define EIGEN_USE_THREADS

#include "bitfold/HLayernorm.h"

#include "cpu/layernorm.h"
#include "frame/floating_point_scope.h"
#include "frame/op_frame.h"
#include "tensorflow/core/framework/common_shape_fns.h"
#include "tensorflow/core/framework/op.h"
#include "tensorflow/core/framework/op_kernel.h"

namespace bitfold {

using tensorflow::OpKernelConstruction;
using tensorflow::OpKernelContext;
using tensorflow::Tensor;

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

namespace {

// Element 0 of the uint32 input called `name`, in single precision: exact up to 2^24. Requires a
// non-empty tensor.
float get_value(OpKernelContext* context, const char* name) {
  const Tensor* input_tensor = nullptr;
  TF_CHECK_OK(context->input(name, &input_tensor));
  return static_cast<float>(input_tensor->flat<uint32_t>()(0));
}

// 32-bit fields keep the low bits of the value as an int64, narrower ones of the value as an int32.
uint32_t WideField(float value) { return static_cast<uint32_t>(TruncateToInt64(value)); }

template <typename Field>
Field NarrowField(float value) {
  return static_cast<Field>(static_cast<uint32_t>(TruncateToInt32(value)));
}

LayerNormParams ReadLayerNormParams(OpKernelContext* context) {
  const auto value = [context](const char* name) { return get_value(context, name); };
  LayerNormParams params;
  params.epsilon = WideField(value("epsilon"));
  params.sum_of_x_squares_shift = NarrowField<uint8_t>(value("sum_of_x_squares_shift"));
  params.x_squared_mult = NarrowField<uint16_t>(value("x_squared_mult"));
  params.sum_of_x_mult_n_shift = NarrowField<uint8_t>(value("sum_of_x_mult_n_shift"));
  params.sum_of_x_shift = NarrowField<uint8_t>(value("sum_of_x_shift"));
  params.sum_of_x_mult = NarrowField<uint16_t>(value("sum_of_x_mult"));
  params.exponent_sub_value = NarrowField<uint8_t>(value("exponent_sub_value"));
  params.zero_point = NarrowField<uint16_t>(value("zero_point"));
  params.mul_act_bias = WideField(value("mul_act_bias"));
  params.mul_act_exp = NarrowField<uint8_t>(value("mul_act_exp"));
  params.mul_act_man = NarrowField<uint16_t>(value("mul_act_man"));
  params.rms_mode_enable = value("rms_mode_enable") != 0.0f;
  params.activation_ebias_mode = value("activation_ebias_mode") != 0.0f;
  params.activation_output_mode = value("activation_output_mode") != 0.0f;
  return params;
}

}  // namespace

template <typename Device>
class HLayernormOp : public tensorflow::OpKernel {
 public:
  explicit HLayernormOp(OpKernelConstruction* context) : OpKernel(context) {}

  void Compute(OpKernelContext* context) override {
    constexpr char kFunction[] =
        "void HLayernormOp<Device>::Compute(tensorflow::OpKernelContext*) "
        "[with Device = Eigen::ThreadPoolDevice]";
    const Tensor& value = context->input(0);
    OP_REQUIRES_OK(context, Check(context));
    const int batch = static_cast<int>(value.dim_size(0));
    const int height = static_cast<int>(value.dim_size(1));
    const int width = static_cast<int>(value.dim_size(2));
    const int vector_size = static_cast<int>(value.dim_size(3));
    BITFOLD_LAYERNORM_ASSERT(vector_size <= MAX_VECTOR_SIZE, "vector_size <= MAX_VECTOR_SIZE",
                             kFunction);
    BITFOLD_LAYERNORM_ASSERT(WrapMultiply(width, height) <= MAX_NUM_VECTORS_IN_BATCH,
                             "(width_size * hight_size) <= MAX_NUM_VECTORS_IN_BATCH", kFunction);
    const LayerNormParams params = ReadLayerNormParams(context);
    const Tensor* lut_table = nullptr;
    TF_CHECK_OK(context->input("lut", &lut_table));
    BITFOLD_LAYERNORM_ASSERT(lut_table->NumElements() == LUT_DEPTH,
                             "lut_table_flat.size() == LUT_DEPTH", kFunction);

    Tensor* output = nullptr;
    OP_REQUIRES_OK(context, context->allocate_output(0, value.shape(), &output));
    const DefaultFloatingPointScope scope;
    RunLayernorm(value.flat<float>().data(), output->flat<float>().data(), vector_size, width,
                 height, batch, lut_table->flat<float>().data(), params);
  }

 private:
  // Rank 4, and an element 0 in each of the scalar inputs, which stand between value and lut.
  static absl::Status Check(OpKernelContext* context) {
    constexpr const char* kScalars[] = {"zero_point",
                                        "exponent_sub_value",
                                        "sum_of_x_mult",
                                        "sum_of_x_shift",
                                        "sum_of_x_mult_n_shift",
                                        "x_squared_mult",
                                        "sum_of_x_squares_shift",
                                        "epsilon",
                                        "mul_act_man",
                                        "mul_act_exp",
                                        "mul_act_bias",
                                        "rms_mode_enable",
                                        "activation_ebias_mode",
                                        "activation_output_mode"};
    const Tensor& value = context->input(0);
    if (value.dims() != 4) {
      return absl::InvalidArgumentError(
          absl::StrCat("Need value of rank 4, got shape ", value.shape().DebugString()));
    }
    TF_RETURN_IF_ERROR(RequireInt32Dimensions("value", value));
    int index = 1;
    for (const char* name : kScalars) {
      TF_RETURN_IF_ERROR(RequireScalar(name, context->input(index++)));
    }
    return absl::OkStatus();
  }
};

REGISTER_KERNEL_BUILDER(Name("HLayernorm").Device(tensorflow::DEVICE_CPU), HLayernormOp<CPUDevice>);

}  // namespace bitfold
