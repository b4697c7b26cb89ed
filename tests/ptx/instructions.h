// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The instructions of a device's assembly text as functions of bits: `mul.lo.s32` is MulLo<S32>.
// Those of single precision are in floats.h, those that meet memory in memory.h.

#ifndef BITFOLD_TESTS_PTX_INSTRUCTIONS_H_
#define BITFOLD_TESTS_PTX_INSTRUCTIONS_H_

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>

#include "floats.h"
#include "types.h"

namespace bitfold::ptx {

// ---- Integers
// ------------------------------------------------------------------------------------

// Modulo 2^width; 64 bits without a sign hold each step of narrower types.
template <typename T>
Bits<T> Add(Bits<T> a, Bits<T> b) {
  return static_cast<Bits<T>>(uint64_t{a} + b);
}
template <typename T>
Bits<T> Sub(Bits<T> a, Bits<T> b) {
  return static_cast<Bits<T>>(uint64_t{a} - b);
}
template <typename T>
Bits<T> MulLo(Bits<T> a, Bits<T> b) {
  return static_cast<Bits<T>>(uint64_t{a} * b);
}
template <typename T>
Bits<T> MadLo(Bits<T> a, Bits<T> b, Bits<T> c) {
  return Add<T>(MulLo<T>(a, b), c);
}

// The whole product of 32 bits by 32.
template <typename T>
uint64_t MulWide(Bits<T> a, Bits<T> b) {
  static_assert(T::kWidth == 32);
  using Wide = std::conditional_t<std::is_signed_v<Value<T>>, int64_t, uint64_t>;
  return static_cast<uint64_t>(Wide{ValueOf<T>(a)} * Wide{ValueOf<T>(b)});
}

template <typename T>
bool Overflows(Bits<T> a, Bits<T> b) {
  if constexpr (std::is_signed_v<Value<T>>) {
    return ValueOf<T>(b) == -1 && ValueOf<T>(a) == std::numeric_limits<Value<T>>::min();
  }
  return false;
}

// Truncated. What a division by 0 gives is left open.
template <typename T>
Bits<T> Div(Bits<T> a, Bits<T> b) {
  if (b == 0) return Poison<T>();
  if (Overflows<T>(a, b)) return a;
  return BitsOf<T>(ValueOf<T>(a) / ValueOf<T>(b));
}
template <typename T>
Bits<T> Rem(Bits<T> a, Bits<T> b) {
  if (b == 0) return Poison<T>();
  if (Overflows<T>(a, b)) return 0;
  return BitsOf<T>(ValueOf<T>(a) % ValueOf<T>(b));
}

// ---- Integers and floats
// -------------------------------------------------------------------------

template <typename T>
Bits<T> Max(Bits<T> a, Bits<T> b) {
  if constexpr (T::kIsFloat) {
    return LargerFloat(a, b);
  } else {
    return BitsOf<T>(std::max(ValueOf<T>(a), ValueOf<T>(b)));
  }
}
template <typename T>
Bits<T> Min(Bits<T> a, Bits<T> b) {
  if constexpr (T::kIsFloat) {
    return SmallerFloat(a, b);
  } else {
    return BitsOf<T>(std::min(ValueOf<T>(a), ValueOf<T>(b)));
  }
}

// Of a float its sign alone.
template <typename T>
Bits<T> Neg(Bits<T> a) {
  if constexpr (T::kIsFloat) return a ^ (Bits<T>{1} << (T::kWidth - 1));
  return Sub<T>(0, a);
}
template <typename T>
Bits<T> Abs(Bits<T> a) {
  if constexpr (T::kIsFloat) return a & ~(Bits<T>{1} << (T::kWidth - 1));
  return ValueOf<T>(a) < 0 ? Neg<T>(a) : a;
}

// ---- Bits
// ----------------------------------------------------------------------------------------

template <typename T>
Bits<T> And(Bits<T> a, Bits<T> b) {
  return static_cast<Bits<T>>(a & b);
}
template <typename T>
Bits<T> Or(Bits<T> a, Bits<T> b) {
  return static_cast<Bits<T>>(a | b);
}
template <typename T>
Bits<T> Xor(Bits<T> a, Bits<T> b) {
  return static_cast<Bits<T>>(a ^ b);
}
template <typename T>
Bits<T> Not(Bits<T> a) {
  if constexpr (std::is_same_v<T, Pred>) {
    return !a;
  } else {
    return static_cast<Bits<T>>(~a);
  }
}
template <typename T>
Bits<T> Mov(Bits<T> a) {
  return a;
}

// Counts above the width are the width.
template <typename T>
Bits<T> Shl(Bits<T> a, uint32_t count) {
  return count >= T::kWidth ? Bits<T>{0} : static_cast<Bits<T>>(uint64_t{a} << count);
}
template <typename T>
Bits<T> Shr(Bits<T> a, uint32_t count) {
  constexpr uint32_t kWidth = T::kWidth;
  const Bits<T> filled = static_cast<Bits<T>>(ValueOf<T>(a) < 0 ? ~Bits<T>{0} : Bits<T>{0});
  if (count == 0) return a;
  if (count >= kWidth) return filled;
  return static_cast<Bits<T>>((a >> count) | Shl<T>(filled, kWidth - count));
}

// ---- Bytes
// ---------------------------------------------------------------------------------------

// The bytes of a and b, which are numbers 0 to 7, chosen by the lowest four digits of `which`. A
// digit from 8 on takes the sign of the byte, eight times.
template <typename T>
Bits<T> Prmt(Bits<T> a, Bits<T> b, uint32_t which) {
  static_assert(T::kWidth == 32);
  const uint64_t both = uint64_t{b} << 32 | a;
  uint32_t chosen = 0;
  for (unsigned i = 0; i < 4; ++i) {
    const uint32_t digit = which >> 4 * i & 15;
    uint32_t byte = static_cast<uint32_t>(both >> 8 * (digit & 7)) & 0xff;
    if (digit >= 8) byte = byte >= 0x80 ? 0xff : 0;
    chosen |= byte << 8 * i;
  }
  return chosen;
}

// Byte i of a word, as the type of the whole word has it: with a sign or without.
template <typename T>
int32_t ByteOf(Bits<T> word, unsigned i) {
  const auto byte = static_cast<uint8_t>(word >> 8 * i);
  return std::is_signed_v<Value<T>> ? static_cast<int8_t>(byte) : byte;
}

// c and four products of bytes, modulo 2^32.
template <typename A, typename B>
uint32_t Dp4a(Bits<A> a, Bits<B> b, uint32_t c) {
  for (unsigned i = 0; i < 4; ++i) c += static_cast<uint32_t>(ByteOf<A>(a, i) * ByteOf<B>(b, i));
  return c;
}

// ---- Selection and comparison
// --------------------------------------------------------------------

template <typename T>
Bits<T> Selp(Bits<T> a, Bits<T> b, bool which) {
  return which ? a : b;
}

// With a NaN all but Ne are false, and those that end with u true.
#define BITFOLD_PTX_COMPARISON(Name, operation)   \
  template <typename T>                           \
  bool Setp##Name(Bits<T> a, Bits<T> b) {         \
    return ValueOf<T>(a) operation ValueOf<T>(b); \
  }                                               \
  template <typename T>                           \
  bool Setp##Name##u(Bits<T> a, Bits<T> b) {      \
    static_assert(T::kIsFloat);                   \
    const Value<T> x = ValueOf<T>(a);             \
    const Value<T> y = ValueOf<T>(b);             \
    return x != x || y != y || x operation y;     \
  }
