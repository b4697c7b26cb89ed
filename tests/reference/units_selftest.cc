// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Checks the oracles of the numeric units against results worked out by hand, and against the
// arithmetic that they model. Prints one line when all hold; on the first failure prints what
// failed and exits with status 1.

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "activation.h"
#include "exact.h"
#include "fpx.h"
#include "layernorm.h"
#include "selftest.h"
#include "softmax.h"

namespace {

using reference::Fpx;
using reference::FpxRecord;
using reference::LayernormParams;
using reference::LayernormStatus;
using selftest::checks;
using selftest::Expect;
using selftest::ExpectFloat;
using selftest::ExpectText;

const float kInf = std::numeric_limits<float>::infinity();
const float kNaN = std::numeric_limits<float>::quiet_NaN();

void ExpectStatus(const char* what, LayernormStatus actual, LayernormStatus expected) {
  Expect(what, static_cast<int64_t>(actual), static_cast<int64_t>(expected));
}

// ---- Narrow floats -----------------------------------------------------------------------------

Fpx Make(uint8_t exp_len, uint8_t man_len, unsigned sign, uint16_t exponent, uint32_t mantissa) {
  Fpx x;
  x.exp_len = exp_len;
  x.man_len = man_len;
  x.mantissa = mantissa;
  x.exponent = exponent;
  x.sign = sign % 2;
  return x;
}

Fpx Quantise(float value, uint8_t exp_len, uint8_t man_len, FpxRecord* record) {
  Fpx x = Make(exp_len, man_len, 0, 0, 0);
  reference::FpxFromFloat(value, &x, record);
  return x;
}

void ExpectFpx(const char* what, const Fpx& x, unsigned sign, int64_t exponent, int64_t mantissa) {
  Expect(what, x.sign, sign);
  Expect(what, x.exponent, exponent);
  Expect(what, x.mantissa, mantissa);
}

void ExpectCounters(const char* what, const FpxRecord& r, int32_t float_of, int32_t float_uf,
                    int32_t resize_of, int32_t resize_uf) {
  Expect(what, r.float_overflows, float_of);
  Expect(what, r.float_underflows, float_uf);
  Expect(what, r.resize_overflows, resize_of);
  Expect(what, r.resize_underflows, resize_uf);
}

void CheckFpxFromFloat() {
  FpxRecord r;
  Fpx x = Quantise(1.0f, 4, 4, &r);
  ExpectFpx("1.0", x, 0, 12, 8);
  ExpectFloat("1.0 back", reference::FpxToFloat(x, &r), 1.0f);
  ExpectText("1.0 in binary", reference::FpxBits(x), "0 1100 1000");
  x = Quantise(3.0f, 4, 4, &r);
  ExpectFpx("3.0", x, 0, 13, 12);
  ExpectFloat("3.0 back", reference::FpxToFloat(x, &r), 3.0f);
  ExpectCounters("in range", r, 0, 0, 0, 0);
  x = Quantise(16.0f, 4, 4, &r);
  ExpectFpx("16.0", x, 0, 15, 15);
  ExpectFloat("16.0 back", reference::FpxToFloat(x, &r), 15.0f);
  ExpectCounters("16.0", r, 1, 0, 0, 0);
  // A carry in the top octave is no overflow: the exponent wraps to 0.
  x = Quantise(15.9f, 4, 4, &r);
  ExpectFpx("15.9", x, 0, 0, 8);
  ExpectCounters("15.9", r, 1, 0, 0, 0);

  ExpectFloat("tie", reference::FpxToFloat(Quantise(1.75f, 4, 2, &r), &r), 1.5f);
  const float above = std::nextafter(1.75f, 2.0f);
  ExpectFloat("above tie", reference::FpxToFloat(Quantise(above, 4, 2, &r), &r), 2.0f);
  ExpectFloat("below carry", reference::FpxToFloat(Quantise(-1.25f, 4, 2, &r), &r), -1.0f);

  FpxRecord small;
  x = Quantise(0.03125f, 3, 4, &small);
  ExpectFpx("2^-5", x, 0, 0, 8);
  ExpectFloat("2^-5 back", reference::FpxToFloat(x, &small), 0.0625f);
  ExpectCounters("2^-5", small, 0, 0, 0, 0);
  ExpectFpx("2^-6", Quantise(0.015625f, 3, 4, &small), 0, 0, 0);
  ExpectCounters("2^-6", small, 0, 1, 0, 0);
  ExpectFpx("subnormal", Quantise(-1e-40f, 3, 4, &small), 1, 0, 0);
  ExpectCounters("subnormal", small, 0, 2, 0, 0);
  x = Quantise(-0.0f, 3, 4, &small);
  ExpectFpx("-0", x, 1, 0, 0);
  ExpectFloat("-0 back", reference::FpxToFloat(x, &small), 0.0f);
  ExpectFpx("inf", Quantise(kInf, 3, 4, &small), 0, 7, 15);
  ExpectFpx("-inf", Quantise(-kInf, 4, 8, &small), 1, 15, 255);
  ExpectFpx("NaN", Quantise(kNaN, 3, 4, &small), 0, 7, 15);
  ExpectCounters("infinities", small, 3, 2, 0, 0);
  ExpectText("no lines", small.lines + r.lines, "");
}

// Nearest value of the format, ties toward zero, found by trying them all.
void CheckFpxNearest() {
  for (int man_len = 1; man_len <= 8; ++man_len) {
    for (int exponent = 0; exponent <= 15; ++exponent) {
      for (int step = 0; step < 1024; ++step) {
        const float value = std::ldexp(static_cast<float>(1024 + step) / 2048.0f, exponent - 11);
        const double unit = std::ldexp(1.0, exponent - 11 - man_len);
        const double lower = std::floor(double{value} / unit);
        const double rest = double{value} / unit - lower;
        const double nearest = (rest > 0.5 ? lower + 1.0 : lower) * unit;
        const auto width = static_cast<uint8_t>(man_len);
        const Fpx x = Quantise(value, 4, width, nullptr);
        if (nearest == 16.0) {
          ExpectFpx("wrapped", x, 0, 0, int64_t{1} << (man_len - 1));
          continue;
        }
        const float back = reference::FpxToFloat(x, nullptr);
        ExpectFloat("nearest", back, static_cast<float>(nearest));
        const Fpx again = Quantise(-back, 4, width, nullptr);
        ExpectFpx("round trip", again, 1, x.exponent, x.mantissa);
      }
    }
  }
}

void CheckFpxResize() {
  FpxRecord r;
  // 2^(e - 11) * m / 256: the low 4 bits are dropped, ties truncate.
  const uint32_t from[] = {0x80, 0x88, 0x89, 0xf8, 0xf9};
  const uint32_t to[] = {8, 8, 9, 15, 8};
  for (int i = 0; i < 5; ++i) {
    Fpx x = Make(4, 8, 1, 5, from[i]);
    reference::FpxResize(&x, 4, 4, &r);
    ExpectFpx("narrower", x, 1, i == 4 ? 6 : 5, to[i]);
    Expect("narrower width", x.man_len, 4);
  }
  Fpx x = Make(4, 4, 0, 5, 8);
  reference::FpxResize(&x, 4, 8, &r);  // Shifted right by 28.
  ExpectFpx("wider", x, 0, 5, 0);
  ExpectCounters("resized", r, 0, 0, 0, 0);
  // From bias 11 to bias 3: exponents 8 to 15 become 0 to 7, the octave below rounds up.
  x = Make(4, 4, 0, 8, 9);
  reference::FpxResize(&x, 3, 4, &r);
  ExpectFpx("lowest", x, 0, 0, 9);
  x = Make(4, 4, 1, 7, 9);
  reference::FpxResize(&x, 3, 4, &r);
  ExpectFpx("octave below", x, 1, 0, 8);
  x = Make(4, 4, 1, 6, 9);
  reference::FpxResize(&x, 3, 4, &r);
  ExpectFpx("lost", x, 1, 0, 0);
  ExpectCounters("underflows", r, 0, 0, 0, 2);
  x = Make(4, 8, 0, 15, 0xff);  // The carry is not seen by the range check.
  reference::FpxResize(&x, 4, 4, &r);
  ExpectFpx("carry", x, 0, 0, 8);
  x = Make(3, 4, 0, 8, 9);
  reference::FpxResize(&x, 4, 2, &r);
  ExpectFpx("overflow", x, 0, 15, 3);
  ExpectCounters("overflow", r, 0, 0, 1, 2);
  ExpectText("no lines", r.lines, "");
  x = Make(5, 4, 0, 0, 0);
  reference::FpxResize(&x, 0x0104, 0x0203, &r);
  Expect("stored exp_len", x.exp_len, 4);
  Expect("stored man_len", x.man_len, 3);
  ExpectText("lines", r.lines, "Wrong Explen\nWrong Explen\n");
}

void CheckFpxAdd() {
  FpxRecord r;
  Fpx out = Make(4, 4, 0, 0, 0);
  const Fpx one = Quantise(1.0f, 4, 4, &r);
  const Fpx three = Quantise(3.0f, 4, 4, &r);
  reference::FpxAdd(one, three, &out, &r);
  ExpectFloat("1 + 3", reference::FpxToFloat(out, &r), 4.0f);
  reference::FpxAdd(one, Quantise(-3.0f, 4, 4, &r), &out, &r);
  ExpectFloat("1 - 3", reference::FpxToFloat(out, &r), -2.0f);
  reference::FpxAdd(three, Quantise(-3.0f, 4, 4, &r), &out, &r);
  ExpectFpx("3 - 3", out, 1, 0, 0);
  reference::FpxAdd(Quantise(-3.0f, 4, 4, &r), three, &out, &r);
  ExpectFpx("-3 + 3", out, 0, 0, 0);
  reference::FpxAdd(Make(4, 4, 0, 15, 15), Make(4, 4, 0, 15, 15), &out, &r);
  ExpectFpx("15 + 15", out, 0, 16, 15);
  // The difference needs an exponent below 0: only the sign is set.
  out = Make(4, 4, 0, 7, 11);
  reference::FpxAdd(Make(4, 4, 0, 2, 8), Make(4, 4, 1, 2, 9), &out, &r);
  ExpectFpx("no room", out, 1, 7, 11);
  // A difference longer than the mantissa is shifted right.
  reference::FpxAdd(Make(4, 4, 0, 2, 0x54), Make(4, 4, 1, 2, 1), &out, &r);
  ExpectFpx("long", out, 0, 5, 10);
  out = Make(4, 5, 1, 7, 11);
  reference::FpxAdd(one, three, &out, &r);
  ExpectFpx("mismatch", out, 1, 0, 0);
  ExpectText("no lines", r.lines, "");
  out = Make(4, 4, 0, 0, 0);
  reference::FpxAdd(Make(4, 4, 1, 3, 1), Make(4, 4, 1, 3, 2), &out, &r);
  ExpectFpx("unnormalised", out, 1, 3, 3);
  ExpectText("line", r.lines, "Possible bug in addition/subtraction: 1 0011 0011\n");

  Fpx a = Make(4, 4, 0, 3, 15);
  Fpx b = Make(4, 4, 0, 5, 9);
  reference::FpxAlign(&a, &b);
  ExpectFpx("aligned", a, 0, 5, 3);
  ExpectFpx("aligned to", b, 0, 5, 9);
  a = Make(4, 4, 0, 36, 15);
  reference::FpxAlign(&a, &b);
  ExpectFpx("31 apart", b, 0, 36, 0);
  b = Make(4, 4, 0, 4, 9);
  reference::FpxAlign(&a, &b);
  ExpectFpx("32 apart", b, 0, 36, 9);
}

void CheckFpxMultiply() {
  FpxRecord r;
  Fpx out = Make(4, 4, 0, 9, 9);
  const Fpx half = Quantise(0.5f, 4, 4, &r);
  reference::FpxMultiply(half, half, &out, &r);
  ExpectFloat("0.5 * 0.5", reference::FpxToFloat(out, &r), 0.25f);
  out.sign = 1;
  reference::FpxMultiply(half, Make(4, 4, 0, 11, 7), &out, &r);
  ExpectFpx("unnormalised operand", out, 1, 0, 0);
  reference::FpxMultiply(half, Make(4, 5, 0, 11, 16), &out, &r);
  ExpectFpx("mismatch", out, 1, 0, 0);
  // Products of normalised operands are the exact products, cut off.
  for (uint32_t m = 16; m < 32; ++m) {
    for (uint32_t n = 16; n < 32; ++n) {
      const Fpx a = Make(4, 5, 0, 10, m);
      const Fpx b = Make(4, 5, 1, 12, n);
      out = Make(4, 5, 0, 0, 0);
      reference::FpxMultiply(a, b, &out, &r);
      const double exact = std::ldexp(static_cast<double>(m * n), -10);
      const double unit = std::ldexp(1.0, exact < 0.5 ? -6 : -5);
      ExpectFloat("product", reference::FpxToFloat(out, &r),
                  static_cast<float>(-std::floor(exact / unit) * unit));
    }
  }
  ExpectText("no lines", r.lines, "");
  // The threshold of the exponent is the sum of the widths of `out` and of one operand.
  out = Make(4, 8, 0, 0, 0);
  reference::FpxMultiply(Make(4, 4, 0, 12, 12), Make(4, 4, 0, 12, 12), &out, &r);
  ExpectFpx("wider result", out, 0, 12, 144);
  out = Make(7, 4, 0, 0, 0);
  reference::FpxMultiply(half, half, &out, &r);
  ExpectText("lines", r.lines, "Wrong Explen\n");
}

void CheckFpxWidths() {
  FpxRecord r;
  Expect("bias 3", reference::FpxBias(3, &r), 3);
  Expect("bias 4", reference::FpxBias(4, &r), 11);
  ExpectText("no lines", r.lines, "");
  Expect("bias 5", reference::FpxBias(5, &r), 0);
  ExpectText("lines", r.lines, "Wrong Explen\n");
  ExpectFpx("bias 0", Quantise(0.75f, 5, 4, &r), 0, 0, 12);
  ExpectFpx("bias 0, one", Quantise(1.0f, 5, 4, &r), 0, 1, 8);
  // With 24 bits nothing is dropped.
  ExpectFpx("24 bits", Quantise(1.0f + 0x1p-23f, 4, 24, &r), 0, 12, 0x800001);
  ExpectFpx("23 bits, tie", Quantise(1.0f + 0x1p-23f, 4, 23, &r), 0, 12, 0x400000);
  ExpectFpx("1 bit", Quantise(1.5f, 4, 1, &r), 0, 12, 1);
  ExpectFpx("1 bit, up", Quantise(1.75f, 4, 1, &r), 0, 13, 1);
  // 0 bits: the mask and so the largest mantissa are 0, and the leading one goes to bit 31.
  ExpectFpx("0 bits", Quantise(1.5f, 4, 0, &r), 0, 13, 0);
  ExpectFloat("0 bits back", reference::FpxToFloat(Make(4, 0, 1, 13, 9), &r), 0.0f);
  // 25 bits: the fraction is shifted right by 31, compared in full with a half of 2^30.
  ExpectFpx("25 bits", Quantise(1.5f, 4, 25, &r), 0, 12, 0x1000000);
  ExpectFloat("32 bits", reference::FpxToFloat(Make(4, 32, 0, 11, 0xffffffff), &r), 1.0f);
  // Bit k of a mantissa is bit k modulo 32.
  ExpectFloat("33 bits", reference::FpxToFloat(Make(4, 33, 0, 11, 1), &r), 0.5f + 0x1p-33f);
  ExpectFloat("huge", reference::FpxToFloat(Make(4, 4, 1, 200, 8), &r), -kInf);
  ExpectFloat("huge zero", reference::FpxToFloat(Make(4, 4, 1, 200, 0), &r), kNaN);
  ExpectFloat("zero mantissa", reference::FpxToFloat(Make(4, 4, 1, 3, 0), &r), -0.0f);
  ExpectText("digits", reference::BinaryDigits(-2, 34), "00" + std::string(31, '1') + "0");
  ExpectText("no digits", reference::BinaryDigits(5, 0), "");
}

// ---- Layer normalisation -----------------------------------------------------------------------

int64_t Shifted(int64_t value, uint8_t shift_amount, uint8_t round_bits) {
  int64_t result = 0;
  ExpectStatus("shift", reference::RoundingShift(value, shift_amount, round_bits, &result),
               LayernormStatus::kOk);
  return result;
}

int64_t Clipped(int64_t value, uint8_t output_bits, bool is_signed) {
  int64_t result = 0;
  ExpectStatus("clip", reference::SignedClip(value, output_bits, is_signed, &result),
               LayernormStatus::kOk);
  return result;
}

void CheckRoundingShift() {
  Expect("2.5", Shifted(5, 1, 3), 2);
  Expect("3.5", Shifted(7, 1, 3), 4);
  Expect("-2.5", Shifted(-5, 1, 3), -2);
  Expect("1.5", Shifted(6, 2, 3), 2);
  Expect("41 / 16 at two bits", Shifted(41, 4, 2), 2);
  Expect("-41 / 16 at two bits", Shifted(-41, 4, 2), -3);
  Expect("shift by 64", Shifted(5, 64, 3), 5);
  Expect("lost on the left", Shifted(INT64_MIN + 1, 0, 3), 1);
  Expect("32 fraction bits", Shifted(6, 0, 32), 7);
  for (int64_t v = -4096; v <= 4096; ++v) {
    for (uint8_t s = 0; s <= 10; ++s) {
      const double floored = std::floor(std::ldexp(static_cast<double>(v), 6 - s));
      const double nearest = std::nearbyint(std::ldexp(floored, -6));
      Expect("nearest", Shifted(v, s, 6), static_cast<int64_t>(nearest));
    }
  }
  int64_t result = 0;
  ExpectStatus("65", reference::RoundingShift(1, 65, 65, &result), LayernormStatus::kShiftAmount);
  ExpectStatus("r 65", reference::RoundingShift(1, 64, 65, &result), LayernormStatus::kRoundBits);
  ExpectStatus("r 1", reference::RoundingShift(1, 64, 1, &result),
               LayernormStatus::kRoundBitsAboveOne);
}

void CheckPrimitives() {
  Expect("clip", Clipped(300, 8, false), 255);
  Expect("clip", Clipped(-1, 8, false), 0);
  Expect("clip", Clipped(200, 8, true), 127);
  Expect("clip", Clipped(-200, 8, true), -128);
  Expect("clip", Clipped(int64_t{1} << 40, 31, false), 2147483647);
  Expect("clip", Clipped(5, 32, false), 0);
  Expect("clip", Clipped(int64_t{1} << 40, 31, true), 1073741823);
  int64_t clipped = 0;
  ExpectStatus("65 bits", reference::SignedClip(1, 65, true, &clipped),
               LayernormStatus::kOutputBits);
  Expect("word", static_cast<int64_t>(reference::LeadingOneWord(11, 3, 2)), 2);
  Expect("word", static_cast<int64_t>(reference::LeadingOneWord(11, 3, 6)), 44);
  uint8_t index = 0;
  ExpectStatus("index", reference::LeadingOneIndex(uint64_t{1} << 57, 58, &index),
               LayernormStatus::kOk);
  Expect("index", index, 57);
  ExpectStatus("index", reference::LeadingOneIndex((uint64_t{1} << 58) + 6, 58, &index),
               LayernormStatus::kOk);
  Expect("index", index, 2);
  ExpectStatus("none", reference::LeadingOneIndex(uint64_t{1} << 58, 58, &index),
               LayernormStatus::kNoLeadingOne);
  ExpectStatus("65 bits", reference::LeadingOneIndex(1, 65, &index),
               LayernormStatus::kInputBitLength);

  const float x[] = {2.9f, -2.9f, 5.0f, kNaN};
  Expect("sum", reference::SumMinusZeroPoint(x, 1, 0), 2);
  Expect("sum", reference::SumMinusZeroPoint(x + 1, 1, 0), -2);
  Expect("sum", reference::SumMinusZeroPoint(x, 3, 3), -4);
  Expect("sum", reference::SumMinusZeroPoint(x, 4, 0), INT32_MIN + 5);
  Expect("sum", reference::SumMinusZeroPoint(x, 0, 3), 0);
  uint64_t squares = 0;
  ExpectStatus("squares", reference::SumSquaresMinusZeroPoint(x, 3, 3, 3, &squares),
               LayernormStatus::kOk);
  Expect("squares", static_cast<int64_t>(squares), 3 * (1 + 25 + 4));
  const float big[] = {268435456.0f};
  ExpectStatus("2^56", reference::SumSquaresMinusZeroPoint(big, 1, 0, 1, &squares),
               LayernormStatus::kSumSquares);
}

void CheckInputs() {
  uint32_t inputs[14] = {};
  inputs[0] = 70000;
  inputs[1] = 2147483648u;
  inputs[2] = 4294967295u;
  inputs[3] = 300;
  inputs[7] = 16777217;
  inputs[10] = 4294967295u;
  inputs[12] = 7;
  const LayernormParams p = reference::ConvertLayernormInputs(inputs);
  Expect("zero_point", p.zero_point, 4464);
  Expect("2^31 to 8 bits", p.exponent_sub_value, 0);
  Expect("2^32 - 1 to 16 bits", p.sum_of_x_mult, 0);
  Expect("300 to 8 bits", p.sum_of_x_shift, 44);
  Expect("rounded", p.epsilon, 16777216);
  Expect("rounded to 2^32", p.mul_act_bias, 0);
  Expect("flag", p.activation_ebias_mode ? 1 : 0, 1);
  Expect("no flag", p.rms_mode_enable ? 1 : 0, 0);
}

int64_t LayernormUnit(int64_t value, uint16_t man, uint8_t exp, uint32_t bias, bool wide) {
  int64_t result = 0;
  ExpectStatus("unit", reference::LayernormActivation(value, man, exp, bias, wide, false, &result),
               LayernormStatus::kOk);
  return result;
}

// Parameters that leave the variance at epsilon and every element as it is times 2^shift.
LayernormParams PlainParams(uint32_t epsilon) {
  LayernormParams p = {};
  p.zero_point = 100;
  p.x_squared_mult = 1;
  p.epsilon = epsilon;
  p.mul_act_man = 64;
  p.activation_output_mode = true;
  return p;
}

void CheckLayernormUnit() {
  Expect("16 bits", LayernormUnit(int64_t{1} << 30, 65535, 0, 0, true), 32767);
  Expect("8 bits", LayernormUnit(int64_t{1} << 30, 65535, 0, 0, false), 255);
  Expect("negative", LayernormUnit(-100, 64, 0, 0, true), 0);
  Expect("bias", LayernormUnit(-100, 64, 0, 180, true), 10);
  Expect("tie", LayernormUnit(20, 64, 0, 0, true), 2);
  int64_t result = 0;
  ExpectStatus("shift 65", reference::LayernormActivation(1, 1, 54, 0, true, true, &result),
               LayernormStatus::kShiftAmount);
  ExpectStatus("shift wraps", reference::LayernormActivation(1, 1, 250, 0, true, false, &result),
               LayernormStatus::kOk);
}

void CheckNormalise() {
  std::vector<float> lut(256, 0.0f);
  lut[64] = 8.0f;
  lut[128] = 16.0f;
  const float x[] = {100.0f, 100.0f};
  float out[2] = {};
  LayernormParams p = PlainParams(0);
  ExpectStatus("zero", reference::NormaliseVector(x, out, 2, lut.data(), p),
               LayernormStatus::kVariance);
  p.epsilon = 1;
  ExpectStatus("one", reference::NormaliseVector(x, out, 2, lut.data(), p), LayernormStatus::kOk);
  ExpectFloat("one", out[0], 0.0f);

  // Even and odd leading ones: entries 64 and 128.
  const float y[] = {104.0f, 96.0f};
  p.epsilon = (1u << 20) - 32;
  p.exponent_sub_value = 13;  // (20 + 2) / 2 = 11, so to the left by 2.
  ExpectStatus("even", reference::NormaliseVector(y, out, 2, lut.data(), p), LayernormStatus::kOk);
  ExpectFloat("even", out[0], 4.0f * 8.0f * 4.0f / 8.0f);
  ExpectFloat("even", out[1], 0.0f);
  p.epsilon = (1u << 21) - 32;
  ExpectStatus("odd", reference::NormaliseVector(y, out, 2, lut.data(), p), LayernormStatus::kOk);
  ExpectFloat("odd", out[0], 4.0f * 16.0f * 4.0f / 8.0f);
  p.exponent_sub_value = 10;  // (21 + 2) / 2 = 11: to the right by 1.
  ExpectStatus("right", reference::NormaliseVector(y, out, 2, lut.data(), p), LayernormStatus::kOk);
  ExpectFloat("right", out[0], 4.0f);

  // The slope: 2^20 + 2^6 has the index word 64 * 256 + 1.
  p.exponent_sub_value = 13;
  p.epsilon = (1u << 20) + (1u << 6) - 32;
  lut[64] = 3.0f * 65536.0f + 8.0f;
  ExpectStatus("slope", reference::NormaliseVector(y, out, 2, lut.data(), p), LayernormStatus::kOk);
  ExpectFloat("slope", out[0], 4.0f * 5.0f * 4.0f / 8.0f);

  // RMS leaves out the mean; with it, M = 104 - 100 is subtracted and m * m = 64 from the variance.
  const float z[] = {104.0f, 104.0f};
  p.epsilon = (1u << 21) - 32;
  p.sum_of_x_mult = 1;
  p.sum_of_x_mult_n_shift = 1;
  p.rms_mode_enable = true;
  ExpectStatus("RMS", reference::NormaliseVector(z, out, 2, lut.data(), p), LayernormStatus::kOk);
  ExpectFloat("RMS", out[0], 32.0f);
  p.rms_mode_enable = false;
  p.epsilon += 64;
  ExpectStatus("mean", reference::NormaliseVector(z, out, 2, lut.data(), p), LayernormStatus::kOk);
  ExpectFloat("mean", out[0], 0.0f);
  ExpectStatus("empty", reference::NormaliseVector(z, out, 0, lut.data(), p), LayernormStatus::kOk);
  p.sum_of_x_shift = 65;
  ExpectStatus("65", reference::NormaliseVector(z, out, 0, lut.data(), p),
               LayernormStatus::kShiftAmount);
}

void CheckLayernorm() {
  std::vector<float> lut(256, 1.0f);
  const LayernormParams p = PlainParams(1);
  std::vector<float> in(12, 100.0f);
  std::vector<float> out(12, -1.0f);
  ExpectStatus("run", reference::Layernorm(in.data(), out.data(), 2, 3, 2, 1, lut.data(), p),
               LayernormStatus::kOk);
  for (float value : out) ExpectFloat("run", value, 0.0f);
  ExpectStatus("C", reference::Layernorm(nullptr, nullptr, 4097, 0, 0, 0, lut.data(), p),
               LayernormStatus::kVectorSize);
  ExpectStatus("HW", reference::Layernorm(nullptr, nullptr, 1, 1048577, 1, 0, lut.data(), p),
               LayernormStatus::kNumVectors);
  ExpectStatus("none", reference::Layernorm(nullptr, nullptr, 4096, 1048576, 1, 0, lut.data(), p),
               LayernormStatus::kOk);
  ExpectText("text", reference::LayernormFailure(LayernormStatus::kVariance), "variance > 0");
}

// ---- Softmax -----------------------------------------------------------------------------------

std::vector<uint32_t> SoftmaxTable(uint16_t first_exponential) {
  std::vector<uint32_t> words;
  for (uint32_t k = 0; k < 256; ++k) {
    const uint32_t exponential = k == 0 ? first_exponential : 300 - k;
    const uint32_t sum = (256 - k) * 100;
    const uint32_t inverse = k;
    words.push_back(exponential + (sum % 65536) * 65536);
    words.push_back(sum / 65536 + inverse * 256 + 0xabcd0000);
  }
  return words;
}

void CheckSoftmaxPieces() {
  ExpectFloat("1.5", reference::SoftmaxShift(96, 6), 2.0f);
  ExpectFloat("2.5", reference::SoftmaxShift(160, 6), 2.0f);
  ExpectFloat("above 2.5", reference::SoftmaxShift(161, 6), 3.0f);
  for (int32_t v = -5000; v <= 5000; ++v) {
    for (int32_t s = 1; s <= 12; ++s) {
      const double nearest = std::nearbyint(std::ldexp(static_cast<double>(v), -s));
      ExpectFloat("nearest", reference::SoftmaxShift(v, s), static_cast<float>(nearest + 0.0));
    }
  }
  // The quotient is rounded to single precision before one is added.
  ExpectFloat("twice rounded", reference::SoftmaxShift(2 * 16777217 + 1, 1), 16777216.0f);
  ExpectFloat("shift 0", reference::SoftmaxShift(5, 0), 5.0f);
  ExpectFloat("shift 0, negative", reference::SoftmaxShift(-5, 32), -4.0f);
  ExpectFloat("shift 31", reference::SoftmaxShift(INT32_MIN + 1073741824, 31), -1.0f);

  uint16_t exponentials[256];
  reference::SoftmaxRow rows[256];
  reference::ParseSoftmaxTable(SoftmaxTable(65535).data(), exponentials, rows);
  Expect("exponential", exponentials[0], 65535);
  Expect("exponential", exponentials[255], 45);
  Expect("sum", rows[0].sum_value, 25600);
  Expect("inverse", rows[254].inv_value, 254);
  Expect("row 127", reference::FindInverse(12900.0f, rows), 127);
  Expect("below all", reference::FindInverse(99.0f, rows), 255);
  Expect("above all", reference::FindInverse(25601.0f, rows), 0);
  Expect("NaN", reference::FindInverse(kNaN, rows), 127);
  // With sums that decrease the search finds the first row that the sum reaches.
  for (int32_t sum = 0; sum <= 26000; ++sum) {
    int32_t row = 0;
    while (row < 255 && rows[row].sum_value > static_cast<uint32_t>(sum)) ++row;
    Expect("search", reference::FindInverse(static_cast<float>(sum), rows), row);
  }
  Expect("distance", reference::LookUpExponential(1.75f, exponentials), 299);
  Expect("distance", reference::LookUpExponential(255.5f, exponentials), 45);
  Expect("distance", reference::LookUpExponential(256.0f, exponentials), 0);
  Expect("distance", reference::LookUpExponential(kInf, exponentials), 0);
  Expect("distance", reference::LookUpExponential(kNaN, exponentials), 0);
}

void CheckSoftmax() {
  const std::vector<uint32_t> words = SoftmaxTable(1024);
  const float in[] = {7.0f, 7.0f, 7.0f, 3.0f, 5.0f, -300.0f, kNaN, kNaN, 1.0f};
  float out[9] = {};
  std::string lines;
  reference::Softmax(in, out, 9, 3, words.data(), false, &lines);
  // Sum 3072: row 226 (3000). 1024 * 226 / 64 = 3616, / 1024 = 3.53.
  for (int i = 0; i < 3; ++i) ExpectFloat("equal", out[i], 4.0f);
  // Sum 1322 (298 at distance 2): row 243 (1300). 3888 / 1024 = 3.8; 298 * 243 / 64 = 1131.
  ExpectFloat("vector", out[3], 1.0f);
  ExpectFloat("vector", out[4], 4.0f);
  ExpectFloat("far", out[5], 0.0f);
  for (int i = 6; i < 9; ++i) ExpectFloat("first is NaN", out[i], 0.0f);
  const float late[] = {5.0f, kNaN, 5.0f};
  reference::Softmax(late, out, 3, 1, words.data(), false, &lines);
  ExpectFloat("later NaN", out[0], 4.0f);
  ExpectFloat("later NaN", out[1], 0.0f);
  ExpectText("no lines", lines, "");
  reference::Softmax(in, out, 0, 0, words.data(), false, &lines);
  reference::Softmax(in, out, 0, 4, words.data(), false, &lines);

  // 16384 times 1024 is 2^24: it saturates to the first row's inverse or wraps to the last row's.
  const std::vector<float> many(16384, -2.0f);
  std::vector<float> result(16384);
  reference::Softmax(many.data(), result.data(), 16384, 1, words.data(), true, &lines);
  ExpectFloat("saturated", result[16383], 0.0f);
  ExpectText("no lines", lines, "");
  reference::Softmax(many.data(), result.data(), 16384, 1, words.data(), false, &lines);
  ExpectFloat("wrapped", result[16383], 4.0f);
  ExpectText("warning", lines, "Warning, the softmax sum has overflowed.\n");
  reference::Softmax(many.data(), result.data(), 16383, 1, words.data(), false, &lines);
  ExpectFloat("full", result[0], 0.0f);
  ExpectText("one warning", lines, "Warning, the softmax sum has overflowed.\n");
}

// ---- Activation --------------------------------------------------------------------------------

void CheckBankersRound() {
  Expect("1.5", reference::BankersRound(96, 6), 2);
  Expect("2.5", reference::BankersRound(160, 6), 2);
  Expect("above 2.5", reference::BankersRound(161, 6), 3);
  Expect("-1.5", reference::BankersRound(-96, 6), -2);
  for (int64_t v = -5000; v <= 5000; ++v) {
    for (uint8_t s = 1; s <= 12; ++s) {
      const double nearest = std::nearbyint(std::ldexp(static_cast<double>(v), -s));
      Expect("nearest", reference::BankersRound(v, s), static_cast<int64_t>(nearest));
    }
  }
  Expect("shift 0", reference::BankersRound(5, 0), 0);
  Expect("shift 0, negative", reference::BankersRound(-5, 0), -1);
  Expect("shift 31", reference::BankersRound(int64_t{3} << 30, 31), 2);
  Expect("shift 31, quarter above", reference::BankersRound((int64_t{1} << 30) + 1, 31), 1);
}

void CheckActivate() {
  reference::ActivationSettings s = {};
  s.clip_bits = 127;
  s.ebias = 6;  // No shift before the rounding.
  Expect("12800 / 64", reference::Activate(100, 3, 128, 0, s), 130);
  Expect("-12800 / 64", reference::Activate(-100, 3, 128, 0, s), -125);
  Expect("r in range", reference::Activate(100, 3, 64, 0, s), 103);
  // -65 / 2^6 is -1 or -2, which both round to 0. -6143 / 2^6 is -95 or -96, and that is -1.48 or
  // -1.5 to the rounding.
  s.ebias = 12;
  Expect("toward zero", reference::Activate(-65, 0, 1, 0, s), 0);
  Expect("toward zero", reference::Activate(-6143, 0, 1, 0, s), -1);
  s.is_variant = true;
  Expect("floor", reference::Activate(-6143, 0, 1, 0, s), -2);
  s.is_variant = false;
  s.is_16bit_precision_mode = true;
  Expect("floor", reference::Activate(-6143, 0, 1, 0, s), -2);
  s.is_16bit_precision_mode = false;
  s.is_8bit_to_16bit_mode = true;
  Expect("8 to 16 bits", reference::Activate(16, 0, 1, 0, s), 1);
  Expect("shift by -2, or 62", reference::Activate(16, 0, 1, -8, s), 0);
  Expect("shift by -58, or 6", reference::Activate(16, 0, 1, -64, s), 1);
  s.beta = -5;
  s.is_signed_output = true;
  Expect("without influence", reference::Activate(16, 0, 1, 0, s), 1);
  // The product -2^63 has the magnitude 2^63; shifted by 57 and 6 it is -1.
  Expect("largest magnitude", reference::Activate(1 << 30, 0, 1 << 25, 51, s), -1);
  Expect("count modulo 64", reference::Activate(16, 0, 1, 64, s), 1);
  s.clip_bits = -5;
  Expect("negative clip", reference::Activate(0, 10, 0, 0, s), 14);
}

void CheckActivation() {
  const int64_t points[] = {0, 10, 5, 6};
  const int64_t offsets[] = {1, 2, 3, 99, 4, 5, 6, 99};
  const int64_t slopes[] = {0, 0, 0, 0, 0, 0};
  reference::ActivationTables tables;
  tables.x_points = {points, 2, 2};
  tables.offsets = {offsets, 2, 4};
  tables.slopes_m = {slopes, 2, 3};
  tables.slopes_e = {slopes, 2, 3};
  Expect("below", reference::FindPiece(tables, -1, 0).offset, 1);
  Expect("on a breakpoint", reference::FindPiece(tables, 0, 0).offset, 2);
  Expect("on the last", reference::FindPiece(tables, 10, 0).offset, 3);
  Expect("group 1", reference::FindPiece(tables, 5, 1).offset, 5);

  reference::ActivationSettings s = {};
  s.clip_bits = 127;
  const int64_t in[] = {-1, 5, 9, 12, 4, 9, 4294967295, 1};
  const int32_t expected[] = {1, 5, 6, 0, 2, 6, 4, 0};
  const int64_t expected_status[] = {0, 2, 1, 1, 0};
  const int64_t splits[][2] = {{1, 2}, {2, 3}, {1, 2}, {0, 1}, {1, -9}};
  for (int i = 0; i < 5; ++i) {
    tables.slopes_e.columns = i == 2 ? 2 : 3;
    tables.slopes_m.rows = i >= 3 ? 1 : 2;
    int32_t out[8] = {7, 7, 7, 7, 7, 7, 7, 7};
    const auto status = reference::Activation(in, 2, 4, tables, splits[i], 2, s, out);
    Expect("status", static_cast<int64_t>(status), expected_status[i]);
    for (int k = 0; i == 0 && k < 8; ++k) Expect("output", out[k], expected[k]);
  }
}

}  // namespace

int main() {
  CheckFpxFromFloat();
  CheckFpxNearest();
  CheckFpxResize();
  CheckFpxAdd();
  CheckFpxMultiply();
  CheckFpxWidths();
  CheckRoundingShift();
  CheckPrimitives();
  CheckInputs();
  CheckLayernormUnit();
  CheckNormalise();
  CheckLayernorm();
  CheckSoftmaxPieces();
  CheckSoftmax();
  CheckBankersRound();
  CheckActivate();
  CheckActivation();
  std::printf("units reference: %d checks passed\n", checks);
  return 0;
}
