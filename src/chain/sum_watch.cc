// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "chain/sum_watch.h"

#include <algorithm>
#include <limits>
#include <type_traits>

#include "chain/sum_output.h"
#include "vector/intrinsics.h"
#include "vector/target.h"

namespace bitfold {
namespace {

// Of a tile, from its first lane on.
template <typename T>
struct WatchedTile {
  const T* sums;
  int32_t pixels;
  int32_t stride;
};

struct WatchLoops {
  void (*narrow)(const WatchedSums<int32_t>&, const int32_t*, int32_t, int32_t,
                 const StoredOutput&);
  void (*wide)(const WatchedSums<int64_t>&, const int64_t*, int32_t, int32_t, const StoredOutput&);
};

#define BITFOLD_LOOPS "chain/sum_watch_loops.inc"
#define BITFOLD_LOOP_TABLE WatchLoops(kWatchLoops)
#include "vector/vector_loops.inc"

int32_t WholePanels(int32_t channels) { return (channels + kPanel - 1) / kPanel * kPanel; }

}  // namespace

// ---- Limits ------------------------------------------------------------------------------------

WatchLimits::WatchLimits(const std::vector<int64_t>& addends, WatchedTiles tiles,
                         const WatchedSizes& sizes)
    : addends_(addends), tiles_(tiles), sizes_(sizes), lanes_(WholePanels(channels())) {
  tiles == WatchedTiles::kNarrow ? Fill(&least_, &greatest_) : Fill(&wide_least_, &wide_greatest_);
}

// With an addend of at most 2^62 the limits of a width stay within 64 bits.
template <typename T>
void WatchLimits::Fill(std::vector<T>* least, std::vector<T>* greatest) const {
  using Limits = std::numeric_limits<T>;
  least->resize(static_cast<size_t>(int64_t{sizes_.count} * lanes_));
  greatest->resize(least->size());
  for (int32_t i = 0; i < sizes_.count; ++i) {
    const int64_t limit = int64_t{1} << (sizes_.sizes[i] - 1);
    for (int32_t c = 0; c < channels(); ++c) {
      const int64_t low = -limit - addend(c);
      const int64_t high = limit - 1 - addend(c);
      const auto at = static_cast<size_t>(int64_t{i} * lanes_ + c);
      const bool is_empty = low > Limits::max() || high < Limits::min();
      (*least)[at] =
          is_empty ? Limits::max() : static_cast<T>(std::max<int64_t>(low, Limits::min()));
      (*greatest)[at] =
          is_empty ? Limits::min() : static_cast<T>(std::min<int64_t>(high, Limits::max()));
    }
  }
}

template <>
const int32_t* WatchLimits::least() const {
  return least_.data();
}
template <>
const int32_t* WatchLimits::greatest() const {
  return greatest_.data();
}
template <>
const int64_t* WatchLimits::least() const {
  return wide_least_.data();
}
template <>
const int64_t* WatchLimits::greatest() const {
  return wide_greatest_.data();
}

// ---- What is seen ------------------------------------------------------------------------------

SumWatch::SumWatch(const WatchLimits& limits)
    : limits_(limits),
      outside_(static_cast<size_t>(int64_t{limits.sizes().count} * limits.lanes())) {
  if (limits.tiles() == WatchedTiles::kNarrow) {
    Start(&narrow_, CurrentLoops().narrow);
  } else {
    Start(&wide_, CurrentLoops().wide);
  }
}

template <typename T>
void SumWatch::Start(Kind<T>* kind, Loop<T> loop) {
  using Limits = std::numeric_limits<T>;
  const auto lanes = static_cast<size_t>(limits_.lanes());
  kind->least.assign(lanes, Limits::max());
  kind->greatest.assign(lanes, Limits::min());
  kind->seen = {limits_.sizes().count, limits_.lanes(),    kind->least.data(),
                kind->greatest.data(), limits_.least<T>(), limits_.greatest<T>(),
                outside_.data()};
  kind->loop = loop;
}

void SumWatch::Join(const SumWatch& part) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto join = [](const auto& from, auto* to) {
    for (size_t l = 0; l < from.least.size(); ++l) {
      to->least[l] = std::min(to->least[l], from.least[l]);
      to->greatest[l] = std::max(to->greatest[l], from.greatest[l]);
    }
  };
  join(part.narrow_, &narrow_);
  join(part.wide_, &wide_);
  std::transform(outside_.begin(), outside_.end(), part.outside_.begin(), outside_.begin(),
                 [](int64_t a, int64_t b) { return a + b; });
}

template <typename T>
void SumWatch::AddExtremes(const Kind<T>& kind, const WatchedTables& tables) const {
  int64_t* const least = tables.extremes;
  int64_t* const greatest = tables.extremes + limits_.channels();
  for (int32_t c = 0; c < limits_.channels(); ++c) {
    const auto lane = static_cast<size_t>(c);
    if (kind.least[lane] > kind.greatest[lane]) continue;  // of no sums
    least[c] = std::min(least[c], kind.least[lane] + limits_.addend(c));
    greatest[c] = std::max(greatest[c], kind.greatest[lane] + limits_.addend(c));
  }
}

void SumWatch::AddTo(const WatchedTables& tables) const {
  limits_.tiles() == WatchedTiles::kNarrow ? AddExtremes(narrow_, tables)
                                           : AddExtremes(wide_, tables);
  for (int32_t i = 0; i < limits_.sizes().count; ++i) {
    for (int32_t c = 0; c < limits_.channels(); ++c) {
      tables.outside[int64_t{i} * limits_.channels() + c] +=
          outside_[static_cast<size_t>(int64_t{i} * limits_.lanes() + c)];
    }
  }
}

}  // namespace bitfold
