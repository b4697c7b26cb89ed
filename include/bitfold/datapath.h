// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The multiplier, the shifter and the accumulator in a row, as the additions and the convolution
// use them: one object per call, holding what its attributes and scalars select. The two element
// types differ on purpose and have one specialisation each.

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

template <typename T>
class Datapath;

// Integer data: products wrap at 32 bits, the shift rounds half to even, the accumulator wraps
// once per addition. In half-precision mode only an initial value is quantised; the additions stay
// integer. Prints nothing. Requires accumulator_size <= 32.
template <>
class Datapath<int32_t> {
 public:
  BITFOLD_HOST_DEVICE Datapath(int32_t accumulator_size, int32_t mult_shift, bool use_fp16_acc)
      : limits_(accumulator_size),
        accumulator_size_(accumulator_size),
        mult_shift_(mult_shift),
        use_fp16_acc_(use_fp16_acc) {}

  BITFOLD_HOST_DEVICE int32_t InitialValue(int32_t value) const {
    if (!use_fp16_acc_) return value;
    return TruncateToInt32(f32_to_hf16(static_cast<float>(value)));
  }

  BITFOLD_HOST_DEVICE static int32_t Multiply(int32_t a, int32_t b) { return WrapMultiply(a, b); }

  BITFOLD_HOST_DEVICE int32_t ScaleProduct(int32_t product) const {
    return ShiftRoundHalfToEven(product, mult_shift_);
  }

  BITFOLD_HOST_DEVICE int32_t Accumulate(int32_t acc, int32_t addend) const {
    return bitfold::Accumulate(acc, addend, limits_);
  }

  const AccumulatorLimits<int32_t>& limits() const { return limits_; }
  int32_t accumulator_size() const { return accumulator_size_; }
  int32_t mult_shift() const { return mult_shift_; }
  bool use_fp16_acc() const { return use_fp16_acc_; }

 private:
  AccumulatorLimits<int32_t> limits_;
  int32_t accumulator_size_;
  int32_t mult_shift_;
  bool use_fp16_acc_;
};

// Float data: products round to single precision, the shift is a division by its value, every sum
// is checked against the warning range, and the accumulator wraps once or, in half-precision
// mode, is quantised instead. The warning tests the unquantised sum. Requires round-to-nearest and
// no flush to zero.
template <>
class Datapath<float> {
 public:
  BITFOLD_HOST_DEVICE Datapath(int32_t accumulator_size, int32_t mult_shift, bool use_fp16_acc)
      : limits_(accumulator_size),
        accumulator_size_(accumulator_size),
        mult_shift_(mult_shift),
        use_fp16_acc_(use_fp16_acc) {}

  BITFOLD_HOST_DEVICE float InitialValue(float value) const {
    return use_fp16_acc_ ? f32_to_hf16(value) : value;
  }

  BITFOLD_HOST_DEVICE static float Multiply(float a, float b) { return a * b; }

  BITFOLD_HOST_DEVICE float ScaleProduct(float product) const {
    return DivideRoundHalfToEven(product, mult_shift_);
  }

  BITFOLD_HOST_DEVICE float Accumulate(float acc, float addend) const {
    const float sum = acc + addend;
    if (IsOutOfWarningRange(sum)) PrintAccumulatorWarning(sum);
    return use_fp16_acc_ ? AccumulateHalf(acc, addend) : WrapOnce(sum, limits_);
  }

  const AccumulatorLimits<float>& limits() const { return limits_; }
  int32_t accumulator_size() const { return accumulator_size_; }
  int32_t mult_shift() const { return mult_shift_; }
  bool use_fp16_acc() const { return use_fp16_acc_; }

 private:
  AccumulatorLimits<float> limits_;
  int32_t accumulator_size_;
  int32_t mult_shift_;
  bool use_fp16_acc_;
};

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
  BITFOLD_HOST_DEVICE ReciprocalDatapath(int32_t accumulator_size, int32_t mult_shift,
                                         bool use_fp16_acc)
      : Datapath<float>(accumulator_size, mult_shift, use_fp16_acc),
        mult_shift_(mult_shift),
        reciprocal_(ShiftReciprocal(mult_shift)) {}

  BITFOLD_HOST_DEVICE float ScaleProduct(float product) const {
    return MultiplyRoundHalfToEven(product, mult_shift_, reciprocal_);
  }

 private:
  int32_t mult_shift_;
  float reciprocal_;
};

}  // namespace bitfold

#endif  // BITFOLD_DATAPATH_H_
