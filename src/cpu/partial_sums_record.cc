// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/partial_sums_record.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <vector>

namespace bitfold {
namespace {

constexpr int32_t kMin = std::numeric_limits<int32_t>::min();
constexpr int32_t kMax = std::numeric_limits<int32_t>::max();

int32_t Clamp(int64_t x) { return static_cast<int32_t>(std::clamp<int64_t>(x, kMin, kMax)); }

void Include(int64_t* least, int64_t* greatest, int64_t low, int64_t high) {
  *least = std::min(*least, low);
  *greatest = std::max(*greatest, high);
}

}  // namespace

SumRecord::SumRecord(const RecordLayout& layout, const PartialSumsTables& tables)
    : layout_(layout),
      narrowest_(layout.size_count == 0
                     ? 32
                     : *std::min_element(layout.sizes, layout.sizes + layout.size_count)),
      panels_(static_cast<size_t>(layout.panels())),
      widths_(static_cast<size_t>(layout.panels() * layout.size_count)) {
  for (int32_t p = 0; p < layout.panels(); ++p) {
    InitPanel(p, tables);
    for (int32_t i = 0; i < layout.size_count; ++i) InitWidth(p, i);
    Quieten(p);
  }
  initial_ = panels_;
}

void SumRecord::InitPanel(int32_t p, const PartialSumsTables& tables) {
  PanelRecord& panel = this->panel(p);
  for (int32_t l = 0; l < kSumLanes; ++l) {
    const int32_t channel = p * kSumLanes + l;
    const bool exists = channel < layout_.channels;
    const int64_t place = int64_t{channel} - layout_.channels;  // from the end of a row
    const auto known = [&](SumExtreme e) {
      return Clamp(tables.extremes[(int64_t{e} + 1) * layout_.channels + place]);
    };
    panel.least_final[l] = kMax;
    panel.greatest_final[l] = kMin;
    panel.least[l] = exists ? known(kLeastPartial) : kMin;
    panel.greatest[l] = exists ? known(kGreatestPartial) : kMax;
    panel.end_least[l] = kMin;
    panel.end_greatest[l] = kMax;
  }
}

void SumRecord::InitWidth(int32_t p, int32_t i) {
  WidthRecord& width = this->width(p, i);
  PanelRecord& panel = this->panel(p);
  const int64_t limit = int64_t{1} << (layout_.sizes[i] - 1);
  width = {};
  width.low = static_cast<int32_t>(-limit);
  width.high = static_cast<int32_t>(limit - 1);
  for (int32_t l = 0; l < kSumLanes; ++l) {
    const int32_t channel = p * kSumLanes + l;
    width.first[l] = kMax;
    width.end_low[l] = kMin;
    width.end_high[l] = kMax;
    if (channel >= layout_.channels) continue;
    // Sums of products are above kMin and below kMax: a limit beyond excludes all or none.
    width.end_low[l] = Clamp(-limit - BiasOf(channel));
    width.end_high[l] = Clamp(limit - 1 - BiasOf(channel));
    panel.end_least[l] = std::max(panel.end_least[l], width.end_low[l]);
    panel.end_greatest[l] = std::min(panel.end_greatest[l], width.end_high[l]);
  }
}

void SumRecord::Quieten(int32_t p) {
  PanelRecord& panel = this->panel(p);
  const SumLimits narrowest = limits();
  for (int32_t l = 0; l < kSumLanes; ++l) {
    panel.quiet_least[l] = std::max(panel.least[l], narrowest.low);
    panel.quiet_greatest[l] = std::min(panel.greatest[l], narrowest.high);
  }
}

void SumRecord::Exchange(std::vector<int32_t>* least, std::vector<int32_t>* greatest) {
  size_t at = 0;
  for (int32_t p = 0; p < layout_.panels(); ++p) {
    PanelRecord& panel = this->panel(p);
    for (int32_t l = 0; l < kSumLanes; ++l, ++at) {
      int32_t& low = (*least)[at];
      int32_t& high = (*greatest)[at];
      low = panel.least[l] = std::min(low, panel.least[l]);
      high = panel.greatest[l] = std::max(high, panel.greatest[l]);
    }
    Quieten(p);
  }
}

void SumRecord::AddOutput(int32_t p, const int32_t* sums, int64_t products,
                          const OutputCounts* counts) {
  for (int32_t i = 0; i < layout_.size_count; ++i) {
    WidthRecord& width = this->width(p, i);
    for (int32_t l = 0; l < kSumLanes; ++l) {
      const bool ends = sums[l] < width.end_low[l] || sums[l] > width.end_high[l];
      const int64_t outside =
          (counts == nullptr ? 0 : counts[i].outside[l]) + (ends && has_bias() ? 1 : 0);
      width.ends_outside[l] += ends ? 1 : 0;
      width.partials_outside[l] += outside;
      width.was_outside[l] += outside != 0 ? 1 : 0;
      if (ends && has_bias()) {
        width.first[l] = std::min(width.first[l], static_cast<int32_t>(products + 1));
      }
    }
  }
}

void SumRecord::AddTo(const PartialSumsTables& tables) const {
  for (int32_t channel = 0; channel < layout_.channels; ++channel) AddChannel(channel, tables);
}

void SumRecord::AddChannel(int32_t channel, const PartialSumsTables& tables) const {
  const auto p = static_cast<size_t>(channel / kSumLanes);
  const int32_t l = channel % kSumLanes;
  const PanelRecord& panel = panels_[p];
  const auto extreme = [&](SumExtreme e) {
    return &tables.extremes[int64_t{e} * layout_.channels + channel];
  };
  if (panel.least_final[l] <= panel.greatest_final[l]) {
    const int64_t low = panel.least_final[l] + BiasOf(channel);
    const int64_t high = panel.greatest_final[l] + BiasOf(channel);
    Include(extreme(kLeastFinal), extreme(kGreatestFinal), low, high);
    Include(extreme(kLeastPartial), extreme(kGreatestPartial), low, high);
  }
  // What has not changed is what was known, perhaps more than fits.
  if (panel.least[l] != initial_[p].least[l]) {
    *extreme(kLeastPartial) = std::min<int64_t>(*extreme(kLeastPartial), panel.least[l]);
  }
  if (panel.greatest[l] != initial_[p].greatest[l]) {
    *extreme(kGreatestPartial) = std::max<int64_t>(*extreme(kGreatestPartial), panel.greatest[l]);
  }
  for (int32_t i = 0; i < layout_.size_count; ++i) {
    const WidthRecord& width =
        widths_[p * static_cast<size_t>(layout_.size_count) + static_cast<size_t>(i)];
    const int64_t place = int64_t{i} * layout_.channels + channel;
    int64_t* const counts = tables.counts + place * kSumCounts;
    counts[kEndsOutside] += width.ends_outside[l];
    counts[kWasOutside] += width.was_outside[l];
    counts[kPartialsOutside] += width.partials_outside[l];
    int64_t& first = tables.first[place];
    if (width.first[l] != kMax && (first == 0 || width.first[l] < first)) first = width.first[l];
  }
}

}  // namespace bitfold
