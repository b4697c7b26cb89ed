// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/box_decoders.h"

#include <vector>

#include "cpu/vector_datapath.h"

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

// Computes row after row, a block of anchors at a time. corners(factors, first, count, out)
// computes those of anchors first to first + count - 1 of a row, given their detections and centres
// in `factors`. It returns whether a line may have been printed; define(row, first, count) then
// computes the block anew. In the pairs y stands first or, with x_first, x.
template <typename T, typename Call, typename Corners, typename Define>
void ComputeInBlocks(const Call& call, bool x_first, Corners corners, Define define) {
  const int64_t anchors = call.grid.anchors;
  const int64_t all = call.grid.columns * anchors;
  std::vector<T> x_min(static_cast<size_t>(2 * all));
  std::vector<T> x_max(x_min.size());
  SplitCentres(call.x_centers, all, x_first ? 0 : 1, x_min.data(), x_max.data());
  PeriodicArray<T> y_min(2 * anchors);
  PeriodicArray<T> y_max(2 * anchors);
  ForEachDetectionRow(call.grid, [&](const DetectionRow& row) {
    SplitCentres(call.y_centers + row.y, anchors, x_first ? 1 : 0, y_min.FirstPeriod(),
                 y_max.FirstPeriod());
    y_min.Continue();
    y_max.Continue();
    for (int64_t first = 0; first < all; first += kAnchorsInBlock) {
      const int count = static_cast<int>(std::min<int64_t>(kAnchorsInBlock, all - first));
      const int64_t at = row.pairs + 2 * first;
      const CornerFactors<T> factors{call.detection_centers + at,
                                     call.detection_w_h + at,
                                     {},
                                     {y_min.From(2 * first), y_max.From(2 * first)},
                                     {x_min.data() + 2 * first, x_max.data() + 2 * first}};
      if (corners(factors, first, count, call.output + 2 * at)) define(row, first, count);
    }
  });
}

bool IsEmpty(const DetectionGrid& grid) {
  return grid.images < 1 || grid.rows < 1 || grid.columns < 1 || grid.anchors < 1;
}

}  // namespace

template <typename T>
void ComputeBboxDecoder(const BboxDecoderCall<T>& call) {
  if (IsEmpty(call.grid)) return;
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
  ComputeInBlocks<T>(call, false, corners, [&](const DetectionRow& row, int64_t first, int count) {
    DefineBboxDecoder(call, row, first, count);
  });
}

// The x corners take the first number of a detection pair and the y corners the second, so the
// pairs are computed as (x, y) and swapped at the end.
template <typename T>
void ComputeSingleWeightPerProposalBboxDecoder(
    const SingleWeightPerProposalBboxDecoderCall<T>& call) {
  if (IsEmpty(call.grid)) return;
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
  ComputeInBlocks<T>(call, true, corners, [&](const DetectionRow& row, int64_t first, int count) {
    DefineSingleWeightPerProposalBboxDecoder(call, row, first, count);
  });
}

#define BITFOLD_INSTANTIATE(T)                                    \
  template void ComputeBboxDecoder<T>(const BboxDecoderCall<T>&); \
  template void ComputeSingleWeightPerProposalBboxDecoder<T>(     \
      const SingleWeightPerProposalBboxDecoderCall<T>&);
BITFOLD_INSTANTIATE(int32_t)
BITFOLD_INSTANTIATE(float)
#undef BITFOLD_INSTANTIATE

}  // namespace bitfold
