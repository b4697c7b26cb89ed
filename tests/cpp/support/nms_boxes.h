// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Sets of boxes of which many overlap, tie, coincide or are invalid.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_NMS_BOXES_H_
#define BITFOLD_TESTS_CPP_SUPPORT_NMS_BOXES_H_

#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "support/nms_case.h"
#include "support/random.h"
#include "support/tables.h"

namespace bitfold::testing {

enum class BoxKind {
  kClustered,   // around few centres, whole coordinates
  kFractional,  // the same in sixteenths and thirds
  kSpread,      // most are disjoint: many are selected
  kNested,      // one corner shared: all sizes of overlap
  kFew,         // few different boxes: most coincide
  kLarge,       // up to the largest magnitude that the quiet form takes
};

inline std::vector<BoxKind> BoxKinds() {
  return {BoxKind::kClustered, BoxKind::kFractional, BoxKind::kSpread,
          BoxKind::kNested,    BoxKind::kFew,        BoxKind::kLarge};
}

inline Box BoxOf(float y, float x, float height, float width) {
  return {y, x, y + height, x + width, 0.0f};
}

inline Box DrawCoordinates(Random* random, BoxKind kind) {
  const auto number = [random](int low, int high) {
    return static_cast<float>(random->Between(low, high));
  };
  switch (kind) {
    case BoxKind::kClustered:
      return BoxOf(20.0f * number(0, 2) + number(-2, 2), 20.0f * number(0, 2) + number(-2, 2),
                   number(5, 15), number(5, 15));
    case BoxKind::kFractional: {
      const float unit = random->Flag() ? 1.0f / 16.0f : 1.0f / 3.0f;
      return BoxOf(unit * number(-50, 50), unit * number(-50, 50), unit * number(-3, 150),
                   unit * number(-3, 150));
    }
    case BoxKind::kSpread:
      return BoxOf(12.0f * number(0, 30), 12.0f * number(0, 30), number(1, 14), number(1, 14));
    case BoxKind::kNested:
      return BoxOf(0.0f, 0.0f, number(0, 40), number(0, 40));
    case BoxKind::kFew:
      return BoxOf(10.0f * number(0, 1), 0.0f, 9.0f + number(0, 1), 9.0f);
    default: {
      const float largest = 1048576.0f;
      const float y_min = random->Flag() ? -largest : number(-1048576, 1048575);
      const float y_max = random->Flag() ? largest : number(-1048576, 1048576);
      return {y_min, number(-1048576, 0), y_max, random->Flag() ? largest : number(0, 1048576),
              0.0f};
    }
  }
}

// Ties, scores around the usual thresholds, negative ones, both zeros, infinities now and then.
inline float DrawScore(Random* random) {
  static const std::vector<float> some = {0.0f, -0.0f, 0.25f, 0.5f, 0.75f,
                                          0.9f, 1.0f,  -0.5f, -1.0f};
  switch (random->Between(0, 9)) {
    case 0:
    case 1:
    case 2:
    case 3:
      return random->Pick(some);
    case 4:
      return random->Between(0, 9) == 0 ? std::numeric_limits<float>::infinity() : 0.5f;
    default:
      return static_cast<float>(random->Between(-100, 1000)) / 1000.0f;
  }
}

// `invalid` of a hundred have a maximum below its minimum.
inline std::vector<Box> DrawBoxes(Random* random, BoxKind kind, int count, int invalid = 8) {
  std::vector<Box> boxes;
  for (int i = 0; i < count; ++i) {
    Box box = DrawCoordinates(random, kind);
    if (random->Between(0, 99) < invalid) {
      (random->Flag() ? box.y_max : box.x_max) -= 100.0f;
    }
    box.score = DrawScore(random);
    boxes.push_back(box);
  }
  return boxes;
}

// Numbers that the quiet form leaves to the definition.
inline float DrawExtreme(Random* random) {
  static const std::vector<float> some = {std::numeric_limits<float>::quiet_NaN(),
                                          std::numeric_limits<float>::infinity(),
                                          -std::numeric_limits<float>::infinity(),
                                          3e38f,
                                          -3e38f,
                                          1048577.0f,
                                          -4e9f,
                                          1e13f,
                                          1e19f};
  return random->Pick(some);
}

// Overlap thresholds below 2, which the quiet form takes.
inline std::vector<float> IouThresholds() {
  return {0.0f,  -0.0f, 0.0001f,    0.3f,   0.49f,
          0.5f,  0.7f,  0.999f,     1.0f,   1.5f,
          1.99f, -1.0f, 1.9999999f, -1e30f, std::numeric_limits<float>::quiet_NaN()};
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_NMS_BOXES_H_
