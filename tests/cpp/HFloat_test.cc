// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The narrow floats: worked examples, then the oracle, logged lines and counters included: every
// value of every format of 3 and 4 exponent bits and up to 8 mantissa bits, alone and in pairs;
// every prefix of a float with its neighbours; and the widths outside the format.

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <string>
#include <vector>

#include "bitfold/fpx.h"
#include "reference/fpx.h"
#include "support/compare.h"
#include "support/ledger.h"
#include "support/log_stub.h"
#include "support/random.h"
#include "support/scale.h"
#include "support/tables.h"

namespace bitfold {
namespace {

using testing::Describe;
using testing::FloatOf;
using testing::LoggedLines;
using testing::Path;
using testing::Ran;
using testing::Random;

struct Widths {
  int exp_len;
  int man_len;
};

// All bits beside the fields are set, so that a lost or a changed one shows.
FPX MakeFpx(Widths widths, uint32_t mantissa, int exponent, int sign) {
  FPX x;
  std::memset(&x, 0xff, sizeof(x));
  x.exp_len = static_cast<uint8_t>(widths.exp_len);
  x.man_len = static_cast<uint8_t>(widths.man_len);
  x.mantissa = mantissa;
  x.exponent = static_cast<uint16_t>(exponent);
  x.sign = static_cast<unsigned>(sign) & 1u;
  return x;
}

reference::Fpx OracleFpx(const FPX& x) {
  reference::Fpx y;
  static_assert(sizeof(x) == sizeof(y));
  std::memcpy(&y, &x, sizeof(y));
  return y;
}

// The exponent with the sign and the other bits of its storage unit.
uint32_t LastWord(const void* x) {
  uint32_t word;
  std::memcpy(&word, static_cast<const char*>(x) + 8, sizeof(word));
  return word;
}

bool SameFpx(const reference::Fpx& a, const FPX& b) {
  return a.exp_len == b.exp_len && a.man_len == b.man_len && a.mantissa == b.mantissa &&
         LastWord(&a) == LastWord(&b);
}

template <typename Value>
std::string Show(const Value& x) {
  const auto number = [](int64_t field) { return std::to_string(field); };
  return "{exp_len " + number(x.exp_len) + ", man_len " + number(x.man_len) + ", mantissa " +
         number(x.mantissa) + ", exponent " + number(x.exponent) + ", sign " + number(x.sign) +
         ", last word " + number(LastWord(&x)) + "}";
}

::testing::AssertionResult Same(const reference::Fpx& expected, const FPX& actual,
                                const std::string& inputs) {
  if (SameFpx(expected, actual)) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << inputs << "\n  expected: " << Show(expected) << "\n  actual:   " << Show(actual);
}

// The counters and the log, as they moved since the object was made.
class Reports {
 public:
  Reports() { LoggedLines().clear(); }

  ::testing::AssertionResult SameAs(const reference::FpxRecord& record,
                                    const std::string& inputs) const {
    const int32_t moved[4] = {g_32toX_of - start_[0], g_32toX_uf - start_[1],
                              g_resizeX_of - start_[2], g_resizeX_uf - start_[3]};
    const int32_t expected[4] = {record.float_overflows, record.float_underflows,
                                 record.resize_overflows, record.resize_underflows};
    for (int i = 0; i < 4; ++i) {
      if (moved[i] == expected[i]) continue;
      return ::testing::AssertionFailure() << inputs << "\n  counter " << i << " moved by "
                                           << moved[i] << ", expected " << expected[i];
    }
    if (record.lines == LoggedLines()) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure()
           << inputs << "\n  logged:   " << LoggedLines() << "\n  expected: " << record.lines;
  }

