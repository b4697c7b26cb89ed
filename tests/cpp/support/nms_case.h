// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The suppression as its tests see it: sets of boxes of every kind, and a case computed by the
// oracle and by the fast form, which is the definition while it is logged.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_NMS_CASE_H_
#define BITFOLD_TESTS_CPP_SUPPORT_NMS_CASE_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "bitfold/HNMS.h"
#include "cpu/nms.h"
#include "frame/log.h"
#include "reference/nms.h"
#include "support/bits.h"
#include "support/buffer.h"
#include "support/log_stub.h"
#include "support/targets.h"
#include "support/workers.h"

namespace bitfold::testing {

struct NmsCase {
  std::vector<Box> boxes;  // of all batch entries and classes
  float scores_threshold = 0.0f;
  float iou_threshold = 0.5f;
  float max_output_size = 10.0f;
  int32_t batch = 1;
  int32_t classes = 1;
  bool is_precise = false;
  bool is_velquin = false;

  int32_t boxes_per_entry() const { return static_cast<int32_t>(boxes.size()) / batch; }

  SuppressionOptions Options() const {
    return {scores_threshold, iou_threshold, max_output_size, is_precise, is_velquin};
  }

  // `value` holds the case's Value().
  SuppressionInput Input(const float* value) const {
    return {value, batch, boxes_per_entry(), 5, 1, classes};
  }

  std::vector<float> Value() const {
    std::vector<float> value;
    for (const Box& b : boxes) {
      value.insert(value.end(), {b.y_min, b.x_min, b.y_max, b.x_max, b.score});
    }
    return value;
  }

