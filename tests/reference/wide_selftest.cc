// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Checks the oracle of sums of 64 bits against results worked out by hand. Prints one line when all
// hold; on the first failure prints what failed and exits with status 1.

#include <cstdint>
#include <cstdio>
#include <vector>

#include "selftest.h"
#include "wide.h"

namespace {

using selftest::Expect;

// A row of pixels of `channels` under a row of taps.
reference::Convolution Row(int32_t pixels, int32_t taps, int32_t channels, int32_t outputs) {
  reference::Convolution c = {};
  c.batch = 1;
  c.in_height = c.filter_height = 1;
  c.in_width = pixels;
  c.filter_width = taps;
  c.in_channels = channels;
  c.out_channels = outputs;
  c.stride_h = c.stride_w = c.dilation_h = c.dilation_w = 1;
  return c;
}

std::vector<int64_t> Run(const reference::Convolution& c, const std::vector<int32_t>& input,
                         const std::vector<int32_t>& filter, const std::vector<int64_t>& bias,
                         size_t count) {
  std::vector<int64_t> out(count);
  reference::ConvolveWide(c, input.data(), filter.data(), bias.empty() ? nullptr : bias.data(),
                          out.data());
  return out;
}

void ExpectAll(const char* what, const std::vector<int64_t>& actual,
               const std::vector<int64_t>& expected) {
  for (size_t i = 0; i < expected.size(); ++i) Expect(what, actual[i], expected[i]);
}

}  // namespace

int main() {
  reference::Convolution c = Row(3, 2, 1, 1);
  ExpectAll("taps", Run(c, {1, 2, 4}, {10, 100}, {}, 2), {210, 420});
  ExpectAll("bias", Run(c, {1, 2, 4}, {10, 100}, {int64_t{1} << 40}, 2),
            {(int64_t{1} << 40) + 210, (int64_t{1} << 40) + 420});
  c.same = true;
  c.filter_width = 3;
  ExpectAll("what lies outside", Run(c, {1, 2, 4}, {1, 10, 100}, {}, 3), {210, 421, 42});
  c.same = false;
  c.dilation_w = 2;
  c.filter_width = 2;
  ExpectAll("dilation", Run(c, {1, 2, 4}, {1, 10}, {}, 1), {41});
  c = Row(3, 1, 1, 1);
  c.stride_w = 2;
  ExpectAll("stride", Run(c, {1, 2, 4}, {3}, {}, 2), {3, 12});
  c = Row(1, 1, 2, 2);
  ExpectAll("channels", Run(c, {3, 5}, {1, 10, 100, 1000}, {}, 2), {503, 5030});
  c.is_depthwise = true;
  ExpectAll("depthwise", Run(c, {3, 5}, {7, 11}, {}, 2), {21, 55});
  c = Row(1, 1, 2, 1);
  c.mult_shift = 1;
  ExpectAll("halves to even", Run(c, {3, 5}, {1, 1}, {7}, 1), {2 + 2 + 4});
  ExpectAll("of negative numbers", Run(c, {-3, -5}, {1, 1}, {-7}, 1), {-2 - 2 - 4});
  c.mult_shift = 31;
  ExpectAll("the shift of products by 31", Run(c, {-1, 1}, {1, 1}, {-1}, 1), {-1});
  c = Row(1, 1, 1, 1);
  ExpectAll("modulo 2^64", Run(c, {1}, {1}, {INT64_MAX}, 1), {INT64_MIN});
  const std::vector<int32_t> most(2000, -32768);
  const std::vector<int32_t> weights(2000, -128);
  ExpectAll("beyond 32 bits", Run(Row(1, 1, 2000, 1), most, weights, {}, 1), {int64_t{2000} << 22});
  std::printf("wide reference: %d checks passed\n", selftest::checks);
  return 0;
}
