// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#define EIGEN_USE_THREADS

#include "bitfold/HStoredLookup.h"

#include <cstdint>

#include "absl/strings/str_cat.h"
#include "cpu/stored_lookup.h"
#include "frame/op_frame.h"
#include "frame/op_registration.h"
#include "frame/op_workers.h"
#include "tensorflow/core/framework/common_shape_fns.h"
#include "tensorflow/core/framework/op.h"
#include "tensorflow/core/framework/op_kernel.h"

namespace bitfold {

using tensorflow::DataType;
using tensorflow::OpKernelConstruction;
using tensorflow::OpKernelContext;
using tensorflow::Tensor;
using tensorflow::shape_inference::InferenceContext;
using tensorflow::shape_inference::ShapeHandle;

namespace {

int64_t EntriesFor(DataType type) {
  return type == tensorflow::DT_INT16 ? kTableEntries<int16_t> : kTableEntries<int8_t>;
}

// What is needed of a table of rank 1, both where shapes are inferred and where the op runs.
absl::Status CheckEntries(DataType type, int64_t entries) {
  if (entries == EntriesFor(type)) return absl::OkStatus();
  return absl::InvalidArgumentError(absl::StrCat("Need a table of ", EntriesFor(type),
                                                 " entries for ", DataTypeString(type), ", got ",
                                                 entries));
}

}  // namespace

BITFOLD_WHEN_LOADED(RegisterOp) {
  REGISTER_OP("HStoredLookup")
      .Attr("T: {int8, uint8, int16}")
      .Attr("T_out: {int8, uint8, int16}")
      .Input("data: T")
      .Input("table: T_out")
      .Output("output: T_out")
      .SetShapeFn([](InferenceContext* context) {
        DataType type;
        TF_RETURN_IF_ERROR(context->GetAttr("T", &type));
        ShapeHandle table;
        TF_RETURN_IF_ERROR(context->WithRank(context->input(1), 1, &table));
        context->set_output(0, context->input(0));
        const auto entries = context->Dim(table, 0);
        if (!context->ValueKnown(entries)) return absl::OkStatus();
        return CheckEntries(type, context->Value(entries));
      });
}

template <typename Device>
class HStoredLookupOp : public GuardedOp {
 public:
  explicit HStoredLookupOp(OpKernelConstruction* context) : GuardedOp(context) {
    OP_REQUIRES_OK(context, context->GetAttr("T", &type_));
    OP_REQUIRES_OK(context, context->GetAttr("T_out", &output_type_));
  }

  void Run(OpKernelContext* context) override {
    if (type_ == tensorflow::DT_INT8) return RunFrom<int8_t>(context);
    if (type_ == tensorflow::DT_UINT8) return RunFrom<uint8_t>(context);
    RunFrom<int16_t>(context);
  }

 private:
  template <typename T>
  void RunFrom(OpKernelContext* context) {
    if (output_type_ == tensorflow::DT_INT8) return RunFromTo<T, int8_t>(context);
    if (output_type_ == tensorflow::DT_UINT8) return RunFromTo<T, uint8_t>(context);
    RunFromTo<T, int16_t>(context);
  }

  template <typename T, typename Out>
  void RunFromTo(OpKernelContext* context) {
    const Tensor& data = context->input(0);
    const Tensor& table = context->input(1);
    OP_REQUIRES(context, table.dims() == 1,
                absl::InvalidArgumentError(absl::StrCat("Need a table of rank 1, got shape ",
                                                        table.shape().DebugString())));
    OP_REQUIRES_OK(context, CheckEntries(type_, table.NumElements()));
    Tensor* output = nullptr;
    OP_REQUIRES_OK(context, context->allocate_output(0, data.shape(), &output));
    if (IsEmpty(*output)) return;
    OpWorkers workers(context);
    ComputeStoredLookup<T, Out>({data.flat<T>().data(), output->flat<Out>().data(),
                                 data.NumElements(), table.flat<Out>().data()},
                                &workers);
  }

  DataType type_;
  DataType output_type_;
};

BITFOLD_WHEN_LOADED(RegisterKernels) {
  REGISTER_KERNEL_BUILDER(Name("HStoredLookup").Device(tensorflow::DEVICE_CPU),
                          HStoredLookupOp<CPUDevice>);
}

}  // namespace bitfold
