// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Checks the oracle of the ops on stored tensors against results worked out by hand. Prints one
// line when all hold; on the first failure prints what failed and exits with status 1.

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <limits>

#include "selftest.h"
#include "stored.h"

namespace {

using reference::ElementwiseOperation;
using reference::StoredElementwise;
using reference::StoredMean;
using reference::StoredQuantise;
using selftest::Expect;

void CheckElementwise() {
  reference::ElementwiseSettings s = {
      ElementwiseOperation::kAdd, 8, {0.5F, 0}, {0.5F, 0}, {1.0F, 0}, -128, 127};
  Expect("(1 + 2) / 2", StoredElementwise(1, 2, s), 2);  // 1.5, away from zero
  Expect("(-1 - 2) / 2", StoredElementwise(-1, -2, s), -2);
  s.first.zero_point = -128;
  s.output.zero_point = 100;
  Expect("zero points", StoredElementwise(-120, 2, s), 105);
  Expect("maximum", StoredElementwise(127, 127, s), 127);
  s.operation = ElementwiseOperation::kSubtract;
  Expect("less", StoredElementwise(-120, 2, s), 103);
  s.minimum = 50;
  Expect("minimum", StoredElementwise(-128, 127, s), 50);
  s = {ElementwiseOperation::kMultiply, 16, {0.5F, 0}, {0.25F, 0}, {1.0F, 0}, -32768, 32767};
  Expect("4 * 4 / 8", StoredElementwise(4, 4, s), 2);
  Expect("-3 * 4 / 8", StoredElementwise(-3, 4, s), -2);
  Expect("clamped", StoredElementwise(-32768, 32767, s), -32768);
  s = {ElementwiseOperation::kAdd, 16, {1.0F, 0}, {0.25F, 0}, {1.0F, 0}, -32768, 32767};
  Expect("100 + 2 / 4", StoredElementwise(100, 2, s), 101);
  Expect("far ends", StoredElementwise(-32768, -32768, s), -32768);
}

void CheckWindows() {
  using reference::IsInWindow;
  using reference::WindowCount;
  Expect("valid", WindowCount({5, 2, 2, false}), 2);
  Expect("none", WindowCount({2, 3, 1, false}), 0);
  Expect("same", WindowCount({5, 2, 2, true}), 3);
  // 6 pixels at stride 2 and 3 taps: one pixel beyond, at the end.
  Expect("begin", IsInWindow({6, 3, 2, true}, 0, 0), 1);
  Expect("begin", IsInWindow({6, 3, 2, true}, 0, 2), 1);
  Expect("end", IsInWindow({6, 3, 2, true}, 2, 3), 0);
  const int32_t image[] = {1, 2, 3, 4, -5, 6};
  reference::PoolSettings s = {true, {2, 2, 1, false}, {3, 2, 1, false}, 1, -128, 127};
  Expect("(1 + 2 + 4 - 5) / 4", reference::StoredPool(image, 0, 0, 0, s), 1);
  Expect("(2 + 3 - 5 + 6) / 4", reference::StoredPool(image, 0, 1, 0, s), 2);
  s.is_average = false;
  Expect("greatest", reference::StoredPool(image, 0, 0, 0, s), 4);
  s.maximum = 3;
  Expect("clamped", reference::StoredPool(image, 0, 0, 0, s), 3);
}

void CheckMean() {
  const int32_t data[] = {1, 100, 2, 100, 4, 100};
  Expect("7 / 3", StoredMean(data, 3, 2, {0.5F, 0}, {0.5F, 0}, 8), 2);
  Expect("(7 + 9) / 3 * 2", StoredMean(data, 3, 2, {1.0F, -3}, {0.5F, 0}, 8), 11);
  Expect("clamped", StoredMean(data + 1, 3, 2, {1.0F, 0}, {0.5F, 0}, 8), 127);
  Expect("too small to have a multiplier", StoredMean(data, 1, 1, {1e-10F, 0}, {1.0F, 5}, 8), 5);
}

void CheckLookup() {
  const int32_t table[] = {7, 8, 9};
  Expect("first", reference::StoredLookup(-1, table, -1), 7);
  Expect("last", reference::StoredLookup(1, table, -1), 9);
}

void CheckQuantise() {
  const float infinity = std::numeric_limits<float>::infinity();
  Expect("half", StoredQuantise(0.25F, {0.5F, 3}, -128, 127), 4);
  Expect("minus half", StoredQuantise(-0.25F, {0.5F, 3}, -128, 127), 2);
  Expect("below half", StoredQuantise(std::nextafter(0.25F, 0.0F), {0.5F, 3}, -128, 127), 3);
  Expect("infinite", StoredQuantise(infinity, {0.5F, 3}, 0, 255), 255);
  Expect("infinite", StoredQuantise(-infinity, {0.5F, 3}, -32768, 32767), -32768);
  Expect("NaN", StoredQuantise(std::nanf(""), {0.5F, 3}, -128, 127), 3);
}

}  // namespace

int main() {
  CheckElementwise();
  CheckWindows();
  CheckMean();
  CheckLookup();
  CheckQuantise();
  std::printf("stored reference: %d checks passed\n", selftest::checks);
  return 0;
}
