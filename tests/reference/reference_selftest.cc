// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Checks the test oracle against results worked out by hand. Prints one line when all hold; on
// the first failure prints both values in hexadecimal and exits with status 1.

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "reference.h"

namespace {

using reference::AccumulatorHalf;
using reference::AccumulatorInt;
using reference::Convolution;
using reference::Multiply;
using reference::OutputSize;
using reference::QuantiseHalf;
using reference::ShiftHalf;
using reference::ShiftInt;
using reference::StartIndex;

int checks = 0;

uint32_t BitsOf(float value) {
  uint32_t bits = 0;
  std::memcpy(&bits, &value, sizeof(bits));
  return bits;
}

uint32_t BitsOf(int32_t value) {
  uint32_t bits = 0;
  std::memcpy(&bits, &value, sizeof(bits));
  return bits;
}

template <typename T>
void Expect(const char* what, T actual, T expected) {
  ++checks;
  if (BitsOf(actual) == BitsOf(expected)) return;
  std::printf("reference: %s: got 0x%08x, expected 0x%08x\n", what, BitsOf(actual),
              BitsOf(expected));
  std::exit(1);
}

void ExpectText(const char* what, const std::string& actual, const std::string& expected) {
  ++checks;
  if (actual == expected) return;
  std::printf("reference: %s: got text (in hex)", what);
  for (char c : actual) std::printf(" %02x", static_cast<unsigned>(static_cast<unsigned char>(c)));
  std::printf(", expected \"%s\"\n", expected.c_str());
  std::exit(1);
}

std::string Warning(const char* sum) {
  return std::string("@@@ WARNING: acc ") + sum + " is out of bounds <-8388607,8388607>\n";
}

const char kRedLine[] =
    "\033[1;31mweights should be uint8 for DW, check predecessor has signed output, could cause "
    "degradation\033[0m\n";

void CheckAccumulator() {
  std::string lines;
  Expect("accumulate 8388607", AccumulatorInt(8388607, 0, 32, &lines), 8388607);
  ExpectText("line of 8388607", lines, Warning("8388607.000000"));
  lines.clear();
  Expect("accumulate -8388607", AccumulatorInt(-8388607, 0, 32, &lines), -8388607);
  ExpectText("no line of -8388607", lines, "");
  Expect("accumulate -8388608", AccumulatorInt(-8388608, 0, 32, &lines), -8388608);
  ExpectText("line of -8388608", lines, Warning("-8388608.000000"));
  lines.clear();
  Expect("8 bits 127 + 1", AccumulatorInt(127, 1, 8, &lines), -128);
  Expect("8 bits -128 - 1", AccumulatorInt(-128, -1, 8, &lines), 127);
  Expect("8 bits 127 + 300", AccumulatorInt(127, 300, 8, &lines), 171);
  Expect("8 bits -128 - 300", AccumulatorInt(-128, -300, 8, &lines), -172);
  Expect("8 bits 127 + 0", AccumulatorInt(127, 0, 8, &lines), 127);
  ExpectText("no line in 8 bits", lines, "");
  // 2^31 is not above the rounded bound and cannot be held by the result.
  Expect("32 bits 2^31", AccumulatorInt(INT32_MAX, 1, 32, nullptr), INT32_MIN);
  Expect("0 bits 0", AccumulatorInt(0, 0, 0, nullptr), -1);
}

void CheckShifter() {
  Expect("shift 5 by 1", ShiftInt(5, 1), 2);
  Expect("shift 7 by 1", ShiftInt(7, 1), 4);
  Expect("shift 6 by 2", ShiftInt(6, 2), 2);
  Expect("shift -5 by 1", ShiftInt(-5, 1), -2);
  Expect("shift 3 by 1", ShiftInt(3, 1), 2);
  Expect("shift -3 by 1", ShiftInt(-3, 1), -2);
  Expect("shift -1 by 1", ShiftInt(-1, 1), 0);
  Expect("shift by 0", ShiftInt(-12345, 0), -12345);
  Expect("shift 2^29 by 30", ShiftInt(536870912, 30), 0);
  Expect("shift 2^29 + 1 by 30", ShiftInt(536870913, 30), 1);
  // At 31 an exact half rounds up and a negative number never does.
  Expect("shift 2^30 by 31", ShiftInt(1073741824, 31), 1);
  Expect("shift 2^30 - 1 by 31", ShiftInt(1073741823, 31), 0);
  Expect("shift -1 by 31", ShiftInt(-1, 31), -1);
  Expect("shift INT_MIN by 31", ShiftInt(INT32_MIN, 31), -1);
  // Counts are modulo 32.
  Expect("shift 7 by 32", ShiftInt(7, 32), 7);
  Expect("shift -7 by 64", ShiftInt(-7, 64), -7);
  Expect("shift 7 by 33", ShiftInt(7, 33), 4);
  Expect("shift 2^30 by -1", ShiftInt(1073741824, -1), 1);
  Expect("shift 7 by -31", ShiftInt(7, -31), 4);
  Expect("multiply 65536 by 65536", Multiply(65536, 65536), 0);
  Expect("multiply 65535 by 65537", Multiply(65535, 65537), -1);
  Expect("half shifter", ShiftHalf(-16777217), -16777216.0F);
}

void CheckHalf() {
  Expect("half 2^-11", QuantiseHalf(0.00048828125F), 0.0F);
  Expect("half 3 * 2^-11", QuantiseHalf(0.00146484375F), 0.001953125F);
  Expect("half 1.5", QuantiseHalf(1.5F), 1.5F);
  Expect("half 32767.9", QuantiseHalf(32767.9F), 32768.0F);
  Expect("half 40000", QuantiseHalf(40000.0F), -20000.0F);
  Expect("half -40000", QuantiseHalf(-40000.0F), 20000.0F);
  Expect("half 32768", QuantiseHalf(32768.0F), -16384.0F);
  Expect("half 0", QuantiseHalf(0.0F), 0.0F);
  Expect("half -0", QuantiseHalf(-0.0F), -0.0F);
  Expect("half smallest", QuantiseHalf(std::ldexp(1.0F, -149)), 0.0F);
  Expect("half -smallest", QuantiseHalf(std::ldexp(-1.0F, -149)), -0.0F);
  // Just above the tie, lost by the first rounding, and just below the negative one, kept by it.
  Expect("half 2^-11 + 2^-30", QuantiseHalf(std::ldexp(524289.0F, -30)), 0.0F);
  Expect("half -2^-11 - 2^-30", QuantiseHalf(std::ldexp(-524289.0F, -30)), -0.0009765625F);
  const float infinity = std::numeric_limits<float>::infinity();
  Expect("half infinity", QuantiseHalf(infinity), infinity);
  Expect("half -infinity", QuantiseHalf(-infinity), -infinity);
  Expect("half NaN", static_cast<int32_t>(std::isnan(QuantiseHalf(std::nanf("")))), 1);
  Expect("half largest", QuantiseHalf(std::numeric_limits<float>::max()), -32768.0F);
  Expect("half accumulate 1.5 + 2.25", AccumulatorHalf(1.5F, 2.25F), 3.75F);
  // 32767.9 becomes 32768, which the second conversion of the first operand wraps.
  Expect("half accumulate wraps a", AccumulatorHalf(32767.9F, 0.0F), -16384.0F);
  Expect("half accumulate keeps b", AccumulatorHalf(0.0F, 32767.9F), -16384.0F);
  Expect("half accumulate both", AccumulatorHalf(32767.9F, 32767.9F), 16384.0F);
}

template <typename T>
T AddOne(T value, T elementwise, T factor, float repeat, int shift, int width, bool half,
         std::string* lines) {
  T out = T{99};
  reference::Add<T>(&value, &elementwise, factor, repeat, shift, width, half, 1, &out, lines);
  return out;
}

void CheckAdd() {
  std::string lines;
  Expect("add no pass", AddOne<int32_t>(100, 50, 1, 0.0F, 0, 8, false, &lines), 100);
  Expect("add negative passes", AddOne<int32_t>(100, 50, 1, -3.0F, 0, 8, false, &lines), 100);
  Expect(
      "add -infinity passes",
      AddOne<float>(7.0F, 1.0F, 1.0F, -std::numeric_limits<float>::infinity(), 0, 8, false, &lines),
      7.0F);
  Expect("add no pass, half", AddOne<float>(40000.0F, 1.0F, 1.0F, 0.0F, 0, 8, true, &lines),
         -20000.0F);
  Expect("add no pass, half, int", AddOne<int32_t>(40000, 1, 1, 0.0F, 0, 24, true, &lines), -20000);
  Expect("add 2.5 passes", AddOne<int32_t>(0, 7, 1, 2.5F, 0, 16, false, &lines), 21);
  Expect("add 2.5 passes, float", AddOne<float>(0.0F, 7.0F, 1.0F, 2.5F, 0, 16, false, &lines),
         21.0F);
  Expect("add wraps", AddOne<int32_t>(100, 50, 1, 1.0F, 0, 8, false, &lines), -106);
  Expect("add wraps, float", AddOne<float>(100.0F, 50.0F, 1.0F, 1.0F, 0, 8, false, &lines),
         -106.0F);
  Expect("add product 5 shift 1", AddOne<int32_t>(0, 5, 1, 1.0F, 1, 16, false, &lines), 2);
  Expect("add product 7 shift 1", AddOne<int32_t>(0, 7, 1, 1.0F, 1, 16, false, &lines), 4);
  Expect("add product 5 over 2", AddOne<float>(0.0F, 5.0F, 1.0F, 1.0F, 2, 16, false, &lines), 2.0F);
  Expect("add -1 over 4 is -0", AddOne<float>(-0.0F, -1.0F, 1.0F, 1.0F, 4, 16, false, &lines),
         -0.0F);
  Expect("add product 5 shift 2", AddOne<int32_t>(0, 5, 1, 1.0F, 2, 16, false, &lines), 1);
  Expect("add int never reports", AddOne<int32_t>(8388607, 1, 1, 2.0F, 0, 32, false, &lines),
         8388609);
  ExpectText("no line", lines, "");
  Expect("add float reports", AddOne<float>(8388605.0F, 1.0F, 1.0F, 3.0F, 0, 32, false, &lines),
         8388608.0F);
  ExpectText("two lines", lines, Warning("8388607.000000") + Warning("8388608.000000"));
  Expect("add width 0", AddOne<int32_t>(0, 0, 1, 1.0F, 0, 0, false, nullptr), 0);
  Expect("add width 0 above", AddOne<int32_t>(3, 2, 1, 1.0F, 0, 0, false, nullptr), 4);
  Expect("add width 0, float", AddOne<float>(0.0F, 0.0F, 1.0F, 1.0F, 0, 0, false, nullptr), -1.0F);
  // From 26 bits on the upper float bound is the half span itself, which therefore stays.
  Expect("add 2^25 in 26 bits", AddOne<float>(33554432.0F, 0.0F, 1.0F, 1.0F, 0, 26, false, nullptr),
         33554432.0F);
  Expect("add 2^24 in 25 bits", AddOne<float>(16777216.0F, 0.0F, 1.0F, 1.0F, 0, 25, false, nullptr),
         -16777216.0F);
}

void CheckBiasAdd() {
  const std::vector<int32_t> value(15, 1000);
  const std::vector<int32_t> bias = {1, 2, 3, 4, 5};
  std::vector<int32_t> out(15, 0);
  reference::BiasAdd<int32_t>(value.data(), bias.data(), 10, 1.0F, 0, 24, false, 15, 5, out.data(),
                              nullptr);
  for (size_t i = 0; i < out.size(); ++i) {
    Expect("bias by channel", out[i], 1000 + 10 * bias[i % 5]);
  }
  const int32_t edge = 32767;
  const int32_t one = 1;
  int32_t sum = 0;
  reference::BiasAdd<int32_t>(&edge, &one, 1, 1.0F, 0, 16, false, 1, 1, &sum, nullptr);
  Expect("bias wraps", sum, -32768);
  const float zero = 0.0F;
  const float three = 3.0F;
  float result = 0.0F;
  reference::BiasAdd<float>(&zero, &three, 1.0F, 1.0F, 2, 16, false, 1, 1, &result, nullptr);
  Expect("bias 3 over 2", result, 2.0F);
}

void CheckGeometry() {
  Expect("valid 7 3 2", OutputSize(7, 3, 2, 1, false), 3);
  Expect("same 7 3 2", OutputSize(7, 3, 2, 1, true), 4);
  Expect("valid dilated", OutputSize(7, 3, 1, 2, false), 3);
  Expect("valid start", StartIndex(7, 3, 1, 2, false), 2);
  Expect("same start 5 3 1", StartIndex(5, 3, 1, 1, true), 0);
  Expect("same start 6 3 2", StartIndex(6, 3, 2, 1, true), 1);
  Expect("same output 9 5 3", OutputSize(9, 5, 3, 1, true), 3);
  Expect("same start 9 5 3", StartIndex(9, 5, 3, 1, true), 0);
  // An even extent keeps the split: 1 of a total of 1 goes behind, 1 of a total of 3 in front.
  Expect("same start 5 2 1", StartIndex(5, 2, 1, 1, true), 1);
  Expect("same start 5 4 1", StartIndex(5, 4, 1, 1, true), 1);
  Expect("same start negative total", StartIndex(8, 2, 5, 1, true), 0);
  Expect("output INT_MIN over -1", OutputSize(INT32_MIN, 1, -1, 1, false), -2147483646);
}

// A convolution of one image of one column and one channel, with as many taps as rows and thus
// one output element with VALID padding.
Convolution Column(int32_t rows, int width, int shift) {
  Convolution c = {};
  c.batch = 1;
  c.in_height = rows;
  c.in_width = 1;
  c.in_channels = 1;
  c.filter_height = rows;
  c.filter_width = 1;
  c.out_channels = 1;
  c.accumulator_size = width;
  c.stride_h = 1;
  c.stride_w = 1;
  c.dilation_h = 1;
  c.dilation_w = 1;
  c.mult_shift = shift;
  return c;
}

template <typename T>
T ConvolveOne(const Convolution& c, const std::vector<T>& input, const std::vector<T>& filter,
              const T* elementwise, std::string* lines) {
  T out = T{99};
  reference::Convolve<T>(c, input.data(), filter.data(), elementwise, &out, lines);
  return out;
}

void CheckConvolution() {
  std::string lines;
  Expect("conv 130", ConvolveOne<int32_t>(Column(2, 8, 0), {100, 30}, {1, 1}, nullptr, &lines),
         -126);
  Expect("conv -130", ConvolveOne<int32_t>(Column(2, 8, 0), {100, 30}, {-1, -1}, nullptr, &lines),
         126);
  const int32_t products[4][2] = {{3, 2}, {5, 2}, {-3, -2}, {-1, 0}};
  for (const auto& pair : products) {
    Expect("conv shift 1", ConvolveOne<int32_t>(Column(1, 16, 1), {1}, {pair[0]}, nullptr, &lines),
           pair[1]);
  }
  Expect("conv 10 over 4", ConvolveOne<float>(Column(1, 16, 4), {5.0F}, {2.0F}, nullptr, &lines),
         2.0F);
  Expect("conv -8388607",
         ConvolveOne<float>(Column(1, 32, 0), {-8388607.0F}, {1.0F}, nullptr, &lines), -8388607.0F);
  ExpectText("conv no line", lines, "");
  Expect("conv 8388607",
         ConvolveOne<float>(Column(1, 32, 0), {8388607.0F}, {1.0F}, nullptr, &lines), 8388607.0F);
  ExpectText("conv line", lines, Warning("8388607.000000"));
  lines.clear();
  Convolution depthwise = Column(2, 16, 0);
  depthwise.is_depthwise = true;
  Expect("depthwise 200", ConvolveOne<int32_t>(depthwise, {3, 1}, {200, 127}, nullptr, &lines),
         -41);
  ExpectText("depthwise red line", lines, kRedLine);
  lines.clear();
  Expect("depthwise 200, float",
         ConvolveOne<float>(depthwise, {3.0F, 1.0F}, {200.0F, 128.0F}, nullptr, &lines), -296.0F);
  ExpectText("depthwise red line, float", lines, kRedLine);
  lines.clear();
  Expect("depthwise 127", ConvolveOne<int32_t>(depthwise, {3, 1}, {127, -128}, nullptr, &lines),
         253);
  ExpectText("depthwise no red line", lines, "");
}

void CheckElementwise() {
  // Not shifted, unlike the products: 50 + 50 + 27 - 50.
  const int32_t value = 27;
  Expect("elementwise not shifted",
         ConvolveOne<int32_t>(Column(3, 8, 1), {100, 100, -100}, {1, 1, 1}, &value, nullptr), 77);
  // After the centre row and before the last: one sum alone is out of bounds.
  const float ten = 10.0F;
  std::string lines;
  Expect("elementwise in order",
         ConvolveOne<float>(Column(3, 32, 0), {8388600.0F, 1.0F, -100.0F}, {1.0F, 1.0F, 1.0F}, &ten,
                            &lines),
         8388511.0F);
  ExpectText("line of elementwise", lines, Warning("8388611.000000"));
  Convolution dilated = Column(3, 8, 0);
  dilated.filter_height = 2;
  dilated.dilation_h = 2;
  Expect("elementwise without a centre row",
         ConvolveOne<int32_t>(dilated, {1, 2, 3}, {1, 1}, &value, nullptr), 4);
  Convolution even = Column(2, 8, 0);
  Expect("elementwise with an even filter",
         ConvolveOne<int32_t>(even, {1, 2}, {1, 1}, &value, nullptr), 30);
  Convolution empty = Column(0, 8, 0);
  empty.in_height = 0;
  empty.in_width = 1;
  Expect("no filter rows", ConvolveOne<int32_t>(empty, {5}, {5}, &value, nullptr), 0);
}

// Forty-five images of two channels with a filter each: the images are independent, and so are
// their lines.
void CheckImages() {
  Convolution c = Column(1, 16, 0);
  c.batch = 45;
  c.in_channels = 2;
  c.out_channels = 2;
  c.is_depthwise = true;
  c.filter_per_image = true;
  std::vector<int32_t> input;
  std::vector<int32_t> filter;
  for (int32_t i = 0; i < 90; ++i) {
    input.push_back(i + 1);
    filter.push_back(i % 4 == 1 ? 255 : 2);
  }
  std::vector<int32_t> out(90, 0);
  std::string lines;
  reference::Convolve<int32_t>(c, input.data(), filter.data(), nullptr, out.data(), &lines);
  std::string expected;
  for (int32_t i = 0; i < 90; ++i) {
    Expect("images", out[static_cast<size_t>(i)], (i % 4 == 1 ? -1 : 2) * (i + 1));
    if (i % 4 == 1) expected += kRedLine;
  }
  ExpectText("lines of images", lines, expected);
}

}  // namespace

int main() {
  CheckAccumulator();
  CheckShifter();
  CheckHalf();
  CheckAdd();
  CheckBiasAdd();
  CheckGeometry();
  CheckConvolution();
  CheckElementwise();
  CheckImages();
  std::printf("reference: %d checks passed\n", checks);
  return 0;
}
