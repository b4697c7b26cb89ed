// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Single precision as a device's assembly text defines it: one rounding in the direction that the
// instruction names, subnormals kept unless it says .ftz, and every NaN that is computed the same.
//
// Directions other than to nearest never touch the host's rounding mode, of which the compiler
// assumes that it stays: a result is formed in double precision, rounded to odd, which keeps all
// that a second rounding to 24 bits asks for.

#ifndef BITFOLD_TESTS_PTX_FLOATS_H_
#define BITFOLD_TESTS_PTX_FLOATS_H_

#include <cmath>
#include <cstdint>

#include "types.h"

namespace bitfold::ptx {

inline constexpr uint32_t kNaN = 0x7fffffff;

inline bool IsNaN(float x) { return x != x; }

inline uint32_t Computed(float x) { return IsNaN(x) ? kNaN : BitsOf<F32>(x); }

// Zero of the same sign for a subnormal number.
inline uint32_t Flushed(uint32_t x) { return (x & 0x7f800000U) == 0 ? x & 0x80000000U : x; }

enum class Towards { kZero, kMinusInfinity, kPlusInfinity };

// The float next to a finite or infinite one in magnitude. Requires x != 0 on the way to zero.
inline float NextInMagnitude(float x, bool is_larger) {
  const uint32_t bits = BitsOf<F32>(x);
  return ValueOf<F32>(is_larger ? bits + 1 : bits - 1);
}

// `exact` rounded once, in the direction given.
inline float Rounded(double exact, Towards towards) {
  const auto nearest = static_cast<float>(exact);
  const double back = nearest;
  if (back == exact || exact != exact) return nearest;
  bool wants_smaller_magnitude = true;
  if (towards == Towards::kMinusInfinity) wants_smaller_magnitude = exact > 0;
  if (towards == Towards::kPlusInfinity) wants_smaller_magnitude = exact < 0;
  if (std::fabs(back) > std::fabs(exact)) {
    return wants_smaller_magnitude ? NextInMagnitude(nearest, false) : nearest;
  }
  return wants_smaller_magnitude ? nearest : NextInMagnitude(nearest, true);
}

// `rounded`, which is `error` short of a number, with its last bit set if anything is missing and
// the magnitude not above the number's.
inline double ToOdd(double rounded, double error) {
  if (error == 0 || error != error) return rounded;
  uint64_t bits = BitsOf<F64>(rounded);
  if ((bits & 1) != 0) return rounded;
  // An even neighbour above the number in magnitude gives way to the odd one below it.
  bits = (error < 0) == (rounded < 0) ? bits | 1 : bits - 1;
  return ValueOf<F64>(bits);
}

// A sum of 0 of numbers that are not both 0 is -0 on the way to minus infinity and else +0.
inline float Sum(float a, float b, Towards towards) {
  const double x = a;
  const double y = b;
  const double sum = x + y;
  if (sum == 0 && (a != 0 || b != 0 || std::signbit(a) != std::signbit(b))) {
    return towards == Towards::kMinusInfinity ? -0.0f : 0.0f;
  }
  const double part = sum - x;
  const double error = (x - (sum - part)) + (y - part);
  return Rounded(ToOdd(sum, error), towards);
}

inline float Product(float a, float b, Towards towards) {
  return Rounded(double{a} * double{b}, towards);  // which is exact in double precision
}

inline float Quotient(float a, float b, Towards towards) {
  const double quotient = double{a} / double{b};
  if (b == 0 || std::isinf(b) || !std::isfinite(quotient)) return static_cast<float>(quotient);
  const double error = std::fma(-quotient, double{b}, double{a});
  return Rounded(ToOdd(quotient, b < 0 ? -error : error), towards);
}

template <typename T>
Bits<T> AddRn(Bits<F32> a, Bits<F32> b) {
  return Computed(ValueOf<T>(a) + ValueOf<T>(b));
}
template <typename T>
Bits<T> SubRn(Bits<F32> a, Bits<F32> b) {
  return Computed(ValueOf<T>(a) - ValueOf<T>(b));
}
template <typename T>
Bits<T> MulRn(Bits<F32> a, Bits<F32> b) {
  return Computed(ValueOf<T>(a) * ValueOf<T>(b));
}
template <typename T>
Bits<T> DivRn(Bits<F32> a, Bits<F32> b) {
  return Computed(ValueOf<T>(a) / ValueOf<T>(b));
}
template <typename T>
Bits<T> RcpRn(Bits<F32> a) {
  return Computed(1.0f / ValueOf<T>(a));
}
template <typename T>
Bits<T> FmaRn(Bits<F32> a, Bits<F32> b, Bits<F32> c) {
  return Computed(std::fma(ValueOf<T>(a), ValueOf<T>(b), ValueOf<T>(c)));
}

// The same in the other directions, and with subnormals taken for zeros.
#define BITFOLD_PTX_DIRECTED(Suffix, towards)                         \
  template <typename T>                                               \
  Bits<T> Add##Suffix(Bits<F32> a, Bits<F32> b) {                     \
    return Computed(Sum(ValueOf<T>(a), ValueOf<T>(b), towards));      \
  }                                                                   \
  template <typename T>                                               \
  Bits<T> Sub##Suffix(Bits<F32> a, Bits<F32> b) {                     \
    return Computed(Sum(ValueOf<T>(a), -ValueOf<T>(b), towards));     \
  }                                                                   \
  template <typename T>                                               \
  Bits<T> Mul##Suffix(Bits<F32> a, Bits<F32> b) {                     \
    return Computed(Product(ValueOf<T>(a), ValueOf<T>(b), towards));  \
  }                                                                   \
  template <typename T>                                               \
  Bits<T> Div##Suffix(Bits<F32> a, Bits<F32> b) {                     \
    return Computed(Quotient(ValueOf<T>(a), ValueOf<T>(b), towards)); \
  }                                                                   \
  template <typename T>                                               \
  Bits<T> Rcp##Suffix(Bits<F32> a) {                                  \
    return Computed(Quotient(1.0f, ValueOf<T>(a), towards));          \
  }
