// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The multiplier, the shifter and the accumulator in a row, as the additions and the convolution
// use them: one object per call, holding what its attributes and scalars select. The two element
// types differ on purpose.

#ifndef BITFOLD_DATAPATH_H_
#define BITFOLD_DATAPATH_H_

#include <cstdint>

#include "bitfold/accumulator.h"
#include "bitfold/half_accumulator.h"
#include "bitfold/host_device.h"
#include "bitfold/int32_arithmetic.h"
#include "bitfold/product_scaling.h"
#include "bitfold/warning.h"

namespace bitfold {

// The steps that host and device compute alike, for the one element type and for the other.

// The initial value of a half-precision accumulator; an integer's is quantised as a float.
BITFOLD_HOST_DEVICE inline int32_t QuantiseInitialValue(int32_t value) {
  return TruncateToInt32(f32_to_hf16(static_cast<float>(value)));
}
BITFOLD_HOST_DEVICE inline float QuantiseInitialValue(float value) { return f32_to_hf16(value); }

// Products of integers wrap at 32 bits, those of floats round to single precision.
BITFOLD_HOST_DEVICE inline int32_t MultiplyElements(int32_t a, int32_t b) {
  return WrapMultiply(a, b);
}
BITFOLD_HOST_DEVICE inline float MultiplyElements(float a, float b) { return a * b; }

// The shift of an integer is one by bits, that of a float a division by the number of bits.
BITFOLD_HOST_DEVICE inline int32_t ShiftProduct(int32_t product, int32_t mult_shift) {
  return ShiftRoundHalfToEven(product, mult_shift);
}
BITFOLD_HOST_DEVICE inline float ShiftProduct(float product, int32_t mult_shift) {
  return DivideRoundHalfToEven(product, mult_shift);
}

// The multiplier, the shifter and the accumulator's initial value. Its limits, and how a sum that
// leaves them comes back, are those of the derived class.
template <typename T>
class CommonDatapath {
 public:
  BITFOLD_HOST_DEVICE T InitialValue(T value) const {
    return use_fp16_acc_ ? QuantiseInitialValue(value) : value;
  }

  BITFOLD_HOST_DEVICE static T Multiply(T a, T b) { return MultiplyElements(a, b); }

  BITFOLD_HOST_DEVICE T ScaleProduct(T product) const { return ShiftProduct(product, mult_shift_); }

  BITFOLD_HOST_DEVICE int32_t mult_shift() const { return mult_shift_; }
  BITFOLD_HOST_DEVICE bool use_fp16_acc() const { return use_fp16_acc_; }

 protected:
  BITFOLD_HOST_DEVICE CommonDatapath(int32_t mult_shift, bool use_fp16_acc)
      : mult_shift_(mult_shift), use_fp16_acc_(use_fp16_acc) {}

 private:
  int32_t mult_shift_;
  bool use_fp16_acc_;
};

// The host's datapath.
//
// Integer data: the accumulator wraps once per addition. In half-precision mode only an initial
// value is quantised; the additions stay integer. Prints nothing. Requires accumulator_size <= 32.
//
// Float data: every sum is checked against the warning range, and the accumulator wraps once or,
// in half-precision mode, is quantised instead. The warning tests the unquantised sum. Requires
// round-to-nearest and no flush to zero.
template <typename T>
class Datapath : public CommonDatapath<T> {
 public:
  Datapath(int32_t accumulator_size, int32_t mult_shift, bool use_fp16_acc)
      : CommonDatapath<T>(mult_shift, use_fp16_acc),
        limits_(accumulator_size),
        accumulator_size_(accumulator_size) {}

  T Accumulate(T acc, T addend) const;

  const AccumulatorLimits<T>& limits() const { return limits_; }
  int32_t accumulator_size() const { return accumulator_size_; }

 private:
  AccumulatorLimits<T> limits_;
  int32_t accumulator_size_;
};

template <>
inline int32_t Datapath<int32_t>::Accumulate(int32_t acc, int32_t addend) const {
  return bitfold::Accumulate(acc, addend, limits_);
}

template <>
inline float Datapath<float>::Accumulate(float acc, float addend) const {
  const float sum = acc + addend;
  if (IsOutOfWarningRange(sum)) WarnOutOfBounds(sum);
  return use_fp16_acc() ? AccumulateHalf(acc, addend) : WrapOnce(sum, limits_);
}

// The datapath of the matrix product, the resampler and the box decoders. Integer data: the same.
template <typename T>
class ReciprocalDatapath : public Datapath<T> {
 public:
  using Datapath<T>::Datapath;
};

// Float data: products are multiplied by the reciprocal of the shift, not divided by the shift.
template <>
class ReciprocalDatapath<float> : public Datapath<float> {
 public:
  ReciprocalDatapath(int32_t accumulator_size, int32_t mult_shift, bool use_fp16_acc)
      : Datapath<float>(accumulator_size, mult_shift, use_fp16_acc),
        reciprocal_(ShiftReciprocal(mult_shift)) {}

  float ScaleProduct(float product) const {
    return MultiplyRoundHalfToEven(product, mult_shift(), reciprocal_);
  }

 private:
  float reciprocal_;
};

}  // namespace bitfold

#endif  // BITFOLD_DATAPATH_H_
