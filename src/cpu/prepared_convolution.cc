// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/prepared_convolution.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <type_traits>
#include <utility>

#include "bitfold/weight_sign.h"
#include "chain/dot_tile.h"
#include "chain/facts.h"

namespace bitfold {

template <typename In, typename Out>
PreparedConvolution<In, Out>::PreparedConvolution(const PreparedLayer& layer, Workers* workers,
                                                  SumsOfTiles sums)
    : wished_(sums), layer_(layer) {
  std::vector<int32_t> bias;
  if (layer.IsWide()) {
    const ExactSums exact = ExactSumsOf(layer, InputFacts().Magnitude());
    Narrow(exact, &bias) ? Prepare(workers) : PrepareWide(exact);
  } else {
    Prepare(workers);
  }
  layer_.filter = nullptr;
  layer_.bias = nullptr;
  layer_.multipliers = nullptr;
  layer_.wide_bias = nullptr;
}

template <typename In, typename Out>
PreparedConvolution<In, Out>::Kept::Kept(const PreparedLayer& from)
    : layer(from),
      filter(from.filter, from.filter + from.FilterElements()),
      bias(from.wide_bias,
           from.wide_bias == nullptr ? nullptr : from.wide_bias + from.out_channels),
      multipliers(from.multipliers, from.multipliers + (from.per_channel ? from.out_channels : 1)) {
  layer.filter = filter.data();
  layer.wide_bias = bias.empty() ? nullptr : bias.data();
  layer.multipliers = multipliers.data();
}

// Of sums of 32 bits, but for a wide bias that may be added to them.
template <typename In, typename Out>
void PreparedConvolution<In, Out>::Prepare(Workers* workers) {
  std::vector<int32_t> weights(layer_.filter, layer_.filter + layer_.FilterElements());
  bool corrects = false;
  if (layer_.is_depthwise) {
    const WeightSign<int32_t> sign(layer_.accumulator_size);
    for (int32_t& weight : weights) {
      if (!sign.NeedsCorrection(weight)) continue;
      weight = sign.Correct(weight);
      corrects = true;
    }
  }
  if (layer_.use_fp16_acc) {
    PrepareSums(&halves_, std::vector<float>(weights.begin(), weights.end()), corrects, workers);
  } else {
    plan_ = PlanInt32(FactsWith(weights), CurrentDotKernels<StoredOutput>().HasBytes());
    if (wished_ == SumsOfTiles::kWhole) KeepWhole(weights, corrects);
    // Lines about corrected signs come from the sums' images.
    if (IsDots(plan_->path) && !corrects) dots_.emplace(layer_, *plan_);
    if (dots_ && !dots_->Fits()) dots_.reset();
    if (dots_) {
      PrepareDots(weights);
    } else {
      PrepareSums(&sums_, std::move(weights), corrects, workers);
    }
  }
}

// Makes a layer of 64 bits one of 32, where these hold all sums of products, with `bias` where they
// hold that, too. To divide a bias by 2^31 the two differ.
template <typename In, typename Out>
bool PreparedConvolution<In, Out>::Narrow(const ExactSums& exact, std::vector<int32_t>* bias) {
  if (exact.groups.size() != 1) return false;
  layer_.accumulator_size = 32;
  wide_sums_ = WideSums::kNarrow;
  if (layer_.wide_bias == nullptr) return true;
  const int64_t* wide = layer_.wide_bias;
  const auto holds = [](int64_t largest, int64_t b) {
    const int64_t left = INT32_MAX - largest;
    return -left <= b && b <= left;
  };
  if (layer_.mult_shift < 31 &&
      std::equal(exact.largest.begin(), exact.largest.end(), wide, holds)) {
    bias->assign(wide, wide + layer_.out_channels);
    layer_.bias = bias->data();
    layer_.wide_bias = nullptr;
  } else {
    wide_sums_ = WideSums::kWideBias;
  }
  return true;
}

// Of sums that 32 bits may not hold.
template <typename In, typename Out>
void PreparedConvolution<In, Out>::PrepareWide(const ExactSums& exact) {
  wide_sums_ = WideSums::kDefinition;
  kept_ = std::make_unique<const Kept>(layer_);
  if (exact.groups.empty() || layer_.mult_shift != 0) return;
  layer_.accumulator_size = 32;
  const std::vector<int32_t> weights(layer_.filter, layer_.filter + layer_.FilterElements());
  const ChainPlan plan =
      PlanInt32(FactsWith(weights), CurrentDotKernels<StoredOutput>().HasBytes());
  if (!IsDots(plan.path)) return;
  wide_.emplace(layer_, plan, exact.groups);
  if (!wide_->Fits()) return wide_.reset();
  plan_ = plan;
  wide_sums_ = WideSums::kGroups;
  kept_.reset();
  const std::vector<int64_t> none(static_cast<size_t>(layer_.out_channels));
  if (layer_.wide_bias == nullptr) layer_.wide_bias = none.data();
  const LayerFinishCall finish = FinishCall();
  has_whole_tiles_ = wished_ == SumsOfTiles::kWhole;
  KeepAddends(finish);
  finish_ = std::make_unique<LayerFinish>(finish);
}

// Plans for sums that are whole where all of them fit 32 bits, as those of 64 bits do that are made
// here, and by theorem 1 those of the accumulator are their low bits.
template <typename In, typename Out>
void PreparedConvolution<In, Out>::KeepWhole(const std::vector<int32_t>& weights, bool corrects) {
  if (corrects || plan_->path == ChainPath::kStepwise) return;
  if (wide_sums_ == WideSums::kNone && LargestSum(weights) > INT32_MAX) return;
  ChainFacts facts = FactsWith(weights);
  facts.accumulator_size = 32;
  const int32_t bits = plan_->bits;
  plan_ = PlanInt32(facts, CurrentDotKernels<StoredOutput>().HasBytes());
  plan_->bits = bits;
  has_whole_tiles_ = true;
}

// Of what finishes the layer.
template <typename In, typename Out>
void PreparedConvolution<In, Out>::KeepAddends(const LayerFinishCall& finish) {
  if (!has_whole_tiles_) return;
  addends_.resize(static_cast<size_t>(layer_.out_channels));
  for (size_t c = 0; c < addends_.size(); ++c) {
    if (finish.wide_bias != nullptr) {
      addends_[c] = ShiftRoundHalfToEven64(finish.wide_bias[c], layer_.mult_shift);
    } else if (finish.bias != nullptr) {
      addends_[c] = finish.datapath.ScaleProduct(finish.bias[c]);
    }
  }
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
  dots_->Prepare(weights, begins ? layer_.bias : nullptr);
  KeepAddends(finish);
  finish_ = std::make_unique<LayerFinish>(finish);
}

template <typename In, typename Out>
template <typename T>
void PreparedConvolution<In, Out>::PrepareSums(std::optional<PreparedSums<T>>* sums,
                                               std::vector<T> weights, bool corrects,
                                               Workers* workers) {
  if (has_whole_tiles_) {
    LayerFinishCall finish = FinishCall();
    finish.bits = layer_.accumulator_size;
    KeepAddends(finish);
    finish_ = std::make_unique<LayerFinish>(finish);
    layer_.accumulator_size = 32;  // of what sums
  }
  sums->emplace(layer_, std::move(weights), corrects, InputFacts(), workers);
  plan_ = (*sums)->plan();
  if (!has_whole_tiles_) finish_ = std::make_unique<LayerFinish>(FinishCall());
}

// Of sums that are reduced.
template <typename In, typename Out>
LayerFinishCall PreparedConvolution<In, Out>::FinishCall() const {
  return {layer_.out_channels,
          32,
          layer_.use_fp16_acc ? nullptr : layer_.bias,
          Datapath<int32_t>(layer_.accumulator_size, layer_.mult_shift, false),
          layer_.multipliers,
          layer_.per_channel,
          layer_.requantise,
          std::is_same_v<Out, int8_t> ? StoredType::kInt8 : StoredType::kInt16,
          LargestOutcome(),
          layer_.wide_bias};
}

template <typename In, typename Out>
void PreparedConvolution<In, Out>::Run(const In* input, int32_t batch, Out* output,
                                       Workers* workers, SumWatch* watch) const {
  if (kept_) {
    const int64_t cost = layer_.Positions() * layer_.FilterElements();
    return workers->Share(batch, cost, [&](int64_t first, int64_t end) {
      DefinePreparedConvolution(kept_->layer, input + first * layer_.InputElements(),
                                static_cast<int32_t>(end - first),
                                output + first * layer_.OutputElements());
    });
  }
  const StoredOutput outputs = {finish_.get(),       output,  0,    layer_.out_channels, 0,
                                layer_.out_channels, nullptr, watch};
  if (wide_) return wide_->Run(input, batch, outputs, workers);
  if (dots_) return dots_->Run(input, batch, outputs, workers);
  if (halves_) return halves_->Run(input, batch, outputs, workers);
  sums_->Run(input, batch, outputs, workers);
}

template class PreparedConvolution<int8_t, int8_t>;
template class PreparedConvolution<int8_t, int16_t>;
template class PreparedConvolution<int16_t, int8_t>;
template class PreparedConvolution<int16_t, int16_t>;

}  // namespace bitfold
