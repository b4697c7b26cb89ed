// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "decode_boxes.h"

#include <vector>

#include "vector_datapath.h"

namespace bitfold {
namespace {

constexpr int kAnchorsInBlock = kBlock / 4;

// Four factors for each anchor, in the order of the corners.
template <typename T>
PeriodicArray<T> FactorsOfCorners(const T* y_min, const T* x_min, const T* y_max, const T* x_max,
                                  int64_t anchors) {
  std::vector<T> factors;
  for (int64_t j = 0; j < anchors; ++j) {
    factors.insert(factors.end(), {y_min[j], x_min[j], y_max[j], x_max[j]});
  }
  return PeriodicArray<T>(factors.data(), 4 * anchors);
}

// The numbers of `count` pairs in every second place from `first` on, 0 in the others.
template <typename T>
std::vector<T> CentreParts(const T* pairs, int64_t count, int64_t first) {
  std::vector<T> parts(static_cast<size_t>(4 * count));
  for (int64_t i = 0; i < 2 * count; ++i) parts[first + 2 * i] = pairs[i];
  return parts;
}

// Decodes row after row, a block of anchors at a time. corners(factors, at, first, count, out)
// computes those of a block into out, with the centres of `factors`; its detections start at
// element `at`, its anchors are first to first + count - 1 of the row. It returns whether a line
// may have been printed; the definition then computes the block anew.
template <typename T, typename Inputs, typename Corners>
void DecodeInBlocks(const ReciprocalDatapath<T>& datapath, const Inputs& in, int32_t n, int32_t h,
                    int32_t w, int32_t anchors, T* out, Corners corners) {
  const int64_t all = int64_t{w} * anchors;
  const std::vector<T> x = CentreParts(in.x_centers, all, 1);
  PeriodicArray<T> y(4 * int64_t{anchors});
  ForEachDetectionRow(n, h, w, anchors, [&](const DetectionRow& row) {
    y.Fill(CentreParts(in.y_centers + row.y, row.anchors, 0).data());
    for (int64_t first = 0; first < all; first += kAnchorsInBlock) {
      const int count = static_cast<int>(std::min<int64_t>(kAnchorsInBlock, all - first));
      const int64_t at = row.pairs + 2 * first;
      CornerFactors<T> factors{};
      factors.y = y.From(4 * first);
      factors.x = x.data() + 4 * first;
      if (corners(factors, at, first, count, out + 2 * at)) {
        DecodeBoxes(datapath, in, row, first, count, out);
      }
    }
  });
}

}  // namespace

template <typename T>
void DecodeAllBoxes(const ReciprocalDatapath<T>& datapath, const BoxDecoderInputs<T>& in, int32_t n,
                    int32_t h, int32_t w, int32_t anchors, T* out) {
  if (n < 1 || h < 1 || w < 1 || anchors < 1) return;
  const PeriodicArray<T> centre_factors = FactorsOfCorners(
      in.anchors_heights, in.anchors_widths, in.anchors_heights, in.anchors_widths, anchors);
  const PeriodicArray<T> size_factors =
      FactorsOfCorners(in.anchors_heights_minus_div_2, in.anchors_widths_minus_div_2,
                       in.anchors_heights_div_2, in.anchors_widths_div_2, anchors);
  const auto& loops = LoopsOf(datapath);
  const auto& pairs = CurrentPairLoops<T>();
  const auto corners = [&](CornerFactors<T> factors, int64_t at, int64_t first, int count,
                           T* result) {
    T centers[kBlock];
    T sizes[kBlock];
    pairs.repeat(in.detection_centers + at, count, centers);
    pairs.repeat(in.detection_w_h + at, count, sizes);
    factors.detections[0] = centers;
    factors.factors[0] = centre_factors.From(4 * first);
    factors.detections[1] = sizes;
    factors.factors[1] = size_factors.From(4 * first);
    return loops.corners_of_two_products(datapath, factors, 4 * count, result);
  };
  DecodeInBlocks(datapath, in, n, h, w, anchors, out, corners);
}

template <typename T>
void DecodeAllBoxes(const ReciprocalDatapath<T>& datapath, const SingleWeightDecoderInputs<T>& in,
                    int32_t n, int32_t h, int32_t w, int32_t anchors, T* out) {
  if (n < 1 || h < 1 || w < 1 || anchors < 1) return;
  const PeriodicArray<T> scale_factors =
      FactorsOfCorners(in.anchors_height_scale_factor_minus, in.anchors_width_scale_factor_minus,
                       in.anchors_height_scale_factor, in.anchors_width_scale_factor, anchors);
  const auto& loops = LoopsOf(datapath);
  const auto& pairs = CurrentPairLoops<T>();
  const auto corners = [&](CornerFactors<T> factors, int64_t at, int64_t first, int count,
                           T* result) {
    T detections[kBlock];
    pairs.swap(in.detection_centers + at, in.detection_w_h + at, count, detections);
    factors.detections[0] = detections;
    factors.factors[0] = scale_factors.From(4 * first);
    return loops.corners_of_one_product(datapath, factors, 4 * count, result);
  };
  DecodeInBlocks(datapath, in, n, h, w, anchors, out, corners);
}

#define BITFOLD_INSTANTIATE(T)                                                                    \
  template void DecodeAllBoxes<T>(const ReciprocalDatapath<T>&, const BoxDecoderInputs<T>&,       \
                                  int32_t, int32_t, int32_t, int32_t, T*);                        \
  template void DecodeAllBoxes<T>(const ReciprocalDatapath<T>&,                                   \
                                  const SingleWeightDecoderInputs<T>&, int32_t, int32_t, int32_t, \
                                  int32_t, T*);
BITFOLD_INSTANTIATE(int32_t)
BITFOLD_INSTANTIATE(float)
#undef BITFOLD_INSTANTIATE

}  // namespace bitfold
