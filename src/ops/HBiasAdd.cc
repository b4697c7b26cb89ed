// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#define EIGEN_USE_THREADS

#include "bitfold/HBiasAdd.h"

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

REGISTER_OP("HBiasAdd")
    .Input("value: T")
    .Input("bias: T")
    .Input("bias_factor: T")
    .Input("bias_feed_repeat: float32")
    .Input("mult_shift: int8")
    .Attr("T: {float, int32}")
    .Attr(tensorflow::GetConvnetDataFormatAttrString())
    .Attr("accumulator_size: int")
    .Output("output: T")
    .Attr("use_fp16_acc: bool = false")
    .SetShapeFn(tensorflow::shape_inference::BiasAddShape);

template <typename T>
struct HAddBias4DFunctor<CPUDevice, T> {
  void operator()(const CPUDevice&, const T* value, const T* bias, const T* bias_factor,
                  const float* bias_feed_repeat, T* output, int d0, int d1, int d2, int d3,
                  int accumulator_size, const int8_t* mult_shift, bool use_fp16_acc) const {
    const Datapath<T> datapath(accumulator_size, mult_shift[0], use_fp16_acc);
    const int32_t count = WrapMultiply(WrapMultiply(d0, d1), WrapMultiply(d2, d3));
    AddBias(datapath, value, bias, bias_factor[0], FeedRepeatCount(bias_feed_repeat[0]), count, d3,
            output);
  }
};

#ifdef BITFOLD_GPU

template <typename T>
struct HAddBias4DFunctor<GPUDevice, T> {
  void operator()(const GPUDevice& device, const T* value, const T* bias, const T* bias_factor,
                  const float* bias_feed_repeat, T* output, int d0, int d1, int d2, int d3,
                  int accumulator_size, const int8_t* mult_shift, bool use_fp16_acc) const {
    LaunchAddFeedRepeat(device.stream, value, bias, bias_factor, bias_feed_repeat, output, d0, d1,
                        d2, d3, accumulator_size, mult_shift, use_fp16_acc);
  }
};

#endif

template <typename Device, typename T>
class HBiasAddOp : public AdditionOp<T> {
 public:
  explicit HBiasAddOp(OpKernelConstruction* context) : AdditionOp<T>(context) {}

  void Compute(OpKernelContext* context) override {
    const Tensor& value = context->input(0);
    const Tensor& bias = context->input(1);
    const Tensor& factor = context->input(2);
    const Tensor& feed_repeat = context->input(3);
    const Tensor& mult_shift = context->input(4);
    const int rank = value.dims();
    const bool supported = rank == 4 || rank == 2;
    if (supported) {
      OP_REQUIRES_OK(context, Check(value, bias, factor, feed_repeat, mult_shift));
    }

    const Device device = DeviceOf<Device>(context);
    Tensor* output = nullptr;
    OP_REQUIRES_OK(context, context->allocate_output(0, value.shape(), &output));
    if (!supported) {
      OP_REQUIRES_OK(context, ZeroFill(device, output, 0));
      LOG(ERROR) << "HBiasAdd supports rank 4 and rank 2 (Convolution and Dense results)";
      return;
    }
    OP_REQUIRES_OK(context, ZeroFill(device, output, ElementCount(value, rank)));

    const DefaultFloatingPointScope scope;
    const auto size = [&value](int i) { return static_cast<int>(value.dim_size(i)); };
    HAddBias4DFunctor<Device, T>()(device, value.flat<T>().data(), bias.flat<T>().data(),
                                   factor.flat<T>().data(), feed_repeat.flat<float>().data(),
                                   output->flat<T>().data(), size(0), rank == 4 ? size(1) : 1,
                                   rank == 4 ? size(2) : 1, size(rank - 1), this->accumulator_size_,
                                   mult_shift.flat<int8_t>().data(), this->use_fp16_acc_);
  }

 private:
  // Requires rank 2 or 4.
  static absl::Status Check(const Tensor& value, const Tensor& bias, const Tensor& factor,
                            const Tensor& feed_repeat, const Tensor& mult_shift) {
    TF_RETURN_IF_ERROR(RequireInt32Dimensions("value", value));
    TF_RETURN_IF_ERROR(RequireElements("bias", bias, value.dim_size(value.dims() - 1),
                                       "one for each channel of value"));
    return RequireAdditionScalars<Device>("bias_factor", factor, "bias_feed_repeat", feed_repeat,
                                          mult_shift);
  }
};

#ifdef BITFOLD_GPU
REGISTER_KERNEL_BUILDER(Name("HBiasAdd").Device(tensorflow::DEVICE_GPU).TypeConstraint<float>("T"),
                        HBiasAddOp<GPUDevice, float>);
REGISTER_KERNEL_BUILDER(
    Name("HBiasAdd").Device(tensorflow::DEVICE_GPU).TypeConstraint<int32_t>("T"),
    HBiasAddOp<GPUDevice, int32>);
#endif
REGISTER_KERNEL_BUILDER(Name("HBiasAdd").Device(tensorflow::DEVICE_CPU).TypeConstraint<float>("T"),
                        HBiasAddOp<CPUDevice, float>);
REGISTER_KERNEL_BUILDER(
    Name("HBiasAdd").Device(tensorflow::DEVICE_CPU).TypeConstraint<int32_t>("T"),
    HBiasAddOp<CPUDevice, int32>);

}  // namespace bitfold
