// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/partial_sums.h"

#include <algorithm>
#include <cstdint>
#include <mutex>
#include <vector>

namespace bitfold {
namespace {

constexpr int64_t kCostOfAddend = 10;  // cycles

// The tables of a part of the work.
class OwnTables {
 public:
  OwnTables(int64_t channels, int64_t sizes)
      : channels_(channels),
        sizes_(sizes),
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
  const int64_t sizes_;
  std::vector<int64_t> extremes_;
  std::vector<int64_t> counts_;
  std::vector<int64_t> first_;
};

}  // namespace

template <typename In, typename Weight>
void ComputePartialSums(const PartialSumsCall<In, Weight>& call, const PartialSumsTables& tables,
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

#define BITFOLD_INSTANTIATE(In, Weight)                                                          \
  template void ComputePartialSums(const PartialSumsCall<In, Weight>&, const PartialSumsTables&, \
                                   Workers*);
BITFOLD_INSTANTIATE(int8_t, int8_t)
BITFOLD_INSTANTIATE(int8_t, int16_t)
BITFOLD_INSTANTIATE(int16_t, int8_t)
BITFOLD_INSTANTIATE(int16_t, int16_t)
#undef BITFOLD_INSTANTIATE

}  // namespace bitfold
