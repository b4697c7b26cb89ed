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
  BITFOLD_REGISTER_LAYER("HPreparedConvolution").SetShapeFn(InferPreparedConvolution);
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
  BITFOLD_LAYER_KERNELS("HPreparedConvolution", HPreparedConvolutionOp);
}

}  // namespace bitfold
