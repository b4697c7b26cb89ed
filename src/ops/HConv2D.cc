// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#define EIGEN_USE_THREADS

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

#include "bitfold/convolution_call.h"
#include "bitfold/device_convolution.h"
#include "cpu/convolution.h"
#include "cpu/image_threads.h"
#include "device/launchers.h"
#include "frame/op_frame.h"
#include "frame/op_registration.h"
#include "frame/op_scratch.h"
#include "frame/op_workers.h"
#include "frame/thread_setting.h"
#include "ops/gpu_device.h"
#include "tensorflow/core/framework/common_shape_fns.h"
#include "tensorflow/core/framework/op.h"
#include "tensorflow/core/framework/op_kernel.h"
#include "tensorflow/core/framework/shape_inference.h"
#include "tensorflow/core/util/padding.h"
#include "tensorflow/core/util/tensor_format.h"

namespace bitfold {

using tensorflow::OpKernelConstruction;
using tensorflow::OpKernelContext;
using tensorflow::Tensor;
using tensorflow::TensorShape;
using tensorflow::shape_inference::DimensionHandle;
using tensorflow::shape_inference::InferenceContext;
using tensorflow::shape_inference::ShapeHandle;

static_assert(static_cast<int>(Padding::kValid) == tensorflow::VALID &&
                  static_cast<int>(Padding::kSame) == tensorflow::SAME,
              "the runtime's padding converts by its value");

namespace {

// Strides and dilations along the two spatial axes, as the shape function reads them.
struct SpatialAttributes {
  int32_t rows;
  int32_t columns;
};

// The two values in the order of `format`. Requires 4 values.
SpatialAttributes Spatial(const std::vector<int32_t>& values, tensorflow::TensorFormat format) {
  if (format == tensorflow::FORMAT_NCHW) return {values[2], values[3]};
  return {values[1], values[2]};
}

absl::Status ReadFormat(InferenceContext* c, tensorflow::TensorFormat* format) {
  std::string name;
  TF_RETURN_IF_ERROR(c->GetAttr("data_format", &name));
  if (tensorflow::FormatFromString(name, format)) return absl::OkStatus();
  return absl::InvalidArgumentError(absl::StrCat("Invalid data format string: ", name));
}

// The runtime's depthwise rule, with the filter's dimensions one further on when it has more than
// four. The depth it infers is the input's times the filter's last dimension, whereas the kernel's
// is the last dimension alone: they agree for one input channel only. A filter [h, w, 1, C] on C
// channels does not even merge. The Python wrapper hides the filter's shape from this rule.
absl::Status DepthwiseConv2DNativeShapeLocalImpl(InferenceContext* c) {
  ShapeHandle input;
  ShapeHandle filter;
  TF_RETURN_IF_ERROR(c->WithRank(c->input(0), 4, &input));
  TF_RETURN_IF_ERROR(c->WithRankAtLeast(c->input(1), 4, &filter));
  const int leading = c->RankKnown(filter) && c->Rank(filter) > 4 ? 1 : 0;

  std::vector<int32_t> dilations;
  std::vector<int32_t> strides;
  TF_RETURN_IF_ERROR(c->GetAttr("dilations", &dilations));
  TF_RETURN_IF_ERROR(c->GetAttr("strides", &strides));
  if (strides.size() != 4) {
    return absl::InvalidArgumentError(
        absl::StrCat("DepthwiseConv2D requires the stride attribute to contain 4 values, but got: ",
                     strides.size()));
  }
  if (dilations.size() != 4) {
    return absl::InvalidArgumentError(absl::StrCat(
        "Conv2D requires the dilation attribute to contain 4 values, but got: ", dilations.size()));
  }

  tensorflow::TensorFormat format;
  TF_RETURN_IF_ERROR(ReadFormat(c, &format));
  const bool nchw = format == tensorflow::FORMAT_NCHW;
  const SpatialAttributes stride = Spatial(strides, format);
  const SpatialAttributes dilation = Spatial(dilations, format);
  const DimensionHandle in_rows = c->Dim(input, nchw ? 2 : 1);
  const DimensionHandle in_columns = c->Dim(input, nchw ? 3 : 2);

  DimensionHandle depth;
  TF_RETURN_IF_ERROR(c->Merge(c->Dim(input, nchw ? 1 : 3),
                              c->Dim(filter, get_filter_dim_in_channels(leading)), &depth));
  TF_RETURN_IF_ERROR(
      c->Multiply(depth, c->Dim(filter, get_filter_dim_out_channels(leading)), &depth));

  tensorflow::Padding padding;
  TF_RETURN_IF_ERROR(c->GetAttr("padding", &padding));
  // Explicit paddings; the attribute's values exclude them.
  constexpr int64_t kNone = -1;
  DimensionHandle rows;
  DimensionHandle columns;
  TF_RETURN_IF_ERROR(tensorflow::shape_inference::GetWindowedOutputSizeFromDimsV2(
      c, in_rows, c->Dim(filter, get_filter_dim_height(leading)), dilation.rows, stride.rows,
      padding, kNone, kNone, &rows));
  TF_RETURN_IF_ERROR(tensorflow::shape_inference::GetWindowedOutputSizeFromDimsV2(
      c, in_columns, c->Dim(filter, get_filter_dim_width(leading)), dilation.columns,
      stride.columns, padding, kNone, kNone, &columns));

  const DimensionHandle batch = c->Dim(input, 0);
  c->set_output(0, nchw ? c->MakeShape({batch, depth, rows, columns})
                        : c->MakeShape({batch, rows, columns, depth}));
  return absl::OkStatus();
}

}  // namespace

// The three ops differ in their name, the default of `is_depthwise` and the shape function.
#define BITFOLD_REGISTER_CONVOLUTION(name, is_depthwise, shape_function) \
  REGISTER_OP(name)                                                      \
      .Input("input: T")                                                 \
      .Input("filter: T")                                                \
      .Input("elementwise: T")                                           \
      .Input("mult_shift: int8")                                         \
      .Output("output: T")                                               \
      .Attr("T: {float, int32}")                                         \
      .Attr("strides: list(int)")                                        \
      .Attr("dilations: list(int)")                                      \
      .Attr("use_cudnn_on_gpu: bool = true")                             \
      .Attr(tensorflow::GetPaddingAttrString())                          \
      .Attr(tensorflow::GetConvnetDataFormatAttrString())                \
      .Attr("accumulator_size: int")                                     \
      .Attr("use_fp16_acc: bool = false")                                \
      .Attr("is_depthwise: bool = " is_depthwise)                        \
      .SetShapeFn(shape_function)

BITFOLD_WHEN_LOADED(RegisterOps) {
  BITFOLD_REGISTER_CONVOLUTION("HDepthWise", "true", DepthwiseConv2DNativeShapeLocalImpl);
  BITFOLD_REGISTER_CONVOLUTION("HConv2d", "false", tensorflow::shape_inference::Conv2DShape);
  BITFOLD_REGISTER_CONVOLUTION("HConv2dDilation", "false",
                               tensorflow::shape_inference::Conv2DShape);
}

#undef BITFOLD_REGISTER_CONVOLUTION

// A whole convolution on a device.
template <typename Device, typename T>
struct HConv2dFunctor;

template <typename T>
struct HConv2dFunctor<CPUDevice, T> {
  void operator()(OpKernelContext* context, const CPUDevice&,
                  const ConvolutionCall<T>& call) const {
    OpScratch scratch(context);
    if (ImageThreadsAreOn()) return ComputeByImageThreads(call, &scratch);
    OpWorkers workers(context);
    ComputeConvolution(call, &scratch, &workers);
  }
};

#ifdef BITFOLD_GPU

// Always the ordinary convolution with the first filter, whatever the call's is_depthwise and
// filters say. A failure is left in the context.
template <typename T>
struct HConv2dFunctor<GPUDevice, T> {
  void operator()(OpKernelContext* context, const GPUDevice& device,
                  const ConvolutionCall<T>& call) const {
    const DeviceConvolution sizes(call);
    if (!sizes.HasOutputs()) return;
    OP_REQUIRES_OK(context, Check(sizes));
    Tensor rows;
    OP_REQUIRES_OK(context, Allocate(context, sizes.row_elements(), &rows));
    LaunchKer2Row(device.stream, call, rows.flat<T>().data());
    Tensor columns;
    OP_REQUIRES_OK(context, Allocate(context, sizes.column_elements(), &columns));
    if (sizes.positions() < sizes.outputs()) OP_REQUIRES_OK(context, ZeroFill(device, &columns, 0));
    LaunchImages(device.stream, call, rows.flat<T>().data(), columns.flat<T>().data());
  }

