// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/watched_convolution.h"

#include <algorithm>
#include <mutex>

namespace bitfold {
namespace {

// Elements of the layer beside that are stored at a time, for nobody.
constexpr int64_t kStoredTogether = int64_t{1} << 20;

// The exact form of a layer: what it stores does not matter.
PreparedLayer AtFullWidth(const PreparedLayer& layer, const int64_t* bias,
                          const double* multiplier) {
  PreparedLayer exact = layer;
  exact.bias = nullptr;
  exact.wide_bias = bias;
  exact.accumulator_size = kWideAccumulator;
  exact.use_fp16_acc = false;
  exact.multipliers = multiplier;
  exact.per_channel = false;
  exact.requantise = {Rescaling::kShortMultiplier, layer.mult_shift, 0, INT8_MIN, INT8_MAX};
  return exact;
}

}  // namespace

template <typename In, typename Out>
WatchedConvolution<In, Out>::WatchedConvolution(const PreparedLayer& layer,
                                                const WatchedSizes& sizes, Workers* workers)
    : sizes_(sizes), layer_(layer, workers, SumsOfTiles::kWhole) {
  if (layer_.has_whole_tiles()) {
    limits_.emplace(layer_.addends(), layer_.tiles(), sizes_);
  } else if (layer_.kept() == nullptr) {
    PrepareBeside(layer, workers);
  }
  defined_ = beside_ ? beside_->kept() : layer_.kept();
}

template <typename In, typename Out>
void WatchedConvolution<In, Out>::PrepareBeside(const PreparedLayer& layer, Workers* workers) {
  std::vector<int64_t> bias;
  if (layer.bias != nullptr) bias.assign(layer.bias, layer.bias + layer.out_channels);
  const double nothing = 0.0;
  beside_.emplace(AtFullWidth(layer, bias.empty() ? nullptr : bias.data(), &nothing), workers,
                  SumsOfTiles::kWhole);
  if (beside_->has_whole_tiles()) limits_.emplace(beside_->addends(), beside_->tiles(), sizes_);
}

template <typename In, typename Out>
WatchForm WatchedConvolution<In, Out>::form() const {
  if (!limits_) return WatchForm::kDefinition;
  return beside_ ? WatchForm::kBeside : WatchForm::kTiles;
}

template <typename In, typename Out>
void WatchedConvolution<In, Out>::Run(const In* input, int32_t batch, Out* output,
                                      const WatchedTables& tables, Workers* workers) const {
  if (form() == WatchForm::kDefinition) {
    layer_.Run(input, batch, output, workers);
    return RunDefinition(input, batch, tables, workers);
  }
  SumWatch watch(*limits_);
  if (form() == WatchForm::kTiles) {
    layer_.Run(input, batch, output, workers, &watch);
  } else {
    layer_.Run(input, batch, output, workers);
    RunBeside(input, batch, &watch, workers);
  }
  watch.AddTo(tables);
}

// A few images at a time, for the sake of what is stored.
template <typename In, typename Out>
void WatchedConvolution<In, Out>::RunBeside(const In* input, int32_t batch, SumWatch* watch,
                                            Workers* workers) const {
  const int64_t of_image = layer().OutputElements();
  const auto together =
      static_cast<int32_t>(std::clamp<int64_t>(kStoredTogether / of_image, 1, batch));
  std::vector<int8_t> stored(static_cast<size_t>(together * of_image));
  for (int32_t image = 0; image < batch; image += together) {
    beside_->Run(input + image * layer().InputElements(), std::min(together, batch - image),
                 stored.data(), workers, watch);
  }
}

template <typename In, typename Out>
void WatchedConvolution<In, Out>::RunDefinition(const In* input, int32_t batch,
                                                const WatchedTables& tables,
                                                Workers* workers) const {
  const PreparedLayer& kept = *defined_;
  const int64_t channels = kept.out_channels;
  std::mutex mutex;
  const int64_t cost = kept.Positions() * kept.FilterElements();
  workers->Share(batch, cost, [&](int64_t first, int64_t end) {
    std::vector<int64_t> extremes(static_cast<size_t>(2 * channels));
    std::vector<int64_t> outside(static_cast<size_t>(sizes_.count * channels));
    const WatchedTables own = {extremes.data(), outside.data()};
    ClearWatched(channels, sizes_.count, own);
    DefineWatchedSums(kept, input + first * kept.InputElements(), static_cast<int32_t>(end - first),
                      sizes_, own);
    const std::lock_guard<std::mutex> lock(mutex);
    for (int64_t c = 0; c < channels; ++c) {
      tables.extremes[c] = std::min(tables.extremes[c], own.extremes[c]);
      tables.extremes[channels + c] =
          std::max(tables.extremes[channels + c], own.extremes[channels + c]);
    }
    std::transform(outside.begin(), outside.end(), tables.outside, tables.outside,
                   [](int64_t a, int64_t b) { return a + b; });
  });
}

template class WatchedConvolution<int8_t, int8_t>;
template class WatchedConvolution<int8_t, int16_t>;
template class WatchedConvolution<int16_t, int8_t>;
template class WatchedConvolution<int16_t, int16_t>;

}  // namespace bitfold
