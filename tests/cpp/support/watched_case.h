// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// A prepared layer whose final sums are looked at, as its tests see it: a case of a prepared layer,
// and the widths that its sums are compared with.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_WATCHED_CASE_H_
#define BITFOLD_TESTS_CPP_SUPPORT_WATCHED_CASE_H_

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "bitfold/HWatchedConvolution.h"
#include "cpu/watched_convolution.h"
#include "reference/partial_sums.h"
#include "support/buffer.h"
#include "support/prepared_case.h"
#include "support/warnings.h"

namespace bitfold::testing {

template <typename Out>
struct WatchedOutput {
  PreparedOutput<Out> stored;
  ExactBuffer<int64_t> tables;  // the extremes, then what is outside
};

template <typename In, typename Out>
struct WatchedCase {
  PreparedCase<In, Out> layer;
  std::vector<int32_t> sizes;

  WatchedSizes Sizes() const { return {sizes.data(), static_cast<int32_t>(sizes.size())}; }
  int64_t TableCount() const {
    return layer.out_channels * (2 + static_cast<int64_t>(sizes.size()));
  }

  std::string Entry(int64_t i) const {
    std::string text = Describe("entry", i) + ", widths";
    for (const int32_t size : sizes) text += " " + std::to_string(size);
    return text + layer.Inputs(i % layer.out_channels);
  }

  // Runs on memory that ends where the numbers do.
  template <typename Run>
  WatchedOutput<Out> By(Run run, int offset = 0) const {
    const ExactBuffer<In> in(layer.input, offset);
    WatchedOutput<Out> out{{ExactBuffer<Out>(layer.count(), (offset + 1) % 4), ""},
                           ExactBuffer<int64_t>(TableCount())};
    const WatchedTables tables = {out.tables.data(), out.tables.data() + 2 * layer.out_channels};
    out.stored.lines = PrintedAndCountedBy([&] {  // may call it twice
      ClearWatched(layer.out_channels, Sizes().count, tables);
      run(in.data(), out.stored.values.data(), tables);
    });
    return out;
  }

  WatchedOutput<Out> Definition(int offset = 0) const {
    return By(
        [this](const In* in, Out* out, const WatchedTables& tables) {
          DefineWatchedConvolution(layer.Layer(), in, layer.batch, out, Sizes(), tables);
        },
        offset);
  }

  // The layer has copied what it was made of, but for the sizes.
  std::unique_ptr<const WatchedConvolution<In, Out>> Prepare(Workers* workers) const {
    const PreparedCase<In, Out> copy = layer;
    return std::make_unique<const WatchedConvolution<In, Out>>(copy.Layer(), Sizes(), workers);
  }

  WatchedOutput<Out> By(const WatchedConvolution<In, Out>& watched, Workers* workers,
                        int offset = 0) const {
    return By(
        [&](const In* in, Out* out, const WatchedTables& tables) {
          watched.Run(in, layer.batch, out, tables, workers);
        },
        offset);
  }

  // The final sums of the oracle's lists of addends.
  ExactBuffer<int64_t> OracleTables() const {
    const auto axis = [](const LayerAxis& a) {
      return reference::SummedAxis{a.input, a.before, a.after, a.taps, a.stride, a.dilation};
    };
    const std::vector<int32_t> data(layer.input.begin(), layer.input.end());
    const std::vector<int32_t> weights(layer.filter.begin(), layer.filter.end());
    std::vector<int64_t> bias(layer.bias.begin(), layer.bias.end());
    if (!layer.wide_bias.empty()) bias = layer.wide_bias;
    const auto channels = reference::SumsOnTheWay(
        {layer.batch, layer.in_channels, layer.out_channels, axis(layer.rows), axis(layer.columns),
         layer.rows.padding == Padding::kSame, layer.is_depthwise, 1, layer.zero_point, 0,
         layer.mult_shift, sizes},
        data.data(), weights.data(), bias.empty() ? nullptr : bias.data());
    ExactBuffer<int64_t> found(TableCount());
    for (int32_t c = 0; c < layer.out_channels; ++c) {
      const reference::SummedChannel& channel = channels[static_cast<size_t>(c)];
      found[c] = channel.least_final;
      found[layer.out_channels + c] = channel.greatest_final;
      for (size_t i = 0; i < sizes.size(); ++i) {
        found[(2 + static_cast<int64_t>(i)) * layer.out_channels + c] = channel.ends_outside[i];
      }
    }
    return found;
  }
};

// A case that a watched layer takes, of any that a prepared one takes.
template <typename In, typename Out>
WatchedCase<In, Out> Watched(PreparedCase<In, Out> layer, std::vector<int32_t> sizes) {
  if (layer.mult_shift > kMostSummedShift) layer.mult_shift = kMostSummedShift;
  for (int64_t& bias : layer.wide_bias) {
    bias = std::clamp(bias, -kLargestSummedBias, kLargestSummedBias);
  }
  return {std::move(layer), std::move(sizes)};
}

inline std::vector<int32_t> AllSizes() {
  std::vector<int32_t> sizes;
  for (int32_t size = 32; size >= 1; --size) sizes.push_back(size);
  return sizes;
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_WATCHED_CASE_H_
