// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/partial_sums.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <mutex>
#include <type_traits>
#include <vector>

#include "chain/lane_windows.h"
#include "cpu/partial_sums_dots.h"
#include "cpu/partial_sums_lanes.h"
#include "cpu/partial_sums_record.h"
#include "cpu/partial_sums_windows.h"

namespace bitfold {
namespace {

constexpr int64_t kCostOfAddend = 10;  // cycles

// The tables of a part of the work.
class OwnTables {
 public:
  OwnTables(int64_t channels, int64_t sizes)
      : channels_(channels),
        extremes_(static_cast<size_t>(kSumExtremes * channels)),
        counts_(static_cast<size_t>(sizes * channels * kSumCounts)),
        first_(static_cast<size_t>(sizes * channels)) {
    ClearPartialSums(channels, sizes, tables());
  }

  PartialSumsTables tables() { return {extremes_.data(), counts_.data(), first_.data()}; }

  // Adds what was found, in any order of the parts.
  void AddTo(const PartialSumsTables& all) const {
    for (int64_t e = 0; e < kSumExtremes; ++e) {
      const bool is_least = e == kLeastFinal || e == kLeastPartial;
      for (int64_t i = e * channels_; i < (e + 1) * channels_; ++i) {
        const int64_t found = extremes_[static_cast<size_t>(i)];
        int64_t& extreme = all.extremes[i];
        extreme = is_least ? std::min(extreme, found) : std::max(extreme, found);
      }
    }
    for (size_t i = 0; i < counts_.size(); ++i) all.counts[i] += counts_[i];
    for (size_t i = 0; i < first_.size(); ++i) {
      if (first_[i] == 0) continue;
      all.first[i] = all.first[i] == 0 ? first_[i] : std::min(all.first[i], first_[i]);
    }
  }

