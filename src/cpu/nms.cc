// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/nms.h"

#include <algorithm>
#include <sstream>
#include <utility>

#include "bitfold/assertion.h"
#include "frame/log.h"

namespace bitfold {
namespace {

// One message. Nothing is formatted when the log filters it.
template <typename... Parts>
void Log(const Parts&... parts) {
  if (!InformationLogIsOn()) return;
  std::ostringstream text;
  (text << ... << parts);
  LogInformation(text.str());
}

void LogBox(const Box& box) {
  Log(" y_min=", double{box.y_min}, " x_min=", double{box.x_min}, " y_max=", double{box.y_max},
      " x_max=", double{box.x_max}, " score=", double{box.score}, "\n");
}

void LogBoxes(const std::vector<Box>& boxes) {
  for (const Box& box : boxes) LogBox(box);
}

std::vector<float> Row(const Box& box) {
  return {box.y_min, box.x_min, box.y_max, box.x_max, box.score};
}

bool IsInvalid(const Box& box) { return box.y_max < box.y_min || box.x_max < box.x_min; }

// A score equal to the threshold passes in one variant only.
bool IsFiltered(const Box& box, const SuppressionOptions& options) {
  if (IsInvalid(box)) return true;
  return options.is_velquin ? box.score < options.scores_threshold
                            : box.score <= options.scores_threshold;
}

// NaN counts as equal.
bool IsUnorderedOrEqual(float a, float b) { return !(a < b) && !(a > b); }

// The test of the accelerator: integers of 64 bits, never a quotient.
bool IsSuppressed(const Box& best, const Box& box, const SuppressionOptions& options) {
  const auto [union_area, overlap_area] = calculate_areas(best, box, options.debug_precise_numeric);
  const uint64_t threshold = options.IouThreshold();
  Log("union_area=", union_area, ", overlap_area=", overlap_area, ", iou_threshold_val=", threshold,
      ", iou_threshold=", double{options.iou_threshold}, "\n");
  const uint64_t limit = SaturateToUint64(static_cast<double>(threshold) * union_area) >> 16;
  return SaturateToUint64(overlap_area) > limit ||
         (IsUnorderedOrEqual(box.y_min, best.y_min) && IsUnorderedOrEqual(box.x_min, best.x_min) &&
          IsUnorderedOrEqual(box.y_max, best.y_max) && IsUnorderedOrEqual(box.x_max, best.x_max));
}

void EraseSuppressed(const Box& best, const SuppressionOptions& options, std::vector<Box>* boxes) {
  for (auto box = boxes->begin(); box != boxes->end();) {
    if (IsSuppressed(best, *box, options)) {
      Log("erasing... :\n");
      LogBox(*box);
      box = boxes->erase(box);
    } else {
      ++box;
    }
  }
}

}  // namespace

std::vector<Box> raw_data_to_boxes(const float* data, size_t size) {
  BITFOLD_ASSERT(size % 5 == 0, "size % 5 == 0", "src/HNMS",
                 "std::vector<Box> raw_data_to_boxes(const float*, size_t)");
  std::vector<Box> boxes;
  boxes.reserve(size / 5);
  for (size_t i = 0; i < size; i += 5) {
    boxes.push_back({data[i], data[i + 1], data[i + 2], data[i + 3], data[i + 4]});
  }
  return boxes;
}

std::vector<Box>::iterator find_max(std::vector<Box>& boxes, bool velquin) {
  if (!velquin) {
    return std::max_element(boxes.begin(), boxes.end(),
                            [](const Box& a, const Box& b) { return a.score < b.score; });
  }
  auto best = boxes.end();
  float maximum = 0.0f;
  for (auto box = boxes.begin(); box != boxes.end(); ++box) {
    if (box->score >= maximum) {
      best = box;
      maximum = box->score;
    }
  }
  return best;
}

Box find_box_with_higest_score(std::vector<Box>& boxes, bool velquin, bool remove) {
  BITFOLD_ASSERT(!boxes.empty(), "!boxes.empty()", "src/HNMS",
                 "Box find_box_with_higest_score(std::vector<Box>&, bool, bool)");
  const auto best = find_max(boxes, velquin);
  if (best == boxes.end()) return Box{};
  const Box copy = *best;
  if (remove) boxes.erase(best);
  return copy;
}

std::pair<double, double> calculate_areas(const Box& a, const Box& b, bool precise) {
  Log("calculate areas between boxes:\n");
  LogBox(a);
  LogBox(b);
  const float d = precise ? 1.0f : 0.0f;
  const float ix_min = b.x_min > a.x_min ? b.x_min : a.x_min;
  const float ix_max = b.x_max - d < a.x_max ? b.x_max - d : a.x_max;
  const float iy_min = b.y_min > a.y_min ? b.y_min : a.y_min;
  const float iy_max = b.y_max - d < a.y_max ? b.y_max - d : a.y_max;
  const float w = ix_max - ix_min;
  const float h = iy_max - iy_min;
  double overlap = 0.0;
  if (w > -1.0f && h > -1.0f) overlap = double{w + 1.0f} * double{h + 1.0f};
  const double area_b = ((b.x_max + 1.0f) - b.x_min) * ((b.y_max + 1.0f) - b.y_min);
  const double area_a = double{(a.x_max + 1.0f) - a.x_min} * double{(a.y_max + 1.0f) - a.y_min};
  return {(area_b + area_a) - overlap, overlap};
}

void pad_frame(Frame& frame, size_t size) {
  if (frame.size() < size) frame.resize(size, std::vector<float>(5));
}

void print_3d_vector(const std::vector<Frame>& result) {
  if (!InformationLogIsOn()) return;
  for (const Frame& frame : result) {
    for (const std::vector<float>& row : frame) {
      for (const float number : row) Log(number, " ");
      Log("\n");
    }
    Log("\n");
  }
}

uint64_t SaturateToUint64(double x) {
  constexpr double kEnd = 18446744073709551616.0;  // 2^64
  if (!(x > 0.0)) return 0;
  return x < kEnd ? static_cast<uint64_t>(x) : UINT64_MAX;
}

Frame SuppressClass(std::vector<Box> boxes, const SuppressionOptions& options) {
  Frame frame;
  if (!options.is_velquin && IsInvalid(find_box_with_higest_score(boxes, false, false))) {
    frame.emplace_back(5);  // counts as a row like any other
  }
  boxes.erase(std::remove_if(boxes.begin(), boxes.end(),
                             [&options](const Box& box) { return IsFiltered(box, options); }),
              boxes.end());
  Log("after filter:\n");
  LogBoxes(boxes);
  while (!boxes.empty() && !(options.max_output_size <= static_cast<float>(frame.size()))) {
    Log("boxes size = ", boxes.size(), " class_boxes size = ", frame.size());
    if (find_max(boxes, options.is_velquin) == boxes.end()) break;  // negative and NaN scores
    const Box best = find_box_with_higest_score(boxes, options.is_velquin, true);
    frame.push_back(Row(best));
    EraseSuppressed(best, options, &boxes);
  }
  return frame;
}

std::vector<Frame> NMSTensor(const float* value, float scores_threshold, float iou_threshold,
                             float max_output_size, int32_t b, int32_t d1, int32_t d2, int32_t d3,
                             int32_t k, bool debug_precise_numeric, bool is_velquin) {
  const SuppressionOptions options{scores_threshold, iou_threshold, max_output_size,
                                   debug_precise_numeric, is_velquin};
  const int64_t entry = int64_t{d1} * d2 * d3;
  const size_t share = static_cast<size_t>(entry / k);
  std::vector<Frame> result;
  for (int32_t batch = 0; batch < b; ++batch) {
    for (int32_t c = 0; c < k; ++c) {
      Log("batch = ", batch, " class = ", c, "\n");
      const float* data = value + batch * entry + static_cast<int64_t>(c * share);
      std::vector<Box> boxes = raw_data_to_boxes(data, share);
      LogBoxes(boxes);
      Frame frame;
      if (InformationLogIsOn() || !SuppressClassQuietly(boxes, options, &frame)) {
        frame = SuppressClass(std::move(boxes), options);
      }
      pad_frame(frame, SaturateToUint64(max_output_size));
      result.push_back(std::move(frame));
    }
  }
  Log("final:\n");
  print_3d_vector(result);
  Log("vec size = ", result.size(),
      ", internal_size = ", result.empty() ? size_t{0} : result[0].size(), "\n");
  return result;
}

}  // namespace bitfold