 private:
  static absl::Status Allocate(OpKernelContext* context, int64_t elements, Tensor* tensor) {
    return context->allocate_temp(tensorflow::DataTypeToEnum<T>::value, TensorShape({elements}),
                                  tensor);
  }

  // The kernels count in 32 bits, and where taps lie apart fewer positions are unfolded than SAME
  // keeps, down to none.
  static absl::Status Check(const DeviceConvolution& sizes) {
    if (const DeviceWindowAxis* axis = sizes.AxisWithoutPositions()) {
      return absl::InvalidArgumentError(absl::StrCat(
          "Need a dilation that leaves the GPU at least 1 position of the filter along the ",
          axis == &sizes.rows ? "height" : "width", ", got ", axis->positions, " from an input of ",
          axis->input, ", a filter of ", axis->taps, ", a stride of ", axis->stride,
          " and a dilation of ", axis->dilation));
    }
    if (sizes.out_channels > kMaxDeviceChannels) {
      return absl::InvalidArgumentError(absl::StrCat("Need at most ", kMaxDeviceChannels,
                                                     " output channels on a GPU, got ",
                                                     sizes.out_channels));
    }
    const int32_t taps_h = sizes.rows.taps;
    const int32_t taps_w = sizes.columns.taps;
    const int64_t window = SaturatingProduct({taps_h, taps_w, sizes.in_channels});
    TF_RETURN_IF_ERROR(
        RequireCounted("the filter", SaturatingProduct({window, sizes.out_channels})));
    TF_RETURN_IF_ERROR(
        RequireCounted("an unfolded image",
                       SaturatingProduct({window, std::max(sizes.outputs(), sizes.positions())})));
    TF_RETURN_IF_ERROR(RequireCounted(
        "an image of the input",
        SaturatingProduct({sizes.rows.input, sizes.columns.input, sizes.in_channels})));
    return RequireCounted("an image of the output",
                          SaturatingProduct({sizes.outputs(), sizes.out_channels}));
  }

