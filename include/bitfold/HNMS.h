// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HNMS: greedy non-maximum suppression of detection boxes, class by class, with a fixed-point
// overlap test; the definition. Everything that happens is reported to a log.

#ifndef BITFOLD_HNMS_H_
#define BITFOLD_HNMS_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "bitfold/assertion.h"

namespace bitfold {

// One record of the input. The bounds are inclusive pixels: a width is x_max - x_min + 1.
struct Box {
  float y_min;
  float x_min;
  float y_max;
  float x_max;
  float score;
};

// Rows of five floats, a box each; an invalid or missing box is a row of zeros.
using Frame = std::vector<std::vector<float>>;

// What takes the messages. Null where nobody reads them: nothing is formatted then.
using SuppressionLog = void (*)(const std::string& message);

// x truncated to an unsigned integer of 64 bits: NaN and what lies below 0 give 0, from 2^64 on
// 2^64 - 1, so that thresholds keep their meaning.
inline uint64_t SaturateToUint64(double x) {
  constexpr double kEnd = 18446744073709551616.0;  // 2^64
  if (!(x > 0.0)) return 0;
  return x < kEnd ? static_cast<uint64_t>(x) : UINT64_MAX;
}

struct SuppressionOptions {
  float scores_threshold;
  float iou_threshold;
  float max_output_size;
  bool debug_precise_numeric;
  // The second variant of the unit: the last of equal scores wins, a negative one never does, and
  // no row of zeros stands for an invalid best box.
  bool is_velquin;

