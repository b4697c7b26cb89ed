// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#define EIGEN_USE_THREADS

#include "bitfold/HPreparedMatmul.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "absl/strings/str_cat.h"
#include "absl/strings/str_format.h"
#include "cpu/prepared_matmul.h"
#include "frame/floating_point_scope.h"
#include "frame/op_frame.h"
#include "frame/op_registration.h"
#include "frame/op_workers.h"
#include "ops/common_shape.h"
#include "ops/prepared_attributes.h"
#include "ops/requantise_attributes.h"
#include "tensorflow/core/framework/common_shape_fns.h"
#include "tensorflow/core/framework/op.h"
#include "tensorflow/core/framework/op_kernel.h"
#include "tensorflow/core/framework/shape_inference.h"
#include "tensorflow/core/framework/tensor_util.h"

namespace bitfold {

using tensorflow::OpKernelConstruction;
using tensorflow::OpKernelContext;
using tensorflow::Tensor;
using tensorflow::TensorShape;
using tensorflow::shape_inference::DimensionHandle;
using tensorflow::shape_inference::InferenceContext;
using tensorflow::shape_inference::ShapeHandle;

namespace {

// Sizes, and sums of them, stay far from 2^31.
constexpr int64_t kLargestSize = 1 << 28;

absl::Status InferShape(InferenceContext* c) {
  bool transposed[2];
  TF_RETURN_IF_ERROR(c->GetAttr("transpose_first", &transposed[0]));
  TF_RETURN_IF_ERROR(c->GetAttr("transpose_second", &transposed[1]));
  ShapeHandle unused;
  TF_RETURN_IF_ERROR(c->WithRank(c->input(2), 1, &unused));
  ShapeHandle fronts[2];
  DimensionHandle sizes[2][2];  // as they are multiplied
  for (const int i : {0, 1}) {
    ShapeHandle operand;
    TF_RETURN_IF_ERROR(c->WithRankAtLeast(c->input(i), 2, &operand));
    TF_RETURN_IF_ERROR(c->Subshape(operand, 0, -2, &fronts[i]));
    for (const int k : {0, 1}) sizes[i][transposed[i] ? 1 - k : k] = c->Dim(operand, k - 2);
  }
  DimensionHandle inner;
  TF_RETURN_IF_ERROR(c->Merge(sizes[0][1], sizes[1][0], &inner));
  ShapeHandle front;
  TF_RETURN_IF_ERROR(tensorflow::shape_inference::BroadcastBinaryOpOutputShapeFnHelper(
      c, fronts[0], fronts[1], true, &front));
  ShapeHandle output;
  TF_RETURN_IF_ERROR(c->Concatenate(front, c->Matrix(sizes[0][0], sizes[1][1]), &output));
  c->set_output(0, output);
  return absl::OkStatus();
}

// The leading dimensions of matrices.
std::vector<int64_t> FrontOf(const Tensor& tensor) {
  std::vector<int64_t> sizes = SizesOf(tensor);
  sizes.resize(sizes.size() - 2);
  return sizes;
}

absl::Status CheckRanks(const Tensor& first, const Tensor& second) {
  if (first.dims() >= 2 && second.dims() >= 2) return absl::OkStatus();
  return absl::InvalidArgumentError(absl::StrCat("Need operands of rank 2 or above, got shapes ",
                                                 first.shape().DebugString(), " and ",
                                                 second.shape().DebugString()));
}

}  // namespace

BITFOLD_WHEN_LOADED(RegisterOp) {
  REGISTER_OP("HPreparedMatmul")
      .Attr("T: {int8, int16}")
      .Attr("T_out: {int8, int16}")
      .Input("first: T")
      .Input("second: T")
      .Input("multipliers: double")
      .Output("output: T_out")
      .Attr("transpose_first: bool")
      .Attr("transpose_second: bool")
      .Attr("first_zero_point: int")
      .Attr("second_zero_point: int")
      .Attr("accumulator_size: int")
      .Attr("mult_shift: int")
      .Attr("use_fp16_acc: bool")
      .Attr(kRoundingAttribute)
      .Attr("zero_point: int")
      .Attr("minimum: int")
      .Attr("maximum: int")
      .SetShapeFn(InferShape);
}

// What does not depend on the operands' numbers is made at the first call and kept; calls that
// bring the same sizes and multipliers use it again.
template <typename In, typename Out>
class HPreparedMatmulOp : public AccumulatorOp<int32_t> {
 public:
  explicit HPreparedMatmulOp(OpKernelConstruction* context) : AccumulatorOp<int32_t>(context) {
    if (!context->status().ok()) return;
    OP_REQUIRES_OK(context, context->GetAttr("transpose_first", &shared_.transpose_first));
    OP_REQUIRES_OK(context, context->GetAttr("transpose_second", &shared_.transpose_second));
    OP_REQUIRES_OK(context,
                   GetInputZeroPoint<In>(context, "first_zero_point", &shared_.first_zero_point));
    OP_REQUIRES_OK(context,
                   GetInputZeroPoint<In>(context, "second_zero_point", &shared_.second_zero_point));
    PreparedArithmetic& arithmetic = shared_.arithmetic;
    arithmetic.accumulator_size = accumulator_size_;
    OP_REQUIRES_OK(context,
                   GetPreparedArithmetic(context, tensorflow::DataTypeToEnum<Out>::value,
                                         &arithmetic.use_fp16_acc, &arithmetic.requantise));
  }