  static absl::Status RequireCounted(const char* what, int64_t elements) {
    if (elements <= std::numeric_limits<int32_t>::max()) return absl::OkStatus();
    return absl::InvalidArgumentError(
        absl::StrCat("Need at most 2147483647 elements in ", what, " on a GPU, got ", elements));
  }
};

#endif

template <typename Device, typename T>
class HConv2dOp : public AccumulatorOp<T> {
 public:
  explicit HConv2dOp(OpKernelConstruction* context) : AccumulatorOp<T>(context) {
    if (!context->status().ok()) return;
    OP_REQUIRES_OK(context, context->GetAttr("strides", &strides_));
    OP_REQUIRES_OK(context, context->GetAttr("dilations", &dilations_));
    tensorflow::Padding padding;
    OP_REQUIRES_OK(context, context->GetAttr("padding", &padding));
    padding_ = static_cast<Padding>(padding);
    OP_REQUIRES_OK(context, context->GetAttr("use_fp16_acc", &use_fp16_acc_));
    OP_REQUIRES_OK(context, context->GetAttr("is_depthwise", &is_depthwise_));
    OP_REQUIRES_OK(context, RequireSpatialValues("strides", strides_));
    OP_REQUIRES_OK(context, RequireSpatialValues("dilations", dilations_));
    OP_REQUIRES(context, strides_[1] != 0 && strides_[2] != 0,
                absl::InvalidArgumentError(absl::StrCat("Need strides other than 0, got ",
                                                        strides_[1], " along the height and ",
                                                        strides_[2], " along the width")));
  }

  void Run(OpKernelContext* context) override {
    const Tensor& input = context->input(0);
    const Tensor& filter = context->input(1);
    const Tensor& elementwise = context->input(2);
    const Tensor& mult_shift = context->input(3);
    const int leading = filter.dims() > 4 ? 1 : 0;
    OP_REQUIRES_OK(context, Check(input, filter, mult_shift, leading));
    const ConvolutionAxis rows = AxisOf(1, input, filter, leading);
    const ConvolutionAxis columns = AxisOf(2, input, filter, leading);
    const int32_t out_channels = Size(filter, get_filter_dim_out_channels(leading));
    TensorShape shape = input.shape();
    OP_REQUIRES_OK(context, SetOutputSize("height", 1, rows, &shape));
    OP_REQUIRES_OK(context, SetOutputSize("width", 2, columns, &shape));
    OP_REQUIRES_OK(context, shape.SetDimWithStatus(3, out_channels));

    OP_REQUIRES_OK(context, CheckWork({input, filter, elementwise, shape, rows, columns}));

    Tensor* output = nullptr;
    OP_REQUIRES_OK(context, context->allocate_output(0, shape, &output));
    if (IsEmpty(*output)) return;

    const bool has_elementwise = elementwise.NumElements() == output->NumElements();
    const bool has_filter_per_image = is_depthwise_ && leading == 1;
    const ConvolutionCall<T> call = {
        input.flat<T>().data(),
        filter.flat<T>().data(),
        has_elementwise ? elementwise.flat<T>().data() : nullptr,
        output->flat<T>().data(),
        Size(input, 0),
        Size(input, 3),
        out_channels,
        rows,
        columns,
        is_depthwise_,
        has_filter_per_image ? Size(input, 0) : 1,
        {this->accumulator_size_, mult_shift.flat<int8_t>().data(), use_fp16_acc_}};
    HConv2dFunctor<Device, T>()(context, DeviceOf<Device>(context), call);
  }

