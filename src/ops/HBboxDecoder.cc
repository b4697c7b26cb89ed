// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#define EIGEN_USE_THREADS

#include "bitfold/HBboxDecoder.h"

#include "cpu/box_decoders.h"
#include "frame/floating_point_scope.h"
#include "frame/op_frame.h"
#include "ops/box_decoder_op.h"
#include "tensorflow/core/framework/op.h"
#include "tensorflow/core/framework/op_kernel.h"
#include "tensorflow/core/util/tensor_format.h"

namespace bitfold {

using tensorflow::OpKernelConstruction;
using tensorflow::OpKernelContext;
using tensorflow::Tensor;

absl::Status BboxDecoderDNativeShapeLocalImpl(tensorflow::shape_inference::InferenceContext* c) {
  return DoubleLastDimension(c);
}

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

template <typename T>
struct HBboxDecoder4DFunctor<CPUDevice, T> {
  void operator()(const CPUDevice&, const T* detection_centers, const T* detection_w_h,
                  const T* y_centers, const T* x_centers, const T* anchors_heights,
                  const T* anchors_heights_div_2, const T* anchors_heights_minus_div_2,
                  const T* anchors_widths, const T* anchors_widths_div_2,
                  const T* anchors_widths_minus_div_2, T* output, int32_t n, int32_t h, int32_t w,
                  int32_t anchors, int32_t accumulator_size, const int8_t* mult_shift,
                  bool use_fp16_acc) const {
    const ReciprocalDatapath<T> datapath(accumulator_size, mult_shift[0], use_fp16_acc);
    const BoxDecoderInputs<T> in{detection_centers,
                                 detection_w_h,
                                 y_centers,
                                 x_centers,
                                 anchors_heights,
                                 anchors_heights_div_2,
                                 anchors_heights_minus_div_2,
                                 anchors_widths,
                                 anchors_widths_div_2,
                                 anchors_widths_minus_div_2};
    DecodeAllBoxes(datapath, in, n, h, w, anchors, output);
  }
};

template <typename Device, typename T>
class HBboxDecoderOp : public BoxDecoderOp<T> {
 public:
  explicit HBboxDecoderOp(OpKernelConstruction* context) : BoxDecoderOp<T>(context) {}

  void Compute(OpKernelContext* context) override {
    typename BoxDecoderOp<T>::Counts counts;
    Tensor* output = nullptr;
    // The text names the addition; so it is known.
    if (!this->Prepare(context,
                       {"anchors_heights", "anchors_heights_div_2", "anchors_heights_minus_div_2",
                        "anchors_widths", "anchors_widths_div_2", "anchors_widths_minus_div_2"},
                       "HAdd supports only rank 4 (Convolution result)", &counts, &output)) {
      return;
    }
    const DefaultFloatingPointScope scope;
    const auto data = [context](int i) { return context->input(i).flat<T>().data(); };
    HBboxDecoder4DFunctor<Device, T>()(
        context->eigen_device<Device>(), data(0), data(1), data(2), data(3), data(4), data(5),
        data(6), data(7), data(8), data(9), output->flat<T>().data(), counts.n, counts.h, counts.w,
        counts.anchors, this->accumulator_size_, context->input(10).flat<int8_t>().data(),
        this->use_fp16_acc_);
  }
};

REGISTER_KERNEL_BUILDER(
    Name("HBboxDecoder").Device(tensorflow::DEVICE_CPU).TypeConstraint<float>("T"),
    HBboxDecoderOp<CPUDevice, float>);
REGISTER_KERNEL_BUILDER(
    Name("HBboxDecoder").Device(tensorflow::DEVICE_CPU).TypeConstraint<int32_t>("T"),
    HBboxDecoderOp<CPUDevice, int32>);

}  // namespace bitfold
