// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#define EIGEN_USE_THREADS

#include "bitfold/HStandaloneElementwiseAdd.h"

#include "cpu/additions.h"
#include "device/launchers.h"
#include "frame/floating_point_scope.h"
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
  REGISTER_OP("HStandaloneElementwiseAdd")
      .Input("value: T")
      .Input("elementwise: T")
      .Input("weights: T")
      .Input("mult_shift: int8")
      .Attr("T: {float, int32}")
      .Attr(tensorflow::GetConvnetDataFormatAttrString())
      .Attr("accumulator_size: int")
      .Output("output: T")
      .Attr("use_fp16_acc: bool = false")
      .SetShapeFn(tensorflow::shape_inference::UnchangedShape);
}

// The whole-tensor arithmetic.
template <typename Device, typename T>
struct HStandaloneElementwiseAdd4DFunctor;

template <typename T>
struct HStandaloneElementwiseAdd4DFunctor<CPUDevice, T> {
  void operator()(OpKernelContext* context, const StandaloneElementwiseAddCall<T>& call) const {
    OpWorkers workers(context);
    ComputeStandaloneElementwiseAdd(call, call.shape.ElementCount(), &workers);
  }
};

#ifdef BITFOLD_GPU

template <typename T>
struct HStandaloneElementwiseAdd4DFunctor<GPUDevice, T> {
  void operator()(OpKernelContext* context, const StandaloneElementwiseAddCall<T>& call) const {
    LaunchAddStandaloneEw(DeviceOf<GPUDevice>(context).stream, call);
  }
};

#endif

template <typename Device, typename T>
class HStandaloneElementwiseAddOp : public AdditionOp<T> {
 public:
  explicit HStandaloneElementwiseAddOp(OpKernelConstruction* context) : AdditionOp<T>(context) {}

  // Any rank but 4 is computed through its first two dimensions.
  void Run(OpKernelContext* context) override {
    OP_REQUIRES_OK(context, Check(context));
    const AdditionShape shape = ShapeOf(context->input(0));
    const Device device = DeviceOf<Device>(context);
    Tensor* output = nullptr;
    OP_REQUIRES_OK(context, AllocateOutput(context, device, shape.ElementCount(), &output));
    if (IsEmpty(*output)) return;

    const DefaultFloatingPointScope scope;
    const auto data = [context](int i) { return context->input(i).flat<T>().data(); };
    const StandaloneElementwiseAddCall<T> call{data(0), data(1),
                                               data(2), output->flat<T>().data(),
                                               shape,   this->AttributesWith(context->input(3))};
    HStandaloneElementwiseAdd4DFunctor<Device, T>()(context, call);
  }

 private:
  static absl::Status Check(OpKernelContext* context) {
    TF_RETURN_IF_ERROR(RequireElementwise(context));
    const int64_t channels = ShapeOf(context->input(0)).d3;
    TF_RETURN_IF_ERROR(RequireElements("weights", context->input(2), 2 * channels,
                                       "one for each channel of value, then of elementwise"));
    return RequireScalar("mult_shift", context->input(3));
  }
};

BITFOLD_WHEN_LOADED(RegisterKernels) {
#ifdef BITFOLD_GPU
  REGISTER_KERNEL_BUILDER(
      Name("HStandaloneElementwiseAdd").Device(tensorflow::DEVICE_GPU).TypeConstraint<float>("T"),
      HStandaloneElementwiseAddOp<GPUDevice, float>);
  REGISTER_KERNEL_BUILDER(
      Name("HStandaloneElementwiseAdd").Device(tensorflow::DEVICE_GPU).TypeConstraint<int32_t>("T"),
      HStandaloneElementwiseAddOp<GPUDevice, int32>);
#endif
  REGISTER_KERNEL_BUILDER(
      Name("HStandaloneElementwiseAdd").Device(tensorflow::DEVICE_CPU).TypeConstraint<float>("T"),
      HStandaloneElementwiseAddOp<CPUDevice, float>);
  REGISTER_KERNEL_BUILDER(
      Name("HStandaloneElementwiseAdd").Device(tensorflow::DEVICE_CPU).TypeConstraint<int32_t>("T"),
      HStandaloneElementwiseAddOp<CPUDevice, int32>);
}

}  // namespace bitfold
