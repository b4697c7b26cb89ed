// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Floats that hold whole numbers, for loops that end in some: what becomes one must be a number
// that single precision holds, at most 2^24 in magnitude.

#ifndef BITFOLD_TESTS_PROOFS_WHOLE_FLOAT_H_
#define BITFOLD_TESTS_PROOFS_WHOLE_FLOAT_H_

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <stdexcept>

#include "proofs/word.h"

namespace bitfold::proofs {

class WholeFloat {
 public:
  WholeFloat() = default;
  WholeFloat(float value)
      : value_(static_cast<int64_t>(value)) {}  // NOLINT: as implicit as its own
  template <int kBits, bool kSigned>
  explicit WholeFloat(const Word<kBits, kSigned>& value) : value_(value) {
    Require((value_ <= kMost).term());
    Require((value_ >= -kMost).term());
  }

  explicit operator Int32() const { return value_; }
  const Int64& value() const { return value_; }

  bool operator<(const WholeFloat& other) const { return value_ < other.value_; }
  bool operator!=(const WholeFloat& other) const { return value_ != other.value_; }
  WholeFloat operator-(const WholeFloat& other) const { return WholeFloat(value_ - other.value_); }

 private:
  static constexpr int64_t kMost = int64_t{1} << 24;
  Int64 value_;
};

// In place of the standard library's names.
namespace standard {
using std::numeric_limits;
// Not of whole numbers: no recorded loop takes it.
template <typename To, typename From>
void memcpy(To*, const From*, size_t) {
  throw std::logic_error("the bits of a float");
}
inline WholeFloat fabs(const WholeFloat& x) { return x < WholeFloat() ? WholeFloat() - x : x; }
}  // namespace standard

}  // namespace bitfold::proofs

#endif  // BITFOLD_TESTS_PROOFS_WHOLE_FLOAT_H_
