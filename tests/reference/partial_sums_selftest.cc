// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Checks the oracle of partial sums against results worked out by hand. Prints one line when all
// hold; on the first failure prints what failed and exits with status 1.

#include <cstdint>
#include <cstdio>
#include <vector>

#include "partial_sums.h"
#include "selftest.h"

namespace {

using reference::SummedChannel;
using reference::SummedLayer;
using reference::SumsOnTheWay;
using selftest::Expect;

// A pixel of so many channels to one output.
SummedLayer OnePixel(int32_t channels, const std::vector<int32_t>& sizes) {
  const reference::SummedAxis one = {1, 0, 0, 1, 1, 1};
  return {1, channels, 1, one, one, false, false, 1, 0, 0, 0, sizes};
}

void CheckAChain() {
  const int32_t input[] = {100, 100, -90, -120};
  const int32_t ones[] = {1, 1, 1, 1};
  const int64_t bias[] = {200};
  // 100, 200, 110, -10, 190
  const SummedLayer layer = OnePixel(4, {8, 9, 4});
  const SummedChannel c = SumsOnTheWay(layer, input, ones, bias)[0];
  Expect("least final", c.least_final, 190);
  Expect("greatest final", c.greatest_final, 190);
  Expect("least partial", c.least_partial, -10);
  Expect("greatest partial", c.greatest_partial, 200);
  Expect("8 bits, end", c.ends_outside[0], 1);
  Expect("8 bits, sums", c.was_outside[0], 1);
  Expect("8 bits, partial sums", c.partials_outside[0], 2);
  Expect("8 bits, first", c.first_outside[0], 2);
  Expect("9 bits", c.was_outside[1] + c.partials_outside[1] + c.first_outside[1], 0);
  Expect("4 bits, partial sums", c.partials_outside[2], 5);
  Expect("4 bits, first", c.first_outside[2], 1);
}

void CheckZeroPointsAndShifts() {
  SummedLayer layer = OnePixel(2, {});
  layer.input_zero_point = 1;
  layer.filter_zero_point = -2;
  layer.mult_shift = 2;
  const int32_t input[] = {6, 4};
  const int32_t filter[] = {0, 0};
  const int64_t bias[] = {-6};
  // 10 / 4 is 2, 6 / 4 is 2, -6 / 4 is -2.
  const SummedChannel c = SumsOnTheWay(layer, input, filter, bias)[0];
  Expect("final", c.least_final, 2);
  Expect("least", c.least_partial, 2);
  Expect("greatest", c.greatest_partial, 4);
}

void CheckTheOrder() {
  // Two rows of two pixels of two channels: rows, then channels, then columns.
  const reference::SummedAxis two = {2, 0, 0, 2, 1, 1};
  const SummedLayer layer = {1, 2, 1, two, two, false, false, 1, 0, 0, 0, {4}};
  const int32_t input[] = {1, 7, 2, -7, 1, 1, 1, 1};
  const int32_t ones[] = {1, 1, 1, 1, 1, 1, 1, 1};
  // 1, 3, 10, 3, 4, 5, 6, 7
  const SummedChannel c = SumsOnTheWay(layer, input, ones, nullptr)[0];
  Expect("greatest", c.greatest_partial, 10);
  Expect("final", c.greatest_final, 7);
  Expect("first", c.first_outside[0], 3);
  Expect("outside", c.partials_outside[0], 1);
  Expect("ends", c.ends_outside[0], 0);
}

void CheckWindows() {
  // Two taps over one pixel and a zero before it: two addends; SAME finds one beyond the end.
  SummedLayer layer = {1, 1, 1,  {1, 0, 0, 1, 1, 1}, {1, 1, 0, 2, 1, 1}, false, false, 1, 0,
                       0, 0, {2}};
  const int32_t input[] = {5};
  const int32_t filter[] = {1, 1};
  SummedChannel c = SumsOnTheWay(layer, input, filter, nullptr)[0];
  Expect("zeros are addends", c.first_outside[0], 2);
  Expect("zeros are partial sums", c.least_partial, 0);
  layer.is_same = true;  // windows over the zero and the pixel, and over the pixel alone
  c = SumsOnTheWay(layer, input, filter, nullptr)[0];
  Expect("what lies outside is none", c.partials_outside[0], 2);
  Expect("and is not counted", c.first_outside[0], 1);
}

void CheckChannelsAndImages() {
  const reference::SummedAxis one = {1, 0, 0, 1, 1, 1};
  SummedLayer layer = {2, 2, 2, one, one, false, true, 2, 0, 0, 0, {}};
  const int32_t input[] = {1, 2, 3, 4};
  const int32_t filter[] = {10, 100, 1, 2};
  const auto channels = SumsOnTheWay(layer, input, filter, nullptr);
  Expect("depthwise", channels[0].greatest_final, 10);
  Expect("of the second image", channels[0].least_final, 3);
  Expect("second channel", channels[1].greatest_final, 200);
  layer.batch = 0;
  Expect("no sums", SumsOnTheWay(layer, input, filter, nullptr)[0].least_final, INT64_MAX);
}

}  // namespace

int main() {
  CheckAChain();
  CheckZeroPointsAndShifts();
  CheckTheOrder();
  CheckWindows();
  CheckChannelsAndImages();
  std::printf("partial sums reference: %d checks passed\n", selftest::checks);
  return 0;
}
