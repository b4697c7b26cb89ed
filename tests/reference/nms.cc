// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The suppression oracle. A class is a list of candidates and one of chosen rows; a round chooses a
// candidate and builds the list of those that it leaves.

#include "nms.h"

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "exact.h"

namespace reference {
namespace {

using exact::Difference;
using exact::Product;
using exact::Sum;
using exact::Wide;

using Boxes = std::vector<NmsBox>;
using Log = std::vector<std::string>;

const NmsBox kZeroRow = {0.0F, 0.0F, 0.0F, 0.0F, 0.0F};

uint64_t ToUnsigned64(double value) {
  if (!(value > 0.0)) return 0;  // NaN too.
  return value < 18446744073709551616.0 ? static_cast<uint64_t>(value) : UINT64_MAX;
}

// ---- Messages ----------------------------------------------------------------------------------

void Write(Log* log, const std::string& message) {
  if (log != nullptr) log->push_back(message);
}

// A number as a stream writes it by default: six significant digits.
std::string Number(double value) {
  char text[64];
  std::snprintf(text, sizeof(text), "%g", value);
  return text;
}

void WriteBox(Log* log, const NmsBox& box) {
  Write(log, " y_min=" + Number(double{box.y_min}) + " x_min=" + Number(double{box.x_min}) +
                 " y_max=" + Number(double{box.y_max}) + " x_max=" + Number(double{box.x_max}) +
                 " score=" + Number(double{box.score}) + "\n");
}

void WriteBoxes(Log* log, const Boxes& boxes) {
  for (const NmsBox& box : boxes) WriteBox(log, box);
}

// Every value is a message, and so is every end of a row and of a frame.
void WriteResult(Log* log, const NmsResult& result) {
  size_t next = 0;
  Write(log, "final:\n");
  for (const int64_t rows : result.rows) {
    for (int64_t r = 0; r < rows; ++r) {
      for (int k = 0; k < 5; ++k) Write(log, Number(double{result.values[next++]}) + " ");
      Write(log, "\n");
    }
    Write(log, "\n");
  }
  const int64_t first = result.rows.empty() ? 0 : result.rows.front();
  Write(log, "vec size = " + std::to_string(result.rows.size()) +
                 ", internal_size = " + std::to_string(first) + "\n");
}

// ---- Boxes -------------------------------------------------------------------------------------

Boxes ReadBoxes(const float* data, int64_t count) {
  Boxes boxes;
  for (int64_t i = 0; i < count; i += 5) {
    boxes.push_back({data[i], data[i + 1], data[i + 2], data[i + 3], data[i + 4]});
  }
  return boxes;
}

bool IsInverted(const NmsBox& box) { return box.y_max < box.y_min || box.x_max < box.x_min; }

// The extent from one edge to another, both counted.
float Extent(float from, float to) { return Difference(Sum(to, 1.0F), from); }

// Length of what two intervals share, in which a's edges win unless b's are clearly inside; 0 when
// they are apart by one or more.
double SharedLength(float a_min, float a_max, float b_min, float b_max) {
  const float from = b_min > a_min ? b_min : a_min;
  const float to = b_max < a_max ? b_max : a_max;
  const float length = Difference(to, from);
  return double{length} > -1.0 ? double{Sum(length, 1.0F)} : 0.0;
}

// True unless one of the two is greater than the other.
bool Coincide(float p, float q) { return !(p < q) && !(p > q); }

bool SameCorners(const NmsBox& p, const NmsBox& q) {
  return Coincide(p.y_min, q.y_min) && Coincide(p.x_min, q.x_min) && Coincide(p.y_max, q.y_max) &&
         Coincide(p.x_max, q.x_max);
}

// ---- Suppression -------------------------------------------------------------------------------

// The threshold in units of 2^-16.
uint64_t FixedThreshold(float iou_threshold) {
  return ToUnsigned64(double{Product(iou_threshold, 65536.0F)});
}

bool IsDropped(const Nms& nms, const NmsBox& box) {
  if (IsInverted(box)) return true;
  return nms.is_variant ? box.score < nms.scores_threshold : box.score <= nms.scores_threshold;
}

bool IsSuppressed(const Nms& nms, const NmsBox& best, const NmsBox& box, Log* log) {
  const NmsAreas areas = CalculateAreas(best, box, nms.is_precise, log);
  const uint64_t threshold = FixedThreshold(nms.iou_threshold);
  Write(log, "union_area=" + Number(areas.union_area) + ", overlap_area=" + Number(areas.overlap) +
                 ", iou_threshold_val=" + std::to_string(threshold) +
                 ", iou_threshold=" + Number(double{nms.iou_threshold}) + "\n");
  const uint64_t scaled = ToUnsigned64(static_cast<double>(threshold) * areas.union_area);
  return ToUnsigned64(areas.overlap) > scaled / 65536 || SameCorners(box, best);
}

// The candidates of one round that the best box leaves.
Boxes Survivors(const Nms& nms, const NmsBox& best, const Boxes& candidates, Log* log) {
  Boxes survivors;
  for (const NmsBox& box : candidates) {
    if (IsSuppressed(nms, best, box, log)) {
      Write(log, "erasing... :\n");
      WriteBox(log, box);
    } else {
      survivors.push_back(box);
    }
  }
  return survivors;
}

Boxes SelectClass(const Nms& nms, const Boxes& boxes, Log* log) {
  Boxes frame;
  WriteBoxes(log, boxes);
  // The best box of all is looked at before any is dropped.
  if (!nms.is_variant && IsInverted(boxes[static_cast<size_t>(SelectBox(boxes, false))])) {
    frame.push_back(kZeroRow);
  }
  Boxes candidates;
  for (const NmsBox& box : boxes) {
    if (!IsDropped(nms, box)) candidates.push_back(box);
  }
  Write(log, "after filter:\n");
  WriteBoxes(log, candidates);
  while (!candidates.empty()) {
    const float rows = exact::ToFloat(static_cast<Wide>(frame.size()));
    if (nms.max_output_size <= rows) break;
    Write(log, "boxes size = " + std::to_string(candidates.size()) +
                   " class_boxes size = " + std::to_string(frame.size()));
    const int64_t chosen = SelectBox(candidates, nms.is_variant);
    if (chosen < 0) break;
    const NmsBox best = candidates[static_cast<size_t>(chosen)];
    candidates.erase(candidates.begin() + chosen);
    frame.push_back(best);
    candidates = Survivors(nms, best, candidates, log);
  }
  return frame;
}

}  // namespace

NmsAreas CalculateAreas(const NmsBox& a, const NmsBox& b, bool precise, Log* log) {
  Write(log, "calculate areas between boxes:\n");
  WriteBox(log, a);
  WriteBox(log, b);
  const float inset = precise ? 1.0F : 0.0F;
  const double width = SharedLength(a.x_min, a.x_max, b.x_min, Difference(b.x_max, inset));
  const double height = SharedLength(a.y_min, a.y_max, b.y_min, Difference(b.y_max, inset));
  // The area of b is a single-precision number, that of a is not.
  const float area_b = Product(Extent(b.x_min, b.x_max), Extent(b.y_min, b.y_max));
  const double area_a = double{Extent(a.x_min, a.x_max)} * double{Extent(a.y_min, a.y_max)};
  NmsAreas areas;
  // An infinite length times none is no overlap.
  areas.overlap = width == 0.0 || height == 0.0 ? 0.0 : width * height;
  areas.union_area = (double{area_b} + area_a) - areas.overlap;
  return areas;
}

int64_t SelectBox(const std::vector<NmsBox>& boxes, bool is_variant) {
  int64_t best = -1;
  float best_score = 0.0F;
  for (size_t i = 0; i < boxes.size(); ++i) {
    const float score = boxes[i].score;
    const bool is_better =
        is_variant ? score >= best_score : best < 0 || score > best_score;  // False for NaN.
    if (!is_better) continue;
    best = static_cast<int64_t>(i);
    best_score = score;
  }
  return best;
}

NmsResult SuppressNonMaxima(const Nms& nms, const float* value, Log* log) {
  const int64_t entry = exact::Wrap32(Wide{exact::Wrap32(Wide{nms.d1} * nms.d2)} * nms.d3);
  const int64_t chunk = entry / nms.classes;
  const uint64_t padded = ToUnsigned64(double{nms.max_output_size});
  NmsResult result;
  for (int64_t b = 0; b < nms.batch; ++b) {
    for (int64_t c = 0; c < nms.classes; ++c) {
      Write(log, "batch = " + std::to_string(b) + " class = " + std::to_string(c) + "\n");
      Boxes frame = SelectClass(nms, ReadBoxes(value + b * entry + c * chunk, chunk), log);
      while (frame.size() < padded) frame.push_back(kZeroRow);
      for (const NmsBox& row : frame) {
        const float values[5] = {row.y_min, row.x_min, row.y_max, row.x_max, row.score};
        result.values.insert(result.values.end(), values, values + 5);
      }
      result.rows.push_back(static_cast<int64_t>(frame.size()));
    }
  }
  WriteResult(log, result);
  return result;
}

}  // namespace reference