 private:
  int32_t start_[4] = {g_32toX_of, g_32toX_uf, g_resizeX_of, g_resizeX_uf};
};

std::vector<Widths> Formats() {
  std::vector<Widths> formats;
  for (const int exp_len : {3, 4}) {
    for (int man_len = 1; man_len <= 8; ++man_len) formats.push_back({exp_len, man_len});
  }
  return formats;
}

// Every value of a format, normalised or not.
std::vector<FPX> EveryValue(Widths widths) {
  std::vector<FPX> values;
  for (int sign = 0; sign <= 1; ++sign) {
    for (int exponent = 0; exponent < 1 << widths.exp_len; ++exponent) {
      for (uint32_t mantissa = 0; mantissa < 1u << widths.man_len; ++mantissa) {
        values.push_back(MakeFpx(widths, mantissa, exponent, sign));
      }
    }
  }
  return values;
}

FPX FromFloat(float value, int exp_len, int man_len) {
  FPX x = MakeFpx({exp_len, man_len}, 0, 0, 0);
  float32_toX(value, &x);
  return x;
}

// ---- One call against the oracle ---------------------------------------------------------------

::testing::AssertionResult CheckFromFloat(float value, Widths widths) {
  FPX actual = MakeFpx(widths, 0x5eedu, 0x1234, 1);
  reference::Fpx expected = OracleFpx(actual);
  reference::FpxRecord record;
  const Reports reports;
  float32_toX(value, &actual);
  reference::FpxFromFloat(value, &expected, &record);
  if (SameFpx(expected, actual) && reports.SameAs(record, "")) {
    return ::testing::AssertionSuccess();
  }
  const std::string inputs = "float32_toX " + testing::Show(value);
  const auto same = Same(expected, actual, inputs);
  return same ? reports.SameAs(record, inputs) : same;
}

::testing::AssertionResult CheckToFloat(const FPX& x) {
  reference::FpxRecord record;
  const Reports reports;
  const float actual = floatX_to32(x);
  const float expected = reference::FpxToFloat(OracleFpx(x), &record);
  const auto same = testing::Same(expected, actual, "floatX_to32", Show(x));
  return same ? reports.SameAs(record, Show(x)) : same;
}

::testing::AssertionResult CheckResize(const FPX& x, uint16_t exp_len, uint16_t man_len) {
  FPX actual;
  std::memcpy(&actual, &x, sizeof(x));
  reference::Fpx expected = OracleFpx(x);
  reference::FpxRecord record;
  const Reports reports;
  ResizeX(&actual, exp_len, man_len);
  reference::FpxResize(&expected, exp_len, man_len, &record);
  if (SameFpx(expected, actual) && reports.SameAs(record, "")) {
    return ::testing::AssertionSuccess();
  }
  const std::string inputs = "ResizeX " + Show(x) + " to exp_len " + std::to_string(exp_len) +
                             ", man_len " + std::to_string(man_len);
  const auto same = Same(expected, actual, inputs);
  return same ? reports.SameAs(record, inputs) : same;
}

::testing::AssertionResult CheckAlign(const FPX& a, const FPX& b) {
  FPX actual[2];
  std::memcpy(&actual[0], &a, sizeof(a));
  std::memcpy(&actual[1], &b, sizeof(b));
  reference::Fpx expected[2] = {OracleFpx(a), OracleFpx(b)};
  align_floatX(&actual[0], &actual[1]);
  reference::FpxAlign(&expected[0], &expected[1]);
  for (int i = 0; i < 2; ++i) {
    if (SameFpx(expected[i], actual[i])) continue;
    return Same(expected[i], actual[i],
                "align_floatX " + Show(a) + ", " + Show(b) + ": operand " + std::to_string(i));
  }
  return ::testing::AssertionSuccess();
}

// `out` is what the result's storage holds before the call.
::testing::AssertionResult CheckBinary(bool multiply, const FPX& a, const FPX& b, const FPX& out) {
  FPX actual;
  std::memcpy(&actual, &out, sizeof(out));
  reference::Fpx expected = OracleFpx(out);
  reference::FpxRecord record;
  const Reports reports;
  (multiply ? mul_floatX : add_sub_floatX)(a, b, &actual);
  (multiply ? reference::FpxMultiply : reference::FpxAdd)(OracleFpx(a), OracleFpx(b), &expected,
                                                          &record);
  if (SameFpx(expected, actual) && record.lines == LoggedLines()) {
    return ::testing::AssertionSuccess();
  }
  const std::string inputs = std::string(multiply ? "mul_floatX " : "add_sub_floatX ") + Show(a) +
                             ", " + Show(b) + " into " + Show(out);
  const auto same = Same(expected, actual, inputs);
  return same ? reports.SameAs(record, inputs) : same;
}

::testing::AssertionResult CheckPair(const FPX& a, const FPX& b, const FPX& out) {
  const auto aligned = CheckAlign(a, b);
  if (!aligned) return aligned;
  const auto sum = CheckBinary(false, a, b, out);
  return sum ? CheckBinary(true, a, b, out) : sum;
}

// ---- Worked examples ---------------------------------------------------------------------------

TEST(HFloat, Layout) {
  EXPECT_EQ(sizeof(FPX), 12u);
  EXPECT_EQ(offsetof(FPX, exp_len), 0u);
  EXPECT_EQ(offsetof(FPX, man_len), 1u);
  EXPECT_EQ(offsetof(FPX, mantissa), 4u);
  EXPECT_EQ(offsetof(FPX, exponent), 8u);
  FPX x;
  std::memset(&x, 0, sizeof(x));
  x.sign = 1;
  EXPECT_EQ(LastWord(&x), 0x10000u);
}

TEST(HFloat, Bias) {
  LoggedLines().clear();
  EXPECT_EQ(get_bias(4), 11);
  EXPECT_EQ(get_bias(3), 3);
  EXPECT_EQ(LoggedLines(), "");
  for (const int exp_len : {0, 1, 2, 5, 8, -1, 255, INT32_MAX, INT32_MIN}) {
    LoggedLines().clear();
    EXPECT_EQ(get_bias(exp_len), 0);
    EXPECT_EQ(LoggedLines(), "Wrong Explen\n");
  }
}

void ExpectFields(const FPX& x, uint32_t mantissa, int exponent, int sign, float value) {
  EXPECT_EQ(x.mantissa, mantissa);
  EXPECT_EQ(x.exponent, exponent);
  EXPECT_EQ(x.sign, static_cast<unsigned>(sign));
  EXPECT_TRUE(testing::Same(value, floatX_to32(x), "floatX_to32", Show(x)));
}

TEST(HFloat, FromFloatExamples) {
  int32_t overflows = g_32toX_of;
  int32_t underflows = g_32toX_uf;
  ExpectFields(FromFloat(1.0f, 4, 4), 8, 12, 0, 1.0f);
  ExpectFields(FromFloat(3.0f, 4, 4), 12, 13, 0, 3.0f);
  ExpectFields(FromFloat(-3.0f, 4, 4), 12, 13, 1, -3.0f);
  ExpectFields(FromFloat(1.75f, 4, 2), 3, 12, 0, 1.5f);  // a tie
  ExpectFields(FromFloat(std::nextafter(1.75f, 2.0f), 4, 2), 2, 13, 0, 2.0f);
  ExpectFields(FromFloat(0x1p-5f, 3, 4), 8, 0, 0, 0x1p-4f);
  ExpectFields(FromFloat(0x1.fffffep-5f, 3, 4), 8, 0, 0, 0x1p-4f);
  ExpectFields(FromFloat(-0.0f, 4, 4), 0, 0, 1, 0.0f);
  EXPECT_EQ(g_32toX_of, overflows);
  EXPECT_EQ(g_32toX_uf, underflows);

  ExpectFields(FromFloat(0x1p-6f, 3, 4), 0, 0, 0, 0.0f);
  ExpectFields(FromFloat(-1e-40f, 4, 4), 0, 0, 1, 0.0f);
  EXPECT_EQ(g_32toX_uf, underflows + 2);

  ExpectFields(FromFloat(16.0f, 4, 4), 15, 15, 0, 15.0f);
  const float infinity = std::numeric_limits<float>::infinity();
  ExpectFields(FromFloat(-infinity, 4, 4), 15, 15, 1, -15.0f);
  ExpectFields(FromFloat(std::numeric_limits<float>::quiet_NaN(), 4, 4), 15, 15, 0, 15.0f);
  EXPECT_EQ(g_32toX_of, overflows + 3);
  // A carry at the top exponent wraps the exponent to 0 and counts nothing.
  ExpectFields(FromFloat(15.9f, 4, 4), 8, 0, 0, 0x1p-12f);
  EXPECT_EQ(g_32toX_of, overflows + 3);
}

TEST(HFloat, ResizeExamples) {
  const auto resized = [](FPX x, int exp_len, int man_len) {
    ResizeX(&x, static_cast<uint16_t>(exp_len), static_cast<uint16_t>(man_len));
    return x;
  };
  const Widths wide = {4, 8};
  ExpectFields(resized(MakeFpx(wide, 0b10010111, 12, 0), 4, 4), 0b1001, 12, 0, 1.125f);
  ExpectFields(resized(MakeFpx(wide, 0b10011000, 12, 0), 4, 4), 0b1001, 12, 0, 1.125f);  // a tie
  ExpectFields(resized(MakeFpx(wide, 0b10011001, 12, 0), 4, 4), 0b1010, 12, 0, 1.25f);
  ExpectFields(resized(MakeFpx(wide, 0b11111001, 12, 1), 4, 4), 0b1000, 13, 1, -2.0f);
  // Widening loses the mantissa.
  ExpectFields(resized(MakeFpx({4, 4}, 0b1011, 12, 0), 4, 8), 0, 12, 0, 0.0f);
  // Both underflows count; the octave below the range gives the smallest magnitude.
  const int32_t underflows = g_resizeX_uf;
  const int32_t overflows = g_resizeX_of;
  ExpectFields(resized(MakeFpx({4, 4}, 0b1111, 7, 0), 3, 4), 0b1000, 0, 0, 0x1p-4f);
  ExpectFields(resized(MakeFpx({4, 4}, 0b1111, 6, 0), 3, 4), 0, 0, 0, 0.0f);
  EXPECT_EQ(g_resizeX_uf, underflows + 2);
  // Four exponent bits end at 2^4, three at 2^4 too: nothing overflows but a field that is wider.
  ExpectFields(resized(MakeFpx({4, 4}, 0b1000, 16, 0), 3, 4), 0b1111, 7, 0, 15.0f);
  EXPECT_EQ(g_resizeX_of, overflows + 1);
}

TEST(HFloat, AddExamples) {
  const auto add = [](float a, float b) {
    FPX out = MakeFpx({4, 4}, 5, 77, 0);
    add_sub_floatX(FromFloat(a, 4, 4), FromFloat(b, 4, 4), &out);
    return out;
  };
  ExpectFields(add(1.0f, 3.0f), 8, 14, 0, 4.0f);
  ExpectFields(add(1.5f, -1.5f), 0, 0, 1, 0.0f);  // the second operand's sign
  ExpectFields(add(-1.5f, 1.5f), 0, 0, 0, 0.0f);
  ExpectFields(add(3.0f, -1.0f), 8, 13, 0, 2.0f);
  ExpectFields(add(8.0f, 8.0f), 8, 16, 0, 16.0f);  // beyond the range, unchecked
  // The exponent is too small to normalise: mantissa and exponent stay as they were.
  FPX out = MakeFpx({4, 4}, 0b1010, 99, 0);
  add_sub_floatX(MakeFpx({4, 4}, 0b1000, 0, 0), MakeFpx({4, 4}, 0b1001, 0, 1), &out);
  EXPECT_EQ(out.mantissa, 0b1010u);
  EXPECT_EQ(out.exponent, 99);
  EXPECT_EQ(out.sign, 1u);
  // A difference above its width is shifted right.
  add_sub_floatX(MakeFpx({4, 4}, 0b110100, 5, 0), MakeFpx({4, 4}, 0b1, 5, 1), &out);
  EXPECT_EQ(out.mantissa, 0b1100u);
  EXPECT_EQ(out.exponent, 7);
}

TEST(HFloat, MultiplyExamples) {
  FPX out = MakeFpx({4, 4}, 0, 0, 1);
  const FPX half = FromFloat(0.5f, 4, 4);
  mul_floatX(half, half, &out);
  ExpectFields(out, 8, 10, 0, 0.25f);
  mul_floatX(FromFloat(-3.0f, 4, 4), FromFloat(1.5f, 4, 4), &out);
  ExpectFields(out, 9, 14, 1, -4.5f);
  // Not normalised: zero, the sign as it was.
  mul_floatX(MakeFpx({4, 4}, 0b0111, 9, 0), half, &out);
  ExpectFields(out, 0, 0, 1, 0.0f);
}

TEST(HFloat, ResultsThatAreNotNormalisedAreLogged) {
  LoggedLines().clear();
  FPX out = MakeFpx({4, 4}, 0, 0, 0);
  add_sub_floatX(MakeFpx({4, 4}, 0b0010, 12, 0), MakeFpx({4, 4}, 0b0001, 12, 0), &out);
  EXPECT_EQ(LoggedLines(), "Possible bug in addition/subtraction: 0 1100 0011\n");
}

TEST(HFloat, Counters) {
  g_32toX_of = INT32_MAX;
  FromFloat(1e9f, 4, 4);
  EXPECT_EQ(g_32toX_of, INT32_MIN);
  g_resizeX_uf = -1;
  FPX x = MakeFpx({4, 4}, 8, 0, 0);
  ResizeX(&x, 3, 4);
  EXPECT_EQ(g_resizeX_uf, 0);
}

// ---- Every value -------------------------------------------------------------------------------

TEST(HFloat, EveryValueToFloat) {
  for (const Widths widths : Formats()) {
    for (const FPX& x : EveryValue(widths)) ASSERT_TRUE(CheckToFloat(x));
    // Sums leave the range of the exponent.
    for (const int exponent : {16, 17, 31, 100, 138, 139, 140, 1035, 1036, 32768, 65535}) {
      for (uint32_t mantissa = 0; mantissa < 1u << widths.man_len; ++mantissa) {
        ASSERT_TRUE(CheckToFloat(MakeFpx(widths, mantissa, exponent, mantissa & 1)));
      }
    }
  }
}

TEST(HFloat, EveryValueToEveryFormat) {
  for (const Widths from : Formats()) {
    for (const FPX& x : EveryValue(from)) {
      for (const Widths to : Formats()) {
        ASSERT_TRUE(
            CheckResize(x, static_cast<uint16_t>(to.exp_len), static_cast<uint16_t>(to.man_len)));
      }
    }
  }
}

// Under the sanitizers every first value still meets a residue of the second ones, another each.
void CheckEveryPair(Widths widths) {
  const std::vector<FPX> values = EveryValue(widths);
  const auto step = static_cast<size_t>(testing::Step(61));
  // What is left as it was: a mantissa that is normalised, or is not.
  const FPX outs[2] = {MakeFpx(widths, 1u << (widths.man_len - 1), 0x1234, 1),
                       MakeFpx(widths, 1, 0x4321, 0)};
  for (size_t i = 0; i < values.size(); ++i) {
    for (size_t j = i % step; j < values.size(); j += step) {
      ASSERT_TRUE(CheckPair(values[i], values[j], outs[(i + j) % 2]));
    }
  }
}

TEST(HFloat, EveryPairOfUpToSevenMantissaBits) {
  for (const Widths widths : Formats()) {
    if (widths.man_len < 8) CheckEveryPair(widths);
  }
  Ran(Path::kFpxPairs);
}

TEST(HFloat, EveryPairOfEightMantissaBits) {
  CheckEveryPair({3, 8});
  CheckEveryPair({4, 8});
}

// Every prefix of 16 bits, its neighbours, and the middle to the next one with its neighbours:
// every tie of up to 8 mantissa bits.
TEST(HFloat, EveryPrefixFromFloat) {
  const auto step = static_cast<uint32_t>(testing::Step(61));
  for (const Widths widths : Formats()) {
    for (uint32_t prefix = 0; prefix < 0x10000u; prefix += step) {
      for (const uint32_t middle : {0u, 0x8000u}) {
        for (const uint32_t delta : {0xffffffffu, 0u, 1u}) {
          ASSERT_TRUE(CheckFromFloat(FloatOf((prefix << 16) + middle + delta), widths));
        }
      }
    }
  }
}

// Up to 24 bits: the ties of each width around random values of the range and its ends.
TEST(HFloat, EveryWidthFromFloat) {
  Random random(0xf107);
  for (const int exp_len : {3, 4}) {
    for (int man_len = 1; man_len <= 24; ++man_len) {
      const uint32_t tie = 1u << (23 - std::min(man_len, 23));
      for (uint32_t exponent = 0; exponent <= 255; ++exponent) {
        for (int i = 0; i < 12 / testing::Step(5); ++i) {
          const uint32_t kept = random.Bits() & ~(2 * tie - 1);
          const uint32_t fraction = (random.Flag() ? kept : 0x7fffffu & ~(2 * tie - 1)) + tie;
          for (const uint32_t delta : {0xffffffffu, 0u, 1u}) {
            const uint32_t bits = (fraction + delta) & 0x807fffffu;
            ASSERT_TRUE(CheckFromFloat(FloatOf(bits | exponent << 23), {exp_len, man_len}));
          }
        }
      }
    }
  }
}

// ---- Other widths ------------------------------------------------------------------------------

// Values of a width: any words, its smallest, largest and normalised mantissas.
FPX DrawFpx(Random* random, Widths widths) {
  const int shift = random->Between(0, 31);
  uint32_t mantissa = random->Bits() >> shift;
  if (random->Flag()) mantissa = (1u << (widths.man_len & 31)) - static_cast<uint32_t>(shift % 3);
  if (random->Flag()) mantissa |= 1u << ((widths.man_len - 1) & 31);
  const int exponent = random->Flag() ? random->Between(0, 20)
                                      : static_cast<int>(random->Bits() >> random->Between(16, 31));
  return MakeFpx(widths, random->Between(0, 9) == 0 ? 0 : mantissa,
                 random->Between(0, 9) == 0 ? 0 : exponent, random->Between(0, 1));
}

Widths DrawWidths(Random* random) {
  static const std::vector<int> exponents = {0, 1, 2, 3, 4, 5, 8, 11, 16, 31, 32, 33, 64, 255};
  static const std::vector<int> mantissas = {0,  25, 26, 27, 28, 29, 30, 31,  32,  33, 34,
                                             35, 48, 63, 64, 65, 96, 97, 128, 254, 255};
  return {random->Flag() ? random->Between(3, 4) : random->Pick(exponents),
          random->Flag() ? random->Between(1, 24) : random->Pick(mantissas)};
}

TEST(HFloat, OtherWidths) {
  Random random(0x71d7);
  const std::vector<float> floats = testing::FloatBoundaries();
  for (int round = 0; round < 200000 / testing::Step(20); ++round) {
    const Widths widths = DrawWidths(&random);
    const FPX a = DrawFpx(&random, widths);
    // Now and then the three differ.
    const bool alike = random.Between(0, 3) != 0;
    const FPX b = DrawFpx(&random, alike ? widths : DrawWidths(&random));
    const FPX out = DrawFpx(&random, random.Between(0, 3) != 0 ? widths : DrawWidths(&random));
    ASSERT_TRUE(CheckToFloat(a));
    ASSERT_TRUE(CheckPair(a, b, out));
    const Widths to = DrawWidths(&random);
    ASSERT_TRUE(
        CheckResize(a, static_cast<uint16_t>(to.exp_len), static_cast<uint16_t>(to.man_len)));
    // All 16 bits of the new widths count.
    ASSERT_TRUE(CheckResize(a, static_cast<uint16_t>(random.Bits()),
                            static_cast<uint16_t>(random.Bits() >> random.Between(16, 31))));
    const bool boundary = random.Flag();
    const float value = boundary ? random.Pick(floats) : FloatOf(random.Bits());
    ASSERT_TRUE(CheckFromFloat(value, widths));
  }
  Ran(Path::kFpxOtherWidths);
}

// Operands in place of the result are copies.
TEST(HFloat, ResultInPlaceOfAnOperand) {
  for (const FPX& a : EveryValue({4, 3})) {
    for (const FPX& b : EveryValue({4, 3})) {
      FPX sum = a;
      add_sub_floatX(sum, b, &sum);
      reference::Fpx expected = OracleFpx(a);
      reference::FpxAdd(OracleFpx(a), OracleFpx(b), &expected, nullptr);
      ASSERT_EQ(sum.mantissa, expected.mantissa);
      ASSERT_EQ(sum.exponent, expected.exponent);
      ASSERT_EQ(sum.sign, expected.sign);
    }
  }
}

// ---- Text --------------------------------------------------------------------------------------

TEST(HFloat, BinaryDigits) {
  char text[100];
  for (const int32_t value : testing::Int32Boundaries()) {
    for (const size_t n : {1u, 2u, 8u, 31u, 32u, 33u, 64u, 99u}) {
      std::memset(text, '#', sizeof(text));
      ASSERT_EQ(int2bin(text, value, n), text);
      ASSERT_EQ(std::string(text, n), reference::BinaryDigits(value, static_cast<int64_t>(n)));
      ASSERT_EQ(text[n], '#');  // no terminator
    }
  }
  std::memset(text, '#', sizeof(text));
  EXPECT_EQ(int2bin(text, 5, 0), text);
  EXPECT_EQ(text[0], '#');
  EXPECT_EQ(int2bin(nullptr, 5, 8), nullptr);
  EXPECT_EQ(int2bin(nullptr, 5, 0), nullptr);
}

std::string BitString(const FPX& x) {
  char* text = FPX_to_BitString(&x);
  std::string copy = text;
  std::free(text);
  return copy;
}

TEST(HFloat, BitStrings) {
  EXPECT_EQ(BitString(FromFloat(1.0f, 4, 4)), "0 1100 1000");
  EXPECT_EQ(BitString(FromFloat(-3.0f, 3, 5)), "1 101 11000");
  EXPECT_EQ(BitString(MakeFpx({0, 0}, 5, 5, 1)), "1  ");
  Random random(0xb175);
  for (int round = 0; round < 20000; ++round) {
    const FPX x = DrawFpx(&random, DrawWidths(&random));
    ASSERT_EQ(BitString(x), reference::FpxBits(OracleFpx(x))) << Show(x);
  }
}

// ---- Arrays ------------------------------------------------------------------------------------

TEST(HFloat, Arrays) {
  const std::vector<float> floats = testing::FloatBoundaries();
  const int n = static_cast<int>(floats.size());
  for (const Widths widths : {Widths{4, 8}, Widths{3, 1}, Widths{4, 24}, Widths{5, 30}}) {
    const auto exp_len = static_cast<uint8_t>(widths.exp_len);
    const auto man_len = static_cast<uint8_t>(widths.man_len);
    std::vector<reference::Fpx> expected(floats.size());
    reference::FpxRecord record;
    const Reports reports;
    FPX* array = CreateFPXArray_fromFloat32(floats.data(), n, exp_len, man_len);
    reference::FpxFromFloats(floats.data(), n, exp_len, man_len, expected.data(), &record);
    const auto same = [&](const char* what) {
      for (int i = 0; i < n; ++i) {
        // The bits beside the sign are new storage's own.
        reference::Fpx& x = expected[static_cast<size_t>(i)];
        const uint32_t word = (LastWord(&array[i]) & ~0x1ffffu) | (LastWord(&x) & 0x1ffffu);
        std::memcpy(reinterpret_cast<char*>(&x) + 8, &word, sizeof(word));
        ASSERT_TRUE(Same(x, array[i], what));
      }
    };
    same("CreateFPXArray_fromFloat32");
    EXPECT_EQ(ReplaceFPXArray_fromFPXArray(array, n, 3, 4), array);
    reference::FpxResizeAll(expected.data(), n, 3, 4, &record);
    same("ReplaceFPXArray_fromFPXArray");
    std::vector<float> out(floats.size());
    std::vector<float> expected_out(floats.size());
    OverrideFloatArray_fromFPX(array, out.data(), n);
    reference::FpxToFloats(expected.data(), n, expected_out.data(), &record);
    EXPECT_TRUE(testing::SameArrays(expected_out.data(), out.data(), n,
                                    "OverrideFloatArray_fromFPX",
                                    [&](int64_t i) { return Describe("i", i); }));
    EXPECT_TRUE(reports.SameAs(record, "arrays"));
  }
}

TEST(HFloat, ZeroArrays) {
  FPX* array = CreateFPXArray_initZero(5, 4, 6);
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(array[i].exp_len, 4);
    EXPECT_EQ(array[i].man_len, 6);
    EXPECT_EQ(array[i].mantissa, 0u);
    EXPECT_EQ(LastWord(&array[i]) & 0x1ffffu, 0u);
  }
  DeleteInputFPX(array);
  // The bias is asked for, zero or not.
  LoggedLines().clear();
  DeleteInputFPX(CreateFPXArray_initZero(2, 5, 6));
  EXPECT_EQ(LoggedLines(), "Wrong Explen\nWrong Explen\n");
}

// The bits that no operation touches hold nothing that the heap held before.
TEST(HFloat, ArraysShowNoStaleMemory) {
  const std::vector<float> values(50, -1.5f);
  for (const int n : {1, 2, 3, 5, 50}) {
    void* block = std::malloc(sizeof(FPX) * static_cast<size_t>(n));
    std::memset(block, 0xab, sizeof(FPX) * static_cast<size_t>(n));
    volatile char* kept = static_cast<char*>(block);  // the writes count
    ASSERT_EQ(kept[0], static_cast<char>(0xab));
    std::free(block);
    FPX* array = CreateFPXArray_fromFloat32(values.data(), n, 4, 4);
    for (int i = 0; i < n; ++i) EXPECT_EQ(LastWord(&array[i]) >> 16, 1u) << i << " of " << n;
    DeleteInputFPX(array);
  }
}

TEST(HFloat, EmptyArrays) {
  const float value = 1.0f;
  float out = 7.0f;
  for (const int n : {0, -1, INT32_MIN}) {
    FPX* array = CreateFPXArray_fromFloat32(&value, n, 4, 4);
    ASSERT_NE(array, nullptr);
    EXPECT_EQ(ReplaceFPXArray_fromFPXArray(array, n, 3, 3), array);
    OverrideFloatArray_fromFPX(array, &out, n);
    FPX* zeros = CreateFPXArray_initZero(n, 4, 4);
    ASSERT_NE(zeros, nullptr);
    DeleteInputFPX(zeros);
  }
  EXPECT_EQ(out, 7.0f);
  DeleteInputFPX(nullptr);
  OverrideFloatArray_fromFPX(nullptr, &out, 0);
}

// What a call gives where the process may have 1 GiB.
template <typename Call>
void ExitWithLittleMemory(Call call) {
  const rlimit limit = {rlim_t{1} << 30, rlim_t{1} << 30};
  if (setrlimit(RLIMIT_AS, &limit) != 0) std::exit(2);
  try {
    call();
  } catch (const std::bad_array_new_length&) {
    std::exit(0);
  } catch (...) {
    std::exit(3);
  }
  std::exit(4);
}

TEST(HFloatDeathTest, ArraysTooLong) {
  if (testing::kSanitized) GTEST_SKIP() << "the sanitizers need the address space";
  const float value = 1.0f;
  EXPECT_EXIT(ExitWithLittleMemory([] { CreateFPXArray_initZero(INT32_MAX, 4, 4); }),
              ::testing::ExitedWithCode(0), "");
  EXPECT_EXIT(ExitWithLittleMemory([&] { CreateFPXArray_fromFloat32(&value, INT32_MAX, 4, 4); }),
              ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace bitfold