  void Run(OpKernelContext* context) override {
    const Tensor& first = context->input(0);
    const Tensor& second = context->input(1);
    OP_REQUIRES_OK(context, CheckRanks(first, second));
    const std::vector<int64_t> fronts[2] = {FrontOf(first), FrontOf(second)};
    OP_REQUIRES(context, HaveCommonShape(fronts[0], fronts[1]),
                absl::InvalidArgumentError(absl::StrCat(
                    "Need leading dimensions that broadcast to each other, got shapes ",
                    first.shape().DebugString(), " and ", second.shape().DebugString())));
    TensorShape shape;
    OP_REQUIRES_OK(context, CommonShape(fronts[0], fronts[1], &shape));
    PreparedProduct product = shared_;
    OP_REQUIRES_OK(context, Describe(context, &product));
    OP_REQUIRES_OK(context, shape.AddDimWithStatus(product.rows));
    OP_REQUIRES_OK(context, shape.AddDimWithStatus(product.cols));
    if (product.inner == 0) OP_REQUIRES_OK(context, RequireModestOutput(shape));
    Tensor* output = nullptr;
    OP_REQUIRES_OK(context, context->allocate_output(0, shape, &output));
    if (IsEmpty(*output)) return;

    const DefaultFloatingPointScope scope;
    const std::shared_ptr<const Held> held = Hold(product, context->input(2));
    // A matrix that is the second operand of all meets all rows in one product.
    const Broadcast pairs = fronts[1].empty() ? Broadcast{} : MakeBroadcast(fronts[0], fronts[1]);
    OpWorkers workers(context);
    held->matmul->Run(
        {first.flat<In>().data(), second.flat<In>().data(), output->flat<Out>().data(), &pairs},
        &workers);
  }

 private:
  using Matmul = PreparedMatmul<In, Out>;

  struct Held {
    Tensor multipliers;  // the kernel's own
    std::unique_ptr<const Matmul> matmul;

    bool IsOf(const PreparedProduct& product, const Tensor& given) const {
      const PreparedProduct& own = matmul->product();
      return own.matrices == product.matrices && own.rows == product.rows &&
             own.inner == product.inner && own.cols == product.cols &&
             multipliers.shape() == given.shape() &&
             multipliers.tensor_data() == given.tensor_data();
    }
  };

