// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Single precision in whole numbers: floats are taken apart into digits and powers of two, results
// are exact until they are rounded once, by these functions. It includes nothing of the library and
// forms no sum, product or quotient of floats, so that what it is compared with shares nothing with
// it.

#ifndef BITFOLD_TESTS_PROOFS_ENUMERATE_EXACT_H_
#define BITFOLD_TESTS_PROOFS_ENUMERATE_EXACT_H_

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace bitfold::enumeration {

inline constexpr uint32_t kSign = 0x80000000;
inline constexpr uint32_t kInfinity = 0x7f800000;
inline constexpr uint32_t kNan = 0x7fc00000;

inline uint32_t Bits(float x) {
  uint32_t bits;
  std::memcpy(&bits, &x, sizeof bits);
  return bits;
}

inline float Float(uint32_t bits) {
  float x;
  std::memcpy(&x, &bits, sizeof x);
  return x;
}

inline bool IsNan(uint32_t bits) { return (bits & ~kSign) > kInfinity; }
inline bool IsInfinite(uint32_t bits) { return (bits & ~kSign) == kInfinity; }
inline bool IsFinite(uint32_t bits) { return (bits & ~kSign) < kInfinity; }

// The same bits for every NaN.
inline uint32_t Canonical(uint32_t bits) { return IsNan(bits) ? kNan : bits; }

// How many binary digits x has; 0 for 0.
inline int Length(uint64_t x) { return x == 0 ? 0 : 64 - __builtin_clzll(x); }

// The number digits * 2^exponent with a sign, of which `has_more` says that it is not all: what is
// left out is less than 2^exponent.
struct Exact {
  bool is_negative;
  uint64_t digits;
  int exponent;
  bool has_more = false;
};

// Requires a finite number.
inline Exact Decoded(uint32_t bits) {
  const int field = static_cast<int>(bits >> 23 & 0xff);
  const uint32_t fraction = bits & 0x7fffff;
  const bool is_negative = (bits & kSign) != 0;
  return field == 0 ? Exact{is_negative, fraction, -149}
                    : Exact{is_negative, fraction | 0x800000, field - 150};
}

// |x| truncated to a whole number; 2^64 - 1 from 2^63 on. Requires digits below 2^24.
inline uint64_t Magnitude(const Exact& x) {
  if (x.exponent < 0) return x.exponent < -63 ? 0 : x.digits >> -x.exponent;
  return x.exponent + Length(x.digits) > 63 ? UINT64_MAX : x.digits << x.exponent;
}

// floor(x * 2^power). Requires digits below 2^24 and a result below 2^63.
inline int64_t FloorOfScaled(const Exact& x, int power) {
  const int shift = x.exponent + power;
  const auto magnitude = static_cast<int64_t>(x.digits);
  const int64_t value = x.is_negative ? -magnitude : magnitude;
  return shift >= 0 ? value * (int64_t{1} << shift) : value >> std::min(-shift, 63);
}

// x / 2^drop, rounded, halves to even. Requires drop >= 0, digits below 2^63.
inline uint64_t HalvesToEven(uint64_t digits, int drop, bool has_more) {
  if (drop == 0) return digits;
  if (drop > 63) return 0;
  const uint64_t kept = digits >> drop;
  const uint64_t rest = digits & ((uint64_t{1} << drop) - 1);
  const uint64_t half = uint64_t{1} << (drop - 1);
  const bool is_above = rest > half || (rest == half && has_more);
  const bool is_tie = rest == half && !has_more;
  return kept + (is_above || (is_tie && (kept & 1) != 0) ? 1 : 0);
}

// The same of a number of either sign.
inline int64_t HalvesToEven(int64_t x, int drop) {
  const int64_t rounded = static_cast<int64_t>(
      HalvesToEven(static_cast<uint64_t>(x < 0 ? -x : x), drop, /*has_more=*/false));
  return x < 0 ? -rounded : rounded;
}

// The nearest single-precision number, ties to even. Requires digits below 2^63, and of at least 26
// digits where there is more.
inline uint32_t Nearest(const Exact& x) {
  const uint32_t sign = x.is_negative ? kSign : 0;
  if (x.digits == 0) return sign;
  const int last = std::max(x.exponent + Length(x.digits) - 24, -149);  // the exponent of its last
  const int drop = last - x.exponent;
  const uint64_t kept =
      drop >= 0 ? HalvesToEven(x.digits, drop, x.has_more) : x.digits << std::min(-drop, 24);
  if (last > 104) return sign | kInfinity;
  // A subnormal one has a field of 0. What rounds up to 2^24 counts up the exponent.
  const uint64_t below = kept < 0x800000 ? 0 : static_cast<uint64_t>(last + 149) << 23;
  return sign | static_cast<uint32_t>(std::min<uint64_t>(kept + below, kInfinity));
}

inline uint32_t Negated(uint32_t bits) { return bits ^ kSign; }

// The single-precision sum of two singles.
inline uint32_t Sum(uint32_t a, uint32_t b) {
  if (IsNan(a) || IsNan(b)) return kNan;
  if (IsInfinite(a) || IsInfinite(b)) {
    if (IsInfinite(a) && IsInfinite(b) && a != b) return kNan;
    return IsInfinite(a) ? a : b;
  }
  Exact large = Decoded(a);
  Exact small = Decoded(b);
  if (large.exponent < small.exponent) std::swap(large, small);
  // A smaller one that lies far below the last digit counts by its sign alone.
  constexpr int kFar = 36;
  const bool is_far = large.exponent - small.exponent > kFar;
  const int exponent = is_far ? large.exponent - kFar : small.exponent;
  const int64_t far_digits = small.digits == 0 ? 0 : 1;
  const auto left = static_cast<int64_t>(large.digits << (large.exponent - exponent));
  const int64_t right = is_far ? far_digits : static_cast<int64_t>(small.digits);
  const int64_t sum = (large.is_negative ? -left : left) + (small.is_negative ? -right : right);
  if (sum == 0) return a & b & kSign;
  return Nearest({sum < 0, static_cast<uint64_t>(sum < 0 ? -sum : sum), exponent});
}

// The single-precision quotient by a divisor, digits * 2^exponent with 1 <= digits < 2^24.
inline uint32_t Quotient(uint32_t bits, const Exact& divisor) {
  const uint32_t sign = (bits & kSign) ^ (divisor.is_negative ? kSign : 0);
  if (IsNan(bits)) return kNan;
  if (IsInfinite(bits)) return sign | kInfinity;
  const Exact x = Decoded(bits);
  const int shift = 62 - Length(x.digits);
  const uint64_t dividend = x.digits << shift;
  const uint64_t quotient = dividend / divisor.digits;
  return Nearest({sign != 0, quotient, x.exponent - shift - divisor.exponent,
                  quotient * divisor.digits != dividend});
}

// The single-precision product with a factor, digits * 2^exponent with 1 <= digits < 2^24.
inline uint32_t Product(uint32_t bits, const Exact& factor) {
  const uint32_t sign = (bits & kSign) ^ (factor.is_negative ? kSign : 0);
  if (IsNan(bits)) return kNan;
  if (IsInfinite(bits)) return sign | kInfinity;
  const Exact x = Decoded(bits);
  return Nearest({sign != 0, x.digits * factor.digits, x.exponent + factor.exponent});
}

// The nearest whole number, halves to even; a zero keeps its sign.
inline uint32_t Whole(uint32_t bits) {
  if (!IsFinite(bits)) return Canonical(bits);
  const Exact x = Decoded(bits);
  if (x.exponent >= 0) return bits;
  return Nearest({x.is_negative, HalvesToEven(x.digits, -x.exponent, false), 0});
}

// Whether a < b; false where one is NaN.
inline bool IsLess(uint32_t a, uint32_t b) {
  if (IsNan(a) || IsNan(b)) return false;
  const auto order = [](uint32_t bits) {
    const auto magnitude = static_cast<int64_t>(bits & ~kSign);
    return (bits & kSign) != 0 ? -magnitude : magnitude;
  };
  return order(a) < order(b);
}

}  // namespace bitfold::enumeration

#endif  // BITFOLD_TESTS_PROOFS_ENUMERATE_EXACT_H_
