// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include <algorithm>
#include <cmath>

#include "cpu/nms.h"
#include "vector/target.h"

namespace bitfold {
namespace {

// Selected boxes as columns, with their areas as calculate_areas forms them for its first box.
struct SelectedBoxes {
  std::vector<float> y_min, x_min, y_max, x_max;
  std::vector<double> area;

  void Add(const Box& box) {
    y_min.push_back(box.y_min);
    x_min.push_back(box.x_min);
    y_max.push_back(box.y_max);
    x_max.push_back(box.x_max);
    area.push_back(double{(box.x_max + 1.0f) - box.x_min} * double{(box.y_max + 1.0f) - box.y_min});
  }
};

// A candidate for the tests against the selected boxes.
struct Candidate {
  Box box;
  float pulled_y_max;  // its maximum edges as the overlap takes them
  float pulled_x_max;
  double area;
  double threshold;  // below 2^17
};

struct NmsLoops {
  bool (*is_suppressed)(const Candidate&, const SelectedBoxes&, int first, int count);
};

#define BITFOLD_LOOPS "cpu/nms_loops.inc"
#define BITFOLD_LOOP_TABLE \
  NmsLoops { IsSuppressedByAny }
#include "vector/vector_loops.inc"

constexpr float kLargestCoordinate = 1048576.0f;  // 2^20: areas stay below 2^43
constexpr uint64_t kThresholdEnd = 131072;        // 2^17: products with them below 2^60

// False for NaN.
bool IsModerate(const Box& box) {
  return std::fabs(box.y_min) <= kLargestCoordinate && std::fabs(box.x_min) <= kLargestCoordinate &&
         std::fabs(box.y_max) <= kLargestCoordinate && std::fabs(box.x_max) <= kLargestCoordinate;
}

bool IsValid(const Box& box) { return !(box.y_max < box.y_min || box.x_max < box.x_min); }

// The indices of the boxes that can be selected.
std::vector<int32_t> Selectable(const std::vector<Box>& boxes, const SuppressionOptions& options) {
  std::vector<int32_t> indices;
  for (size_t i = 0; i < boxes.size(); ++i) {
    const Box& box = boxes[i];
    const bool kept = options.is_velquin
                          ? box.score >= 0.0f && !(box.score < options.scores_threshold)
                          : !(box.score <= options.scores_threshold);
    if (kept && IsValid(box)) indices.push_back(static_cast<int32_t>(i));
  }
  return indices;
}

bool IsSuppressed(const Box& box, const SelectedBoxes& selected, float pull, double threshold) {
  constexpr int kRun = 64;  // a suppressed candidate is mostly found so early
  const Candidate candidate{box, box.y_max - pull, box.x_max - pull,
                            ((box.x_max + 1.0f) - box.x_min) * ((box.y_max + 1.0f) - box.y_min),
                            threshold};
  const int count = static_cast<int>(selected.area.size());
  for (int first = 0; first < count; first += kRun) {
    const int run = std::min(kRun, count - first);
    if (CurrentLoops().is_suppressed(candidate, selected, first, run)) return true;
  }
  return false;
}

}  // namespace

bool SuppressClassQuietly(const std::vector<Box>& boxes, const SuppressionOptions& options,
                          Frame* frame) {
  const uint64_t threshold = options.IouThreshold();
  if (boxes.empty() || threshold >= kThresholdEnd) return false;
  const bool velquin = options.is_velquin;
  for (const Box& box : boxes) {
    if (!IsModerate(box) || std::isnan(box.score)) return false;
  }

  Frame rows;
  if (!velquin) {
    const auto best = std::max_element(
        boxes.begin(), boxes.end(), [](const Box& a, const Box& b) { return a.score < b.score; });
    if (!IsValid(*best)) rows.emplace_back(5);
  }
  // The candidates leave the heap in the order of their selection; of equal scores the first box
  // wins, or in the other variant the last.
  std::vector<int32_t> heap = Selectable(boxes, options);
  const auto later = [&boxes, velquin](int32_t i, int32_t j) {
    const float a = boxes[i].score;
    const float b = boxes[j].score;
    return a < b || (a == b && (velquin ? i < j : i > j));
  };
  std::make_heap(heap.begin(), heap.end(), later);
  SelectedBoxes selected;
  const float pull = options.debug_precise_numeric ? 1.0f : 0.0f;
  while (!heap.empty() && !(options.max_output_size <= static_cast<float>(rows.size()))) {
    std::pop_heap(heap.begin(), heap.end(), later);
    const Box& box = boxes[heap.back()];
    heap.pop_back();
    if (IsSuppressed(box, selected, pull, static_cast<double>(threshold))) continue;
    selected.Add(box);
    rows.push_back({box.y_min, box.x_min, box.y_max, box.x_max, box.score});
  }
  *frame = std::move(rows);
  return true;
}

}  // namespace bitfold
