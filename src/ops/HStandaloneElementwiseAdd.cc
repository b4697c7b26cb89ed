// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#define EIGEN_USE_THREADS

#include "bitfold/HStandaloneElementwiseAdd.h"

#include "cpu/additions.h"
#include "device/launchers.h"
#include "frame/floating_point_scope.h"
#include "frame/op_frame.h"
#include "ops/gpu_device.h"
#include "tensorflow/core/framework/common_shape_fns.h"
#include "tensorflow/core/framework/op.h"
#include "tensorflow/core/framework/op_kernel.h"
#include "tensorflow/core/util/tensor_format.h"

namespace bitfold {

using tensorflow::OpKernelConstruction;
using tensorflow::OpKernelContext;
using tensorflow::Tensor;

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

template <typename T>
struct HStandaloneElementwiseAdd4DFunctor<CPUDevice, T> {
  void operator()(const CPUDevice&, const T* value, const T* elementwise, const T* weights,
                  T* output, int d0, int d1, int d2, int d3, int accumulator_size,
                  const int8_t* mult_shift, bool use_fp16_acc) const {
    const Datapath<T> datapath(accumulator_size, mult_shift[0], use_fp16_acc);
    const int32_t count = WrapMultiply(WrapMultiply(d0, d1), WrapMultiply(d2, d3));
    AddWeighted(datapath, value, elementwise, weights, count, d3, output);
  }
};

#ifdef BITFOLD_GPU

template <typename T>
struct HStandaloneElementwiseAdd4DFunctor<GPUDevice, T> {
  void operator()(const GPUDevice& device, const T* value, const T* elementwise, const T* weights,
                  T* output, int d0, int d1, int d2, int d3, int accumulator_size,
                  const int8_t* mult_shift, bool use_fp16_acc) const {
    LaunchAddStandaloneEw(device.stream, value, elementwise, weights, output, d0, d1, d2, d3,
                          accumulator_size, mult_shift, use_fp16_acc);
  }
};

#endif

template <typename Device, typename T>
class HStandaloneElementwiseAddOp : public AdditionOp<T> {
 public:
  explicit HStandaloneElementwiseAddOp(OpKernelConstruction* context) : AdditionOp<T>(context) {}

  void Compute(OpKernelContext* context) override {
    const Tensor& value = context->input(0);
    const Tensor& elementwise = context->input(1);
    const Tensor& weights = context->input(2);
    const Tensor& mult_shift = context->input(3);
    // Any rank but 4 is computed through its first two dimensions.
    const int rank = value.dims() == 4 ? 4 : 2;
    OP_REQUIRES_OK(context, Check(rank, value, elementwise, weights, mult_shift));

    const Device device = DeviceOf<Device>(context);
    Tensor* output = nullptr;
    OP_REQUIRES_OK(context, context->allocate_output(0, value.shape(), &output));
    OP_REQUIRES_OK(context, ZeroFill(device, output, ElementCount(value, rank)));

    const DefaultFloatingPointScope scope;
    const auto size = [&value](int i) { return static_cast<int>(value.dim_size(i)); };
    HStandaloneElementwiseAdd4DFunctor<Device, T>()(
        device, value.flat<T>().data(), elementwise.flat<T>().data(), weights.flat<T>().data(),
        output->flat<T>().data(), size(0), rank == 4 ? size(1) : 1, rank == 4 ? size(2) : 1,
        size(rank - 1), this->accumulator_size_, mult_shift.flat<int8_t>().data(),
        this->use_fp16_acc_);
  }

 private:
  static absl::Status Check(int rank, const Tensor& value, const Tensor& elementwise,
                            const Tensor& weights, const Tensor& mult_shift) {
    if (value.dims() < 2) {
      return absl::InvalidArgumentError(
          absl::StrCat("Need value of rank 2 or above, got rank ", value.dims()));
    }
    TF_RETURN_IF_ERROR(RequireInt32Dimensions("value", value));
    const int32_t count = ElementCount(value, rank);
    constexpr char kWhat[] = "the product of the dimensions of value that are computed";
    TF_RETURN_IF_ERROR(RequireElements("value", value, count, kWhat));
    TF_RETURN_IF_ERROR(RequireElements("elementwise", elementwise, count, kWhat));
    TF_RETURN_IF_ERROR(RequireElements("weights", weights, 2 * value.dim_size(rank - 1),
                                       "one for each channel of value, then of elementwise"));
    return RequireScalar("mult_shift", mult_shift);
  }
};

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

}  // namespace bitfold
