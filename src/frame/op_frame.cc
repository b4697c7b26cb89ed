// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "frame/op_frame.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <limits>
#include <new>
#include <stdexcept>

#include "absl/strings/str_format.h"
#include "bitfold/repeated_addition.h"
#include "bitfold/warning.h"
#include "frame/warning_store.h"

namespace bitfold {

using tensorflow::Tensor;

BytesFrom::BytesFrom(Tensor* tensor, int64_t first) {
  first = std::max<int64_t>(first, 0);
  if (first >= tensor->NumElements()) return;
  const size_t element = tensor->TotalBytes() / static_cast<size_t>(tensor->NumElements());
  data = static_cast<char*>(tensor->data()) + static_cast<size_t>(first) * element;
  count = tensor->TotalBytes() - static_cast<size_t>(first) * element;
}

GuardedOp::GuardedOp(tensorflow::OpKernelConstruction* context)
    : OpKernel(context), is_counted_(IsCountedNode(name())) {}

void GuardedOp::Compute(tensorflow::OpKernelContext* context) {
  BitfoldWarningCounts counts{};
  Guard(context, [&] {
    const WarningScope scope(is_counted_ || WarningsAreCounted() ? &counts : nullptr);
    Run(context);
  });
  if (!HasCounts(counts)) return;
  Guard(context, [&] { RecordWarnings(type_string(), name(), counts); });
}

template <typename Call>
void GuardedOp::Guard(tensorflow::OpKernelContext* context, Call call) {
  const auto no_memory = [this] {
    return absl::ResourceExhaustedError(
        absl::StrCat("No memory for ", type_string_view(), " in node ", name_view()));
  };
  try {
    try {
      call();
    } catch (const std::bad_alloc&) {
      context->CtxFailure(no_memory());
    } catch (const std::length_error&) {
      context->CtxFailure(no_memory());
    } catch (const std::exception& error) {
      context->CtxFailure(absl::InternalError(
          absl::StrCat(type_string_view(), " in node ", name_view(), " failed: ", error.what())));
    }
  } catch (const std::bad_alloc&) {  // not even for the text
    context->SetStatus(absl::Status(absl::StatusCode::kResourceExhausted, ""));
  }
}

absl::Status RequireInt32AccumulatorSize(int32_t accumulator_size) {
  if (accumulator_size <= kMaxInt32AccumulatorSize) return absl::OkStatus();
  return absl::InvalidArgumentError(
      absl::StrCat("Need accumulator_size <= ", kMaxInt32AccumulatorSize, " for int32 data, got ",
                   accumulator_size));
}

absl::Status RequireElements(const char* input, const Tensor& tensor, int64_t needed,
                             absl::string_view what) {
  if (tensor.NumElements() >= needed) return absl::OkStatus();
  return absl::InvalidArgumentError(absl::StrCat(
      "Need ", input, " to hold at least ", needed, needed == 1 ? " element (" : " elements (",
      what, "), got ", tensor.NumElements(), " in shape ", tensor.shape().DebugString()));
}

absl::Status RequireScalar(const char* input, const Tensor& tensor) {
  return RequireElements(input, tensor, 1, "its element 0 is read");
}

absl::Status RequireFeedRepeat(const char* input, const Tensor& tensor) {
  const float feed_repeat = tensor.flat<float>()(0);
  if (feed_repeat <= kMaxFeedRepeat) return absl::OkStatus();  // false for NaN
  return absl::InvalidArgumentError(
      absl::StrFormat("Need %s to be a number of repeats of at most 2^31 = 2147483648, got %.9g",
                      input, feed_repeat));
}

absl::Status RequireInt32Dimensions(const char* input, const Tensor& tensor) {
  for (const int64_t size : tensor.shape().dim_sizes()) {
    if (size > std::numeric_limits<int32_t>::max()) {
      return absl::InvalidArgumentError(absl::StrCat("Need every dimension of ", input,
                                                     " to be at most 2147483647, got shape ",
                                                     tensor.shape().DebugString()));
    }
  }
  return absl::OkStatus();
}

absl::Status RequireInt32Elements(const char* input, const Tensor& tensor) {
  if (tensor.NumElements() <= std::numeric_limits<int32_t>::max()) return absl::OkStatus();
  return absl::InvalidArgumentError(absl::StrCat(
      "Need ", input, " to hold at most 2147483647 elements, got ", tensor.NumElements()));
}

absl::Status RequireModestOutput(const tensorflow::TensorShape& output) {
  constexpr int64_t kMost = int64_t{1} << 28;
  if (output.num_elements() <= kMost) return absl::OkStatus();
  return absl::InvalidArgumentError(absl::StrCat(
      "Need an output of at most ", kMost,
      " elements where an input without elements is all there is to compute from, got shape ",
      output.DebugString()));
}

int64_t SaturatingProduct(std::initializer_list<int64_t> sizes) {
  if (std::find(sizes.begin(), sizes.end(), 0) != sizes.end()) return 0;
  int64_t product = 1;
  for (const int64_t size : sizes) {
    if (__builtin_mul_overflow(product, size, &product)) {
      return std::numeric_limits<int64_t>::max();
    }
  }
  return product;
}

void ZeroFill(Tensor* tensor, int64_t first) {
  const BytesFrom rest(tensor, first);
  if (rest.count > 0) std::memset(rest.data, 0, rest.count);
}

absl::Status ZeroFill(const CPUDevice&, Tensor* tensor, int64_t first) {
  ZeroFill(tensor, first);
  return absl::OkStatus();
}

}  // namespace bitfold