 private:
  static int32_t Size(const Tensor& tensor, int dimension) {
    return static_cast<int32_t>(tensor.dim_size(dimension));
  }

  // Indices 1 (height) and 2 (width) are read.
  static absl::Status RequireSpatialValues(const char* attribute,
                                           const std::vector<int32_t>& values) {
    if (values.size() >= 3) return absl::OkStatus();
    return absl::InvalidArgumentError(
        absl::StrCat("Need ", attribute, " to have at least 3 values, got ", values.size()));
  }

  absl::Status Check(const Tensor& input, const Tensor& filter, const Tensor& mult_shift,
                     int leading) const {
    if (input.dims() != 4) {
      return absl::InvalidArgumentError(
          absl::StrCat("Need input of rank 4, got shape ", input.shape().DebugString()));
    }
    if (filter.dims() < 4) {
      return absl::InvalidArgumentError(
          absl::StrCat("Need filter of rank 4 or above, got shape ", filter.shape().DebugString()));
    }
    TF_RETURN_IF_ERROR(RequireInt32Dimensions("input", input));
    TF_RETURN_IF_ERROR(RequireInt32Dimensions("filter", filter));
    TF_RETURN_IF_ERROR(RequireScalar("mult_shift", mult_shift));
    constexpr bool kKnowsDepthwise = std::is_same_v<Device, CPUDevice>;
    return is_depthwise_ && kKnowsDepthwise ? CheckDepthwiseChannels(input, filter, leading)
                                            : CheckOrdinaryChannels(input, filter, leading);
  }

  // The input's channels count, not the filter's own: one with more of them is read in part.
  static absl::Status CheckOrdinaryChannels(const Tensor& input, const Tensor& filter,
                                            int leading) {
    return RequireElements(
        "filter", filter, FilterElements(filter, leading, input.dim_size(3)),
        absl::StrCat("height x width x ", input.dim_size(3), " input channels x output channels"));
  }

  static absl::Status CheckDepthwiseChannels(const Tensor& input, const Tensor& filter,
                                             int leading) {
    const int64_t out_channels = filter.dim_size(get_filter_dim_out_channels(leading));
    if (out_channels > input.dim_size(3)) {
      return absl::InvalidArgumentError(
          absl::StrCat("Need input to have at least the ", out_channels,
                       " output channels of a depthwise filter, got ", input.dim_size(3),
                       " in shape ", input.shape().DebugString()));
    }
    const int64_t images = leading == 1 ? input.dim_size(0) : 1;
    if (leading == 1 && filter.dim_size(0) < images) {
      return absl::InvalidArgumentError(
          absl::StrCat("Need filter to have a first dimension of at least ", images,
                       " (one filter for each image), got shape ", filter.shape().DebugString()));
    }
    return RequireElements("filter", filter, FilterElements(filter, leading, images),
                           "images x height x width x output channels");
  }

  // Height x width x output channels x `others`.
  static int64_t FilterElements(const Tensor& filter, int leading, int64_t others) {
    return SaturatingProduct({filter.dim_size(get_filter_dim_height(leading)),
                              filter.dim_size(get_filter_dim_width(leading)),
                              filter.dim_size(get_filter_dim_out_channels(leading)), others});
  }

  // Along dimension 1 (height) or 2 (width).
  ConvolutionAxis AxisOf(int dimension, const Tensor& input, const Tensor& filter,
                         int leading) const {
    const auto index = static_cast<size_t>(dimension);
    return {Size(input, dimension), Size(filter, leading + dimension - 1), strides_[index],
            dilations_[index], padding_};
  }

