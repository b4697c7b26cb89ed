// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Chains of multiply-adds while they are quiet: no sum prints, wraps or overflows. A step then
// takes few instructions, and one comparison of a magnitude tells that it was quiet. A kernel makes
// some steps this way and, if one of them was not, makes them anew as DeviceDatapath defines them.
// What a quiet step computes are the bits of that definition.
//
// Each class has
//   Enter, Leave   an accumulator as the class keeps it, and back
//   Add            acc plus the scaled product of a and b, and whether the step may not be quiet;
//                  acc is then anything

#ifndef BITFOLD_DEVICE_CHAIN_H_
#define BITFOLD_DEVICE_CHAIN_H_

#include <math.h>

#include <cstdint>

#include "bitfold/device_datapath.h"
#include "bitfold/device_half.h"
#include "bitfold/host_device.h"
#include "bitfold/int32_arithmetic.h"

namespace bitfold {

// ---- Rule S2 ahead of its rounding -------------------------------------------------------------

// Of a mult_shift of 0.
struct NoDivision {
  static constexpr bool kDivides = false;
  int32_t mult_shift = 0;
  BITFOLD_HOST_DEVICE explicit NoDivision(int32_t) {}
  BITFOLD_HOST_DEVICE float operator()(float x) const { return x; }
};

// A power of two of either sign: its reciprocal is exact, so product and quotient round alike.
struct DivisionByPower {
  static constexpr bool kDivides = true;
  int32_t mult_shift;
  float reciprocal;
  BITFOLD_HOST_DEVICE explicit DivisionByPower(int32_t in_mult_shift)
      : mult_shift(in_mult_shift), reciprocal(1.0f / static_cast<float>(in_mult_shift)) {}
  BITFOLD_HOST_DEVICE float operator()(float x) const { return x * reciprocal; }

  BITFOLD_HOST_DEVICE static bool Divides(int32_t shift) {
    const int32_t magnitude = shift < 0 ? -shift : shift;
    return magnitude != 0 && (magnitude & (magnitude - 1)) == 0;
  }
};

// What is too small to become anything but a zero is made larger: a GPU divides zeros and subnormal
// numbers, and no others of this size, by a slow function. Zeros lose their sign.
struct DivisionByAny {
  static constexpr bool kDivides = true;
  int32_t mult_shift;
  float divisor;
  BITFOLD_HOST_DEVICE explicit DivisionByAny(int32_t in_mult_shift)
      : mult_shift(in_mult_shift), divisor(static_cast<float>(in_mult_shift)) {}
  BITFOLD_HOST_DEVICE float operator()(float x) const {
    return (fabsf(x) < kRoundsToZero ? kRoundsToZero : x) / divisor;
  }

  // Every other divisor is 3 at least.
  static constexpr float kRoundsToZero = 1.0f;
};

// Up to this magnitude RoundToWhole rounds as rintf does; what is larger, it makes no smaller.
inline constexpr float kLargestRounded = 4194304.0f;

// By one addition: the last bit of 1.5 * 2^23 and of what is near it is worth 1. Zeros lose their
// sign. A GPU has few units for rintf.
BITFOLD_HOST_DEVICE inline float RoundToWhole(float x) { return (x + 12582912.0f) - 12582912.0f; }

// ---- Chains ------------------------------------------------------------------------------------

// Float sums. No addition gives -0 but to a chain at -0, and a chain begins at +0: signs of zeros
// do not matter.
template <typename Division>
class QuietFloatChain {
 public:
  BITFOLD_HOST_DEVICE explicit QuietFloatChain(const DeviceDatapath<float>& datapath)
      : division_(datapath.mult_shift()), bound_(QuietBound(datapath)) {}

  BITFOLD_HOST_DEVICE static float Enter(float acc) { return acc; }
  BITFOLD_HOST_DEVICE static float Leave(float acc) { return acc; }

  BITFOLD_HOST_DEVICE bool Add(float a, float b, float* acc) const {
    float addend = division_(a * b);
    bool may_be_loud = false;
    if constexpr (Division::kDivides) {
      may_be_loud = !(fabsf(addend) <= kLargestRounded);
      addend = RoundToWhole(addend);
    }
    *acc = *acc + addend;
    // NaN neither prints nor wraps.
    return may_be_loud || fabsf(*acc) > bound_;
  }

 private:
  // No sum of at most this magnitude prints or wraps; where there is none, it is below 0.
  BITFOLD_HOST_DEVICE static float QuietBound(const DeviceDatapath<float>& datapath) {
    constexpr float kBelowWarning = 8388606.5f;
    return fminf(kBelowWarning, fminf(datapath.max(), -datapath.min()));
  }

  Division division_;
  float bound_;
};

// Float sums in half precision. The addend and the sum must be inside the format's range, which the
// warning's contains with room for both.
template <typename Division>
class QuietHalfChain {
 public:
  BITFOLD_HOST_DEVICE explicit QuietHalfChain(const DeviceDatapath<float>& datapath)
      : division_(datapath.mult_shift()) {}

  BITFOLD_HOST_DEVICE static float Enter(float acc) { return acc; }
  BITFOLD_HOST_DEVICE static float Leave(float acc) { return acc; }

  BITFOLD_HOST_DEVICE bool Add(float a, float b, float* acc) const {
    const float addend = Addend(a * b);
    const float sum = *acc + Quantise(addend);
    *acc = Quantise(sum);
    return !(fabsf(addend) < kHalfOverflow) || !(fabsf(sum) < kHalfOverflow);
  }

 private:
  // The signs of zeros matter here: a sum that is rounded to -0 stays so until something is added.
  BITFOLD_HOST_DEVICE float Addend(float product) const {
    if constexpr (!Division::kDivides) return product;
    const int32_t sign = (BitsOf(product) ^ division_.mult_shift) & INT32_MIN;
    return FloatOf(BitsOf(RoundToWhole(division_(product))) | sign);
  }

  // Divided products are whole, and so are the sums of a chain of them.
  BITFOLD_HOST_DEVICE static float Quantise(float x) {
    if constexpr (Division::kDivides) return QuantiseHalfOfWholeInRange(x);
    return QuantiseHalfInRange(x);
  }

  Division division_;
};

// Integer sums, kept by how far they are above the least of the range. Where the range has a limit,
// a sum beyond it is further above than the greatest; where none wraps, none is.
template <bool kShifts>
class QuietIntegerChain {
 public:
  BITFOLD_HOST_DEVICE explicit QuietIntegerChain(const DeviceDatapath<int32_t>& datapath)
      : mult_shift_(datapath.mult_shift()),
        min_(datapath.limits().min),
        greatest_(static_cast<uint32_t>(WrapSubtract(datapath.limits().max, min_))) {}

  BITFOLD_HOST_DEVICE int32_t Enter(int32_t acc) const { return WrapSubtract(acc, min_); }
  BITFOLD_HOST_DEVICE int32_t Leave(int32_t acc) const { return WrapAdd(acc, min_); }

  BITFOLD_HOST_DEVICE bool Add(int32_t a, int32_t b, int32_t* acc) const {
    const int32_t product = WrapMultiply(a, b);
    const int32_t addend = kShifts ? ShiftRoundHalfToEven(product, mult_shift_) : product;
    *acc = WrapAdd(*acc, addend);
    return static_cast<uint32_t>(*acc) > greatest_;
  }

 private:
  int32_t mult_shift_;
  int32_t min_;
  uint32_t greatest_;
};

}  // namespace bitfold

#endif  // BITFOLD_DEVICE_CHAIN_H_
