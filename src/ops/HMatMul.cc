// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#define EIGEN_USE_THREADS

#include "bitfold/HMatMul.h"

#include <cstdint>
#include <memory>

#include "bitfold/fpx.h"
#include "cpu/matmul.h"
#include "frame/floating_point_scope.h"
#include "frame/log.h"
#include "frame/op_frame.h"
#include "frame/op_registration.h"
#include "frame/op_scratch.h"
#include "frame/op_workers.h"
#include "tensorflow/core/framework/common_shape_fns.h"
#include "tensorflow/core/framework/op.h"
#include "tensorflow/core/framework/op_kernel.h"

namespace bitfold {

using tensorflow::OpKernelConstruction;
using tensorflow::OpKernelContext;
using tensorflow::Tensor;
using tensorflow::shape_inference::InferenceContext;
using tensorflow::shape_inference::ShapeHandle;

BITFOLD_WHEN_LOADED(RegisterOp) {
  REGISTER_OP("HMatmul")
      .Input("a: T")
      .Input("b: T")
      .Input("mult_shift: int8")
      .Output("product: T")
      .Attr("transpose_a: bool = false")
      .Attr("transpose_b: bool = false")
      .Attr("accumulator_size: int")
      .Attr("T: {float, int32}")
      .Attr("use_fp16_acc: bool = false")
      .Attr("adj_x: bool = false")
      .Attr("adj_y: bool = false")
      .SetShapeFn([](InferenceContext* c) {
        ShapeHandle a;
        return c->WithRank(c->input(0), 2, &a).ok()
                   ? tensorflow::shape_inference::MatMulShape(c)
                   : tensorflow::shape_inference::BatchMatMulShape(c);
      });
}

// The transpositions exist for the shape functions alone: the kernel never reads them.
template <typename T>
class HMatMulOp : public AdditionOp<T> {
 public:
  explicit HMatMulOp(OpKernelConstruction* context) : AdditionOp<T>(context) {}

  void Run(OpKernelContext* context) override {
    g_resizeX_uf = 0;
    g_resizeX_of = 0;
    g_32toX_uf = 0;
    g_32toX_of = 0;
    const Tensor& a = context->input(0);
    const Tensor& b = context->input(1);
    const Tensor& mult_shift = context->input(2);
    OP_REQUIRES_OK(context, CheckRanks(a, b));
    OP_REQUIRES_OK(context, RequireScalar("mult_shift", mult_shift));
    const int64_t inner = a.dim_size(a.dims() - 1);
    const int64_t rows = a.dim_size(a.dims() - 2);
    const int64_t cols = b.dim_size(b.dims() - 1);
    const int64_t b_rows = b.dim_size(b.dims() - 2);
    // Of the leading dimensions the first alone counts.
    const int64_t batch = a.dims() == 2 ? 1 : a.dim_size(0);
    tensorflow::TensorShape shape = a.shape();
    OP_REQUIRES_OK(context, shape.SetDimWithStatus(b.dims() - 1, cols));
    if (inner == b_rows) OP_REQUIRES_OK(context, CheckMatrices(context, batch, shape));
    if (IsEmpty(a) || IsEmpty(b)) {
      OP_REQUIRES_OK(context, RequireModestOutput(shape));
      if (inner != b_rows) OP_REQUIRES_OK(context, RequireFewMismatches(batch));
    }

    Tensor* product = nullptr;
    OP_REQUIRES_OK(context, context->allocate_output(0, shape, &product));
    if (inner != b_rows || inner == 0) ZeroFill(product, 0);
    if (inner != b_rows) {
      for (int64_t i = 0; i < batch; ++i) LogMismatch(inner, b_rows);
      return;
    }
    if (IsEmpty(*product) || inner == 0) return;
    ZeroFill(product, batch * rows * cols);
    const MatMulCall<T> call = {
        a.flat<T>().data(),
        b.flat<T>().data(),
        product->flat<T>().data(),
        static_cast<int32_t>(rows),
        static_cast<int32_t>(inner),
        static_cast<int32_t>(cols),
        {this->accumulator_size_, mult_shift.flat<int8_t>().data(), this->use_fp16_acc_}};
    const DefaultFloatingPointScope scope;
    OpWorkers workers(context);
    ComputeMatMul(
        call, static_cast<int32_t>(batch),
        [context] { return std::make_unique<OpScratch>(context); }, &workers);
  }

 private:
  // For an entry of the batch, which stays zero.
  static void LogMismatch(int64_t inner, int64_t b_rows) {
    LogError(absl::StrCat("input and kernel dimensions does not match for matrix mul. dataSizeX=",
                          inner, "\tkernelSizeY=", b_rows));
  }

  // Requires that the inputs and the product hold the batch.
  static absl::Status CheckMatrices(OpKernelContext* context, int64_t batch,
                                    const tensorflow::TensorShape& product) {
    const Tensor& a = context->input(0);
    const Tensor& b = context->input(1);
    const int64_t inner = a.dim_size(a.dims() - 1);
    const int64_t rows = a.dim_size(a.dims() - 2);
    const int64_t cols = b.dim_size(b.dims() - 1);
    constexpr char kWhat[] = "a matrix for each entry of the batch";
    TF_RETURN_IF_ERROR(RequireElements("a", a, SaturatingProduct({batch, rows, inner}), kWhat));
    TF_RETURN_IF_ERROR(RequireElements("b", b, SaturatingProduct({batch, inner, cols}), kWhat));
    if (product.num_elements() >= SaturatingProduct({batch, rows, cols})) return absl::OkStatus();
    return absl::InvalidArgumentError(absl::StrCat(
        "Need a and b of ranks that let the product hold ", batch, " matrices of ", rows, " x ",
        cols, ", got shapes ", a.shape().DebugString(), " and ", b.shape().DebugString(),
        ", whose product has the shape ", product.DebugString()));
  }

  // Each entry logs a line, and without elements nothing bounds their number.
  static absl::Status RequireFewMismatches(int64_t batch) {
    constexpr int64_t kMost = 65536;
    if (batch <= kMost) return absl::OkStatus();
    return absl::InvalidArgumentError(absl::StrCat(
        "Need a batch of at most ", kMost,
        " where inputs without elements differ in their inner dimensions, got ", batch));
  }

  static absl::Status CheckRanks(const Tensor& a, const Tensor& b) {
    if (a.dims() < 2 || b.dims() < 2 || b.dims() > a.dims()) {
      return absl::InvalidArgumentError(
          absl::StrCat("Need a and b of rank 2 or above, b of no more than a, got ranks ", a.dims(),
                       " and ", b.dims()));
    }
    TF_RETURN_IF_ERROR(RequireInt32Dimensions("a", a));
    return RequireInt32Dimensions("b", b);
  }
};

BITFOLD_WHEN_LOADED(RegisterKernels) {
  REGISTER_KERNEL_BUILDER(Name("HMatmul").Device(tensorflow::DEVICE_CPU).TypeConstraint<float>("T"),
                          HMatMulOp<float>);
  REGISTER_KERNEL_BUILDER(
      Name("HMatmul").Device(tensorflow::DEVICE_CPU).TypeConstraint<int32_t>("T"),
      HMatMulOp<int32>);
}

}  // namespace bitfold