  std::shared_ptr<const Held> Hold(const PreparedProduct& product, const Tensor& multipliers) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (held_ == nullptr || !held_->IsOf(product, multipliers)) {
      held_ = std::make_shared<const Held>(
          Held{tensorflow::tensor::DeepCopy(multipliers), std::make_unique<const Matmul>(product)});
    }
    return held_;
  }

  // The product points to the multipliers.
  absl::Status Describe(OpKernelContext* context, PreparedProduct* product) const {
    const Tensor& first = context->input(0);
    const Tensor& second = context->input(1);
    const Tensor& multipliers = context->input(2);
    const auto size = [](const Tensor& operand, bool is_last) {
      return operand.dim_size(operand.dims() - (is_last ? 1 : 2));
    };
    const int64_t rows = size(first, product->transpose_first);
    const int64_t inner = size(first, !product->transpose_first);
    const int64_t second_inner = size(second, product->transpose_second);
    const int64_t cols = size(second, !product->transpose_second);
    if (inner != second_inner) {
      return absl::InvalidArgumentError(absl::StrCat(
          "Need one inner dimension, got ", inner, " and ", second_inner, " of shapes ",
          first.shape().DebugString(), " and ", second.shape().DebugString()));
    }
    int64_t matrices = 1;
    if (second.dims() == 2) {
      for (const int64_t n : FrontOf(first)) matrices = SaturatingProduct({matrices, n});
    }
    TF_RETURN_IF_ERROR(CheckSizes({matrices, rows, inner, cols}));
    TF_RETURN_IF_ERROR(CheckMultipliers(product->arithmetic.requantise, multipliers, cols));
    product->matrices = static_cast<int32_t>(matrices);
    product->rows = static_cast<int32_t>(rows);
    product->inner = static_cast<int32_t>(inner);
    product->cols = static_cast<int32_t>(cols);
    product->multipliers = multipliers.flat<double>().data();
    product->per_channel = multipliers.NumElements() > 1;
    return absl::OkStatus();
  }

  // Matrices, rows, inner and columns, whose products are no larger either.
  static absl::Status CheckSizes(const std::vector<int64_t>& sizes) {
    constexpr int64_t kMost = int64_t{1} << 31;
    const int64_t rows = SaturatingProduct({sizes[0], sizes[1]});
    const bool fits = *std::max_element(sizes.begin(), sizes.end()) <= kLargestSize &&
                      rows <= kLargestSize && SaturatingProduct({rows, sizes[2]}) < kMost &&
                      SaturatingProduct({sizes[2], sizes[3]}) < kMost &&
                      SaturatingProduct({rows, sizes[3]}) < kMost;
    if (fits) return absl::OkStatus();
    return absl::InvalidArgumentError(absl::StrFormat(
        "Need sizes of at most %d and fewer than 2^31 elements of an operand and a product, got "
        "%d rows, an inner dimension of %d and %d columns",
        kLargestSize, rows, sizes[2], sizes[3]));
  }

  PreparedProduct shared_ = {};  // but for the sizes and the multipliers

  std::mutex mutex_;
  std::shared_ptr<const Held> held_;
};

BITFOLD_WHEN_LOADED(RegisterKernels) {
#define BITFOLD_REGISTER_TYPES(In, Out)                       \
  REGISTER_KERNEL_BUILDER(Name("HPreparedMatmul")             \
                              .Device(tensorflow::DEVICE_CPU) \
                              .TypeConstraint<In>("T")        \
                              .TypeConstraint<Out>("T_out"),  \
                          HPreparedMatmulOp<In, Out>)
  BITFOLD_REGISTER_TYPES(int8_t, int8_t);
  BITFOLD_REGISTER_TYPES(int8_t, int16_t);
  BITFOLD_REGISTER_TYPES(int16_t, int8_t);
  BITFOLD_REGISTER_TYPES(int16_t, int16_t);
#undef BITFOLD_REGISTER_TYPES
}

}  // namespace bitfold