  std::string Text() const {
    std::string text = Describe("scores_threshold", scores_threshold, "iou_threshold",
                                iou_threshold, "max_output_size", max_output_size, "batch", batch,
                                "classes", classes, "precise", is_precise, "velquin", is_velquin);
    const size_t shown = std::min<size_t>(boxes.size(), 40);
    for (size_t i = 0; i < shown; ++i) {
      const Box& b = boxes[i];
      text += "\n  " + Describe("y_min", b.y_min, "x_min", b.x_min, "y_max", b.y_max, "x_max",
                                b.x_max, "score", b.score);
    }
    return text + (shown < boxes.size() ? "\n  and more" : "");
  }
};

struct NmsOutput {
  std::vector<Frame> frames;
  std::vector<std::string> messages;
};

inline NmsOutput OracleNms(const NmsCase& c) {
  NmsOutput output;
  const reference::Nms nms = {
      c.scores_threshold, c.iou_threshold, c.max_output_size, c.batch, c.boxes_per_entry(), 5, 1,
      c.classes,          c.is_precise,    c.is_velquin};
  const reference::NmsResult result =
      reference::SuppressNonMaxima(nms, c.Value().data(), &output.messages);
  auto next = result.values.begin();
  for (const int64_t rows : result.rows) {
    Frame frame;
    for (int64_t r = 0; r < rows; ++r, next += 5) frame.emplace_back(next, next + 5);
    output.frames.push_back(frame);
  }
  return output;
}

// The frames of a max_output_size of 0, which differ in length: ComputeNMS does not take it, and
// the op refuses it.
inline std::vector<Frame> FramesWithoutPadding(const SuppressionInput& in,
                                               const SuppressionOptions& options) {
  if (InformationLogIsOn()) return NMSTensor(in, options, LogInformation);
  std::vector<Frame> frames;
  for (int32_t batch = 0; batch < in.b; ++batch) {
    for (int32_t c = 0; c < in.k; ++c) {
      const std::vector<Box> boxes = in.BoxesOf(batch, c);
      Frame frame;
      if (!ComputeClassNMS(boxes, options, &frame)) frame = DefineClassNMS(boxes, options, nullptr);
      frames.push_back(frame);
    }
  }
  return frames;
}

// The frames of ComputeNMS, from memory that was not zero.
inline std::vector<Frame> ComputedFrames(const SuppressionInput& in,
                                         const SuppressionOptions& options, Workers* workers) {
  const auto rows = static_cast<size_t>(options.max_output_size);
  if (rows == 0) return FramesWithoutPadding(in, options);
  const auto count = static_cast<size_t>(in.b) * static_cast<size_t>(in.k);
  ExactBuffer<float> out(std::vector<float>(count * rows * 5, 77.0f));
  ComputeNMS(in, options, out.data(), workers);
  std::vector<Frame> frames(count);
  const float* next = out.data();
  for (Frame& frame : frames) {
    for (size_t r = 0; r < rows; ++r, next += 5) frame.emplace_back(next, next + 5);
  }
  return frames;
}

// As the kernel calls it, with the log on or off.
inline NmsOutput RunNms(const NmsCase& c, bool log, Workers* workers) {
  const InformationLog on(log);
  const ExactBuffer<float> value(c.Value());
  NmsOutput output;
  output.frames = ComputedFrames(c.Input(value.data()), c.Options(), workers);
  output.messages = LoggedInformation();
  return output;
}

inline NmsOutput RunNms(const NmsCase& c, bool log) {
  CallingThread calling_thread;
  return RunNms(c, log, &calling_thread);
}

inline ::testing::AssertionResult SameFrames(const std::vector<Frame>& expected,
                                             const std::vector<Frame>& actual,
                                             const std::string& path) {
  const auto differ = [&path] { return ::testing::AssertionFailure() << path << ": "; };
  if (expected.size() != actual.size()) {
    return differ() << expected.size() << " frames expected, got " << actual.size();
  }
  for (size_t f = 0; f < expected.size(); ++f) {
    if (expected[f].size() != actual[f].size()) {
      return differ() << "frame " << f << ": " << expected[f].size() << " rows expected, got "
                      << actual[f].size();
    }
    for (size_t r = 0; r < expected[f].size(); ++r) {
      if (actual[f][r].size() != 5) return differ() << "row " << r << " is no box";
      for (size_t k = 0; k < 5; ++k) {
        if (SameBits(expected[f][r][k], actual[f][r][k])) continue;
        return differ() << "frame " << f << ", row " << r << ", number " << k << ": expected "
                        << Show(expected[f][r][k]) << ", got " << Show(actual[f][r][k]);
      }
    }
  }
  return ::testing::AssertionSuccess();
}

// Message by message.
inline ::testing::AssertionResult SameMessages(const std::vector<std::string>& expected,
                                               const std::vector<std::string>& actual) {
  for (size_t i = 0; i < expected.size() && i < actual.size(); ++i) {
    if (WithoutNanSigns(expected[i]) == WithoutNanSigns(actual[i])) continue;
    return ::testing::AssertionFailure()
           << "message " << i << ": expected " << ::testing::PrintToString(expected[i]) << ", got "
           << ::testing::PrintToString(actual[i]);
  }
  if (expected.size() == actual.size()) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << expected.size() << " messages expected, got " << actual.size();
}

// With the log on, frames and messages as the oracle has them.
inline ::testing::AssertionResult LoggedAgainstOracle(const NmsCase& c, const NmsOutput& logged) {
  const NmsOutput oracle = OracleNms(c);
  const auto frames = SameFrames(oracle.frames, logged.frames, "ComputeNMS, logged, " + c.Text());
  if (!frames) return frames;
  const auto messages = SameMessages(oracle.messages, logged.messages);
  return messages ? messages : ::testing::AssertionFailure() << messages.message() << c.Text();
}

// With the log off the same frames on every target and in parts, and no message.
inline ::testing::AssertionResult QuietAgainstLogged(const NmsCase& c, const NmsOutput& logged) {
  for (const auto& [target, name] : SupportedTargets()) {
    const ForcedTarget forced(target);
    const NmsOutput quiet = RunNms(c, false);
    const auto same = SameFrames(logged.frames, quiet.frames,
                                 std::string("ComputeNMS without a log, ") + name + " " + c.Text());
    if (!same) return same;
    if (!quiet.messages.empty()) {
      return ::testing::AssertionFailure() << "logged " << quiet.messages[0];
    }
  }
  BackwardParts parts(1);
  return SameFrames(logged.frames, RunNms(c, false, &parts).frames,
                    "ComputeNMS in parts " + c.Text());
}

inline ::testing::AssertionResult CheckNms(const NmsCase& c) {
  BackwardParts parts(1);  // but its messages have an order
  const NmsOutput logged = RunNms(c, true, &parts);
  const auto oracle = LoggedAgainstOracle(c, logged);
  return oracle ? QuietAgainstLogged(c, logged) : oracle;
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_NMS_CASE_H_