BITFOLD_PTX_DIRECTED(Rz, Towards::kZero)
BITFOLD_PTX_DIRECTED(Rm, Towards::kMinusInfinity)
BITFOLD_PTX_DIRECTED(Rp, Towards::kPlusInfinity)
#undef BITFOLD_PTX_DIRECTED

#define BITFOLD_PTX_FLUSHED(Name)                        \
  template <typename T>                                  \
  Bits<T> Name##RnFtz(Bits<F32> a, Bits<F32> b) {        \
    return Flushed(Name##Rn<T>(Flushed(a), Flushed(b))); \
  }
BITFOLD_PTX_FLUSHED(Add)
BITFOLD_PTX_FLUSHED(Sub)
BITFOLD_PTX_FLUSHED(Mul)
BITFOLD_PTX_FLUSHED(Div)
#undef BITFOLD_PTX_FLUSHED

// The larger or smaller number; of a number and a NaN the number; -0 is below +0.
inline uint32_t LargerFloat(uint32_t a, uint32_t b) {
  const float x = ValueOf<F32>(a);
  const float y = ValueOf<F32>(b);
  if (IsNaN(x)) return Computed(y);
  if (IsNaN(y)) return a;
  if (x == y) return a & b;  // zeros: minus only if both are
  return x > y ? a : b;
}
inline uint32_t SmallerFloat(uint32_t a, uint32_t b) {
  const float x = ValueOf<F32>(a);
  const float y = ValueOf<F32>(b);
  if (IsNaN(x)) return Computed(y);
  if (IsNaN(y)) return a;
  if (x == y) return a | b;
  return x < y ? a : b;
}

}  // namespace bitfold::ptx

#endif  // BITFOLD_TESTS_PTX_FLOATS_H_
