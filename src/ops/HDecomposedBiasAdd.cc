// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#define EIGEN_USE_THREADS

#include "bitfold/HDecomposedBiasAdd.h"

#include "cpu/additions.h"
#include "device/launchers.h"
#include "frame/floating_point_scope.h"
#include "frame/op_frame.h"
#include "ops/gpu_device.h"
#include "tensorflow/core/framework/common_shape_fns.h"
#include "tensorflow/core/framework/op.h"
#include "tensorflow/core/framework/op_kernel.h"
#include "tensorflow/core/platform/logging.h"
#include "tensorflow/core/util/tensor_format.h"

namespace bitfold {

using tensorflow::OpKernelConstruction;
using tensorflow::OpKernelContext;
using tensorflow::Tensor;

REGISTER_OP("HDecomposedBiasAdd")
    .Input("value: T")
    .Input("bias_a: T")
    .Input("bias_b: T")
    .Input("bias_a_factor: T")
    .Input("bias_b_factor: T")
    .Input("bias_feed_repeat: float32")
    .Input("mult_shift: int8")
    .Attr("T: {float, int32}")
    .Attr(tensorflow::GetConvnetDataFormatAttrString())
    .Attr("accumulator_size: int")
    .Output("output: T")
    .Attr("use_fp16_acc: bool = false")
    .SetShapeFn(tensorflow::shape_inference::BiasAddShape);

template <typename T>
struct HAddDecomposedBias4DFunctor<CPUDevice, T> {
  void operator()(const CPUDevice&, const T* value, const T* bias_a, const T* bias_b,
                  const T* bias_a_factor, const T* bias_b_factor, const float* bias_feed_repeat,
                  T* output, int d0, int d1, int d2, int d3, int accumulator_size,
                  const int8_t* mult_shift, bool use_fp16_acc) const {
    const Datapath<T> datapath(accumulator_size, mult_shift[0], use_fp16_acc);
    const int32_t count = WrapMultiply(WrapMultiply(d0, d1), WrapMultiply(d2, d3));
    AddDecomposedBias(datapath, value, bias_a, bias_b, bias_a_factor[0], bias_b_factor[0],
                      FeedRepeatCount(bias_feed_repeat[0]), count, d3, output);
  }
};

#ifdef BITFOLD_GPU

template <typename T>
struct HAddDecomposedBias4DFunctor<GPUDevice, T> {
  void operator()(const GPUDevice& device, const T* value, const T* bias_a, const T* bias_b,
                  const T* bias_a_factor, const T* bias_b_factor, const float* bias_feed_repeat,
                  T* output, int d0, int d1, int d2, int d3, int accumulator_size,
                  const int8_t* mult_shift, bool use_fp16_acc) const {
    LaunchAddDecomposedFeedRepeat(device.stream, value, bias_a, bias_b, bias_a_factor,
                                  bias_b_factor, bias_feed_repeat, output, d0, d1, d2, d3,
                                  accumulator_size, mult_shift, use_fp16_acc);
  }
};

#endif

template <typename Device, typename T>
class HDecomposedBiasAddOp : public AdditionOp<T> {
 public:
  explicit HDecomposedBiasAddOp(OpKernelConstruction* context) : AdditionOp<T>(context) {}

  void Compute(OpKernelContext* context) override {
    const Tensor& value = context->input(0);
    const int rank = value.dims();
    const bool supported = rank == 4 || rank == 2;
    if (supported) OP_REQUIRES_OK(context, Check(context));

    const Device device = DeviceOf<Device>(context);
    Tensor* output = nullptr;
    OP_REQUIRES_OK(context, context->allocate_output(0, value.shape(), &output));
    if (!supported) {
      OP_REQUIRES_OK(context, ZeroFill(device, output, 0));
      LOG(ERROR) << "HDecomposedBiasAdd supports rank 4 and rank 2 (Convolution and Dense results)";
      return;
    }
    OP_REQUIRES_OK(context, ZeroFill(device, output, ElementCount(value, rank)));

    const DefaultFloatingPointScope scope;
    const auto size = [&value](int i) { return static_cast<int>(value.dim_size(i)); };
    const auto data = [context](int i) { return context->input(i).flat<T>().data(); };
    HAddDecomposedBias4DFunctor<Device, T>()(
        device, data(0), data(1), data(2), data(3), data(4), context->input(5).flat<float>().data(),
        output->flat<T>().data(), size(0), rank == 4 ? size(1) : 1, rank == 4 ? size(2) : 1,
        size(rank - 1), this->accumulator_size_, context->input(6).flat<int8_t>().data(),
        this->use_fp16_acc_);
  }

 private:
  // Requires a value of rank 2 or 4.
  static absl::Status Check(OpKernelContext* context) {
    const Tensor& value = context->input(0);
    const int64_t channels = value.dim_size(value.dims() - 1);
    constexpr char kWhat[] = "one for each channel of value";
    TF_RETURN_IF_ERROR(RequireInt32Dimensions("value", value));
    TF_RETURN_IF_ERROR(RequireElements("bias_a", context->input(1), channels, kWhat));
    TF_RETURN_IF_ERROR(RequireElements("bias_b", context->input(2), channels, kWhat));
    TF_RETURN_IF_ERROR(RequireScalar("bias_a_factor", context->input(3)));
    return RequireAdditionScalars<Device>("bias_b_factor", context->input(4), "bias_feed_repeat",
                                          context->input(5), context->input(6));
  }
};

#ifdef BITFOLD_GPU
REGISTER_KERNEL_BUILDER(
    Name("HDecomposedBiasAdd").Device(tensorflow::DEVICE_GPU).TypeConstraint<float>("T"),
    HDecomposedBiasAddOp<GPUDevice, float>);
REGISTER_KERNEL_BUILDER(
    Name("HDecomposedBiasAdd").Device(tensorflow::DEVICE_GPU).TypeConstraint<int32_t>("T"),
    HDecomposedBiasAddOp<GPUDevice, int32>);
#endif
REGISTER_KERNEL_BUILDER(
    Name("HDecomposedBiasAdd").Device(tensorflow::DEVICE_CPU).TypeConstraint<float>("T"),
    HDecomposedBiasAddOp<CPUDevice, float>);
REGISTER_KERNEL_BUILDER(
    Name("HDecomposedBiasAdd").Device(tensorflow::DEVICE_CPU).TypeConstraint<int32_t>("T"),
    HDecomposedBiasAddOp<CPUDevice, int32>);

}  // namespace bitfold
