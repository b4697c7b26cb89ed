// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/prepared_convolution.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <new>
#include <type_traits>
#include <utility>

#include "bitfold/weight_sign.h"

namespace bitfold {
namespace {

// Packed numbers of a block of outputs stay in the second-level cache beside the weights.
constexpr int64_t kBlockWords = int64_t{1} << 15;

// Blocks for each thread, so that all end at about the same time.
constexpr int64_t kBlocksForEach = 4;

// Weights of so many panels go by together.
constexpr int32_t kPanelsTogether = 4;

// In a cycle.
constexpr int64_t kProducts = 96;
constexpr int64_t kFinishedSums = 3;

// Packed rows of more than this many times the image, and more than this, are not made.
constexpr int64_t kMostPadding = 4;
constexpr int64_t kAlwaysPadded = int64_t{1} << 20;

struct alignas(64) CacheLine {
  char bytes[64];
};

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
PreparedConvolution<In, Out>::PreparedConvolution(const PreparedLayer& layer, Workers* workers)
    : layer_(layer) {
  std::vector<int32_t> weights(layer.filter, layer.filter + layer.FilterElements());
  bool corrects = false;
  if (layer.is_depthwise) {
    const WeightSign<int32_t> sign(layer.accumulator_size);
    for (int32_t& weight : weights) {
      if (!sign.NeedsCorrection(weight)) continue;
      weight = sign.Correct(weight);
      corrects = true;
    }
  }
  if (layer.use_fp16_acc) {
    PrepareSums(&halves_, std::vector<float>(weights.begin(), weights.end()), corrects, workers);
  } else {
    plan_ = PlanInt32(FactsWith(weights), CurrentDotKernels<StoredOutput>().HasBytes());
    // Lines about corrected signs come from the sums' images.
    if (IsDots(plan_->path) && !corrects && !HasTapsFarApart()) {
      PrepareDots(weights);
    } else {
      PrepareSums(&sums_, std::move(weights), corrects, workers);
    }
  }
  layer_.filter = nullptr;
  layer_.bias = nullptr;
  layer_.multipliers = nullptr;
}

template <typename In, typename Out>
DotLayer PreparedConvolution<In, Out>::Dots() const {
  return {WindowOf(layer_.rows), WindowOf(layer_.columns), layer_.in_channels, layer_.out_channels,
          layer_.zero_point};
}

// Whether packed rows would be far larger than the image.
template <typename In, typename Out>
bool PreparedConvolution<In, Out>::HasTapsFarApart() const {
  const int64_t most = kMostPadding * layer_.InputElements() + kAlwaysPadded;
  if (layer_.is_depthwise) {
    return DotDepthwise<In, StoredOutput>(Dots(), *plan_).MemoryBytes() > most;
  }
  const DotConvolution<In, StoredOutput> dots(Dots(), *plan_);
  return dots.StripWords(1) > most / int64_t{sizeof(int32_t)};
}

// What the type and the zero point bound.
template <typename In, typename Out>
Facts PreparedConvolution<In, Out>::InputFacts() const {
  using Limits = std::numeric_limits<In>;
  return {true, std::min<int64_t>(0, int64_t{Limits::min()} - layer_.zero_point),
          std::max<int64_t>(0, int64_t{Limits::max()} - layer_.zero_point)};
}

template <typename In, typename Out>
ChainFacts PreparedConvolution<In, Out>::FactsWith(const std::vector<int32_t>& weights) const {
  ChainFacts facts{};
  facts.accumulator_size = layer_.accumulator_size;
  facts.mult_shift = layer_.mult_shift;
  facts.packs = true;
  facts.input = InputFacts();
  facts.weights = FactsOf(weights.data(), static_cast<int64_t>(weights.size()));
  facts.takes_remainders =
      !layer_.is_depthwise && CurrentDotKernels<StoredOutput>().HasRemainders();
  facts.products = layer_.FilterElements() / layer_.out_channels;
  return facts;
}

// Of any input, without a wrap.
template <typename In, typename Out>
int64_t PreparedConvolution<In, Out>::LargestSum(const std::vector<int32_t>& weights) const {
  const auto channels = static_cast<size_t>(layer_.out_channels);
  std::vector<int64_t> magnitudes(channels);
  for (size_t i = 0; i < weights.size(); ++i) {
    magnitudes[i % channels] += std::abs(int64_t{weights[i]});
  }
  int64_t sum = 0;
  for (size_t c = 0; c < channels; ++c) {
    const int64_t bias = layer_.bias == nullptr ? 0 : std::abs(int64_t{layer_.bias[c]});
    sum = std::max(sum, magnitudes[c] * InputFacts().Magnitude() + bias);
  }
  return sum;
}

// Whether adding the bias to a sum of the accumulator wraps into its range again.
template <typename In, typename Out>
bool PreparedConvolution<In, Out>::HasNarrowBias() const {
  if (layer_.accumulator_size >= 31 || layer_.bias == nullptr) return true;
  const int64_t period = int64_t{1} << layer_.accumulator_size;
  return std::all_of(layer_.bias, layer_.bias + layer_.out_channels,
                     [period](int64_t bias) { return std::abs(bias) <= period; });
}

// What no sum with its bias exceeds in magnitude. A step at a time sums whose addends exceed the
// period leave the accumulator's range.
template <typename In, typename Out>
int64_t PreparedConvolution<In, Out>::LargestOutcome() const {
  constexpr int64_t kLargestHalf = int64_t{1} << 15;
  if (layer_.use_fp16_acc) return kLargestHalf;
  const bool is_in_range = plan_ && plan_->path != ChainPath::kStepwise && HasNarrowBias();
  return is_in_range ? int64_t{1} << (layer_.accumulator_size - 1) : INT64_MAX;
}

// The wrap of a bias of at most 2^w is the wrap of the whole sum, which then begins with it; and
// where no sum of the layer can leave the width, nothing wraps. A shift makes no sum larger; the
// bias is shifted by itself.
template <typename In, typename Out>
void PreparedConvolution<In, Out>::PrepareDots(const std::vector<int32_t>& weights) {
  const int64_t period = int64_t{1} << layer_.accumulator_size;
  const bool begins = HasNarrowBias() && plan_->path != ChainPath::kDotRemainders;
  const int64_t largest = LargestSum(weights);
  LayerFinishCall finish = FinishCall();
  finish.bits = largest < period / 2 ? 32 : plan_->bits;
  finish.largest_sum = std::min(largest, finish.largest_sum);
  if (begins) finish.bias = nullptr;
  const int32_t* addends = begins ? layer_.bias : nullptr;
  CallingThread calling_thread;  // once for a network
  const bool has_memory =
      layer_.is_depthwise
          ? depthwise_.emplace(Dots(), *plan_).Prepare(weights.data(), 1, &memory_, addends)
          : dots_.emplace(Dots(), *plan_)
                .Prepare(weights.data(), &calling_thread, &memory_, addends);
  if (!has_memory) throw std::bad_alloc();
  finish_ = std::make_unique<LayerFinish>(finish);
}

template <typename In, typename Out>
template <typename T>
void PreparedConvolution<In, Out>::PrepareSums(std::optional<PreparedSums<T>>* sums,
                                               std::vector<T> weights, bool corrects,
                                               Workers* workers) {
  sums->emplace(layer_, std::move(weights), corrects, InputFacts(), workers);
  plan_ = (*sums)->plan();
  finish_ = std::make_unique<LayerFinish>(FinishCall());
}

// Of sums that are reduced.
template <typename In, typename Out>
LayerFinishCall PreparedConvolution<In, Out>::FinishCall() const {
  const auto shift = static_cast<int32_t>(layer_.Shift());
  return {layer_.out_channels,
          32,
          layer_.use_fp16_acc ? nullptr : layer_.bias,
          Datapath<int32_t>(layer_.accumulator_size, shift, false),
          layer_.multipliers,
          layer_.per_channel,
          layer_.requantise,
          std::is_same_v<Out, int8_t> ? StoredType::kInt8 : StoredType::kInt16,
          LargestOutcome()};
}

template <typename In, typename Out>
void PreparedConvolution<In, Out>::Run(const In* input, int32_t batch, Out* output,
                                       Workers* workers) const {
  if (dots_ && dots_->IsPixelwise()) {
    return RunPixels(input, batch * layer_.Positions(), output, workers);
  }
  if (dots_) return RunWindows(input, batch, output, workers);
  if (depthwise_) return RunDepthwise(input, batch, output, workers);
  const StoredOutput outputs = {finish_.get(),       output, 0,
                                layer_.out_channels, 0,      layer_.out_channels};
  if (halves_) return halves_->Run(input, batch, outputs, workers);
  sums_->Run(input, batch, outputs, workers);
}

// The cycles of so many outputs, roughly.
template <typename In, typename Out>
int64_t PreparedConvolution<In, Out>::CostOf(int64_t outputs) const {
  const int64_t products = layer_.FilterElements() / layer_.out_channels;
  return outputs * products / kProducts + outputs / kFinishedSums;
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
  const int64_t cost = CostOf(step * panels * kPanel);
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
  const int64_t cost = CostOf(int64_t{step} * columns * panels * kPanel);
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

// Rows that a block shares with the one before it are packed again.
template <typename In, typename Out>
void PreparedConvolution<In, Out>::RunDepthwise(const In* input, int32_t batch, Out* output,
                                                Workers* workers) const {
  const int threads = workers->AtOnce();
  const int32_t rows = layer_.rows.outputs();
  int32_t step = rows;
  if (threads > 1) {
    const int64_t wished = Parts(int64_t{batch} * rows, kBlocksForEach * threads);
    step = static_cast<int32_t>(std::min<int64_t>(rows, std::max<int64_t>(4, wished)));
  }
  const int64_t in_image = Parts(rows, step);
  const int64_t cost = int64_t{step} * layer_.columns.outputs() * layer_.out_channels;
  workers->Share(batch * in_image, cost, [&](int64_t first, int64_t end) {
    const auto lines = Parts(depthwise_->MemoryBytes(), sizeof(CacheLine));
    const std::unique_ptr<CacheLine[]> memory(new CacheLine[static_cast<size_t>(lines)]);
    for (int64_t unit = first; unit < end; ++unit) {
      const int64_t image = unit / in_image;
      const auto row = static_cast<int32_t>(unit % in_image) * step;
      depthwise_->Run(input + image * layer_.InputElements(), {0, row, std::min(row + step, rows)},
                      StoredOutput{finish_.get(), output, image * layer_.Positions(),
                                   layer_.out_channels, 0, layer_.out_channels},
                      memory.get());
    }
  });
}

template class PreparedConvolution<int8_t, int8_t>;
template class PreparedConvolution<int8_t, int16_t>;
template class PreparedConvolution<int16_t, int8_t>;
template class PreparedConvolution<int16_t, int16_t>;

}  // namespace bitfold
