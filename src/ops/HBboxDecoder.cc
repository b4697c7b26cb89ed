// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#define EIGEN_USE_THREADS

#include "bitfold/HBboxDecoder.h"

#include "cpu/box_decoders.h"
#include "frame/floating_point_scope.h"
#include "frame/op_frame.h"
#include "frame/op_registration.h"
#include "frame/op_workers.h"
#include "ops/box_decoder_op.h"
#include "tensorflow/core/framework/op.h"
#include "tensorflow/core/framework/op_kernel.h"
#include "tensorflow/core/util/tensor_format.h"

namespace bitfold {

using tensorflow::OpKernelConstruction;
using tensorflow::OpKernelContext;

absl::Status BboxDecoderDNativeShapeLocalImpl(tensorflow::shape_inference::InferenceContext* c) {
  return DoubleLastDimension(c);
}

BITFOLD_WHEN_LOADED(RegisterOp) {
  REGISTER_OP("HBboxDecoder")
      .Input("detection_centers: T")
      .Input("detection_w_h: T")
      .Input("y_centers: T")
      .Input("x_centers: T")
      .Input("anchors_heights: T")
      .Input("anchors_heights_div_2: T")
      .Input("anchors_heights_minus_div_2: T")
      .Input("anchors_widths: T")
      .Input("anchors_widths_div_2: T")
      .Input("anchors_widths_minus_div_2: T")
      .Input("mult_shift: int8")
      .Attr("T: {float, int32}")
      .Attr(tensorflow::GetConvnetDataFormatAttrString())
      .Attr("accumulator_size: int")
      .Output("output: T")
      .Attr("use_fp16_acc: bool = false")
      .SetShapeFn(BboxDecoderDNativeShapeLocalImpl);
}

template <typename Device, typename T>
class HBboxDecoderOp : public BoxDecoderOp<T> {
 public:
  explicit HBboxDecoderOp(OpKernelConstruction* context) : BoxDecoderOp<T>(context) {}

  void Run(OpKernelContext* context) override {
    // The text names the addition; so it is known.
    const auto grid =
        this->Prepare(context,
                      {"anchors_heights", "anchors_heights_div_2", "anchors_heights_minus_div_2",
                       "anchors_widths", "anchors_widths_div_2", "anchors_widths_minus_div_2"},
                      "HAdd supports only rank 4 (Convolution result)");
    if (!grid) return;

    const DefaultFloatingPointScope scope;
    const auto data = [context](int i) { return context->input(i).flat<T>().data(); };
    OpWorkers workers(context);
    ComputeBboxDecoder<T>({data(0), data(1), data(2), data(3), data(4), data(5), data(6), data(7),
                           data(8), data(9), context->mutable_output(0)->flat<T>().data(), *grid,
                           this->AttributesWith(context->input(10))},
                          &workers);
  }
};

BITFOLD_WHEN_LOADED(RegisterKernels) {
  REGISTER_KERNEL_BUILDER(
      Name("HBboxDecoder").Device(tensorflow::DEVICE_CPU).TypeConstraint<float>("T"),
      HBboxDecoderOp<CPUDevice, float>);
  REGISTER_KERNEL_BUILDER(
      Name("HBboxDecoder").Device(tensorflow::DEVICE_CPU).TypeConstraint<int32_t>("T"),
      HBboxDecoderOp<CPUDevice, int32>);
}

}  // namespace bitfold
