// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/box_decoders.h"

#include <algorithm>
#include <type_traits>
#include <vector>

#include "cpu/vector_datapath.h"
#include "frame/replay.h"

namespace bitfold {
namespace {

constexpr int kAnchorsInBlock = kDatapathBlock / 2;

// A pair of factors for each anchor.
template <typename T>
PeriodicArray<T> FactorPairs(const T* first, const T* second, int64_t anchors) {
  std::vector<T> pairs;
  for (int64_t j = 0; j < anchors; ++j) pairs.insert(pairs.end(), {first[j], second[j]});
  return PeriodicArray<T>(pairs.data(), 2 * anchors);
}

// The pairs of centres of `count` anchors as those of the minimum and of the maximum corners: their
// first and their second numbers, in place `place` of a pair whose other place stays as it is.
template <typename T>
void SplitCentres(const T* pairs, int64_t count, int place, T* min, T* max) {
  for (int64_t i = 0; i < count; ++i) {
    min[2 * i + place] = pairs[2 * i];
    max[2 * i + place] = pairs[2 * i + 1];
  }
}

// What the two decoders differ in.
struct CornerForm {
  bool x_first;  // of the pairs that are computed, not of those that are written
  int64_t cost;  // cycles of a whole block, roughly
};

// The centres of rows as factors of the corners: the columns' for all of them, the row's for one.
template <typename T>
class RowCentres {
 public:
  explicit RowCentres(int64_t anchors) : anchors_(anchors), min_(2 * anchors), max_(2 * anchors) {}

  // Of the pairs of a row, whose other numbers stay 0.
  void Set(const T* pairs, int place) {
    SplitCentres(pairs, anchors_, place, min_.FirstPeriod(), max_.FirstPeriod());
    min_.Continue();
    max_.Continue();
  }

  const T* MinFrom(int64_t first) const { return min_.From(first); }
  const T* MaxFrom(int64_t first) const { return max_.From(first); }

