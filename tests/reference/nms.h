// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The test oracle of the non-maximum suppression.
//
// `log` receives what is logged at information level, one entry per message exactly as it is
// streamed: a message that ends with an end of line keeps it. It may be null.
//
// A conversion to a number of 64 bits without sign truncates and saturates: NaN and negative values
// give 0, 2^64 and above give 2^64 - 1.

#ifndef BITFOLD_TESTS_REFERENCE_NMS_H_
#define BITFOLD_TESTS_REFERENCE_NMS_H_

#include <cstdint>
#include <string>
#include <vector>

namespace reference {

// Edges are inclusive: a box from 0 to 9 is 10 wide.
struct NmsBox {
  float y_min;
  float x_min;
  float y_max;
  float x_max;
  float score;
};

struct NmsAreas {
  double union_area;
  double overlap;
};

// The areas of two boxes. With `precise` the maximum edges of b, not those of a, are pulled in by
// one for the overlap. A comparison of edges that is not ordered takes the edge of a.
NmsAreas CalculateAreas(const NmsBox& a, const NmsBox& b, bool precise,
                        std::vector<std::string>* log);

// Index of the box with the best score, or -1 for none. The variant takes the last of equal scores
// and none below 0; otherwise it is the first, and none only when there is no box.
int64_t SelectBox(const std::vector<NmsBox>& boxes, bool is_variant);

// What the suppression is called with. A batch entry of d1 x d2 x d3 values (32-bit arithmetic) is
// cut into `classes` chunks of equal size, of which the rest of the division is no part.
struct Nms {
  float scores_threshold;
  float iou_threshold;
  float max_output_size;
  int32_t batch;
  int32_t d1;
  int32_t d2;
  int32_t d3;
  int32_t classes;
  bool is_precise;
  bool is_variant;
};

// One frame per class of each batch entry, batch entries outermost; `values` holds their rows, of
// five values each, one after the other. All frames have max_output_size rows, but for those that
// were longer before the padding.
struct NmsResult {
  std::vector<int64_t> rows;
  std::vector<float> values;
};

// Preconditions: at least one class, a whole number of boxes in a chunk, at least one box in it
// unless `is_variant`, and a max_output_size whose frames fit the memory. When no box qualifies for
// the variant, the class ends there and its frame is padded. Without batch entries there is no
// frame and the size of the first one is logged as 0.
NmsResult SuppressNonMaxima(const Nms& nms, const float* value, std::vector<std::string>* log);

}  // namespace reference

#endif  // BITFOLD_TESTS_REFERENCE_NMS_H_
