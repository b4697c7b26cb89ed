// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/convolution.h"

#include <algorithm>

#include "bitfold/HConv2D.h"
#include "bitfold/datapath_attributes.h"
#include "bitfold/warning.h"
#include "bitfold/weight_sign.h"
#include "chain/corrected_weights.h"
#include "frame/floating_point_scope.h"
#include "frame/slots.h"

namespace bitfold {
namespace {

// Units for each thread, so that none waits long for the last one.
constexpr int64_t kUnitsForEach = 3;

// Cycles of a product by the definition.
constexpr int64_t kDefinitionCost = 8;

// Of the whole batch.
template <typename T>
int64_t OutputElements(const ConvolutionCall<T>& call) {
  const int32_t rows = getOutputSize(call.rows);
  const int32_t columns = getOutputSize(call.columns);
  if (call.batch < 1 || rows < 1 || columns < 1 || call.out_channels < 1) return 0;
  return int64_t{call.batch} * rows * columns * call.out_channels;
}

// The definition where there are no products, with the taps counted instead of walked: without
// elements there can be 2^31 of them.
template <typename T>
void AddElementwise(const ConvolutionCall<T>& call, int64_t outputs) {
  const DefaultFloatingPointScope scope;
  const int64_t addends = call.elementwise == nullptr ? 0 : CentreTaps{WindowAxis(call.rows)}.count;
  if (addends == 0) {
    std::fill_n(call.output, outputs, T{0});
    return;
  }
  const auto datapath = MakeDatapath<Datapath<T>>(call.datapath);
  for (int64_t o = 0; o < outputs; ++o) {
    T acc = T{0};
    for (int64_t k = 0; k < addends; ++k) acc = datapath.Accumulate(acc, call.elementwise[o]);
    call.output[o] = acc;
  }
}

CallingThread& TheCallingThread() {
  static CallingThread calling_thread;
  return calling_thread;
}

}  // namespace

template <typename T>
BatchConvolution<T>::BatchConvolution(const ConvolutionCall<T>& call, Workers* workers,
                                      Scratch* scratch, Look look)
    : call_(call),
      rows_of_pixels_(AsRowsOfPixels(call, true)),
      workers_(workers),
      look_(look),
      slots_(workers->AtOnce()) {
  const int64_t units = workers->AtOnce() == 1 ? 1 : workers->AtOnce() * kUnitsForEach;
  const int64_t images = rows_of_pixels_.batch;
  cuts_images_ = images < units;
  Decide({workers, workers->AtOnce(), (units + images - 1) / images, images}, look, scratch);
  if (engine_) slots_ = engine_->slots();
}

template <typename T>
BatchConvolution<T>::BatchConvolution(const ConvolutionCall<T>& call, int slots, Scratch* scratch)
    : call_(call), rows_of_pixels_(AsRowsOfPixels(call, false)) {
  Decide({&TheCallingThread(), slots, 1, call.batch}, Look::kFirst, scratch);
}

template <typename T>
void BatchConvolution<T>::Decide(const ChainSharing& sharing, Look look, Scratch* scratch) {
  const DefaultFloatingPointScope scope;
  CorrectedWeights<T> weights{call_.filter, false, {}};
  if (call_.is_depthwise) {
    weights = CorrectWeights(WeightSign<T>(call_.datapath.accumulator_size), call_.filter,
                             call_.filters * call_.FilterElements(), sharing.workers, scratch);
    if (weights.weights == nullptr) return;
    if (weights.corrected && look == Look::kWhilePacking) return;  // there would be lines
  }
  engine_.emplace(rows_of_pixels_, weights, KnownFacts{{}, {}, look}, sharing, scratch);
  if (!engine_->plan()) return engine_.reset();
  if (!weights.corrected) return;
  const WeightSign<T> sign(call_.datapath.accumulator_size);
  for (int32_t filter = 0; filter < call_.filters; ++filter) {
    const T* of_filter = call_.filter + filter * call_.FilterElements();
    const bool meets = MeetsCorrectedWeight(sign, of_filter, call_.out_channels,
                                            WindowAxis(call_.rows), WindowAxis(call_.columns));
    corrected_.push_back(meets ? 1 : 0);
  }
}

// ---- Running -----------------------------------------------------------------------------------

template <typename T>
ChainImage<T> BatchConvolution<T>::ImageOf(int32_t image) const {
  const int64_t o = image * engine_->OutputElements();
  return {call_.input + image * rows_of_pixels_.InputElements(),
          call_.elementwise == nullptr ? nullptr : call_.elementwise + o, call_.output + o,
          call_.FilterOf(image)};
}

// An output of an image of the engine, which may be the whole batch.
template <typename T>
void BatchConvolution<T>::Define(int32_t image, int64_t output) const {
  const int64_t channels = call_.out_channels;
  const int64_t position = (image * engine_->OutputElements() + output) / channels;
  const int64_t columns = getOutputSize(call_.columns);
  const int64_t row = position / columns;
  const int64_t rows = getOutputSize(call_.rows);
  ImageConvolution<T>(call_, static_cast<int32_t>(row / rows))
      .DefineOutput(static_cast<int32_t>(row % rows), static_cast<int32_t>(position % columns),
                    static_cast<int32_t>(output % channels));
}

// Ends the lines of an image.
template <typename T>
void BatchConvolution<T>::Warn(int32_t image) const {
  if (corrected_.empty()) return;
  if (corrected_[static_cast<size_t>(call_.FilterOf(image))] != 0) WarnDepthwiseWeights();
}

template <typename T>
void BatchConvolution<T>::RunImage(int32_t image, int slot) const {
  const DefaultFloatingPointScope scope;
  if (!engine_) return convolveOneImage(call_, image);
  engine_->RunAll(ImageOf(image), slot, [this, image](int64_t output) { Define(image, output); });
  Warn(image);
}

template <typename T>
int64_t BatchConvolution<T>::UnitsOfImage() const {
  return engine_ && cuts_images_ ? engine_->blocks().count() : 1;
}

template <typename T>
int64_t BatchConvolution<T>::UnitCost() const {
  if (!engine_) {
    const int64_t chain = call_.FilterElements() / call_.out_channels;
    return OutputElements(call_) / call_.batch * chain * kDefinitionCost;
  }
  return engine_->BlockCost() * (engine_->blocks().count() / UnitsOfImage());
}

// A whole image with its lines, or a block, whose outputs that may print a line are left to the
// end.
template <typename T>
void BatchConvolution<T>::RunUnit(int64_t unit, int slot, std::vector<int64_t>* may_print) const {
  const int64_t blocks = UnitsOfImage();
  const auto image = static_cast<int32_t>(unit / blocks);
  if (blocks == 1) return RunImage(image, slot);
  engine_->Run(ImageOf(image), engine_->blocks()[unit % blocks], slot,
               [may_print](int64_t output) { may_print->push_back(output); });
}

template <typename T>
bool BatchConvolution<T>::Run() const {
  if (look_ == Look::kWhilePacking && !engine_) return false;
  const int64_t images = engine_ ? rows_of_pixels_.batch : call_.batch;
  const int64_t units = images * UnitsOfImage();
  std::vector<std::vector<int64_t>> may_print(UnitsOfImage() == 1 ? 0 : static_cast<size_t>(units));
  Slots slots(slots_);
  workers_->Share(units, UnitCost(), [&](int64_t first, int64_t end) {
    const Slots::Lease slot(&slots);
    for (int64_t unit = first; unit < end; ++unit) {
      RunUnit(unit, slot.number(),
              may_print.empty() ? nullptr : &may_print[static_cast<size_t>(unit)]);
    }
  });
  if (engine_ && !engine_->IsAsAssumed()) return false;
  if (!may_print.empty()) Replay(&may_print);
  return true;
}

// By units; the blocks of an image may lie side by side.
template <typename T>
void BatchConvolution<T>::Replay(std::vector<std::vector<int64_t>>* may_print) const {
  int64_t outputs = 0;
  for (const auto& of_unit : *may_print) outputs += static_cast<int64_t>(of_unit.size());
  const int64_t images = rows_of_pixels_.batch;
  const int64_t blocks = UnitsOfImage();
  const int64_t chain = call_.FilterElements() / call_.out_channels;
  workers_->Share(images, outputs / images * chain * kDefinitionCost + 1,
                  [&](int64_t first, int64_t end) {
                    for (int64_t image = first; image < end; ++image) {
                      std::vector<int64_t> of_image;
                      for (int64_t unit = image * blocks; unit < (image + 1) * blocks; ++unit) {
                        const auto& more = (*may_print)[static_cast<size_t>(unit)];
                        of_image.insert(of_image.end(), more.begin(), more.end());
                      }
                      std::sort(of_image.begin(), of_image.end());
                      for (const int64_t output : of_image) {
                        Define(static_cast<int32_t>(image), output);
                      }
                      Warn(static_cast<int32_t>(image));
                    }
                  });
}

template <typename T>
bool ComputeWithoutProducts(const ConvolutionCall<T>& call) {
  const int64_t outputs = OutputElements(call);
  if (outputs == 0) return true;
  if (call.InputElements() > 0 && call.FilterElements() > 0) return false;
  AddElementwise(call, outputs);
  return true;
}

template <typename T>
void ComputeConvolution(const ConvolutionCall<T>& call, Scratch* scratch, Workers* workers) {
  if (ComputeWithoutProducts(call)) return;
  if (BatchConvolution<T>(call, workers, scratch, Look::kWhilePacking).Run()) return;
  BatchConvolution<T>(call, workers, scratch).Run();
}

#define BITFOLD_INSTANTIATE(T)                                     \
  template class BatchConvolution<T>;                              \
  template bool ComputeWithoutProducts(const ConvolutionCall<T>&); \
  template void ComputeConvolution(const ConvolutionCall<T>&, Scratch*, Workers*);
BITFOLD_INSTANTIATE(int32_t)
BITFOLD_INSTANTIATE(float)
#undef BITFOLD_INSTANTIATE

}  // namespace bitfold