BITFOLD_PTX_COMPARISON(Eq, ==)
BITFOLD_PTX_COMPARISON(Lt, <)
BITFOLD_PTX_COMPARISON(Le, <=)
BITFOLD_PTX_COMPARISON(Gt, >)
BITFOLD_PTX_COMPARISON(Ge, >=)
#undef BITFOLD_PTX_COMPARISON

template <typename T>
bool SetpNeu(Bits<T> a, Bits<T> b) {
  return ValueOf<T>(a) != ValueOf<T>(b);
}
template <typename T>
bool SetpNe(Bits<T> a, Bits<T> b) {
  return SetpNeu<T>(a, b) && ValueOf<T>(a) == ValueOf<T>(a) && ValueOf<T>(b) == ValueOf<T>(b);
}

// ---- Conversions
// ---------------------------------------------------------------------------------

// A value into a register of as many bits or more; integers keep their sign.
template <typename Register, typename ValueT>
Register Into(ValueT value) {
  if constexpr (std::is_floating_point_v<ValueT>) {
    static_assert(sizeof(Register) == sizeof(ValueT));
    Register bits;
    std::memcpy(&bits, &value, sizeof(bits));
    return bits;
  } else {
    return static_cast<Register>(value);
  }
}

// Between integers, modulo the width; from single to double precision.
template <typename To, typename From>
Value<To> Cvt(Bits<From> a) {
  if constexpr (To::kIsFloat) {
    static_assert(std::is_same_v<To, F64> && std::is_same_v<From, F32>);
    return ValueOf<From>(a);
  } else {
    return ValueOf<To>(static_cast<Bits<To>>(ValueOf<From>(a)));
  }
}

// Integers to the nearest float.
template <typename To, typename From>
Value<To> CvtRn(Bits<From> a) {
  static_assert(std::is_same_v<To, F32> && !From::kIsFloat);
  return static_cast<float>(ValueOf<From>(a));
}
template <typename To, typename From>
Value<To> CvtRz(Bits<From> a) {
  static_assert(std::is_same_v<To, F32> && !From::kIsFloat && From::kWidth <= 32);
  return Rounded(static_cast<double>(ValueOf<From>(a)), Towards::kZero);
}

template <typename To>
Value<To> Clamped(float whole) {
  if (IsNaN(whole)) return 0;
  static_assert(std::is_same_v<To, S32>);
  constexpr float kEnd = 2147483648.0f;
  if (whole >= kEnd) return std::numeric_limits<int32_t>::max();
  if (whole < -kEnd) return std::numeric_limits<int32_t>::min();
  return static_cast<int32_t>(whole);
}

// Floats to whole numbers: floats, or integers that clamp.
template <typename To>
Value<To> Whole(float whole) {
  if constexpr (To::kIsFloat) {
    return ValueOf<F32>(Computed(whole));
  } else {
    return Clamped<To>(whole);
  }
}
template <typename To, typename From>
Value<To> CvtRni(Bits<From> a) {
  return Whole<To>(std::nearbyint(ValueOf<From>(a)));
}
template <typename To, typename From>
Value<To> CvtRzi(Bits<From> a) {
  return Whole<To>(std::trunc(ValueOf<From>(a)));
}
template <typename To, typename From>
Value<To> CvtRmi(Bits<From> a) {
  return Whole<To>(std::floor(ValueOf<From>(a)));
}

}  // namespace bitfold::ptx

#endif  // BITFOLD_TESTS_PTX_INSTRUCTIONS_H_
