// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Checks the oracle of the device's additions and convolution against results worked out by hand.
// Prints one line when all hold; on the first failure prints what failed and exits with status 1.

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "device.h"
#include "reference.h"
#include "selftest.h"

namespace {

using reference::Convolution;
using selftest::checks;
using selftest::Expect;
using selftest::ExpectAll;
using selftest::ExpectFloat;
using selftest::ExpectText;

const float kInf = std::numeric_limits<float>::infinity();
const float kNaN = std::numeric_limits<float>::quiet_NaN();

std::string Warning(const char* sum) {
  return std::string("@@@ WARNING: acc ") + sum + " is out of bounds <-8388607,8388607>\n";
}

void CheckPasses() {
  Expect("passes of 0", reference::DevicePasses(0.0F), 0);
  Expect("passes of -0", reference::DevicePasses(-0.0F), 0);
  Expect("passes of -1", reference::DevicePasses(-1.0F), 0);
  Expect("passes of -inf", reference::DevicePasses(-kInf), 0);
  Expect("passes of NaN", reference::DevicePasses(kNaN), 0);
  Expect("passes of 2^-149", reference::DevicePasses(1e-45F), 1);
  Expect("passes of 0.5", reference::DevicePasses(0.5F), 1);
  Expect("passes of 1", reference::DevicePasses(1.0F), 1);
  Expect("passes of 2.5", reference::DevicePasses(2.5F), 3);
  Expect("passes of 17", reference::DevicePasses(17.0F), 17);
  Expect("passes of 2^24", reference::DevicePasses(16777216.0F), 16777216);
  // 2^24 + 1 rounds down to 2^24, and 2^24 + 3 up to 2^24 + 4.
  Expect("passes of 2^24 + 2", reference::DevicePasses(16777218.0F), 16777218);
  Expect("passes of 2^24 + 4", reference::DevicePasses(16777220.0F), 16777219);
  Expect("passes of 2^31 - 256", reference::DevicePasses(2147483392.0F), 2147483328);
  Expect("passes of 2^31", reference::DevicePasses(2147483648.0F), 2147483584);
  // No count up to 2^31 is as large as these.
  Expect("passes of 2^31 + 256", reference::DevicePasses(2147483904.0F), 2147483648);
  Expect("passes of 3e38", reference::DevicePasses(3e38F), 2147483648);
  Expect("passes of inf", reference::DevicePasses(kInf), 2147483648);
}

void CheckWrap() {
  ExpectFloat("130 in 8 bits", reference::DeviceWrap(130.0F, 8), -126.0F);
  ExpectFloat("-130 in 8 bits", reference::DeviceWrap(-130.0F, 8), 126.0F);
  ExpectFloat("127 in 8 bits", reference::DeviceWrap(127.0F, 8), 127.0F);
  ExpectFloat("-128 in 8 bits", reference::DeviceWrap(-128.0F, 8), -128.0F);
  ExpectFloat("127.5 in 8 bits", reference::DeviceWrap(127.5F, 8), -128.5F);
  ExpectFloat("500 in 8 bits", reference::DeviceWrap(500.0F, 8), 244.0F);
  ExpectFloat("0 in 0 bits", reference::DeviceWrap(0.0F, 0), -1.0F);
  // 2^24 + 2, less 1, is a tie that goes to 2^24; less 1 again it is exact.
  ExpectFloat("2^24 + 2 in 1 bit", reference::DeviceWrap(16777218.0F, 1), 16777215.0F);
  ExpectFloat("-2^24 - 2 in 1 bit", reference::DeviceWrap(-16777218.0F, 1), -16777215.0F);
  // From 26 bits on the highest value is 2^(n - 1) itself.
  ExpectFloat("2^25 in 26 bits", reference::DeviceWrap(33554432.0F, 26), 33554432.0F);
  ExpectFloat("2^25 + 4 in 26 bits", reference::DeviceWrap(33554436.0F, 26), -33554428.0F);
  // 2^127 + 2^126 in 128 bits, whose period no float holds.
  ExpectFloat("128 bits", reference::DeviceWrap(2.55211775e38F, 128), -8.50705917e37F);
  ExpectFloat("inf in 128 bits", reference::DeviceWrap(kInf, 128), kInf);
  ExpectFloat("inf in 129 bits", reference::DeviceWrap(kInf, 129), kInf);
  ExpectFloat("-inf in 130 bits", reference::DeviceWrap(-kInf, 130), -kInf);
  ExpectFloat("NaN in 8 bits", reference::DeviceWrap(kNaN, 8), kNaN);
}

void CheckAccumulate() {
  std::string lines;
  Expect("150", reference::DeviceAccumulate(100, 50, 8, false, &lines), -106);
  Expect("-150", reference::DeviceAccumulate(-100, -50, 8, true, &lines), 106);
  Expect("500", reference::DeviceAccumulate(100, 400, 8, false, &lines), 244);
  Expect("2^31", reference::DeviceAccumulate(INT32_MAX, 1, 32, false, &lines), INT32_MIN);
  Expect("0 bits", reference::DeviceAccumulate(3, 2, 0, false, &lines), 4);
  ExpectText("integers have no lines", lines, "");
  ExpectFloat("sum", reference::DeviceAccumulate(127.0F, 3.0F, 8, false, &lines), -126.0F);
  ExpectFloat("lower bound", reference::DeviceAccumulate(-8388607.0F, 0.0F, 40, false, &lines),
              -8388607.0F);
  ExpectFloat("NaN", reference::DeviceAccumulate(kNaN, 1.0F, 8, false, &lines), kNaN);
  ExpectFloat("NaN, half", reference::DeviceAccumulate(kInf, -kInf, 8, true, &lines), kNaN);
  ExpectText("no line", lines, "");
  ExpectFloat("8388607", reference::DeviceAccumulate(8388606.0F, 1.0F, 24, false, &lines),
              8388607.0F);
  ExpectFloat("-inf", reference::DeviceAccumulate(-kInf, 1.0F, 40, false, &lines), -kInf);
  ExpectText("lines", lines, Warning("8388607.000000") + Warning("-inf"));
  // The addend is quantised, the accumulator is not.
  ExpectFloat("half", reference::DeviceAccumulate(40000.0F, 0.00048828125F, 8, true, nullptr),
              -20000.0F);
  ExpectFloat("half", reference::DeviceAccumulate(0.0F, 40000.0F, 8, true, nullptr), -20000.0F);
}

template <typename T>
T AddOne(T value, T operand, float repeat, int shift, int width, bool half, std::string* lines) {
  T out = T{77};
  reference::DeviceAdd<T>(&value, &operand, T{1}, repeat, shift, width, half, 1, &out, lines);
  return out;
}

void CheckAdditions() {
  std::string lines;
  Expect("150", AddOne<int32_t>(100, 50, 1, 0, 8, false, &lines), -106);
  Expect("2.5 passes", AddOne<int32_t>(0, 7, 2.5F, 0, 16, false, &lines), 21);
  Expect("shifted", AddOne<int32_t>(0, 5, 1, 1, 16, false, &lines), 2);
  Expect("half start", AddOne<int32_t>(5001, 1, 1, 0, 32, true, &lines), 5001);
  Expect("NaN passes", AddOne<int32_t>(40000, 1, kNaN, 0, 32, true, &lines), -20000);
  ExpectFloat("float 130", AddOne<float>(100, 30, 1, 0, 8, false, &lines), -126.0F);
  ExpectFloat("divided", AddOne<float>(0, 5, 1, 2, 8, false, &lines), 2.0F);
  ExpectFloat("NaN passes", AddOne<float>(0.3F, 5, kNaN, 0, 8, true, &lines), 0.2998046875F);
  ExpectFloat("no pass", AddOne<float>(1000.5F, 5, -3, 0, 8, false, &lines), 1000.5F);
  ExpectFloat("NaN sum", AddOne<float>(kNaN, 5, 3, 0, 8, false, &lines), kNaN);
  ExpectText("no line", lines, "");
  ExpectFloat("lines", AddOne<float>(8388605, 1, 3, 0, 40, false, &lines), 8388608.0F);
  ExpectText("lines", lines, Warning("8388607.000000") + Warning("8388608.000000"));

  const std::vector<int32_t> value = {0, 0, 0, 1000, 1000, 1000, 2000};
  const std::vector<int32_t> bias = {1, 2, 3};
  std::vector<int32_t> out(7);
  reference::DeviceBiasAdd<int32_t>(value.data(), bias.data(), 10, 2, 0, 32, false, 7, 3,
                                    out.data(), nullptr);
  ExpectAll("bias", out, {20, 40, 60, 1020, 1040, 1060, 2020});
  const std::vector<int32_t> bias_b = {5, 6, 7};
  reference::DeviceDecomposedBiasAdd<int32_t>(value.data(), bias.data(), bias_b.data(), 10, 100, 1,
                                              0, 32, false, 7, 3, out.data(), nullptr);
  ExpectAll("bias in two parts", out, {510, 620, 730, 1510, 1620, 1730, 2510});
  const std::vector<int32_t> weights = {1, 2, 3, 10, 20, 30};
  reference::DeviceStandaloneAdd<int32_t>(value.data(), value.data(), weights.data(), 0, 32, false,
                                          7, 3, out.data(), nullptr);
  ExpectAll("stand-alone", out, {0, 0, 0, 11000, 22000, 33000, 22000});
}

void CheckFloatParts() {
  // 150 is -106, less 50 that is -156, which is 100.
  const float value = 100;
  const float a = 50;
  const float b = -50;
  float out = 0;
  reference::DeviceDecomposedBiasAdd<float>(&value, &a, &b, 1, 1, 1, 0, 8, false, 1, 1, &out,
                                            nullptr);
  ExpectFloat("two wraps", out, 100.0F);
  // Only the second operand is quantised before the sum.
  const float ones[] = {1, 1};
  const float large = 40000;
  const float less = -10000;
  reference::DeviceStandaloneAdd<float>(&large, &less, ones, 0, 8, true, 1, 1, &out, nullptr);
  ExpectFloat("first operand", out, 30000.0F);
  reference::DeviceStandaloneAdd<float>(&less, &large, ones, 0, 8, true, 1, 1, &out, nullptr);
  ExpectFloat("second operand", out, -30000.0F);
}

// ---- Convolution -------------------------------------------------------------------------------

Convolution Plain(int32_t height, int32_t width, int32_t in, int32_t filter_height,
                  int32_t filter_width, int32_t out) {
  Convolution c = {};
  c.batch = 1;
  c.in_height = height;
  c.in_width = width;
  c.in_channels = in;
  c.filter_height = filter_height;
  c.filter_width = filter_width;
  c.out_channels = out;
  c.accumulator_size = 32;
  c.stride_h = c.stride_w = c.dilation_h = c.dilation_w = 1;
  return c;
}

void ExpectUnfolding(const char* what, const reference::DeviceUnfolding& axis, int32_t pad,
                     int32_t positions) {
  Expect(what, axis.pad, pad);
  Expect(what, axis.positions, positions);
}

void CheckUnfolding() {
  using reference::UnfoldAxis;
  ExpectUnfolding("VALID, stride 2", UnfoldAxis(7, 3, 2, 1, false), 0, 3);
  ExpectUnfolding("VALID, dilation 2", UnfoldAxis(7, 3, 1, 2, false), 0, 3);
  ExpectUnfolding("SAME", UnfoldAxis(5, 3, 1, 1, true), 1, 5);
  ExpectUnfolding("SAME, stride 2", UnfoldAxis(6, 3, 2, 1, true), 1, 3);
  ExpectUnfolding("SAME, filter 2", UnfoldAxis(5, 2, 1, 1, true), 0, 5);
  ExpectUnfolding("SAME, filter 4", UnfoldAxis(5, 4, 1, 1, true), 1, 5);
  // Two apart, three taps are as long as the padded image but for two.
  ExpectUnfolding("SAME, dilation 2", UnfoldAxis(5, 3, 1, 2, true), 1, 3);
  ExpectUnfolding("SAME, dilation 3", UnfoldAxis(5, 3, 1, 3, true), 1, 1);
  ExpectUnfolding("SAME, dilation 0", UnfoldAxis(5, 3, 1, 0, true), 1, 7);
  ExpectUnfolding("SAME, filter 1", UnfoldAxis(5, 1, 1, 1, true), 0, 5);
}

void CheckLayouts() {
  // Tap, then input channel, then output channel: the digits of the values.
  Convolution c = Plain(1, 2, 2, 1, 2, 2);
  const std::vector<int32_t> filter = {0, 1, 10, 11, 100, 101, 110, 111};
  ExpectAll("rows", reference::DeviceRows(c, filter.data()), {0, 100, 10, 110, 1, 101, 11, 111});
  // A filter of one tap: the channels one after the other.
  c = Plain(2, 2, 2, 1, 1, 1);
  const std::vector<int32_t> image = {1, 10, 2, 20, 3, 30, 4, 40};
  ExpectAll("columns", reference::DeviceColumns(c, image.data()), {1, 2, 3, 4, 10, 20, 30, 40});
  c = Plain(1, 3, 1, 1, 3, 1);
  c.same = true;
  ExpectAll("padded", reference::DeviceColumns(c, image.data()), {0, 1, 10, 1, 10, 2, 10, 2, 0});
  // The one position where three taps, two apart, fit in; the product reads nine values.
  c.dilation_w = 2;
  ExpectAll("dilated", reference::DeviceColumns(c, image.data()), {0, 10, 0, 0, 0, 0, 0, 0, 0});
}

template <typename T>
std::vector<T> Convolve(const Convolution& c, const std::vector<T>& input,
                        const std::vector<T>& filter, const std::vector<T>& elementwise,
                        int64_t outputs, std::string* lines) {
  std::vector<T> out(static_cast<size_t>(outputs), T{77});
  reference::DeviceConvolve<T>(c, input.data(), filter.data(),
                               elementwise.empty() ? nullptr : elementwise.data(), out.data(),
                               lines);
  return out;
}

void CheckConvolutionGeometry() {
  Convolution c = Plain(1, 6, 1, 1, 3, 1);
  c.same = true;
  c.stride_w = 2;
  // Windows from -1, 1 and 3 on.
  ExpectAll("stride 2", Convolve<int32_t>(c, {1, 2, 4, 8, 16, 32}, {1, 1, 1}, {}, 3, nullptr),
            {3, 14, 56});
  c = Plain(1, 3, 1, 1, 3, 1);
  c.same = true;
  c.dilation_w = 2;
  ExpectAll("dilation 2", Convolve<int32_t>(c, {1, 2, 3}, {10, 100, 1000}, {}, 3, nullptr),
            {0, 20, 0});
  // Two images, two channels each way, elementwise values last.
  c = Plain(1, 1, 2, 1, 1, 2);
  c.batch = 2;
  ExpectAll("images",
            Convolve<int32_t>(c, {1, 2, 3, 4}, {1, 10, 100, 1000}, {5, 6, 7, 8}, 4, nullptr),
            {206, 2016, 410, 4038});
}

void CheckConvolutionChain() {
  Convolution c = Plain(2, 1, 1, 2, 1, 1);
  c.accumulator_size = 8;
  ExpectAll("130", Convolve<int32_t>(c, {100, 30}, {1, 1}, {}, 1, nullptr), {-126});
  ExpectFloat("130", Convolve<float>(c, {100, 30}, {1, 1}, {}, 1, nullptr)[0], -126.0F);
  c = Plain(1, 1, 1, 1, 1, 1);
  c.accumulator_size = 8;
  // 1000 is 744, and every zero behind it takes 256 more, until -24.
  ExpectAll("zeros wrap", Convolve<int32_t>(c, {1000}, {1}, {}, 1, nullptr), {-24});
  ExpectFloat("zeros wrap", Convolve<float>(c, {1000}, {1}, {}, 1, nullptr)[0], -24.0F);
  // 17 products: two tiles. 10000 less 32 times 256 is 1808.
  c.in_channels = 17;
  std::vector<int32_t> values(17, 0);
  values[0] = 10000;
  ExpectAll("two tiles", Convolve<int32_t>(c, values, std::vector<int32_t>(17, 1), {}, 1, nullptr),
            {1808});
  c.in_channels = 1;
  c.accumulator_size = 40;
  std::string lines;
  Convolve<float>(c, {8388607}, {1}, {}, 1, &lines);
  std::string sixteen;
  for (int i = 0; i < 16; ++i) sixteen += Warning("8388607.000000");
  ExpectText("a line for every zero", lines, sixteen);
  // The elementwise value comes last and is not divided: 2.5 goes to 2, and 0.5 stays.
  c.mult_shift = 4;
  ExpectFloat("elementwise", Convolve<float>(c, {5}, {2}, {0.5F}, 1, nullptr)[0], 2.5F);
  // In place between the rows the 1 would be rounded away beside 4096.
  c = Plain(3, 1, 1, 3, 1, 1);
  c.use_fp16_acc = true;
  ExpectFloat("elementwise last",
              Convolve<float>(c, {4096, 0, -4096}, {1, 1, 1}, {1}, 1, nullptr)[0], 1.0F);
  lines.clear();
  Convolve<float>(c, {kNaN, 0, 0}, {1, 1, 1}, {1}, 1, &lines);
  ExpectText("NaN", lines, "");
  // No tap: a tile of zeros all the same. 0 bits wrap 0 to -1 and -1 to 0, sixteen times and once
  // more for the elementwise value.
  c = Plain(1, 1, 1, 0, 1, 1);
  c.accumulator_size = 0;
  ExpectFloat("no tap", Convolve<float>(c, {1}, {}, {}, 2, nullptr)[1], 0.0F);
  ExpectFloat("no tap", Convolve<float>(c, {1}, {}, {0, 0}, 2, nullptr)[1], -1.0F);
}

}  // namespace

int main() {
  CheckPasses();
  CheckWrap();
  CheckAccumulate();
  CheckAdditions();
  CheckFloatParts();
  CheckUnfolding();
  CheckLayouts();
  CheckConvolutionGeometry();
  CheckConvolutionChain();
  std::printf("device reference: %d checks passed\n", checks);
  return 0;
}
