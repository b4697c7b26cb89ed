// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Checks the oracles of the split and stand-alone additions, the matrix multiplication and the
// bilinear resize against results worked out by hand. Prints one line when all hold; on the first
// failure prints what failed and exits with status 1.

#include <cstdint>
#include <cstdio>
#include <limits>
#include <numeric>
#include <string>
#include <vector>

#include "bilinear.h"
#include "matmul.h"
#include "reference.h"
#include "selftest.h"

namespace {

using selftest::checks;
using selftest::Expect;
using selftest::ExpectAll;
using selftest::ExpectFloat;
using selftest::ExpectText;

const float kInf = std::numeric_limits<float>::infinity();
const float kNaN = std::numeric_limits<float>::quiet_NaN();

// 0.3 in a half-precision accumulator: 307 / 1024.
const float kThreeTenths = 0.2998046875F;

std::string Warning(const char* sum) {
  return std::string("@@@ WARNING: acc ") + sum + " is out of bounds <-8388607,8388607>\n";
}

const char kRedLine[] =
    "\033[1;31mweights should be uint8 for matmul, check predecessor has signed output, could "
    "cause degradation\033[0m\n";

void CheckScaling() {
  // 1 / 7 is rounded up by 3/7 of its last place. 45.5 times that is 6.50000029, which is nearer to
  // 6.5000005 than to 6.5 in single precision, while the quotient is a tie.
  ExpectFloat("reciprocal of 7", reference::ReciprocalProduct(45.5F, 1.0F, 7), 7.0F);
  ExpectFloat("divided by 7", reference::ScaledProduct(45.5F, 1.0F, 7), 6.0F);
  ExpectFloat("reciprocal of 3", reference::ReciprocalProduct(7.5F, 1.0F, 3), 2.0F);
  ExpectFloat("reciprocal of -2", reference::ReciprocalProduct(3.0F, 1.0F, -2), -2.0F);
  ExpectFloat("to -0", reference::ReciprocalProduct(-1.0F, 1.0F, 4), -0.0F);
  ExpectFloat("no shift", reference::ReciprocalProduct(0.1F, 3.0F, 0), 0.1F * 3.0F);
  ExpectFloat("large", reference::ReciprocalProduct(16777218.0F, 1.0F, 2), 8388609.0F);
  ExpectFloat("infinite", reference::ReciprocalProduct(-kInf, 1.0F, 5), -kInf);
  ExpectFloat("NaN", reference::ReciprocalProduct(kInf, 0.0F, 5), kNaN);
  Expect("integers shift", reference::ReciprocalProduct(45, 1, 1), 22);
}

// ---- Bias addition in two parts ----------------------------------------------------------------

template <typename T>
T DecomposedOne(T value, T a, T b, float repeat, int shift, int width, bool half,
                std::string* lines) {
  T out = T{77};
  reference::DecomposedBiasAdd<T>(&value, &a, &b, T{1}, T{1}, repeat, shift, width, half, 1, 1,
                                  &out, lines);
  return out;
}

void CheckDecomposedBiasAdd() {
  std::string lines;
  // 150 wraps to -106, -156 wraps to 100.
  Expect("two wraps", DecomposedOne<int32_t>(100, 50, -50, 1, 0, 8, false, &lines), 100);
  Expect("one wrap", DecomposedOne<int32_t>(100, 50, -10, 1, 0, 8, false, &lines), -116);
  // The second addition wraps what the first one left: 500 is 244, and 243 is -13. The other way
  // around 499 is wrapped once only.
  Expect("wraps feed", DecomposedOne<int32_t>(0, 500, -1, 1, 0, 8, false, &lines), -13);
  Expect("wraps feed, swapped", DecomposedOne<int32_t>(0, -1, 500, 1, 0, 8, false, &lines), 243);
  Expect("shift 2", DecomposedOne<int32_t>(0, 6, 10, 1, 2, 32, false, &lines), 4);
  Expect("no repeat", DecomposedOne<int32_t>(300, 1, 1, 0, 0, 8, false, &lines), 300);
  Expect("2.5 passes", DecomposedOne<int32_t>(0, 1, 10, 2.5F, 0, 32, false, &lines), 33);
  Expect("half start", DecomposedOne<int32_t>(5001, 0, 0, -1, 0, 32, true, &lines), 5000);
  Expect("half adds integers", DecomposedOne<int32_t>(5001, 1, 2, 1, 0, 32, true, &lines), 5003);
  Expect("32 bits", DecomposedOne<int32_t>(INT32_MAX, 1, -2, 1, 0, 32, false, &lines), 2147483646);
  ExpectText("integers have no lines", lines, "");

  ExpectFloat("float shift 2", DecomposedOne<float>(0, 5, 7, 1, 2, 16, false, &lines), 6.0F);
  ExpectFloat("float divides", DecomposedOne<float>(0, 45.5F, 0, 1, 7, 16, false, &lines), 6.0F);
  ExpectFloat("float wraps", DecomposedOne<float>(100, 50, -50, 1, 0, 8, false, &lines), 100.0F);
  ExpectText("in bounds", lines, "");
  // a, b, a, b: up over the bound and down again, twice.
  ExpectFloat("order", DecomposedOne<float>(8388600, 10, -10, 2, 0, 32, false, &lines), 8388600.0F);
  ExpectText("lines", lines, Warning("8388610.000000") + Warning("8388610.000000"));
  lines.clear();
  ExpectFloat("line before wrap",
              DecomposedOne<float>(8388607, 0, -8388607, 1, 0, 24, false, &lines), 0.0F);
  ExpectText("line of 8388607", lines, Warning("8388607.000000"));
  lines.clear();
  // 9000000 - 16777216 = -7777216, and that is in bounds with 1000000 added.
  ExpectFloat("one line", DecomposedOne<float>(0, 9e6F, 1e6F, 1, 0, 24, false, &lines),
              -6777216.0F);
  ExpectText("wrapped is in bounds", lines, Warning("9000000.000000"));
  lines.clear();
  ExpectFloat("half", DecomposedOne<float>(0, 40000, -10000, 1, 0, 8, true, &lines), -30000.0F);
  ExpectFloat("half start", DecomposedOne<float>(40000, 0, 0, 0, 0, 8, true, &lines), -20000.0F);
  ExpectText("half in bounds", lines, "");
  // The sums that are reported are of the addends before their quantisation.
  ExpectFloat("half order", DecomposedOne<float>(0, 8388608, 1, 1, 0, 8, true, &lines), -16384.0F);
  ExpectText("half line", lines, Warning("8388608.000000"));

  const std::vector<int32_t> value = {0, 0, 1000, 1000};
  const std::vector<int32_t> bias_a = {1, 2};
  const std::vector<int32_t> bias_b = {3, 4};
  std::vector<int32_t> out(4);
  reference::DecomposedBiasAdd<int32_t>(value.data(), bias_a.data(), bias_b.data(), 10, 100, 1, 0,
                                        32, false, 4, 2, out.data(), nullptr);
  ExpectAll("channels", out, {310, 420, 1310, 1420});
}

// ---- Stand-alone addition ----------------------------------------------------------------------

template <typename T>
T StandaloneOne(T a, T b, int shift, int width, bool half, std::string* lines) {
  const T weights[] = {T{1}, T{1}};
  T out = T{77};
  reference::StandaloneAdd<T>(&a, &b, weights, shift, width, half, 1, 1, &out, lines);
  return out;
}

void CheckStandaloneAdd() {
  std::string lines;
  Expect("128", StandaloneOne<int32_t>(100, 28, 0, 8, false, &lines), -128);
  Expect("400", StandaloneOne<int32_t>(200, 200, 0, 8, false, &lines), 144);
  Expect("-129", StandaloneOne<int32_t>(-100, -29, 0, 8, false, &lines), 127);
  Expect("3 / 2", StandaloneOne<int32_t>(3, 0, 1, 8, false, &lines), 2);
  Expect("1 / 2", StandaloneOne<int32_t>(0, 1, 1, 8, false, &lines), 0);
  Expect("-3 / 2", StandaloneOne<int32_t>(-3, 0, 1, 8, false, &lines), -2);
  Expect("5 / 2", StandaloneOne<int32_t>(0, 5, 1, 8, false, &lines), 2);
  Expect("each is rounded", StandaloneOne<int32_t>(3, 3, 1, 8, false, &lines), 4);
  Expect("integers stay", StandaloneOne<int32_t>(5001, 0, 0, 32, true, &lines), 5001);
  Expect("wrapping sum", StandaloneOne<int32_t>(INT32_MAX, 1, 0, 32, false, &lines), INT32_MIN);

  ExpectFloat("5 by 2", StandaloneOne<float>(5, 0, 2, 16, false, &lines), 2.0F);
  ExpectFloat("no shift", StandaloneOne<float>(0.25F, 0.5F, 0, 16, false, &lines), 0.75F);
  ExpectFloat("45.5 by 7", StandaloneOne<float>(0, 45.5F, 7, 16, false, &lines), 6.0F);
  ExpectFloat("float 128", StandaloneOne<float>(100, 28, 0, 8, false, &lines), -128.0F);
  ExpectFloat("float 400", StandaloneOne<float>(200, 200, 0, 8, false, &lines), 144.0F);
  ExpectFloat("127.5 is above 127", StandaloneOne<float>(127, 0.5F, 0, 8, false, &lines), -128.5F);
  ExpectFloat("-8388607", StandaloneOne<float>(-8388607, 0, 0, 32, false, &lines), -8388607.0F);
  ExpectFloat("half 40000", StandaloneOne<float>(0, 40000, 0, 16, true, &lines), -20000.0F);
  ExpectFloat("half 0.3", StandaloneOne<float>(0.3F, 0, 0, 16, true, &lines), kThreeTenths);
  ExpectFloat("half 0.3", StandaloneOne<float>(0, 0.3F, 0, 16, true, &lines), kThreeTenths);
  // Only the second operand is quantised first: 40000 - 10000, but -20000 - 10000.
  ExpectFloat("first", StandaloneOne<float>(40000, -10000, 0, 16, true, &lines), 30000.0F);
  ExpectFloat("second", StandaloneOne<float>(-10000, 40000, 0, 16, true, &lines), -30000.0F);
  ExpectText("in bounds", lines, "");
  ExpectFloat("8388607", StandaloneOne<float>(8388600, 7, 0, 32, false, &lines), 8388607.0F);
  ExpectText("line", lines, Warning("8388607.000000"));
  lines.clear();
  ExpectFloat("half line", StandaloneOne<float>(-8388608, 0, 0, 8, true, &lines), 16384.0F);
  ExpectText("half line", lines, Warning("-8388608.000000"));

  const std::vector<float> value = {1, 2, 3, 4};
  const std::vector<float> elementwise = {5, 6, 7, 8};
  const std::vector<float> weights = {1, 10, 100, 1000};
  std::vector<float> out(4);
  reference::StandaloneAdd<float>(value.data(), elementwise.data(), weights.data(), 0, 32, false, 4,
                                  2, out.data(), nullptr);
  ExpectAll("channels", out, {501, 6020, 703, 8040});
}

// ---- Matrix multiplication ---------------------------------------------------------------------

struct MatMulTexts {
  std::string lines;
  std::string log;
};

// One row times one column.
template <typename T>
T Dot(const std::vector<T>& a, const std::vector<T>& b, int width, int shift, bool half,
      MatMulTexts* texts) {
  T out = T{77};
  reference::MatMul<T>(a.data(), b.data(), static_cast<int32_t>(a.size()), 1, 1,
                       static_cast<int32_t>(b.size()), 0, width, shift, half, &out, &texts->lines,
                       &texts->log);
  return out;
}

void CheckMatMulSteps() {
  MatMulTexts t;
  Expect("127", Dot<int32_t>({1}, {127}, 16, 0, false, &t), 127);
  ExpectFloat("float 127", Dot<float>({1}, {127}, 16, 0, false, &t), 127.0F);
  ExpectFloat("-200", Dot<float>({1}, {-200}, 16, 0, false, &t), -200.0F);
  Expect("5 / 2", Dot<int32_t>({5}, {1}, 16, 1, false, &t), 2);
  Expect("each is rounded", Dot<int32_t>({3, 3}, {1, 1}, 16, 1, false, &t), 4);
  ExpectFloat("7.5 by 3", Dot<float>({7.5F}, {1}, 16, 3, false, &t), 2.0F);
  ExpectFloat("45.5 by 7", Dot<float>({45.5F}, {1}, 16, 7, false, &t), 7.0F);
  // 200 wraps to -56 before the third product, and 500 is wrapped once only.
  Expect("wraps", Dot<int32_t>({100, 100, 100}, {1, 1, 1}, 8, 0, false, &t), 44);
  ExpectFloat("wraps", Dot<float>({100, 100, 100}, {1, 1, 1}, 8, 0, false, &t), 44.0F);
  Expect("once", Dot<int32_t>({500, -1}, {1, 1}, 8, 0, false, &t), -13);
  Expect("32-bit product", Dot<int32_t>({65536}, {65536}, 64, 0, false, &t), -1);
  ExpectFloat("half", Dot<float>({40000}, {1}, 32, 0, true, &t), -20000.0F);
  ExpectFloat("half sum", Dot<float>({0.3F, 0.3F}, {1, 1}, 32, 0, true, &t), 2 * kThreeTenths);
  Expect("no inner", Dot<int32_t>({}, {}, 16, 0, false, &t), 0);
  ExpectFloat("no inner", Dot<float>({}, {}, 16, 0, false, &t), 0.0F);
  ExpectFloat("-8388607", Dot<float>({-8388607}, {1}, 32, 0, false, &t), -8388607.0F);
  ExpectText("no lines", t.lines + t.log, "");

  Expect("200", Dot<int32_t>({1}, {200}, 16, 0, false, &t), -56);
  ExpectText("red line", t.lines, kRedLine);
  t.lines.clear();
  ExpectFloat("float 127.5", Dot<float>({1}, {127.5F}, 16, 0, false, &t), -128.5F);
  ExpectText("red line", t.lines, kRedLine);
  t.lines.clear();
  // Width 0: 2^-1 - 1 truncates to 0, and the period is 2. The sums wrap to 0 by one at a time.
  Expect("width 0", Dot<int32_t>({1}, {3}, 0, 0, false, &t), 0);
  ExpectText("width 0", t.lines, kRedLine);
  t.lines.clear();
  Expect("once per call", Dot<int32_t>({1, 1}, {200, 200}, 16, 0, false, &t), -112);
  ExpectText("once per call", t.lines, kRedLine);
  t.lines.clear();
  // The red line follows the warnings, which show the sum before its wrap; each addition wraps
  // once.
  ExpectFloat("lines", Dot<float>({-100000, 1}, {200, 1}, 16, 0, false, &t), 5468929.0F);
  ExpectText("in bounds", t.lines, kRedLine);
  t.lines.clear();
  ExpectFloat("lines", Dot<float>({1000000, 1}, {200, 1}, 16, 0, false, &t), -55868928.0F);
  ExpectText("order of lines", t.lines,
             Warning("-56000000.000000") + Warning("-55934464.000000") + kRedLine);
}

void CheckMatMulLayout() {
  const std::vector<int32_t> a = {1, 2, 3, 4, 5, 6, 1, 0, 0, 0, 0, 1};
  const std::vector<int32_t> b = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
  std::vector<int32_t> out(8, 77);
  MatMulTexts t;
  reference::MatMul<int32_t>(a.data(), b.data(), 3, 2, 2, 3, 0, 16, 0, false, out.data(), &t.lines,
                             &t.log);
  ExpectAll("entry 0", out, {22, 28, 49, 64, 77, 77, 77, 77});
  reference::MatMul<int32_t>(a.data(), b.data(), 3, 2, 2, 3, 1, 16, 0, false, out.data(), &t.lines,
                             &t.log);
  ExpectAll("entry 1", out, {22, 28, 49, 64, 7, 8, 11, 12});
  ExpectText("no lines", t.lines + t.log, "");

  std::vector<int32_t> untouched(10, 77);
  reference::MatMul<int32_t>(a.data(), b.data(), 3, 2, 5, 4, 0, 16, 0, false, untouched.data(),
                             &t.lines, &t.log);
  ExpectAll("mismatch", untouched, std::vector<int32_t>(10, 77));
  ExpectText("no lines", t.lines, "");
  ExpectText("mismatch", t.log,
             "input and kernel dimensions does not match for matrix mul. dataSizeX=3\t"
             "kernelSizeY=4\n");

  // Of rank 4: two entries, though the data has six matrices.
  std::vector<float> data(120);
  std::iota(data.begin(), data.end(), 0.0F);
  const std::vector<float> ones(10, 1.0F);
  std::vector<float> sums(24, 77.0F);
  std::vector<float> expected(24, 77.0F);
  for (int i = 0; i < 2; ++i) {
    reference::MatMul<float>(data.data(), ones.data(), 5, 4, 1, 5, i, 24, 0, false, sums.data(),
                             &t.lines, nullptr);
  }
  // Five numbers from 5k on add up to 25k + 10.
  for (int k = 0; k < 8; ++k) expected[static_cast<size_t>(k)] = static_cast<float>(25 * k + 10);
  ExpectAll("rank 4", sums, expected);
}

// ---- Bilinear ----------------------------------------------------------------------------------

// One element of weights 1.
template <typename T>
T BilinearOne(const std::vector<T>& p, float bias, int shift, int width, bool plain,
              std::string* lines) {
  const T one = T{1};
  T out = T{77};
  reference::Bilinear<T>(&p[0], &p[1], &p[2], &p[3], &one, &one, &one, &one, 1, 1, shift, bias,
                         width, plain, &out, lines);
  return out;
}

void CheckBilinearIntegers() {
  std::string l;
  Expect("bias 0.9", BilinearOne<int32_t>({65, 65, 0, 0}, 0.9F, 0, 8, false, &l), -126);
  Expect("bias -0.9", BilinearOne<int32_t>({0, 0, 0, 0}, -0.9F, 0, 8, false, &l), 0);
  Expect("bias -3.9", BilinearOne<int32_t>({1, 0, 0, 0}, -3.9F, 0, 8, false, &l), -2);
  Expect("bias NaN", BilinearOne<int32_t>({0, 0, 0, 0}, kNaN, 0, 32, false, &l), INT32_MIN);
  Expect("bias 2^31", BilinearOne<int32_t>({1, 0, 0, 0}, 2147483648.0F, 0, 32, true, &l),
         INT32_MIN + 1);
  Expect("shift 1", BilinearOne<int32_t>({3, 1, -3, 5}, 10, 1, 8, false, &l), 12);
  // One period at a time: 500 is 244, then 244 again is out of range and wraps by 256.
  Expect("each wraps", BilinearOne<int32_t>({500, 0, 0, 0}, 0, 0, 8, false, &l), -12);
  Expect("last wraps once", BilinearOne<int32_t>({0, 0, 0, 500}, 0, 0, 8, false, &l), 244);
  Expect("bias wraps", BilinearOne<int32_t>({0, 0, 0, 0}, -129, 0, 8, false, &l), 127);
  Expect("plain", BilinearOne<int32_t>({500, 600, -7, 8}, 9.5F, 3, 8, true, &l), 1110);
  Expect("plain wraps", BilinearOne<int32_t>({INT32_MAX, 1, 0, 0}, 1, 0, 8, true, &l),
         INT32_MIN + 1);
  // Widths without room. From -1 both limits truncate to 0 and the period is 1.
  Expect("width -1", BilinearOne<int32_t>({5, 0, 0, 0}, 0, 0, -1, false, &l), 1);
  Expect("width -1", BilinearOne<int32_t>({-5, 0, 0, 0}, 0, 0, -1, false, &l), -1);
  Expect("width 0", BilinearOne<int32_t>({0, 0, 0, 3}, 0, 0, 0, false, &l), 2);
  // 2^-201 is 0 in single precision: the limits are -1 and 0, and the period is 0.
  Expect("width -200", BilinearOne<int32_t>({5, 0, 0, 0}, 0, 0, -200, false, &l), 5);
  Expect("width -200", BilinearOne<int32_t>({-5, 0, 0, 0}, 0, 0, -200, false, &l), -5);
  ExpectText("integers have no lines", l, "");
}

void CheckBilinearFloats() {
  std::string l;
  ExpectFloat("5 by 2", BilinearOne<float>({5, 0, 0, 0}, 0, 2, 16, false, &l), 2.0F);
  ExpectFloat("45.5 by 7", BilinearOne<float>({0, 0, 0, 45.5F}, 0, 7, 16, false, &l), 7.0F);
  ExpectFloat("bias is not scaled", BilinearOne<float>({5, 7, 0, 0}, 0.25F, 2, 16, false, &l),
              6.25F);
  ExpectFloat("40000", BilinearOne<float>({40000, 0, 0, 0}, 0, 0, 16, false, &l), -25536.0F);
  ExpectFloat("then 1", BilinearOne<float>({40000, 1, 0, 0}, 0, 0, 16, false, &l), -25535.0F);
  ExpectFloat("-40000", BilinearOne<float>({-40000, 0, 0, 0}, 0, 0, 16, false, &l), 25536.0F);
  ExpectFloat("-8388607", BilinearOne<float>({0, 0, 0, 0}, -8388607, 0, 32, false, &l),
              -8388607.0F);
  // Bottom pair 2^24 + 1 to even, upper pair 2, and the bias makes a tie that goes up.
  ExpectFloat("plain", BilinearOne<float>({1, 1, 16777216, 1}, 1, 3, 8, true, &l), 16777220.0F);
  ExpectFloat("plain NaN", BilinearOne<float>({kInf, 0, 0, 0}, -kInf, 3, 8, true, &l), kNaN);
  // A width of -1: from -0.25 to -0.75, period 0.5. 1, 0.5, 0 and -0.5 are all above -0.75.
  ExpectFloat("width -1", BilinearOne<float>({1, 0, 0, 0}, 0, 0, -1, false, &l), -1.0F);
  ExpectFloat("width -1", BilinearOne<float>({-3, 0, 0, 0}, 0, 0, -1, false, &l), -1.0F);
  ExpectFloat("width -200", BilinearOne<float>({5, 0, 0, 0}, 0, 0, -200, false, &l), 5.0F);
  ExpectFloat("width 200", BilinearOne<float>({1e6F, 1e6F, 0, 0}, 0, 0, 200, false, &l), 2e6F);
  ExpectText("in bounds", l, "");
  ExpectFloat("8388607", BilinearOne<float>({0, -1, 0, 0}, 8388607, 0, 32, false, &l), 8388606.0F);
  ExpectText("line", l, Warning("8388607.000000"));
  l.clear();
  ExpectFloat("lines", BilinearOne<float>({9000000, 0, 0, 9000000}, 0, 0, 32, false, &l),
              18000000.0F);
  ExpectText("lines", l,
             Warning("9000000.000000") + Warning("9000000.000000") + Warning("9000000.000000") +
                 Warning("18000000.000000"));
}

void CheckBilinearLayout() {
  const std::vector<int32_t> p[4] = {{1, 2, 1, 2}, {3, 4, 3, 4}, {5, 6, 5, 6}, {7, 8, 7, 9}};
  const std::vector<int32_t> w[4] = {{1, 2}, {10, 20}, {100, 200}, {1000, 2000}};
  for (const bool plain : {false, true}) {
    std::vector<int32_t> out(4);
    reference::Bilinear<int32_t>(p[0].data(), p[1].data(), p[2].data(), p[3].data(), w[0].data(),
                                 w[1].data(), w[2].data(), w[3].data(), 2, 2, 0, 0, 32, plain,
                                 out.data(), nullptr);
    ExpectAll("weights repeat", out, {7531, 17284, 7531, 19284});
  }
  int32_t untouched = 77;
  for (const int64_t count : {0, 1}) {
    reference::Bilinear<int32_t>(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                 nullptr, count, 1 - count, 0, 0, 8, false, &untouched, nullptr);
  }
  Expect("no element", untouched, 77);
}

}  // namespace

int main() {
  CheckScaling();
  CheckDecomposedBiasAdd();
  CheckStandaloneAdd();
  CheckMatMulSteps();
  CheckMatMulLayout();
  CheckBilinearIntegers();
  CheckBilinearFloats();
  CheckBilinearLayout();
  std::printf("sums reference: %d checks passed\n", checks);
  return 0;
}
