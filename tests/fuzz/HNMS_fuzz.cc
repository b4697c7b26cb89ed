// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Fuzzes the suppression: what is logged and given against the oracle, and the same without a log
// on every target.

#include <cstddef>
#include <cstdint>
#include <utility>

#include "fuzz_input.h"
#include "support/nms_case.h"

namespace bitfold::testing {
namespace {

// Whole coordinates close together, fractions of them, or any pattern of bits.
float ReadCoordinate(FuzzInput* input, int kind) {
  if (kind == 0) return static_cast<float>(input->Byte() % 16);
  if (kind == 1) return static_cast<float>(static_cast<int8_t>(input->Byte())) / 8.0f;
  return FloatOf(input->Word());
}

float ReadScore(FuzzInput* input) {
  const uint8_t byte = input->Byte();
  return byte == 255 ? FloatOf(input->Word()) : static_cast<float>(byte % 16 - 2) / 8.0f;
}

NmsCase ReadNms(FuzzInput* input) {
  NmsCase c;
  c.is_precise = input->Flag();
  c.is_velquin = input->Flag();
  c.batch = input->Between(1, 2);
  c.classes = input->Between(1, 2);
  c.iou_threshold = input->Between(0, 15) == 0 ? FloatOf(input->Word())
                                               : static_cast<float>(input->Byte()) / 200.0f;
  c.scores_threshold = ReadScore(input);
  const int boxes = input->Between(0, 31) == 0 ? 90 : input->Between(1, 20);
  c.max_output_size = static_cast<float>(input->Between(0, boxes + 1));
  const int kind = input->Between(0, 7) == 0 ? 2 : input->Between(0, 1);
  for (int i = 0; i < c.batch * c.classes * boxes; ++i) {
    Box box = {};
    box.y_min = ReadCoordinate(input, kind);
    box.x_min = ReadCoordinate(input, kind);
    box.y_max = ReadCoordinate(input, kind);
    box.x_max = ReadCoordinate(input, kind);
    // Half of the boxes with fewer invalid ones.
    if (i % 2 == 0 && box.y_max < box.y_min) std::swap(box.y_min, box.y_max);
    if (i % 2 == 0 && box.x_max < box.x_min) std::swap(box.x_min, box.x_max);
    box.score = ReadScore(input);
    c.boxes.push_back(box);
  }
  return c;
}

}  // namespace
}  // namespace bitfold::testing

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  bitfold::testing::FuzzInput input(data, size);
  bitfold::testing::Require(bitfold::testing::CheckNms(bitfold::testing::ReadNms(&input)));
  return 0;
}