  // The overlap threshold as an unsigned fixed-point fraction of 16 bits.
  uint64_t IouThreshold() const { return SaturateToUint64(iou_threshold * 65536.0f); }
};

// ---- The log -----------------------------------------------------------------------------------

// One message.
template <typename... Parts>
void LogParts(SuppressionLog log, const Parts&... parts) {
  if (log == nullptr) return;
  std::ostringstream text;
  (text << ... << parts);
  log(text.str());
}

inline void LogBox(SuppressionLog log, const Box& box) {
  LogParts(log, " y_min=", double{box.y_min}, " x_min=", double{box.x_min},
           " y_max=", double{box.y_max}, " x_max=", double{box.x_max}, " score=", double{box.score},
           "\n");
}

inline void LogBoxes(SuppressionLog log, const std::vector<Box>& boxes) {
  for (const Box& box : boxes) LogBox(log, box);
}

// Every number is a message of its own.
inline void print_3d_vector(const std::vector<Frame>& result, SuppressionLog log) {
  if (log == nullptr) return;
  for (const Frame& frame : result) {
    for (const std::vector<float>& row : frame) {
      for (const float number : row) LogParts(log, number, " ");
      LogParts(log, "\n");
    }
    LogParts(log, "\n");
  }
}

// ---- Boxes and frames --------------------------------------------------------------------------

// size / 5 boxes in the data's order. A size that is no multiple of 5 ends the process.
inline std::vector<Box> raw_data_to_boxes(const float* data, size_t size) {
  BITFOLD_ASSERT(size % 5 == 0, "size % 5 == 0", "src/HNMS",
                 "std::vector<Box> raw_data_to_boxes(const float*, size_t)");
  std::vector<Box> boxes;
  boxes.reserve(size / 5);
  for (size_t i = 0; i < size; i += 5) {
    boxes.push_back({data[i], data[i + 1], data[i + 2], data[i + 3], data[i + 4]});
  }
  return boxes;
}

inline std::vector<float> RowOf(const Box& box) {
  return {box.y_min, box.x_min, box.y_max, box.x_max, box.score};
}

// Appends rows of zeros up to `size` rows; a longer frame stays as it is.
inline void pad_frame(Frame& frame, size_t size) {
  if (frame.size() < size) frame.resize(size, std::vector<float>(5));
}

inline bool IsInvalid(const Box& box) { return box.y_max < box.y_min || box.x_max < box.x_min; }

// Whether the box is dropped before the first selection. A score equal to the threshold passes in
// one variant only.
inline bool IsFiltered(const Box& box, const SuppressionOptions& options) {
  if (IsInvalid(box)) return true;
  return options.is_velquin ? box.score < options.scores_threshold
                            : box.score <= options.scores_threshold;
}

// ---- Selection ---------------------------------------------------------------------------------

// NaN is neither below nor above another score.
inline bool HasLowerScore(const Box& a, const Box& b) { return a.score < b.score; }

// Whether the box can be selected at all: in one variant negative and NaN scores never are.
inline bool IsSelectable(const Box& box, bool velquin) { return !velquin || box.score >= 0.0f; }

// The first box of the greatest score.
template <typename Iterator>
Iterator FirstOfGreatestScore(Iterator first, Iterator last) {
  return std::max_element(first, last, HasLowerScore);
}

// The box to select, or one past the last where there is none.
//   velquin false: the first of the greatest score, NaN never exceeding another; none only in an
//                  empty vector.
//   velquin true:  the last of the greatest score that is at least 0; negative and NaN scores are
//                  never selected.
inline std::vector<Box>::iterator find_max(std::vector<Box>& boxes, bool velquin) {
  if (!velquin) return FirstOfGreatestScore(boxes.begin(), boxes.end());
  auto best = boxes.end();
  for (auto box = boxes.begin(); box != boxes.end(); ++box) {
    if (!IsSelectable(*box, velquin)) continue;
    if (best == boxes.end() || !HasLowerScore(*box, *best)) best = box;
  }
  return best;
}

// A copy of that box, taken out of `boxes` if `remove` says so; a box of zeros where none is
// selected. An empty vector ends the process.
inline Box find_box_with_higest_score(std::vector<Box>& boxes, bool velquin, bool remove) {
  BITFOLD_ASSERT(!boxes.empty(), "!boxes.empty()", "src/HNMS",
                 "Box find_box_with_higest_score(std::vector<Box>&, bool, bool)");
  const auto best = find_max(boxes, velquin);
  if (best == boxes.end()) return Box{};
  const Box copy = *best;
  if (remove) boxes.erase(best);
  return copy;
}

// ---- The overlap test --------------------------------------------------------------------------

// A box has two areas: as the selected one its edges are multiplied in double precision, as the
// one that may be suppressed in single precision.
inline double SelectedArea(const Box& box) {
  return double{(box.x_max + 1.0f) - box.x_min} * double{(box.y_max + 1.0f) - box.y_min};
}

inline double CandidateArea(const Box& box) {
  return ((box.x_max + 1.0f) - box.x_min) * ((box.y_max + 1.0f) - box.y_min);
}

// How far the candidate's maximum edges are pulled in for the overlap.
inline float EdgePull(bool precise) { return precise ? 1.0f : 0.0f; }

// The union and the overlap of two boxes, a selected and b the candidate. With `precise` the
// maximum edges of b, and of b alone, are pulled in by one for the overlap.
inline std::pair<double, double> calculate_areas(const Box& a, const Box& b, bool precise,
                                                 SuppressionLog log) {
  LogParts(log, "calculate areas between boxes:\n");
  LogBox(log, a);
  LogBox(log, b);
  const float d = EdgePull(precise);
  const float ix_min = b.x_min > a.x_min ? b.x_min : a.x_min;
  const float ix_max = b.x_max - d < a.x_max ? b.x_max - d : a.x_max;
  const float iy_min = b.y_min > a.y_min ? b.y_min : a.y_min;
  const float iy_max = b.y_max - d < a.y_max ? b.y_max - d : a.y_max;
  const float w = ix_max - ix_min;
  const float h = iy_max - iy_min;
  double overlap = 0.0;
  if (w > -1.0f && h > -1.0f) overlap = double{w + 1.0f} * double{h + 1.0f};
  return {(CandidateArea(b) + SelectedArea(a)) - overlap, overlap};
}

// NaN counts as equal.
inline bool IsUnorderedOrEqual(float a, float b) { return !(a < b) && !(a > b); }

// The test of the accelerator: integers of 64 bits, never a quotient.
inline bool IsSuppressed(const Box& best, const Box& box, const SuppressionOptions& options,
                         SuppressionLog log) {
  const auto [union_area, overlap_area] =
      calculate_areas(best, box, options.debug_precise_numeric, log);
  const uint64_t threshold = options.IouThreshold();
  LogParts(log, "union_area=", union_area, ", overlap_area=", overlap_area,
           ", iou_threshold_val=", threshold, ", iou_threshold=", double{options.iou_threshold},
           "\n");
  const uint64_t limit = SaturateToUint64(static_cast<double>(threshold) * union_area) >> 16;
  return SaturateToUint64(overlap_area) > limit ||
         (IsUnorderedOrEqual(box.y_min, best.y_min) && IsUnorderedOrEqual(box.x_min, best.x_min) &&
          IsUnorderedOrEqual(box.y_max, best.y_max) && IsUnorderedOrEqual(box.x_max, best.x_max));
}

inline void EraseSuppressed(const Box& best, const SuppressionOptions& options,
                            std::vector<Box>* boxes, SuppressionLog log) {
  for (auto box = boxes->begin(); box != boxes->end();) {
    if (IsSuppressed(best, *box, options, log)) {
      LogParts(log, "erasing... :\n");
      LogBox(log, *box);
      box = boxes->erase(box);
    } else {
      ++box;
    }
  }
}

// ---- The suppression ---------------------------------------------------------------------------

// The boxes of one class that remain, without padding.
inline Frame DefineClassNMS(std::vector<Box> boxes, const SuppressionOptions& options,
                            SuppressionLog log) {
  Frame frame;
  if (!options.is_velquin && IsInvalid(find_box_with_higest_score(boxes, false, false))) {
    frame.emplace_back(5);  // counts as a row like any other
  }
  boxes.erase(std::remove_if(boxes.begin(), boxes.end(),
                             [&options](const Box& box) { return IsFiltered(box, options); }),
              boxes.end());
  LogParts(log, "after filter:\n");
  LogBoxes(log, boxes);
  while (!boxes.empty() && !(options.max_output_size <= static_cast<float>(frame.size()))) {
    LogParts(log, "boxes size = ", boxes.size(), " class_boxes size = ", frame.size());
    if (find_max(boxes, options.is_velquin) == boxes.end()) break;  // negative and NaN scores
    const Box best = find_box_with_higest_score(boxes, options.is_velquin, true);
    frame.push_back(RowOf(best));
    EraseSuppressed(best, options, &boxes, log);
  }
  return frame;
}

// The op's data: b entries of d1 * d2 * d3 numbers, of which each of k classes has an equal share.
// Requires 0 <= b, d1, d2, d3 with a product of d1, d2 and d3 that int32 holds, and k >= 1.
struct SuppressionInput {
  const float* value;
  int32_t b;
  int32_t d1;
  int32_t d2;
  int32_t d3;
  int32_t k;

