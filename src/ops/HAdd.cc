// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#define EIGEN_USE_THREADS

#include "bitfold/HAdd.h"

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

template <typename T>
struct HAddElementwise2DFunctor<CPUDevice, T> {
  void operator()(const CPUDevice&, const T* value, const T* elementwise,
                  const T* elementwise_factor, const float* elementwise_feed_repeat, T* output,
                  int d0, int d1, int accumulator_size, const int8_t* mult_shift,
                  bool use_fp16_acc) const {
    const Datapath<T> datapath(accumulator_size, mult_shift[0], use_fp16_acc);
    AddElementwise(datapath, value, elementwise, elementwise_factor[0],
                   FeedRepeatCount(elementwise_feed_repeat[0]), WrapMultiply(d0, d1), output);
  }
};

// The additions do not see the shape: four dimensions are two whose product is the same.
template <typename T>
struct HAddElementwise4dFunctor<CPUDevice, T> {
  void operator()(const CPUDevice& device, const T* value, const T* elementwise,
                  const T* elementwise_factor, const float* elementwise_feed_repeat, T* output,
                  int d0, int d1, int d2, int d3, int accumulator_size, const int8_t* mult_shift,
                  bool use_fp16_acc) const {
    HAddElementwise2DFunctor<CPUDevice, T>()(
        device, value, elementwise, elementwise_factor, elementwise_feed_repeat, output,
        WrapMultiply(d0, d1), WrapMultiply(d2, d3), accumulator_size, mult_shift, use_fp16_acc);
  }
};

#ifdef BITFOLD_GPU

template <typename T>
struct HAddElementwise2DFunctor<GPUDevice, T> {
  void operator()(const GPUDevice& device, const T* value, const T* elementwise,
                  const T* elementwise_factor, const float* elementwise_feed_repeat, T* output,
                  int d0, int d1, int accumulator_size, const int8_t* mult_shift,
                  bool use_fp16_acc) const {
    LaunchAddEwFeedRepeat2D(device.stream, value, elementwise, elementwise_factor,
                            elementwise_feed_repeat, output, d0, d1, accumulator_size, mult_shift,
                            use_fp16_acc);
  }
};

template <typename T>
struct HAddElementwise4dFunctor<GPUDevice, T> {
  void operator()(const GPUDevice& device, const T* value, const T* elementwise,
                  const T* elementwise_factor, const float* elementwise_feed_repeat, T* output,
                  int d0, int d1, int d2, int d3, int accumulator_size, const int8_t* mult_shift,
                  bool use_fp16_acc) const {
    LaunchAddEwFeedRepeat4D(device.stream, value, elementwise, elementwise_factor,
                            elementwise_feed_repeat, output, d0, d1, d2, d3, accumulator_size,
                            mult_shift, use_fp16_acc);
  }
};

#endif

template <typename Device, typename T>
class HAddOp : public AdditionOp<T> {
 public:
  explicit HAddOp(OpKernelConstruction* context) : AdditionOp<T>(context) {}

  void Compute(OpKernelContext* context) override {
    const Tensor& value = context->input(0);
    const Tensor& elementwise = context->input(1);
    const Tensor& factor = context->input(2);
    const Tensor& feed_repeat = context->input(3);
    const Tensor& mult_shift = context->input(4);
    // Any rank but 4 is computed through its first two dimensions.
    const int rank = value.dims() == 4 ? 4 : 2;
    OP_REQUIRES_OK(context, Check(rank, value, elementwise, factor, feed_repeat, mult_shift));

    const Device device = DeviceOf<Device>(context);
    Tensor* output = nullptr;
    OP_REQUIRES_OK(context, context->allocate_output(0, value.shape(), &output));
    OP_REQUIRES_OK(context, ZeroFill(device, output, ElementCount(value, rank)));

    const DefaultFloatingPointScope scope;
    const auto size = [&value](int i) { return static_cast<int>(value.dim_size(i)); };
    const T* x = value.flat<T>().data();
    const T* y = elementwise.flat<T>().data();
    const T* f = factor.flat<T>().data();
    const float* r = feed_repeat.flat<float>().data();
    const int8_t* s = mult_shift.flat<int8_t>().data();
    T* out = output->flat<T>().data();
    if (rank == 4) {
      HAddElementwise4dFunctor<Device, T>()(device, x, y, f, r, out, size(0), size(1), size(2),
                                            size(3), this->accumulator_size_, s,
                                            this->use_fp16_acc_);
    } else {
      HAddElementwise2DFunctor<Device, T>()(device, x, y, f, r, out, size(0), size(1),
                                            this->accumulator_size_, s, this->use_fp16_acc_);
    }
  }

 private:
  static absl::Status Check(int rank, const Tensor& value, const Tensor& elementwise,
                            const Tensor& factor, const Tensor& feed_repeat,
                            const Tensor& mult_shift) {
    if (value.dims() < 2) {
      return absl::InvalidArgumentError(
          absl::StrCat("Need value of rank 2 or above, got rank ", value.dims()));
    }
    TF_RETURN_IF_ERROR(RequireInt32Dimensions("value", value));
    const int32_t count = ElementCount(value, rank);
    constexpr char kWhat[] = "the product of the dimensions of value that are computed";
    TF_RETURN_IF_ERROR(RequireElements("value", value, count, kWhat));
    TF_RETURN_IF_ERROR(RequireElements("elementwise", elementwise, count, kWhat));
    return RequireAdditionScalars<Device>("elementwise_factor", factor, "elementwise_feed_repeat",
                                          feed_repeat, mult_shift);
  }
};

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

}  // namespace bitfold
