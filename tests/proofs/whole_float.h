// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Floats that hold whole numbers, for loops that end in some or begin with them: what becomes one
// must be a number of at most 2^32 in magnitude that single precision holds.

#ifndef BITFOLD_TESTS_PROOFS_WHOLE_FLOAT_H_
#define BITFOLD_TESTS_PROOFS_WHOLE_FLOAT_H_

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <stdexcept>

#include "proofs/word_operators.h"

namespace bitfold::proofs {

class WholeFloat {
 public:
  WholeFloat() = default;
  WholeFloat(float value)  // NOLINT: as implicit as its own
      : value_(static_cast<int64_t>(value)) {}
  template <int kBits, bool kSigned>
  WholeFloat(const Word<kBits, kSigned>& value) : value_(value) {  // NOLINT: likewise
    RequireHeld();
  }

  explicit operator Int32() const { return value_; }
  explicit operator int() const { return static_cast<int>(value_.Value()); }
  const Int64& value() const { return value_; }

  bool operator<(const WholeFloat& other) const { return value_ < other.value_; }
  bool operator>(const WholeFloat& other) const { return value_ > other.value_; }
  bool operator>=(const WholeFloat& other) const { return value_ >= other.value_; }
  bool operator!=(const WholeFloat& other) const { return value_ != other.value_; }
  WholeFloat operator+(const WholeFloat& other) const { return value_ + other.value_; }
  WholeFloat operator-(const WholeFloat& other) const { return value_ - other.value_; }
  WholeFloat operator*(const WholeFloat& other) const { return value_ * other.value_; }
  WholeFloat& operator+=(const WholeFloat& other) { return *this = *this + other; }

 private:
  // 24 bits, and so many more as are 0 below them.
  void RequireHeld() const {
    TermPointer held = Truth(false);
    for (int zeros = 0; zeros <= kMostZeros; ++zeros) {
      const int64_t unit = int64_t{1} << zeros;
      const Bool is_multiple = (value_ & (unit - 1)) == 0;
      const Bool is_below = value_ <= kMost * unit;
      const Bool is_above = value_ >= -kMost * unit;
      const TermPointer fits = Apply("and", 0, {is_below.term(), is_above.term()});
      held = Apply("or", 0, {held, Apply("and", 0, {is_multiple.term(), fits})});
    }
    Require(held);
  }

  static constexpr int64_t kMost = int64_t{1} << 24;
  static constexpr int kMostZeros = 8;  // up to 2^32
  Int64 value_;
};

// Of what a whole float holds: the number.
inline Int32 TruncateToInt32(const WholeFloat& x) { return x.value(); }
inline Int64 TruncateToInt64(const WholeFloat& x) { return x.value(); }

// In place of the standard library's names.
namespace standard {
using std::function;
using std::nullopt;
using std::numeric_limits;
using std::optional;

// Choices, not branches: a plan has many of them.
template <typename T>
T Choice(const Bool& condition, const T& a, const T& b) {
  return T(proofs::Apply("ite", T::kWidth, {condition.term(), a.term(), b.term()}));
}
template <typename T>
T max(const T& a, const T& b) {
  return Choice(a < b, b, a);
}
template <typename T>
T min(const T& a, const T& b) {
  return Choice(b < a, b, a);
}
// Not of whole numbers: no recorded loop takes it.
template <typename To, typename From>
void memcpy(To*, const From*, size_t) {
  throw std::logic_error("the bits of a float");
}
inline WholeFloat fabs(const WholeFloat& x) { return x < WholeFloat() ? WholeFloat() - x : x; }
}  // namespace standard

}  // namespace bitfold::proofs

#endif  // BITFOLD_TESTS_PROOFS_WHOLE_FLOAT_H_