 private:
  int64_t anchors_;
  PeriodicArray<T> min_;
  PeriodicArray<T> max_;
};

// Shares out blocks of anchors, row after row. corners(factors, first, count, out) computes those
// of anchors first to first + count - 1 of a row, given their detections and centres in `factors`.
// It returns whether a line may have been printed; define(row, first, count) then computes the
// block anew.
template <typename T, typename Call, typename Corners, typename Define>
void ComputeInBlocks(const Call& call, const CornerForm& form, Workers* workers,
                     const Corners& corners, const Define& define) {
  const int64_t anchors = call.grid.anchors;
  const int64_t all = call.grid.columns * anchors;
  const int64_t blocks = (all + kAnchorsInBlock - 1) / kAnchorsInBlock;
  std::vector<T> x_min(static_cast<size_t>(2 * all));
  std::vector<T> x_max(x_min.size());
  SplitCentres(call.x_centers, all, form.x_first ? 0 : 1, x_min.data(), x_max.data());
  const auto size = [&](int64_t first) {
    return static_cast<int>(std::min<int64_t>(kAnchorsInBlock, all - first));
  };
  const auto part = [&](int64_t begin, int64_t end, const Replay& replay) {
    RowCentres<T> y(anchors);
    int64_t unit = begin;
    for (int64_t block = unit % blocks; unit < end; block = 0) {
      const DetectionRow row = DetectionRowAt(call.grid, unit / blocks);
      y.Set(call.y_centers + row.y, form.x_first ? 1 : 0);
      for (; block < blocks && unit < end; ++block, ++unit) {
        const int64_t first = block * kAnchorsInBlock;
        const int64_t at = row.pairs + 2 * first;
        const CornerFactors<T> factors{call.detection_centers + at,
                                       call.detection_w_h + at,
                                       {},
                                       {y.MinFrom(2 * first), y.MaxFrom(2 * first)},
                                       {x_min.data() + 2 * first, x_max.data() + 2 * first}};
        if (corners(factors, first, size(first), call.output + 2 * at)) replay(unit);
      }
    }
  };
  const int64_t units = DetectionRows(call.grid) * blocks;
  const int64_t cost = 100 + form.cost * size(0) / kAnchorsInBlock;
  ShareWithReplay(workers, units, cost, part, [&](int64_t unit) {
    const int64_t first = unit % blocks * kAnchorsInBlock;
    define(DetectionRowAt(call.grid, unit / blocks), first, size(first));
  });
}

// The cycles of a block of corners, roughly, from those where sums are quantised and elsewhere.
template <typename T>
int64_t CornerCost(const ReciprocalDatapath<T>& datapath, int64_t quantised, int64_t other) {
  return datapath.use_fp16_acc() && std::is_same_v<T, float> ? quantised : other;
}

}  // namespace

template <typename T>
void ComputeBboxDecoder(const BboxDecoderCall<T>& call, Workers* workers) {
  if (DetectionRows(call.grid) == 0) return;
  const auto datapath = MakeDatapath<ReciprocalDatapath<T>>(call.attributes);
  const int64_t anchors = call.grid.anchors;
  const PeriodicArray<T> factor_pairs[3] = {
      FactorPairs(call.anchors_heights, call.anchors_widths, anchors),
      FactorPairs(call.anchors_heights_minus_div_2, call.anchors_widths_minus_div_2, anchors),
      FactorPairs(call.anchors_heights_div_2, call.anchors_widths_div_2, anchors)};
  const auto& loops = LoopsOf(datapath);
  const auto& pairs = CurrentPairLoops<T>();
  const auto corners = [&](CornerFactors<T> factors, int64_t first, int count, T* result) {
    for (int k = 0; k < 3; ++k) factors.factors[k] = factor_pairs[k].From(2 * first);
    T min[kDatapathBlock];
    T max[kDatapathBlock];
    const bool warned = loops.corners_of_two_products(datapath, factors, 2 * count, min, max);
    pairs.join(min, max, count, result);
    return warned;
  };
  ComputeInBlocks<T>(call, {false, CornerCost(datapath, 4100, 700)}, workers, corners,
                     [&](const DetectionRow& row, int64_t first, int count) {
                       DefineBboxDecoder(call, row, first, count);
                     });
}

// The x corners take the first number of a detection pair and the y corners the second, so the
// pairs are computed as (x, y) and swapped at the end.
template <typename T>
void ComputeSingleWeightPerProposalBboxDecoder(
    const SingleWeightPerProposalBboxDecoderCall<T>& call, Workers* workers) {
  if (DetectionRows(call.grid) == 0) return;
  const auto datapath = MakeDatapath<ReciprocalDatapath<T>>(call.attributes);
  const int64_t anchors = call.grid.anchors;
  const PeriodicArray<T> factor_pairs[2] = {
      FactorPairs(call.anchors_width_scale_factor_minus, call.anchors_height_scale_factor_minus,
                  anchors),
      FactorPairs(call.anchors_width_scale_factor, call.anchors_height_scale_factor, anchors)};
  const auto& loops = LoopsOf(datapath);
  const auto& pairs = CurrentPairLoops<T>();
  const auto corners = [&](CornerFactors<T> factors, int64_t first, int count, T* result) {
    for (int k = 0; k < 2; ++k) factors.factors[k] = factor_pairs[k].From(2 * first);
    T min[kDatapathBlock];
    T max[kDatapathBlock];
    const bool warned = loops.corners_of_one_product(datapath, factors, 2 * count, min, max);
    pairs.join_swap(min, max, count, result);
    return warned;
  };
  ComputeInBlocks<T>(call, {true, CornerCost(datapath, 2250, 540)}, workers, corners,
                     [&](const DetectionRow& row, int64_t first, int count) {
                       DefineSingleWeightPerProposalBboxDecoder(call, row, first, count);
                     });
}

#define BITFOLD_INSTANTIATE(T)                                              \
  template void ComputeBboxDecoder<T>(const BboxDecoderCall<T>&, Workers*); \
  template void ComputeSingleWeightPerProposalBboxDecoder<T>(               \
      const SingleWeightPerProposalBboxDecoderCall<T>&, Workers*);
BITFOLD_INSTANTIATE(int32_t)
BITFOLD_INSTANTIATE(float)
#undef BITFOLD_INSTANTIATE

}  // namespace bitfold