 private:
  const int64_t channels_;
  std::vector<int64_t> extremes_;
  std::vector<int64_t> counts_;
  std::vector<int64_t> first_;
};

// By the definition, whatever the numbers.
template <typename In, typename Weight>
void ShareDefinition(const PartialSumsCall<In, Weight>& call, const PartialSumsTables& tables,
                     Workers* workers) {
  const int64_t columns = call.columns.outputs();
  const int64_t positions = call.Positions();
  std::mutex mutex;
  workers->Share(call.batch * positions, call.FilterElements() * kCostOfAddend,
                 [&](int64_t first, int64_t end) {
                   OwnTables own(call.out_channels, call.size_count);
                   PartialSums<In, Weight> sums(call, own.tables());
                   for (int64_t i = first; i < end; ++i) {
                     const auto image = static_cast<int32_t>(i / positions);
                     const auto row = static_cast<int32_t>(i % positions / columns);
                     const auto column = static_cast<int32_t>(i % columns);
                     for (int32_t c = 0; c < call.out_channels; ++c)
                       sums.AddOutput(image, row, column, c);
                   }
                   const std::lock_guard<std::mutex> lock(mutex);
                   own.AddTo(tables);
                 });
}

// ---- Which form --------------------------------------------------------------------------------

// The largest magnitude of numbers less their zero point.
template <typename T>
int64_t LargestMagnitude(const T* numbers, int64_t count, int32_t zero_point) {
  T least = numbers[0];
  T greatest = numbers[0];
  for (int64_t i = 0; i < count; ++i) {
    least = std::min(least, numbers[i]);
    greatest = std::max(greatest, numbers[i]);
  }
  return std::max(std::abs(int64_t{least} - zero_point), std::abs(int64_t{greatest} - zero_point));
}

// The largest sum of magnitudes of the weights of a channel.
template <typename In, typename Weight>
int64_t LargestWeightSum(const PartialSumsCall<In, Weight>& call) {
  std::vector<int64_t> sums(static_cast<size_t>(call.out_channels));
  const Weight* weight = call.filter;
  for (int64_t i = call.FilterElements() / call.out_channels; i > 0; --i) {
    for (int64_t& sum : sums) sum += std::abs(int64_t{*weight++} - call.filter_zero_point);
  }
  return *std::max_element(sums.begin(), sums.end());
}

// Whether the windows go forward, and packed rows take no more than a few times the room of what
// they are made of.
template <typename In, typename Weight>
bool HasPlainWindows(const PartialSumsCall<In, Weight>& call) {
  const WindowAxis rows(call.rows.OfPadded());
  const WindowAxis columns(call.columns.OfPadded());
  if (!GoesForward(rows) || !GoesForward(columns)) return false;
  constexpr int64_t kSmall = 1 << 20;
  const int64_t numbers = SumWindows(call, kSumLanes).Numbers();
  return numbers <= std::max(kSmall, 8 * call.InputElements());
}

// The largest magnitude that the type allows.
template <typename T>
int64_t LargestOfType(int32_t zero_point) {
  return std::max(int64_t{std::numeric_limits<T>::max()} - zero_point,
                  zero_point - int64_t{std::numeric_limits<T>::min()});
}

// Whether 16 bits hold the factors and all sums of products' magnitudes are below `most`. The
// numbers are looked at only where their types do not say so; of bytes as data any is taken for
// possible, as with their offset it is.
template <typename In, typename Weight>
bool IsNarrow(const PartialSumsCall<In, Weight>& call, int64_t most) {
  constexpr int64_t kMostFactor = INT16_MAX;
  const bool is_bytes = std::is_same_v<In, int8_t>;
  int64_t data = is_bytes ? UINT8_MAX : LargestOfType<In>(call.input_zero_point);
  int64_t weights = LargestOfType<Weight>(call.filter_zero_point);
  const int64_t products = call.FilterElements() / call.out_channels;
  if (data <= kMostFactor && weights <= kMostFactor && products < most / (data * weights)) {
    return true;
  }
  if (!is_bytes) {
    data = LargestMagnitude(call.input, call.batch * call.InputElements(), call.input_zero_point);
  }
  weights = LargestMagnitude(call.filter, call.FilterElements(), call.filter_zero_point);
  if (data > kMostFactor || weights > kMostFactor) return false;
  return data * LargestWeightSum(call) < most;
}

template <typename In, typename Weight>
void ComputeOfOneFilter(const PartialSumsCall<In, Weight>& call, const PartialSumsTables& tables,
                        Workers* workers) {
  const PartialSumsForm form = FormOf(call);
  if (form == PartialSumsForm::kDefinition) return ShareDefinition(call, tables, workers);
  if constexpr (std::is_same_v<In, int8_t> && std::is_same_v<Weight, int8_t>) {
    if (form == PartialSumsForm::kDots) return SumByDots(call, tables, workers);
  }
  SumInLanes(call, tables, workers);
}

}  // namespace

template <typename In, typename Weight>
PartialSumsForm FormOf(const PartialSumsCall<In, Weight>& call) {
  if (!HasPlainWindows(call) || !IsNarrow(call, kMostLaneSum)) return PartialSumsForm::kDefinition;
  if constexpr (std::is_same_v<In, int8_t> && std::is_same_v<Weight, int8_t>) {
    if (HasSumDots(call) && IsNarrow(call, kMostDotSum)) return PartialSumsForm::kDots;
  }
  return PartialSumsForm::kLanes;
}

template <typename In, typename Weight>
void ComputePartialSums(const PartialSumsCall<In, Weight>& call, const PartialSumsTables& tables,
                        Workers* workers) {
  if (call.batch == 0) return;
  if (call.filters == 1) return ComputeOfOneFilter(call, tables, workers);
  PartialSumsCall<In, Weight> of_image = call;
  of_image.batch = 1;
  of_image.filters = 1;
  for (int32_t image = 0; image < call.batch; ++image) {
    ComputeOfOneFilter(of_image, tables, workers);
    of_image.input += call.InputElements();
    of_image.filter += call.FilterElements();
  }
}

#define BITFOLD_INSTANTIATE(In, Weight)                                                          \
  template PartialSumsForm FormOf(const PartialSumsCall<In, Weight>&);                           \
  template void ComputePartialSums(const PartialSumsCall<In, Weight>&, const PartialSumsTables&, \
                                   Workers*);
BITFOLD_INSTANTIATE(int8_t, int8_t)
BITFOLD_INSTANTIATE(int8_t, int16_t)
BITFOLD_INSTANTIATE(int16_t, int8_t)
BITFOLD_INSTANTIATE(int16_t, int16_t)
#undef BITFOLD_INSTANTIATE

}  // namespace bitfold
