// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/prepared_convolution.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <new>
#include <type_traits>

#include "bitfold/weight_sign.h"
#include "chain/corrected_weights.h"
#include "cpu/additions.h"
#include "cpu/convolution.h"

namespace bitfold {
namespace {

// Packed numbers of a block of outputs stay in the second-level cache beside the weights.
constexpr int64_t kBlockWords = int64_t{1} << 15;

// Blocks for each thread, so that all end at about the same time.
constexpr int64_t kBlocksForEach = 4;

// Weights of so many panels go by together.
constexpr int32_t kPanelsTogether = 4;

// Multiply-adds in a cycle.
constexpr int64_t kProducts = 64;

int64_t Parts(int64_t all, int64_t step) { return (all + step - 1) / step; }

// Panels of a block: fewer than all where the blocks would else be too few for the threads.
int32_t PanelsOfBlock(int32_t panels, int64_t blocks, int threads) {
  if (threads == 1 || blocks >= threads) return panels;
  const int64_t pieces = Parts(kBlocksForEach * threads, blocks);
  const int64_t groups = std::max<int64_t>(1, Parts(panels, kPanelsTogether) / pieces);
  return static_cast<int32_t>(std::min<int64_t>(panels, groups * kPanelsTogether));
}

}  // namespace

template <typename In, typename Out>
PreparedConvolution<In, Out>::PreparedConvolution(const PreparedLayer& layer)
    : filter_(layer.filter, layer.filter + layer.FilterElements()),
      multipliers_(layer.multipliers,
                   layer.multipliers + (layer.per_channel ? layer.out_channels : 1)),
      wide_filter_(filter_.begin(), filter_.end()),
      shift_(layer.Shift()),
      layer_(layer) {
  if (layer.bias != nullptr) bias_.assign(layer.bias, layer.bias + layer.out_channels);
  layer_.filter = filter_.data();
  layer_.bias = layer.bias == nullptr ? nullptr : bias_.data();
  layer_.multipliers = multipliers_.data();
  if (layer.is_depthwise) {
    const WeightSign<int32_t> sign(layer.accumulator_size);
    for (int32_t& weight : wide_filter_) {
      if (!sign.NeedsCorrection(weight)) continue;
      weight = sign.Correct(weight);
      corrects_ = true;
    }
  }
  const ChainFacts facts = Facts();
  const bool has_bytes = CurrentDotKernels<StoredOutput>().HasBytes();
  plan_ = layer.use_fp16_acc ? PlanFloat(facts, has_bytes) : PlanInt32(facts, has_bytes);
  const bool is_dots = plan_.path == ChainPath::kDotBytes || plan_.path == ChainPath::kDotShorts;
  if (is_dots && !layer.is_depthwise) PrepareDots();
  if (finish_ == nullptr) finish_ = std::make_unique<LayerFinish>(FinishCall());
}

template <typename In, typename Out>
ChainFacts PreparedConvolution<In, Out>::Facts() const {
  using Limits = std::numeric_limits<In>;
  ChainFacts facts{};
  facts.accumulator_size = layer_.accumulator_size;
  facts.mult_shift = layer_.mult_shift;
  facts.use_fp16_acc = layer_.use_fp16_acc;
  facts.divides = true;
  facts.packs = true;
  facts.input = {true, std::min<int64_t>(0, int64_t{Limits::min()} - layer_.zero_point),
                 std::max<int64_t>(0, int64_t{Limits::max()} - layer_.zero_point)};
  facts.weights = FactsOf(wide_filter_.data(), static_cast<int64_t>(wide_filter_.size()));
  facts.weight_sum = [] { return INT64_MAX; };  // asked for of floats
  return facts;
}

// Of any input, without a wrap.
template <typename In, typename Out>
int64_t PreparedConvolution<In, Out>::LargestSum() const {
  const auto channels = static_cast<size_t>(layer_.out_channels);
  std::vector<int64_t> magnitudes(channels);
  for (size_t i = 0; i < wide_filter_.size(); ++i) {
    magnitudes[i % channels] += std::abs(int64_t{wide_filter_[i]});
  }
  const int64_t largest = Facts().input.Magnitude();
  int64_t sum = 0;
  for (size_t c = 0; c < channels; ++c) {
    const int64_t bias = layer_.bias == nullptr ? 0 : std::abs(int64_t{bias_[c]});
    sum = std::max(sum, magnitudes[c] * largest + bias);
  }
  return sum;
}

// The wrap of a bias of at most 2^w is the wrap of the whole sum, which then begins with it; and
// where no sum of the layer can leave the width, nothing wraps.
template <typename In, typename Out>
void PreparedConvolution<In, Out>::PrepareDots() {
  const WindowAxis rows = WindowOf(layer_.rows);
  const WindowAxis columns = WindowOf(layer_.columns);
  dots_.emplace(DotLayer{rows, columns, layer_.in_channels, layer_.out_channels, layer_.zero_point},
                plan_);
  const int64_t most = int64_t{1} << layer_.accumulator_size;
  const bool begins = layer_.accumulator_size >= 31 ||
                      std::all_of(bias_.begin(), bias_.end(),
                                  [most](int64_t bias) { return std::abs(bias) <= most; });
  LayerFinishCall finish = FinishCall();
  const int64_t largest = LargestSum();
  finish.bits = largest < most / 2 ? 32 : plan_.bits;
  finish.largest_sum = std::min(largest, most / 2);
  if (begins) finish.bias = nullptr;
  if (!dots_->Prepare(wide_filter_.data(), &memory_, begins ? layer_.bias : nullptr)) {
    throw std::bad_alloc();
  }
  finish_ = std::make_unique<LayerFinish>(finish);
}

// Of sums that are reduced.
template <typename In, typename Out>
LayerFinishCall PreparedConvolution<In, Out>::FinishCall() const {
  return {layer_.out_channels,
          32,
          layer_.use_fp16_acc ? nullptr : layer_.bias,
          Datapath<int32_t>(layer_.accumulator_size, shift_, false),
          layer_.multipliers,
          layer_.per_channel,
          layer_.requantise,
          std::is_same_v<Out, int8_t> ? StoredType::kInt8 : StoredType::kInt16,
          int64_t{1} << std::min(31, std::max(0, layer_.accumulator_size - 1))};
}

template <typename In, typename Out>
void PreparedConvolution<In, Out>::Run(const In* input, int32_t batch, Out* output,
                                       Workers* workers) const {
  if (dots_ && dots_->IsPixelwise()) {
    return RunPixels(input, batch * layer_.Positions(), output, workers);
  }
  if (dots_) return RunWindows(input, batch, output, workers);
  const int64_t cost = layer_.Positions() * layer_.FilterElements();
  workers->Share(batch, cost, [&](int64_t first, int64_t end) {
    for (int64_t image = first; image < end; ++image) {
      const In* from = input + image * layer_.InputElements();
      Out* to = output + image * layer_.OutputElements();
      layer_.use_fp16_acc ? RunImage<float>(from, to) : RunImage<int32_t>(from, to);
    }
  });
}

// All images are one long row.
template <typename In, typename Out>
void PreparedConvolution<In, Out>::RunPixels(const In* input, int64_t pixels, Out* output,
                                             Workers* workers) const {
  const int threads = workers->AtOnce();
  int64_t step = std::max<int64_t>(56, kBlockWords / dots_->PixelWords(1) / 56 * 56);
  if (threads > 1) {
    step = std::min(step, std::max<int64_t>(56, Parts(pixels, kBlocksForEach * threads)));
  }
  step = std::min(step, pixels);
  const int64_t blocks = Parts(pixels, step);
  const int32_t panels = PanelsOfBlock(dots_->panels(), blocks, threads);
  const int64_t cost = step * panels * kPanel * layer_.in_channels / kProducts;
  workers->Share(blocks * Parts(dots_->panels(), panels), cost, [&](int64_t first, int64_t end) {
    const std::unique_ptr<int32_t[]> words(new int32_t[dots_->PixelWords(step)]);
    for (int64_t unit = first; unit < end; ++unit) {
      const int64_t pixel = unit % blocks * step;
      const auto panel = static_cast<int32_t>(unit / blocks) * panels;
      dots_->RunPixels(
          input + pixel * layer_.in_channels, static_cast<int32_t>(std::min(step, pixels - pixel)),
          {0, 0, panel, std::min(panel + panels, dots_->panels())},
          StoredOutput{finish_.get(), output, pixel, layer_.out_channels, 0, layer_.out_channels},
          words.get());
    }
  });
}

template <typename In, typename Out>
void PreparedConvolution<In, Out>::RunWindows(const In* input, int32_t batch, Out* output,
                                              Workers* workers) const {
  const int threads = workers->AtOnce();
  const int32_t rows = layer_.rows.outputs();
  const int32_t columns = layer_.columns.outputs();
  int32_t step = rows;
  while (step > 1 && dots_->StripWords(step) > kBlockWords) step = (step + 1) / 2;
  if (threads > 1) {
    const int64_t wished = Parts(int64_t{batch} * rows, kBlocksForEach * threads);
    step = std::min<int32_t>(step, static_cast<int32_t>(std::max<int64_t>(2, wished)));
  }
  const int64_t in_image = Parts(rows, step);
  const int64_t blocks = batch * in_image;
  const int32_t panels = PanelsOfBlock(dots_->panels(), blocks, threads);
  const int64_t taps = int64_t{layer_.rows.taps} * layer_.columns.taps;
  const int64_t cost =
      int64_t{step} * columns * taps * layer_.in_channels * panels * kPanel / kProducts;
  workers->Share(blocks * Parts(dots_->panels(), panels), cost, [&](int64_t first, int64_t end) {
    const std::unique_ptr<int32_t[]> words(new int32_t[dots_->StripWords(step)]);
    for (int64_t unit = first; unit < end; ++unit) {
      const int64_t image = unit % blocks / in_image;
      const auto row = static_cast<int32_t>(unit % blocks % in_image) * step;
      const auto panel = static_cast<int32_t>(unit / blocks) * panels;
      dots_->Run(
          input + image * layer_.InputElements(),
          {row, std::min(row + step, rows), panel, std::min(panel + panels, dots_->panels())},
          StoredOutput{finish_.get(), output, image * layer_.Positions(), layer_.out_channels, 0,
                       layer_.out_channels},
          words.get());
    }
  });
}

// The public ops one after the other, as the numbers of an image allow.
template <typename In, typename Out>
template <typename T>
void PreparedConvolution<In, Out>::RunImage(const In* image, Out* output) const {
  const std::vector<T> filter(filter_.begin(), filter_.end());
  std::vector<T> padded(static_cast<size_t>(layer_.PaddedElements()));
  std::vector<T> sums(static_cast<size_t>(layer_.OutputElements()));
  PadImage(layer_, image, padded.data());
  ConvolutionCall<T> call = ConvolutionOf<T>(layer_, &shift_);
  call.input = padded.data();
  call.filter = filter.data();
  call.output = sums.data();
  HeapScratch scratch;
  CallingThread calling_thread;  // images are shared
  ComputeConvolution(call, &scratch, &calling_thread);
  if (std::is_same_v<T, float> && layer_.bias != nullptr) {
    const std::vector<T> bias(bias_.begin(), bias_.end());
    const T factor = T{1};
    const float once = 1.0f;
    const std::vector<T> value = sums;
    ComputeBiasAdd<T>({value.data(), bias.data(), &factor, &once, sums.data(),
                       AdditionShape{1, 1, 1, layer_.out_channels}, call.datapath},
                      layer_.OutputElements());
  }
  std::vector<int32_t> whole(sums.begin(), sums.end());
  whole.resize(whole.size() + kPanel);  // whole panels are read
  FinishTile(whole.data(), static_cast<int32_t>(layer_.Positions()), layer_.out_channels,
             StoredOutput{finish_.get(), output, 0, layer_.out_channels, 0, layer_.out_channels});
}

template class PreparedConvolution<int8_t, int8_t>;
template class PreparedConvolution<int8_t, int16_t>;
template class PreparedConvolution<int16_t, int8_t>;
template class PreparedConvolution<int16_t, int16_t>;

}  // namespace bitfold
