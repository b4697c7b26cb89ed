// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// HNMS: greedy non-maximum suppression of detection boxes, class by class, with a fixed-point
// overlap test. Everything that happens is logged at information level; nothing is formatted when
// the log filters that level.

#ifndef BITFOLD_HNMS_H_
#define BITFOLD_HNMS_H_

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

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

// size / 5 boxes in the data's order. A size that is no multiple of 5 ends the process.
std::vector<Box> raw_data_to_boxes(const float* data, size_t size);

// The box to select, or one past the last where there is none.
//   velquin false: the first of the greatest score, NaN never exceeding another; none only in an
//                  empty vector.
//   velquin true:  the last of the greatest score that is at least 0; negative and NaN scores are
//                  never selected.
std::vector<Box>::iterator find_max(std::vector<Box>& boxes, bool velquin);

// A copy of that box, taken out of `boxes` if `remove` says so; a box of zeros where none is
// selected. An empty vector ends the process.
Box find_box_with_higest_score(std::vector<Box>& boxes, bool velquin, bool remove);

// The union and the overlap of two boxes. With `precise` the maximum edges of b, and of b alone,
// are pulled in by one for the overlap. The area of a is multiplied in double, that of b in single
// precision.
std::pair<double, double> calculate_areas(const Box& a, const Box& b, bool precise);

// Appends rows of zeros up to `size` rows; a longer frame stays as it is.
void pad_frame(Frame& frame, size_t size);

// Logs every number on a line of its own.
void print_3d_vector(const std::vector<Frame>& result);

// x truncated to an unsigned integer of 64 bits: NaN and what lies below 0 give 0, from 2^64 on
// 2^64 - 1, so that thresholds keep their meaning.
uint64_t SaturateToUint64(double x);

// The op: for every batch entry b and every class c of k, the boxes that remain of the class's
// share of the d1 * d2 * d3 numbers of entry b; frames in the order (b, c), max_output_size rows
// each. Requires 0 <= b, d1, d2, d3 with a product of d1, d2 and d3 that int32 holds, k >= 1 and a
// whole max_output_size >= 0. A class with a share that is no multiple of 5, or without a box
// unless is_velquin, ends the process. With max_output_size 0 a frame may hold one row of zeros.
std::vector<Frame> NMSTensor(const float* value, float scores_threshold, float iou_threshold,
                             float max_output_size, int32_t b, int32_t d1, int32_t d2, int32_t d3,
                             int32_t k, bool debug_precise_numeric, bool is_velquin);

}  // namespace bitfold

#endif  // BITFOLD_HNMS_H_
