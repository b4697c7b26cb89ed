// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What the two box decoders do around their arithmetic.

#ifndef BITFOLD_SRC_OPS_BOX_DECODER_OP_H_
#define BITFOLD_SRC_OPS_BOX_DECODER_OP_H_

#include <cstdint>
#include <optional>
#include <vector>

#include "bitfold/HBboxDecoder.h"
#include "frame/op_frame.h"
#include "tensorflow/core/framework/op_kernel.h"
#include "tensorflow/core/framework/shape_inference.h"
#include "tensorflow/core/platform/logging.h"

namespace bitfold {

// Four corners for each pair: the shape of input 0, which must have rank 4, with twice the last
// dimension.
inline absl::Status DoubleLastDimension(tensorflow::shape_inference::InferenceContext* c) {
  tensorflow::shape_inference::ShapeHandle in;
  TF_RETURN_IF_ERROR(c->WithRank(c->input(0), 4, &in));
  tensorflow::shape_inference::DimensionHandle corners;
  TF_RETURN_IF_ERROR(c->Multiply(c->Dim(in, 3), 2, &corners));
  c->set_output(0, c->MakeShape({c->Dim(in, 0), c->Dim(in, 1), c->Dim(in, 2), corners}));
  return absl::OkStatus();
}

// A decoder whose inputs are the detections' centres and sizes, the centres of rows and columns,
// numbers for each anchor, and mult_shift.
template <typename T>
class BoxDecoderOp : public AdditionOp<T> {
 public:
  explicit BoxDecoderOp(tensorflow::OpKernelConstruction* context) : AdditionOp<T>(context) {}

 protected:
  // Checks everything that will be read and allocates output 0, the unwritten part of it zeroed.
  // Returns where to compute; an odd last dimension loses its last element. Nothing when there is
  // nothing to compute: the call has failed, the output is empty or, for another rank than 4, has
  // logged rank_message.
  // `anchor_inputs` are the names from input 4 on.
  std::optional<DetectionGrid> Prepare(tensorflow::OpKernelContext* context,
                                       const std::vector<const char*>& anchor_inputs,
                                       const char* rank_message) {
    const tensorflow::Tensor& centers = context->input(0);
    const bool supported = centers.dims() == 4;
    const absl::Status checked = supported ? Check(context, anchor_inputs) : CheckRank(centers);
    if (!checked.ok()) {
      context->CtxFailure(checked);
      return std::nullopt;
    }
    tensorflow::Tensor* output = nullptr;
    const absl::Status allocated = AllocateOutput(context, &output);
    if (!allocated.ok()) {
      context->CtxFailure(allocated);
      return std::nullopt;
    }
    if (!supported) {
      ZeroFill(output, 0);
      LOG(ERROR) << rank_message;
      return std::nullopt;
    }
    const auto size = [&centers](int i) { return static_cast<int32_t>(centers.dim_size(i)); };
    const DetectionGrid grid{size(0), size(1), size(2), size(3) / 2};
    if (IsEmpty(*output)) return std::nullopt;
    ZeroFill(output, int64_t{4} * grid.anchors * grid.images * grid.rows * grid.columns);
    return grid;
  }

 private:
  static absl::Status CheckRank(const tensorflow::Tensor& centers) {
    if (centers.dims() > 4) return RequireInt32Dimensions("detection_centers", centers);
    return absl::InvalidArgumentError(
        absl::StrCat("Need detection_centers of rank 4, got rank ", centers.dims()));
  }

  // Of twice the last dimension of the centres.
  static absl::Status AllocateOutput(tensorflow::OpKernelContext* context,
                                     tensorflow::Tensor** output) {
    tensorflow::TensorShape shape = context->input(0).shape();
    TF_RETURN_IF_ERROR(shape.SetDimWithStatus(3, 2 * shape.dim_size(3)));
    return context->allocate_output(0, shape, output);
  }

  static absl::Status Check(tensorflow::OpKernelContext* context,
                            const std::vector<const char*>& anchor_inputs) {
    const tensorflow::Tensor& centers = context->input(0);
    TF_RETURN_IF_ERROR(RequireInt32Dimensions("detection_centers", centers));
    const int64_t h = centers.dim_size(1);
    const int64_t w = centers.dim_size(2);
    const int64_t anchors = centers.dim_size(3) / 2;
    const int64_t pairs = SaturatingProduct({centers.dim_size(0), h, w, 2 * anchors});
    TF_RETURN_IF_ERROR(RequireElements("detection_w_h", context->input(1), pairs,
                                       "a pair for each anchor of each position"));
    TF_RETURN_IF_ERROR(RequireElements("y_centers", context->input(2),
                                       SaturatingProduct({h, 2 * anchors}),
                                       "a pair for each anchor of each row"));
    TF_RETURN_IF_ERROR(RequireElements("x_centers", context->input(3),
                                       SaturatingProduct({w, 2 * anchors}),
                                       "a pair for each anchor of each column"));
    int input = 4;
    for (const char* name : anchor_inputs) {
      TF_RETURN_IF_ERROR(
          RequireElements(name, context->input(input++), anchors, "one for each anchor"));
    }
    return RequireScalar("mult_shift", context->input(input));
  }
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_OPS_BOX_DECODER_OP_H_
