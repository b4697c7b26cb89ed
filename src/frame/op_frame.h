// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// What every op does around its arithmetic, written once: reading the shared attributes, checking
// that the inputs hold what will be read, and zero-filling what stays unwritten. Refusals read
// "Need <what is needed>, got <what came>".

#ifndef BITFOLD_SRC_FRAME_OP_FRAME_H_
#define BITFOLD_SRC_FRAME_OP_FRAME_H_

#include <cstdint>
#include <initializer_list>
#include <type_traits>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/string_view.h"
#include "bitfold/accumulator.h"
#include "bitfold/datapath_attributes.h"
#include "tensorflow/core/framework/op_kernel.h"
#include "tensorflow/core/framework/tensor.h"
#include "tensorflow/core/framework/tensor_shape.h"

namespace bitfold {

using CPUDevice = Eigen::ThreadPoolDevice;
using int32 = int32_t;  // kernels are registered under names like "HAddOp<CPUDevice, int32>"

// The device that a call runs on.
template <typename Device>
Device DeviceOf(tensorflow::OpKernelContext* context) {
  return context->eigen_device<Device>();
}

// The base of every op. Nothing that Run throws leaves Compute, above which no frame of the runtime
// expects it: memory that cannot be had is ResourceExhausted, any other exception Internal. What
// Run warns of is printed, or counted by op and node.
class GuardedOp : public tensorflow::OpKernel {
 public:
  explicit GuardedOp(tensorflow::OpKernelConstruction* context);

  void Compute(tensorflow::OpKernelContext* context) final;

 protected:
  virtual void Run(tensorflow::OpKernelContext* context) = 0;

 private:
  // Calls what may throw and reports it.
  template <typename Call>
  void Guard(tensorflow::OpKernelContext* context, Call call);

  bool is_counted_;  // whatever the process's setting
};

// Requires a width that int32 sums can model.
absl::Status RequireInt32AccumulatorSize(int32_t accumulator_size);

// An op with an accumulator. The constructor reads `accumulator_size` and refuses negative ones,
// and for int32 data those above 32, which no int32 sum can model. A derived constructor goes on
// only while context->status() is ok.
template <typename T>
class AccumulatorOp : public GuardedOp {
 public:
  explicit AccumulatorOp(tensorflow::OpKernelConstruction* context) : GuardedOp(context) {
    OP_REQUIRES_OK(context, context->GetAttr("accumulator_size", &accumulator_size_));
    OP_REQUIRES(context, accumulator_size_ >= 0,
                absl::InvalidArgumentError(
                    absl::StrCat("Need accumulator_size >= 0, got ", accumulator_size_)));
    if constexpr (std::is_same_v<T, int32_t>) {
      OP_REQUIRES_OK(context, RequireInt32AccumulatorSize(accumulator_size_));
    }
  }

 protected:
  int32_t accumulator_size_ = 0;
};

// An addition op: an accumulator and whether it is the half-precision one.
template <typename T>
class AdditionOp : public AccumulatorOp<T> {
 public:
  explicit AdditionOp(tensorflow::OpKernelConstruction* context) : AccumulatorOp<T>(context) {
    if (!context->status().ok()) return;
    OP_REQUIRES_OK(context, context->GetAttr("use_fp16_acc", &use_fp16_acc_));
  }

 protected:
  // Of a call with this input `mult_shift`.
  DatapathAttributes AttributesWith(const tensorflow::Tensor& mult_shift) const {
    return {this->accumulator_size_, mult_shift.flat<int8_t>().data(), use_fp16_acc_};
  }

  bool use_fp16_acc_ = false;
};

// Requires that `tensor` hold at least `needed` elements, `what` saying what they are.
absl::Status RequireElements(const char* input, const tensorflow::Tensor& tensor, int64_t needed,
                             absl::string_view what);

// Requires an element 0, which is all that is read of a scalar input.
absl::Status RequireScalar(const char* input, const tensorflow::Tensor& tensor);

// Requires a feed repeat for which the repeat loop ends: not NaN and at most 2^31. The tensor must
// have an element 0 in host memory.
absl::Status RequireFeedRepeat(const char* input, const tensorflow::Tensor& tensor);

// What the scalars of an addition require: element 0 of each, and on the CPU, where it can be read,
// a feed repeat that ends.
template <typename Device>
absl::Status RequireAdditionScalars(const char* factor_name, const tensorflow::Tensor& factor,
                                    const char* feed_repeat_name,
                                    const tensorflow::Tensor& feed_repeat,
                                    const tensorflow::Tensor& mult_shift) {
  TF_RETURN_IF_ERROR(RequireScalar(factor_name, factor));
  TF_RETURN_IF_ERROR(RequireScalar(feed_repeat_name, feed_repeat));
  TF_RETURN_IF_ERROR(RequireScalar("mult_shift", mult_shift));
  if constexpr (std::is_same_v<Device, CPUDevice>) {
    TF_RETURN_IF_ERROR(RequireFeedRepeat(feed_repeat_name, feed_repeat));
  }
  return absl::OkStatus();
}

// Requires every dimension to be at most 2^31 - 1, as the arithmetic takes them.
absl::Status RequireInt32Dimensions(const char* input, const tensorflow::Tensor& tensor);

// Requires at most 2^31 - 1 elements, as the units that count them in 32 bits take them.
absl::Status RequireInt32Elements(const char* input, const tensorflow::Tensor& tensor);

// Whether a tensor has no elements, however large its other dimensions: nothing is to be computed.
inline bool IsEmpty(const tensorflow::Tensor& tensor) { return tensor.NumElements() == 0; }

// Inputs without elements can ask for outputs of any size. Requires of one that it hold at most
// 2^28 elements.
absl::Status RequireModestOutput(const tensorflow::TensorShape& output);

// The product of sizes >= 0; INT64_MAX where it would overflow.
int64_t SaturatingProduct(std::initializer_list<int64_t> sizes);

// The memory of a tensor from element `first` on, which may be negative or beyond the end.
struct BytesFrom {
  char* data = nullptr;
  size_t count = 0;

  BytesFrom(tensorflow::Tensor* tensor, int64_t first);
};

// Zeroes the elements from `first` on, so that what an op leaves unwritten shows no stale memory.
// `first` may be negative or beyond the end.
void ZeroFill(tensorflow::Tensor* tensor, int64_t first);

// The same where a device is at hand; ops/gpu_device.h has the form for a GPU.
absl::Status ZeroFill(const CPUDevice& device, tensorflow::Tensor* tensor, int64_t first);

}  // namespace bitfold

#endif  // BITFOLD_SRC_FRAME_OP_FRAME_H_
