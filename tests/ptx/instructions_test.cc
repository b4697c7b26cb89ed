// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The arithmetic of floats.h against the machine's own in each of its rounding modes, and what the
// definition of the text says of NaN, zeros, shifts and conversions, as literal values.

#include "instructions.h"

#include <cfenv>
#include <cstdint>
#include <cstdio>
#include <random>
#include <vector>

namespace {

using namespace bitfold::ptx;  // NOLINT(google-build-using-namespace): what is tested

int failures = 0;

void Expect(uint64_t got, uint64_t expected, const char* what, uint32_t a = 0, uint32_t b = 0) {
  if (got == expected) return;
  if (++failures <= 10) {
    std::printf("%s of %#x and %#x: got %#llx, expected %#llx\n", what, a, b,
                static_cast<unsigned long long>(got), static_cast<unsigned long long>(expected));
  }
}

// The machine's, which the compiler must not compute beforehand.
uint32_t ByMachine(char operation, int mode, uint32_t a, uint32_t b) {
  volatile float x = ValueOf<F32>(a);
  volatile float y = ValueOf<F32>(b);
  volatile float result = 0;
  std::fesetround(mode);
  switch (operation) {
    case '+':
      result = x + y;
      break;
    case '-':
      result = x - y;
      break;
    case '*':
      result = x * y;
      break;
    default:
      result = x / y;
  }
  std::fesetround(FE_TONEAREST);
  return Computed(result);
}

void CompareWithMachine(uint32_t a, uint32_t b) {
  Expect(AddRn<F32>(a, b), ByMachine('+', FE_TONEAREST, a, b), "add.rn", a, b);
  Expect(AddRm<F32>(a, b), ByMachine('+', FE_DOWNWARD, a, b), "add.rm", a, b);
  Expect(AddRp<F32>(a, b), ByMachine('+', FE_UPWARD, a, b), "add.rp", a, b);
  Expect(AddRz<F32>(a, b), ByMachine('+', FE_TOWARDZERO, a, b), "add.rz", a, b);
  Expect(SubRn<F32>(a, b), ByMachine('-', FE_TONEAREST, a, b), "sub.rn", a, b);
  Expect(SubRm<F32>(a, b), ByMachine('-', FE_DOWNWARD, a, b), "sub.rm", a, b);
  Expect(MulRm<F32>(a, b), ByMachine('*', FE_DOWNWARD, a, b), "mul.rm", a, b);
  Expect(MulRp<F32>(a, b), ByMachine('*', FE_UPWARD, a, b), "mul.rp", a, b);
  Expect(MulRz<F32>(a, b), ByMachine('*', FE_TOWARDZERO, a, b), "mul.rz", a, b);
  Expect(DivRn<F32>(a, b), ByMachine('/', FE_TONEAREST, a, b), "div.rn", a, b);
  Expect(DivRm<F32>(a, b), ByMachine('/', FE_DOWNWARD, a, b), "div.rm", a, b);
  Expect(DivRp<F32>(a, b), ByMachine('/', FE_UPWARD, a, b), "div.rp", a, b);
  Expect(DivRz<F32>(a, b), ByMachine('/', FE_TOWARDZERO, a, b), "div.rz", a, b);
}

void CompareDirections() {
  std::vector<uint32_t> boundaries;
  for (const uint32_t magnitude :
       {0x00000000u, 0x00000001u, 0x007fffffu, 0x00800000u, 0x33ffffffu, 0x34000001u, 0x3f7fffffu,
        0x3f800000u, 0x3f800001u, 0x4b7fffffu, 0x4b800000u, 0x7f000001u, 0x7f7fffffu, 0x7f800000u,
        0x7fc00001u}) {
    boundaries.push_back(magnitude);
    boundaries.push_back(magnitude | 0x80000000u);
  }
  for (const uint32_t a : boundaries) {
    for (const uint32_t b : boundaries) CompareWithMachine(a, b);
  }
  std::mt19937 random(1);
  for (int i = 0; i < 100000; ++i) {
    const auto a = static_cast<uint32_t>(random());
    auto b = static_cast<uint32_t>(random());
    // Half of them are near in magnitude, so that sums cancel and keep low bits.
    if (i % 2 == 0) b = (a & 0x7f800000u) ^ (b & 0x81ffffffu);
    CompareWithMachine(a, b);
  }
}

void CheckLiterals() {
  constexpr uint32_t kOne = 0x3f800000;
  constexpr uint32_t kMinusZero = 0x80000000;
  constexpr uint32_t kOther = 0xffc12345;  // a NaN
  Expect(AddRn<F32>(kOther, kOne), kNaN, "a NaN that is computed");
  Expect(Max<F32>(kOther, kOne), kOne, "the larger of NaN and 1");
  Expect(Min<F32>(kOne, kOther), kOne, "the smaller of 1 and NaN");
  Expect(Max<F32>(kOther, kOther), kNaN, "the larger of two NaNs");
  Expect(Max<F32>(kMinusZero, 0), 0, "the larger zero");
  Expect(Min<F32>(0, kMinusZero), kMinusZero, "the smaller zero");
  Expect(Abs<F32>(kMinusZero), 0, "the magnitude of -0");
  Expect(Neg<F32>(0), kMinusZero, "0 negated");
  Expect(MulRnFtz<F32>(0x80800000, 0x3f000000), kMinusZero, "a subnormal product, flushed");
  Expect(AddRnFtz<F32>(1, 0x00800000), 0x00800000, "a subnormal addend, flushed");
  // (1 + 2^-12)^2 - 1, of which one rounding keeps 2^-24.
  Expect(FmaRn<F32>(0x3f800800, 0x3f800800, 0xbf800000), 0x3a000400, "fma.rn");
  Expect(SetpLt<F32>(kOther, kOne), 0, "lt with a NaN");
  Expect(SetpLtu<F32>(kOther, kOne), 1, "ltu with a NaN");
  Expect(SetpNe<F32>(kOther, kOne), 0, "ne with a NaN");
  Expect(SetpNeu<F32>(kOther, kOther), 1, "neu with NaNs");
  Expect(SetpEqu<F32>(kOther, kOne), 1, "equ with a NaN");
  Expect(SetpLt<S32>(0xffffffff, 0), 1, "-1 < 0");
  Expect(SetpLt<U32>(0xffffffff, 0), 0, "4294967295 < 0");
}

void CheckIntegers() {
  Expect(Shl<B32>(1, 31), 0x80000000, "shl by 31");
  Expect(Shl<B32>(1, 32), 0, "shl by 32");
  Expect(Shr<U32>(0x80000000, 40), 0, "shr.u32 by 40");
  Expect(Shr<S32>(0x80000000, 40), 0xffffffff, "shr.s32 by 40");
  Expect(Shr<S32>(0x80000000, 4), 0xf8000000, "shr.s32 by 4");
  Expect(Shr<S64>(uint64_t{1} << 63, 63), ~uint64_t{0}, "shr.s64 by 63");
  Expect(MulWide<S32>(0xffffffff, 2), ~uint64_t{1}, "-1 times 2");
  Expect(MulWide<U32>(0xffffffff, 2), 0x1fffffffe, "4294967295 times 2");
  Expect(MadLo<S32>(0x10000, 0x10000, 7), 7, "a product that wraps");
  Expect(Div<S32>(0x80000000, 0xffffffff), 0x80000000, "the quotient that wraps");
  Expect(Rem<S32>(0xfffffff9, 3), 0xffffffff, "-7 rem 3");
  Expect(Abs<S32>(0x80000000), 0x80000000, "the magnitude that wraps");
  Expect(Into<uint32_t>(CvtRzi<S32, F32>(0x4f000000)), 0x7fffffff, "2^31 to an integer");
  Expect(Into<uint32_t>(CvtRzi<S32, F32>(0xff800000)), 0x80000000, "-infinity to an integer");
  Expect(Into<uint32_t>(CvtRzi<S32, F32>(0x7fc00000)), 0, "NaN to an integer");
  Expect(Into<uint32_t>(CvtRzi<S32, F32>(0xbfffffff)), 0xffffffff, "-1.99 to an integer");
  Expect(Into<uint32_t>(CvtRni<F32, F32>(0x40200000)), 0x40000000, "2.5 to nearest");
  Expect(Into<uint32_t>(Cvt<S32, S8>(0x80)), 0xffffff80, "a byte with its sign");
  Expect(Into<uint16_t>(Cvt<S16, S8>(0x80)), 0xff80, "a byte with its sign");
  Expect(Into<uint64_t>(Cvt<U64, U32>(0x80000000)), 0x80000000, "32 bits without a sign");
  Expect(Into<uint32_t>(CvtRn<F32, U32>(0xffffffff)), 0x4f800000, "4294967295 to a float");
}

void CheckBytes() {
  Expect(Prmt<B32>(0x33221100, 0x77665544, 0x5410), 0x55441100, "prmt 0x5410");
  Expect(Prmt<B32>(0x33221100, 0x77665544, 0x0726), 0x00772266, "prmt 0x0726");
  Expect(Prmt<B32>(0x80ff7f00, 0, 0xba98), 0xffff0000, "prmt of signs");
  Expect(Prmt<B32>(0x33221100, 0x77665544, 0xffff3210), 0x33221100, "prmt, other digits");
  Expect(Dp4a<S32, S32>(0x80808080, 0x80808080, 5), 65541, "dp4a.s32.s32");
  Expect(Dp4a<S32, S32>(0x04ff0201, 0xff030201, 0), 0xfffffffe, "1 + 4 - 3 - 4");
  Expect(Dp4a<S32, U32>(0xff000000, 0xff000000, 0), 0xffffff01, "-1 times 255");
  Expect(Dp4a<U32, S32>(0xff000000, 0xff000000, 0), 0xffffff01, "255 times -1");
  Expect(Dp4a<S32, S32>(1, 1, 0x7fffffff), 0x80000000, "a sum that wraps");
}

}  // namespace

int main() {
  CompareDirections();
  CheckLiterals();
  CheckIntegers();
  CheckBytes();
  std::printf("%d failures\n", failures);
  return failures == 0 ? 0 : 1;
}