  // Ends the process where the share is no multiple of 5.
  std::vector<Box> BoxesOf(int32_t batch, int32_t c) const {
    const int64_t entry = int64_t{d1} * d2 * d3;
    const int64_t share = entry / k;
    return raw_data_to_boxes(value + batch * entry + c * share, static_cast<size_t>(share));
  }
};

// The op: for every batch entry and every class the boxes that remain; frames in the order (batch
// entry, class), max_output_size rows each. Requires a whole max_output_size >= 0. A class with a
// share that is no multiple of 5, or without a box unless is_velquin, ends the process. With
// max_output_size 0 a frame may hold one row of zeros.
inline std::vector<Frame> NMSTensor(const SuppressionInput& in, const SuppressionOptions& options,
                                    SuppressionLog log) {
  std::vector<Frame> result;
  for (int32_t batch = 0; batch < in.b; ++batch) {
    for (int32_t c = 0; c < in.k; ++c) {
      LogParts(log, "batch = ", batch, " class = ", c, "\n");
      std::vector<Box> boxes = in.BoxesOf(batch, c);
      LogBoxes(log, boxes);
      Frame frame = DefineClassNMS(std::move(boxes), options, log);
      pad_frame(frame, SaturateToUint64(options.max_output_size));
      result.push_back(std::move(frame));
    }
  }
  LogParts(log, "final:\n");
  print_3d_vector(result, log);
  LogParts(log, "vec size = ", result.size(),
           ", internal_size = ", result.empty() ? size_t{0} : result[0].size(), "\n");
  return result;
}

}  // namespace bitfold

#endif  // BITFOLD_HNMS_H_
