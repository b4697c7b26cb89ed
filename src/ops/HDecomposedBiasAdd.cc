// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#define EIGEN_USE_THREADS

#include "bitfold/HDecomposedBiasAdd.h"

#include "cpu/additions.h"
#include "device/launchers.h"
#include "frame/floating_point_scope.h"
#include "frame/op_cancellation.h"
#include "frame/op_frame.h"
#include "frame/op_registration.h"
#include "frame/op_workers.h"
#include "ops/addition_op.h"
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

BITFOLD_WHEN_LOADED(RegisterOp) {
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
}

// The whole-tensor arithmetic.
template <typename Device, typename T>
struct HAddDecomposedBias4DFunctor;

template <typename T>
struct HAddDecomposedBias4DFunctor<CPUDevice, T> {
  void operator()(OpKernelContext* context, const DecomposedBiasAddCall<T>& call,
                  const Cancellation& cancellation) const {
    OpWorkers workers(context);
    ComputeDecomposedBiasAdd(call, call.shape.ElementCount(), &workers, &cancellation);
  }
};

#ifdef BITFOLD_GPU

template <typename T>
struct HAddDecomposedBias4DFunctor<GPUDevice, T> {
  void operator()(OpKernelContext* context, const DecomposedBiasAddCall<T>& call,
                  const Cancellation&) const {
    LaunchAddDecomposedFeedRepeat(DeviceOf<GPUDevice>(context).stream, call);
  }
};

#endif

template <typename Device, typename T>
class HDecomposedBiasAddOp : public AdditionOp<T> {
 public:
  explicit HDecomposedBiasAddOp(OpKernelConstruction* context) : AdditionOp<T>(context) {}

  void Run(OpKernelContext* context) override {
    const Tensor& value = context->input(0);
    const bool supported = value.dims() == 4 || value.dims() == 2;
    if (supported) OP_REQUIRES_OK(context, Check(context));
    const AdditionShape shape = supported ? ShapeOf(value) : AdditionShape{};
    const Device device = DeviceOf<Device>(context);
    Tensor* output = nullptr;
    OP_REQUIRES_OK(context, AllocateOutput(context, device, shape.ElementCount(), &output));
    if (!supported) {
      LOG(ERROR) << "HDecomposedBiasAdd supports rank 4 and rank 2 (Convolution and Dense results)";
      return;
    }
    if (IsEmpty(*output)) return;

    const DefaultFloatingPointScope scope;
    const OpCancellation cancellation(context);
    const auto data = [context](int i) { return context->input(i).flat<T>().data(); };
    const DecomposedBiasAddCall<T> call{data(0),
                                        data(1),
                                        data(2),
                                        data(3),
                                        data(4),
                                        context->input(5).flat<float>().data(),
                                        output->flat<T>().data(),
                                        shape,
                                        this->AttributesWith(context->input(6))};
    HAddDecomposedBias4DFunctor<Device, T>()(context, call, cancellation);
    OP_REQUIRES_OK(context, cancellation.Status());
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

BITFOLD_WHEN_LOADED(RegisterKernels) {
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
}

}  // namespace bitfold
