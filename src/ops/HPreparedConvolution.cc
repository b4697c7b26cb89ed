// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#define EIGEN_USE_THREADS

#include "bitfold/HPreparedConvolution.h"

#include <cstdint>
#include <memory>

#include "cpu/prepared_convolution.h"
#include "frame/op_registration.h"
#include "frame/op_workers.h"
#include "ops/prepared_convolution_op.h"
#include "tensorflow/core/framework/op.h"
#include "tensorflow/core/framework/op_kernel.h"

namespace bitfold {

using tensorflow::OpKernelContext;
using tensorflow::Tensor;

BITFOLD_WHEN_LOADED(RegisterOp) {
  REGISTER_OP("HPreparedConvolution")
      .Attr("T: {int8, int16}")
      .Attr("T_out: {int8, int16}")
      .Attr("T_bias: {int32, int64}")
      .Input("input: T")
      .Input("filter: int8")
      .Input("bias: T_bias")
      .Input("multipliers: double")
      .Output("output: T_out")
      .Attr("strides: list(int)")
      .Attr("dilations: list(int)")
      .Attr("padding: {'SAME', 'VALID'}")
      .Attr("zeros: list(int)")
      .Attr("is_depthwise: bool")
      .Attr("input_zero_point: int")
      .Attr("accumulator_size: int")
      .Attr("mult_shift: int")
      .Attr("use_fp16_acc: bool")
      .Attr(kRoundingAttribute)
      .Attr("zero_point: int")
      .Attr("minimum: int")
      .Attr("maximum: int")
      .Attr("has_constant_weights: bool")
      .SetShapeFn(InferPreparedConvolution);
}

template <typename In, typename Out>
class HPreparedConvolutionOp : public PreparedConvolutionOp<In, Out, PreparedConvolution<In, Out>> {
 public:
  using Base = PreparedConvolutionOp<In, Out, PreparedConvolution<In, Out>>;
  using Base::Base;

  void Run(OpKernelContext* context) override {
    std::shared_ptr<const typename Base::Held> held;
    Tensor* output = nullptr;
    OP_REQUIRES_OK(context, this->Prepare(context, &held, &output));
    if (IsEmpty(*output)) return;
    const Tensor& input = context->input(0);
    OpWorkers workers(context);
    held->layer->Run(input.flat<In>().data(), static_cast<int32_t>(input.dim_size(0)),
                     output->flat<Out>().data(), &workers);
  }

 private:
  std::unique_ptr<const PreparedConvolution<In, Out>> Make(const PreparedLayer& layer,
                                                           Workers* workers) const override {
    return std::make_unique<const PreparedConvolution<In, Out>>(layer, workers);
  }
};

BITFOLD_WHEN_LOADED(RegisterKernels) {
#define BITFOLD_REGISTER_TYPES(In, Out)                       \
  REGISTER_KERNEL_BUILDER(Name("HPreparedConvolution")        \
                              .Device(tensorflow::DEVICE_CPU) \
                              .TypeConstraint<In>("T")        \
                              .TypeConstraint<Out>("T_out"),  \
                          HPreparedConvolutionOp<In, Out>)
  BITFOLD_REGISTER_TYPES(int8_t, int8_t);
  BITFOLD_REGISTER_TYPES(int8_t, int16_t);
  BITFOLD_REGISTER_TYPES(int16_t, int8_t);
  BITFOLD_REGISTER_TYPES(int16_t, int16_t);
#undef BITFOLD_REGISTER_TYPES
}

}  // namespace bitfold
