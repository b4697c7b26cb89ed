// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#define EIGEN_USE_THREADS

#include "bitfold/HAdd.h"

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
#include "tensorflow/core/util/tensor_format.h"

namespace bitfold {

using tensorflow::OpKernelConstruction;
using tensorflow::OpKernelContext;
using tensorflow::Tensor;

BITFOLD_WHEN_LOADED(RegisterOp) {
  REGISTER_OP("HAdd")
      .Input("value: T")
      .Input("elementwise: T")
      .Input("elementwise_factor: T")
      .Input("elementwise_feed_repeat: float32")
      .Input("mult_shift: int8")
      .Attr("T: {float, int32}")
      .Attr(tensorflow::GetConvnetDataFormatAttrString())
      .Attr("accumulator_size: int")
      .Output("output: T")
      .Attr("use_fp16_acc: bool = false")
      .SetShapeFn(tensorflow::shape_inference::UnchangedShape);
}

// The whole-tensor arithmetic. A kernel of a device for each rank; on the CPU the shape does not
// show.
template <typename Device, typename T>
struct HAddElementwise4dFunctor;
template <typename Device, typename T>
struct HAddElementwise2DFunctor;

template <typename T>
struct HAddElementwise4dFunctor<CPUDevice, T> {
  void operator()(OpKernelContext* context, const AddCall<T>& call,
                  const Cancellation& cancellation) const {
    OpWorkers workers(context);
    ComputeAdd(call, call.shape.ElementCount(), &workers, &cancellation);
  }
};

template <typename T>
struct HAddElementwise2DFunctor<CPUDevice, T> : HAddElementwise4dFunctor<CPUDevice, T> {};

#ifdef BITFOLD_GPU

template <typename T>
struct HAddElementwise4dFunctor<GPUDevice, T> {
  void operator()(OpKernelContext* context, const AddCall<T>& call, const Cancellation&) const {
    LaunchAddEwFeedRepeat4D(DeviceOf<GPUDevice>(context).stream, call);
  }
};

template <typename T>
struct HAddElementwise2DFunctor<GPUDevice, T> {
  void operator()(OpKernelContext* context, const AddCall<T>& call, const Cancellation&) const {
    LaunchAddEwFeedRepeat2D(DeviceOf<GPUDevice>(context).stream, call);
  }
};

#endif

template <typename Device, typename T>
class HAddOp : public AdditionOp<T> {
 public:
  explicit HAddOp(OpKernelConstruction* context) : AdditionOp<T>(context) {}

  // Any rank but 4 is computed through its first two dimensions.
  void Run(OpKernelContext* context) override {
    OP_REQUIRES_OK(context, Check(context));
    const Tensor& value = context->input(0);
    const AdditionShape shape = ShapeOf(value);
    const Device device = DeviceOf<Device>(context);
    Tensor* output = nullptr;
    OP_REQUIRES_OK(context, AllocateOutput(context, device, shape.ElementCount(), &output));
    if (IsEmpty(*output)) return;

    const DefaultFloatingPointScope scope;
    const OpCancellation cancellation(context);
    const auto data = [context](int i) { return context->input(i).flat<T>().data(); };
    const AddCall<T> call{data(0),
                          data(1),
                          data(2),
                          context->input(3).flat<float>().data(),
                          output->flat<T>().data(),
                          shape,
                          this->AttributesWith(context->input(4))};
    if (value.dims() == 4) {
      HAddElementwise4dFunctor<Device, T>()(context, call, cancellation);
    } else {
      HAddElementwise2DFunctor<Device, T>()(context, call, cancellation);
    }
    OP_REQUIRES_OK(context, cancellation.Status());
  }

 private:
  static absl::Status Check(OpKernelContext* context) {
    TF_RETURN_IF_ERROR(RequireElementwise(context));
    return RequireAdditionScalars<Device>("elementwise_factor", context->input(2),
                                          "elementwise_feed_repeat", context->input(3),
                                          context->input(4));
  }
};

BITFOLD_WHEN_LOADED(RegisterKernels) {
#ifdef BITFOLD_GPU
  REGISTER_KERNEL_BUILDER(Name("HAdd").Device(tensorflow::DEVICE_GPU).TypeConstraint<float>("T"),
                          HAddOp<GPUDevice, float>);
  REGISTER_KERNEL_BUILDER(Name("HAdd").Device(tensorflow::DEVICE_GPU).TypeConstraint<int32_t>("T"),
                          HAddOp<GPUDevice, int32>);
#endif
  REGISTER_KERNEL_BUILDER(Name("HAdd").Device(tensorflow::DEVICE_CPU).TypeConstraint<float>("T"),
                          HAddOp<CPUDevice, float>);
  REGISTER_KERNEL_BUILDER(Name("HAdd").Device(tensorflow::DEVICE_CPU).TypeConstraint<int32_t>("T"),
                          HAddOp<CPUDevice, int32>);
}

}  // namespace bitfold
