// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#define EIGEN_USE_THREADS

#include "bitfold/HCheckedConvolution.h"

#include <cstdint>
#include <memory>

#include "cpu/checked_convolution.h"
#include "frame/op_registration.h"
#include "frame/op_workers.h"
#include "ops/prepared_convolution_op.h"
#include "ops/whole_sums.h"
#include "tensorflow/core/framework/op.h"
#include "tensorflow/core/framework/op_kernel.h"
#include "tensorflow/core/framework/shape_inference.h"

namespace bitfold {

using tensorflow::OpKernelContext;
using tensorflow::Tensor;
using tensorflow::shape_inference::InferenceContext;

namespace {

absl::Status InferShapes(InferenceContext* c) {
  TF_RETURN_IF_ERROR(InferPreparedConvolution(c));
  c->set_output(1, c->Scalar());
  return absl::OkStatus();
}

}  // namespace

BITFOLD_WHEN_LOADED(RegisterOp) {
  BITFOLD_REGISTER_LAYER("HCheckedConvolution").Output("wrong: int64").SetShapeFn(InferShapes);
}

template <typename In, typename Out>
class HCheckedConvolutionOp : public PreparedConvolutionOp<In, Out, CheckedConvolution<In, Out>> {
 public:
  using Base = PreparedConvolutionOp<In, Out, CheckedConvolution<In, Out>>;
  using Base::Base;

  void Run(OpKernelContext* context) override {
    std::shared_ptr<const typename Base::Held> held;
    Tensor* output = nullptr;
    Tensor* wrong = nullptr;
    OP_REQUIRES_OK(context, this->Prepare(context, &held, &output));
    OP_REQUIRES_OK(context, context->allocate_output(1, {}, &wrong));
    int64_t& count = wrong->scalar<int64_t>()();
    count = 0;
    if (IsEmpty(*output)) return;
    const Tensor& input = context->input(0);
    OpWorkers workers(context);
    count = held->layer->Run(input.flat<In>().data(), static_cast<int32_t>(input.dim_size(0)),
                             output->flat<Out>().data(), &workers);
  }

 private:
  std::unique_ptr<const CheckedConvolution<In, Out>> Make(const PreparedLayer& layer,
                                                          Workers* workers) const override {
    return std::make_unique<const CheckedConvolution<In, Out>>(layer, workers);
  }

  absl::Status CheckLayer(const PreparedLayer& layer) const override {
    return CheckWholeSums(layer);
  }
};

BITFOLD_WHEN_LOADED(RegisterKernels) {
  BITFOLD_LAYER_KERNELS("HCheckedConvolution", HCheckedConvolutionOp);
}

}  // namespace bitfold
