// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/nms.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <utility>

#include "frame/log.h"
#include "vector/target.h"

namespace bitfold {
namespace {

// Selected boxes as columns, with their areas.
struct SelectedBoxes {
  std::vector<float> y_min, x_min, y_max, x_max;
  std::vector<double> area;

  void Add(const Box& box) {
    y_min.push_back(box.y_min);
    x_min.push_back(box.x_min);
    y_max.push_back(box.y_max);
    x_max.push_back(box.x_max);
    area.push_back(SelectedArea(box));
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

// Whether the vector loops give the definition's frame.
bool AreExact(const std::vector<Box>& boxes, const SuppressionOptions& options) {
  return !boxes.empty() && options.IouThreshold() < kThresholdEnd &&
         std::all_of(boxes.begin(), boxes.end(),
                     [](const Box& box) { return IsModerate(box) && !std::isnan(box.score); });
}

// The indices of the boxes that can be selected.
std::vector<int32_t> Selectable(const std::vector<Box>& boxes, const SuppressionOptions& options) {
  std::vector<int32_t> indices;
  for (size_t i = 0; i < boxes.size(); ++i) {
    if (!IsFiltered(boxes[i], options) && IsSelectable(boxes[i], options.is_velquin)) {
      indices.push_back(static_cast<int32_t>(i));
    }
  }
  return indices;
}

Candidate MakeCandidate(const Box& box, const SuppressionOptions& options) {
  const float pull = EdgePull(options.debug_precise_numeric);
  return {box, box.y_max - pull, box.x_max - pull, CandidateArea(box),
          static_cast<double>(options.IouThreshold())};
}

bool IsSuppressedByOneOf(const Candidate& candidate, const SelectedBoxes& selected) {
  constexpr int kRun = 64;  // a suppressed candidate is mostly found so early
  const int count = static_cast<int>(selected.area.size());
  for (int first = 0; first < count; first += kRun) {
    const int run = std::min(kRun, count - first);
    if (CurrentLoops().is_suppressed(candidate, selected, first, run)) return true;
  }
  return false;
}

}  // namespace

bool ComputeClassNMS(const std::vector<Box>& boxes, const SuppressionOptions& options,
                     Frame* frame) {
  if (!AreExact(boxes, options)) return false;
  const bool velquin = options.is_velquin;
  Frame rows;
  if (!velquin && IsInvalid(*FirstOfGreatestScore(boxes.begin(), boxes.end()))) {
    rows.emplace_back(5);
  }
  // The candidates leave the heap in the order of their selection; of equal scores the first box
  // wins, or in the other variant the last.
  std::vector<int32_t> heap = Selectable(boxes, options);
  const auto later = [&boxes, velquin](int32_t i, int32_t j) {
    if (HasLowerScore(boxes[i], boxes[j])) return true;
    return !HasLowerScore(boxes[j], boxes[i]) && (velquin ? i < j : i > j);
  };
  std::make_heap(heap.begin(), heap.end(), later);
  SelectedBoxes selected;
  while (!heap.empty() && !(options.max_output_size <= static_cast<float>(rows.size()))) {
    std::pop_heap(heap.begin(), heap.end(), later);
    const Box& box = boxes[heap.back()];
    heap.pop_back();
    if (IsSuppressedByOneOf(MakeCandidate(box, options), selected)) continue;
    selected.Add(box);
    rows.push_back(RowOf(box));
  }
  *frame = std::move(rows);
  return true;
}

namespace {

// The boxes of one class that remain, without padding.
Frame ClassFrame(std::vector<Box> boxes, const SuppressionOptions& options, SuppressionLog log) {
  Frame frame;
  if (log != nullptr || !ComputeClassNMS(boxes, options, &frame)) {
    frame = DefineClassNMS(std::move(boxes), options, log);
  }
  return frame;
}

// The cycles of a frame, roughly.
int64_t FrameCost(const SuppressionInput& in, int64_t frame_rows) {
  const int64_t boxes = int64_t{in.d1} * in.d2 * in.d3 / in.k / 5;
  return 500 + 50 * boxes + 5 * frame_rows;
}

// What NMSTensor logs at the end.
void LogFrames(const float* rows, int64_t frames, int64_t frame_rows, SuppressionLog log) {
  if (log == nullptr) return;
  LogParts(log, "final:\n");
  for (int64_t f = 0; f < frames; ++f, rows += 5 * frame_rows) {
    for (int64_t i = 0; i < 5 * frame_rows; ++i) {
      LogParts(log, rows[i], " ");
      if (i % 5 == 4) LogParts(log, "\n");
    }
    LogParts(log, "\n");
  }
  LogParts(log, "vec size = ", frames, ", internal_size = ", frames == 0 ? 0 : frame_rows, "\n");
}

}  // namespace

void ComputeNMS(const SuppressionInput& in, const SuppressionOptions& options, float* out,
                Workers* workers) {
  const SuppressionLog log = InformationLogIsOn() ? LogInformation : nullptr;
  const auto frame_rows = static_cast<int64_t>(options.max_output_size);
  const int64_t frames = int64_t{in.b} * in.k;
  const auto part = [&](int64_t first, int64_t end) {
    for (int64_t f = first; f < end; ++f) {
      const auto batch = static_cast<int32_t>(f / in.k);
      const auto c = static_cast<int32_t>(f % in.k);
      LogParts(log, "batch = ", batch, " class = ", c, "\n");
      std::vector<Box> boxes = in.BoxesOf(batch, c);
      LogBoxes(log, boxes);
      float* next = out + f * 5 * frame_rows;
      float* const frame_end = next + 5 * frame_rows;
      for (const std::vector<float>& row : ClassFrame(std::move(boxes), options, log)) {
        next = std::copy(row.begin(), row.end(), next);
      }
      std::fill(next, frame_end, 0.0f);
    }
  };
  if (log != nullptr) {
    part(0, frames);  // messages come in the order of the frames
  } else {
    workers->Share(frames, FrameCost(in, frame_rows), std::cref(part));
  }
  LogFrames(out, frames, frame_rows, log);
}

}  // namespace bitfold