  // Replaces the input's size by the output's.
  static absl::Status SetOutputSize(const char* name, int dimension, const ConvolutionAxis& axis,
                                    TensorShape* shape) {
    const int32_t outputs = getOutputSize(axis);
    if (outputs >= 0) return shape->SetDimWithStatus(dimension, outputs);
    return absl::InvalidArgumentError(absl::StrCat(
        "Need an output ", name, " of at least 0, got ", outputs, " from an input of ", axis.input,
        ", a filter of ", axis.taps, ", a stride of ", axis.stride, ", a dilation of ",
        axis.dilation, " and ", axis.padding == Padding::kValid ? "VALID" : "SAME", " padding"));
  }

  struct Work {
    const Tensor& input;
    const Tensor& filter;
    const Tensor& elementwise;
    const TensorShape& output;
    const ConvolutionAxis& rows;
    const ConvolutionAxis& columns;
  };

  // Outputs are as many as the input holds positions, or fewer, unless attributes below 1 or sizes
  // that wrap ask for more, which can be any number; and without elements nothing bounds the sizes.
  static absl::Status CheckWork(const Work& work) {
    if (work.output.num_elements() == 0) return absl::OkStatus();
    const int64_t positions = int64_t{work.output.dim_size(1)} * work.output.dim_size(2);
    const int64_t most = std::max(int64_t{work.rows.input} * work.columns.input, kPositions);
    if (positions > most) {
      return absl::InvalidArgumentError(absl::StrCat(
          "Need strides and dilations that give at most ", most,
          " output positions of an input of ", work.rows.input, " x ", work.columns.input, ", got ",
          work.output.dim_size(1), " x ", work.output.dim_size(2)));
    }
    if (!IsEmpty(work.input) && !IsEmpty(work.filter)) return absl::OkStatus();
    TF_RETURN_IF_ERROR(RequireModestOutput(work.output));
    const bool has_elementwise = work.elementwise.NumElements() == work.output.num_elements();
    const int64_t addends = has_elementwise ? CentreTaps{WindowAxis(work.rows)}.count : 0;
    if (!IsEmpty(work.filter) || addends <= kAddends) return absl::OkStatus();
    return absl::InvalidArgumentError(absl::StrCat(
        "Need a filter without elements to add elementwise at most ", kAddends, " times, got ",
        addends, " from a height of ", work.rows.taps, " and a dilation of ", work.rows.dilation));
  }

  static constexpr int64_t kPositions = int64_t{1} << 20;
  static constexpr int64_t kAddends = 64;

  std::vector<int32_t> strides_;
  std::vector<int32_t> dilations_;
  Padding padding_ = Padding::kValid;
  bool use_fp16_acc_ = false;
  bool is_depthwise_ = false;
};

BITFOLD_WHEN_LOADED(RegisterKernels) {
#ifdef BITFOLD_GPU
  REGISTER_KERNEL_BUILDER(Name("HConv2d").Device(tensorflow::DEVICE_GPU).TypeConstraint<float>("T"),
                          HConv2dOp<GPUDevice, float>);
  REGISTER_KERNEL_BUILDER(
      Name("HConv2d").Device(tensorflow::DEVICE_GPU).TypeConstraint<int32_t>("T"),
      HConv2dOp<GPUDevice, int32>);
#endif
  REGISTER_KERNEL_BUILDER(Name("HConv2d").Device(tensorflow::DEVICE_CPU).TypeConstraint<float>("T"),
                          HConv2dOp<CPUDevice, float>);
  REGISTER_KERNEL_BUILDER(
      Name("HConv2d").Device(tensorflow::DEVICE_CPU).TypeConstraint<int32_t>("T"),
      HConv2dOp<CPUDevice, int32>);
  REGISTER_KERNEL_BUILDER(
      Name("HConv2dDilation").Device(tensorflow::DEVICE_CPU).TypeConstraint<float>("T"),
      HConv2dOp<CPUDevice, float>);
  REGISTER_KERNEL_BUILDER(
      Name("HConv2dDilation").Device(tensorflow::DEVICE_CPU).TypeConstraint<int32_t>("T"),
      HConv2dOp<CPUDevice, int32>);
  REGISTER_KERNEL_BUILDER(
      Name("HDepthWise").Device(tensorflow::DEVICE_CPU).TypeConstraint<float>("T"),
      HConv2dOp<CPUDevice, float>);
  REGISTER_KERNEL_BUILDER(
      Name("HDepthWise").Device(tensorflow::DEVICE_CPU).TypeConstraint<int32_t>("T"),
      HConv2dOp<CPUDevice, int32>);
}

}  // namespace bitfold
