// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The partial sums of a layer as their tests see them: one case, computed by the oracle, by the
// definition and by the forms that are shared out.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_PARTIAL_SUMS_CASE_H_
#define BITFOLD_TESTS_CPP_SUPPORT_PARTIAL_SUMS_CASE_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "bitfold/HPartialSums.h"
#include "cpu/partial_sums.h"
#include "frame/workers.h"
#include "reference/partial_sums.h"
#include "support/bits.h"
#include "support/buffer.h"
#include "support/compare.h"

namespace bitfold::testing {

// An empty bias is none, and so are empty extremes known before.
template <typename In, typename Weight>
struct PartialSumsCase {
  int32_t batch = 1;
  int32_t in_channels = 1;
  int32_t out_channels = 1;
  LayerAxis rows = {1, 1, 1, 1, 0, 0};
  LayerAxis columns = {1, 1, 1, 1, 0, 0};
  bool is_depthwise = false;
  int32_t filters = 1;
  int32_t input_zero_point = 0;
  int32_t filter_zero_point = 0;
  int32_t mult_shift = 0;
  std::vector<In> input;
  std::vector<Weight> filter;
  std::vector<int64_t> bias;
  std::vector<int32_t> sizes;
  std::vector<int64_t> known;

  // Points to the case.
  PartialSumsCall<In, Weight> Call() const {
    return {input.data(), filter.data(),    bias.empty() ? nullptr : bias.data(),
            batch,        in_channels,      out_channels,
            rows,         columns,          is_depthwise,
            filters,      input_zero_point, filter_zero_point,
            mult_shift,   sizes.data(),     static_cast<int32_t>(sizes.size())};
  }

  int64_t InputElements() const { return batch * Call().InputElements(); }
  int64_t FilterElements() const { return filters * Call().FilterElements(); }

  int64_t Widths() const { return static_cast<int64_t>(sizes.size()); }

  // The tables one after the other.
  int64_t count() const { return out_channels * (kSumExtremes + (kSumCounts + 1) * Widths()); }

  PartialSumsTables Tables(int64_t* all) const {
    int64_t* const counts = all + kSumExtremes * out_channels;
    return {all, counts, counts + Widths() * out_channels * kSumCounts};
  }

  std::string Inputs(int64_t i) const {
    const auto axis = [](const char* name, const LayerAxis& a) {
      return std::string("\n  ") + name + (a.padding == Padding::kSame ? ", SAME" : ", VALID") +
             Describe(": input", a.input, "taps", a.taps, "stride", a.stride, "dilation",
                      a.dilation, "before", a.before, "after", a.after);
    };
    std::string widths;
    for (const int32_t size : sizes) widths += " " + std::to_string(size);
    return Describe("entry", i, "batch", batch, "inputs", in_channels, "outputs", out_channels,
                    "depthwise", is_depthwise, "filters", filters, "zero points", input_zero_point,
                    "and", filter_zero_point, "shift", mult_shift) +
           axis("rows", rows) + axis("columns", columns) +
           Describe("\n  bias", bias.empty() ? 0 : bias[0]) + ", widths" + widths;
  }

  // Runs on memory that ends where the numbers do.
  template <typename Run>
  ExactBuffer<int64_t> By(Run run, int offset = 0) const {
    const ExactBuffer<In> own_input(input, offset);
    const ExactBuffer<Weight> own_filter(filter, (offset + 1) % 4);
    ExactBuffer<int64_t> found(count());
    const PartialSumsTables tables = Tables(found.data());
    ClearPartialSums(out_channels, Widths(), tables);
    std::copy(known.begin(), known.end(), tables.extremes);
    PartialSumsCall<In, Weight> call = Call();
    call.input = own_input.data();
    call.filter = own_filter.data();
    run(call, tables);
    return found;
  }

  ExactBuffer<int64_t> Definition(int offset = 0) const {
    return By([](const auto& call, const auto& tables) { DefinePartialSums(call, tables); },
              offset);
  }

  ExactBuffer<int64_t> Computed(Workers* workers, int offset = 0) const {
    return By([workers](const auto& call,
                        const auto& tables) { ComputePartialSums(call, tables, workers); },
              offset);
  }

  ExactBuffer<int64_t> Oracle() const {
    const auto axis = [](const LayerAxis& a) {
      return reference::SummedAxis{a.input, a.before, a.after, a.taps, a.stride, a.dilation};
    };
    const std::vector<int32_t> data(input.begin(), input.end());
    const std::vector<int32_t> weights(filter.begin(), filter.end());
    const auto channels =
        reference::SumsOnTheWay({batch, in_channels, out_channels, axis(rows), axis(columns),
                                 rows.padding == Padding::kSame, is_depthwise, filters,
                                 input_zero_point, filter_zero_point, mult_shift, sizes},
                                data.data(), weights.data(), bias.empty() ? nullptr : bias.data());
    ExactBuffer<int64_t> found(count());
    const PartialSumsTables tables = Tables(found.data());
    for (int64_t c = 0; c < out_channels; ++c) {
      Write(channels[static_cast<size_t>(c)], c, tables);
    }
    return found;
  }

 private:
  void Write(const reference::SummedChannel& channel, int64_t c,
             const PartialSumsTables& tables) const {
    const int64_t extremes[] = {channel.least_final, channel.greatest_final, channel.least_partial,
                                channel.greatest_partial};
    for (int64_t e = 0; e < kSumExtremes; ++e) {
      const int64_t place = e * out_channels + c;
      const bool is_least = e % 2 == 0;
      const int64_t other = known.empty() ? extremes[e] : known[static_cast<size_t>(place)];
      tables.extremes[place] =
          is_least ? std::min(other, extremes[e]) : std::max(other, extremes[e]);
    }
    for (int64_t i = 0; i < Widths(); ++i) {
      const auto width = static_cast<size_t>(i);
      int64_t* const counts = tables.counts + (i * out_channels + c) * kSumCounts;
      counts[kEndsOutside] = channel.ends_outside[width];
      counts[kWasOutside] = channel.was_outside[width];
      counts[kPartialsOutside] = channel.partials_outside[width];
      tables.first[i * out_channels + c] = channel.first_outside[width];
    }
  }
};

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_PARTIAL_SUMS_CASE_H_
