// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The oracles of the box decoders and of the suppression behind a C interface, for tests that load
// them as a shared library from Python.
//
// Text: the functions that can report lines take a buffer and its capacity in bytes, and return
// the length of the whole text without its terminator. As much as fits is copied and terminated
// with a zero byte; a length of `capacity` or more tells that the text was cut. The buffer may be
// null with a capacity of 0.
//
// The text of the suppression is its log: every message as it is streamed, followed by the byte
// 0x1e, since a message may hold an end of line or none.
//
// Flags are int32, 0 for false.
//
// The settings of a suppression are 7 int32 values in this order:
//    0 batch   1 d1   2 d2   3 d3   4 classes   5 is_precise   6 is_variant
// and 3 float values: scores_threshold, iou_threshold, max_output_size.

#include <cstdint>
#include <string>
#include <vector>

#include "decoder.h"
#include "nms.h"
#include "return_text.h"

namespace {

int64_t ReturnLog(const std::vector<std::string>& log, char* text, int64_t capacity) {
  std::string messages;
  for (const std::string& message : log) messages += message + '\x1e';
  return ReturnText(messages, text, capacity);
}

template <typename T>
int64_t DecodeBoxesText(const T* const* inputs, int64_t N, int64_t H, int64_t W, int64_t A,
                        int32_t accumulator_size, int32_t mult_shift, int32_t use_fp16_acc, T* out,
                        char* text, int64_t capacity) {
  std::string lines;
  reference::DecodeBoxes<T>(inputs, N, H, W, A, accumulator_size, mult_shift, use_fp16_acc != 0,
                            out, &lines);
  return ReturnText(lines, text, capacity);
}

template <typename T>
int64_t DecodeBoxesSingleWeightText(const T* const* inputs, int64_t N, int64_t H, int64_t W,
                                    int64_t A, int32_t accumulator_size, int32_t mult_shift,
                                    int32_t use_fp16_acc, T* out, char* text, int64_t capacity) {
  std::string lines;
  reference::DecodeBoxesSingleWeight<T>(inputs, N, H, W, A, accumulator_size, mult_shift,
                                        use_fp16_acc != 0, out, &lines);
  return ReturnText(lines, text, capacity);
}

reference::NmsBox ReadBox(const float* values) {
  return {values[0], values[1], values[2], values[3], values[4]};
}

}  // namespace

extern "C" {

int64_t reference_decode_boxes_float(const float* const* inputs, int64_t N, int64_t H, int64_t W,
                                     int64_t A, int32_t accumulator_size, int32_t mult_shift,
                                     int32_t use_fp16_acc, float* out, char* text,
                                     int64_t capacity) {
  return DecodeBoxesText<float>(inputs, N, H, W, A, accumulator_size, mult_shift, use_fp16_acc, out,
                                text, capacity);
}

int64_t reference_decode_boxes_int32(const int32_t* const* inputs, int64_t N, int64_t H, int64_t W,
                                     int64_t A, int32_t accumulator_size, int32_t mult_shift,
                                     int32_t use_fp16_acc, int32_t* out, char* text,
                                     int64_t capacity) {
  return DecodeBoxesText<int32_t>(inputs, N, H, W, A, accumulator_size, mult_shift, use_fp16_acc,
                                  out, text, capacity);
}

int64_t reference_decode_boxes_single_weight_float(const float* const* inputs, int64_t N, int64_t H,
                                                   int64_t W, int64_t A, int32_t accumulator_size,
                                                   int32_t mult_shift, int32_t use_fp16_acc,
                                                   float* out, char* text, int64_t capacity) {
  return DecodeBoxesSingleWeightText<float>(inputs, N, H, W, A, accumulator_size, mult_shift,
                                            use_fp16_acc, out, text, capacity);
}

int64_t reference_decode_boxes_single_weight_int32(const int32_t* const* inputs, int64_t N,
                                                   int64_t H, int64_t W, int64_t A,
                                                   int32_t accumulator_size, int32_t mult_shift,
                                                   int32_t use_fp16_acc, int32_t* out, char* text,
                                                   int64_t capacity) {
  return DecodeBoxesSingleWeightText<int32_t>(inputs, N, H, W, A, accumulator_size, mult_shift,
                                              use_fp16_acc, out, text, capacity);
}

// Two boxes of five values; `areas` receives the union and the overlap.
int64_t reference_nms_areas(const float* a, const float* b, int32_t precise, double* areas,
                            char* text, int64_t capacity) {
  std::vector<std::string> log;
  const reference::NmsAreas result =
      reference::CalculateAreas(ReadBox(a), ReadBox(b), precise != 0, &log);
  areas[0] = result.union_area;
  areas[1] = result.overlap;
  return ReturnLog(log, text, capacity);
}

// The index of the best of `count` boxes of five values each, -1 for none.
int64_t reference_nms_select(const float* boxes, int64_t count, int32_t is_variant) {
  std::vector<reference::NmsBox> list;
  for (int64_t i = 0; i < count; ++i) list.push_back(ReadBox(boxes + 5 * i));
  return reference::SelectBox(list, is_variant != 0);
}

// `rows` receives the number of rows of each of the batch * classes frames, `out` as many of all
// their values as it holds, and `out_length` the number of all values.
int64_t reference_nms(const int32_t* settings, const float* thresholds, const float* value,
                      int64_t* rows, float* out, int64_t out_capacity, int64_t* out_length,
                      char* text, int64_t capacity) {
  reference::Nms nms;
  nms.scores_threshold = thresholds[0];
  nms.iou_threshold = thresholds[1];
  nms.max_output_size = thresholds[2];
  nms.batch = settings[0];
  nms.d1 = settings[1];
  nms.d2 = settings[2];
  nms.d3 = settings[3];
  nms.classes = settings[4];
  nms.is_precise = settings[5] != 0;
  nms.is_variant = settings[6] != 0;
  std::vector<std::string> log;
  const reference::NmsResult result = reference::SuppressNonMaxima(nms, value, &log);
  for (size_t i = 0; i < result.rows.size(); ++i) rows[i] = result.rows[i];
  *out_length = static_cast<int64_t>(result.values.size());
  for (int64_t i = 0; i < *out_length && i < out_capacity; ++i) {
    out[i] = result.values[static_cast<size_t>(i)];
  }
  return ReturnLog(log, text, capacity);
}

}  // extern "C"
