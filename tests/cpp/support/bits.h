// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Values as bits: how results are compared and shown. There is no tolerance anywhere; any NaN
// equals any other NaN, and -0 differs from +0.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_BITS_H_
#define BITFOLD_TESTS_CPP_SUPPORT_BITS_H_

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <type_traits>

namespace bitfold::testing {

inline uint32_t BitsOf(float x) {
  uint32_t bits;
  std::memcpy(&bits, &x, sizeof(bits));
  return bits;
}

inline uint32_t BitsOf(int32_t x) { return static_cast<uint32_t>(x); }

inline float FloatOf(uint32_t bits) {
  float x;
  std::memcpy(&x, &bits, sizeof(x));
  return x;
}

// The low bits of a sum with their sign, in wide numbers.
inline int32_t LowBits(int64_t sum, int32_t bits) {
  const int64_t period = int64_t{1} << bits;
  const int64_t low = ((sum % period) + period) % period;
  return static_cast<int32_t>(low < period / 2 ? low : low - period);
}

// Decided on the bits, so that no floating-point mode can interfere.
inline bool IsNan(float x) { return (BitsOf(x) & 0x7fffffffu) > 0x7f800000u; }

inline bool SameBits(int32_t a, int32_t b) { return a == b; }

// For these alone: narrower ones convert to int32_t.
template <typename T, std::enable_if_t<std::is_same_v<T, int64_t>, int> = 0>
bool SameBits(T a, T b) {
  return a == b;
}

inline bool SameBits(float a, float b) { return BitsOf(a) == BitsOf(b) || (IsNan(a) && IsNan(b)); }

// "0xc3520000 (-210)"
inline std::string Show(float x) {
  char text[64];
  std::snprintf(text, sizeof(text), "0x%08" PRIx32 " (%.9g)", BitsOf(x), static_cast<double>(x));
  return text;
}

inline std::string Show(int32_t x) {
  char text[64];
  std::snprintf(text, sizeof(text), "0x%08" PRIx32 " (%" PRId32 ")", BitsOf(x), x);
  return text;
}

inline std::string Show(int64_t x) { return std::to_string(x); }
inline std::string Show(bool x) { return x ? "true" : "false"; }

// "a=0x00000001 (1) b=...": the inputs of a case, for its report.
inline std::string Describe() { return ""; }

template <typename T, typename... Rest>
std::string Describe(const char* name, T value, Rest... rest) {
  return std::string(name) + "=" + Show(value) + " " + Describe(rest...);
}

// The sign of a NaN is the processor's and means nothing: its lines are compared without it.
inline std::string WithoutNanSigns(const std::string& text) {
  std::string without;
  size_t from = 0;
  for (size_t at = text.find("-nan"); at != std::string::npos; at = text.find("-nan", from)) {
    without.append(text, from, at - from);
    from = at + 1;
  }
  return without.append(text, from);
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_BITS_H_
