// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Chains of multiply-adds while they are quiet: no sum prints, wraps or overflows. A step then
// takes few instructions, and the largest magnitude of several steps tells whether all were quiet.
// If not, a kernel makes them anew as DeviceDatapath defines them. What quiet steps compute are the
// bits of that definition.
//
// Each class has
//   kMayBeBytes  whether it neither scales nor rounds, as device_bytes.h requires
//   State     an accumulator and what tells whether the steps since Enter were quiet
//   Enter     the state of an accumulator
//   Add       a step: adds the scaled product of a and b
//   IsQuiet   whether all steps were; NaN is, which neither prints nor wraps
//   Leave     the accumulator, which is anything if they were not

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
  static constexpr bool kMayBeBytes = !Division::kDivides;
  struct State {
    float acc;
    float largest_addend = 0.0f;
    float largest_sum = 0.0f;
  };

  BITFOLD_HOST_DEVICE explicit QuietFloatChain(const DeviceDatapath<float>& datapath)
      : division_(datapath.mult_shift()), bound_(QuietBound(datapath)) {}

  BITFOLD_HOST_DEVICE static State Enter(float acc) { return {acc}; }

  BITFOLD_HOST_DEVICE void Add(float a, float b, State* state) const {
    float addend = division_(a * b);
    if constexpr (Division::kDivides) {
      state->largest_addend = fmaxf(state->largest_addend, fabsf(addend));
      addend = RoundToWhole(addend);
    }
    state->acc = state->acc + addend;
    state->largest_sum = fmaxf(state->largest_sum, fabsf(state->acc));
  }

  BITFOLD_HOST_DEVICE bool IsQuiet(const State& state) const {
    return state.largest_sum <= bound_ && state.largest_addend <= kLargestRounded;
  }

  BITFOLD_HOST_DEVICE static float Leave(const State& state) { return state.acc; }

 private:
  // No sum of at most this magnitude prints or wraps; where there is none, it is below 0.
  BITFOLD_HOST_DEVICE static float QuietBound(const DeviceDatapath<float>& datapath) {
    constexpr float kBelowWarning = 8388606.5f;
    return fminf(kBelowWarning, fminf(datapath.max(), -datapath.min()));
  }

  Division division_;
  float bound_;
};

// Float sums in half precision. Addends and sums must be inside the format's range, which the
// warning's contains with room for both.
template <typename Division>
class QuietHalfChain {
 public:
  static constexpr bool kMayBeBytes = false;
  struct State {
    float acc;
    float largest = 0.0f;
  };

  BITFOLD_HOST_DEVICE explicit QuietHalfChain(const DeviceDatapath<float>& datapath)
      : division_(datapath.mult_shift()) {}

  BITFOLD_HOST_DEVICE static State Enter(float acc) { return {acc}; }

  BITFOLD_HOST_DEVICE void Add(float a, float b, State* state) const {
    const float addend = Addend(a * b);
    const float sum = state->acc + Quantise(addend);
    state->acc = Quantise(sum);
    state->largest = fmaxf(state->largest, fmaxf(fabsf(addend), fabsf(sum)));
  }

  BITFOLD_HOST_DEVICE static bool IsQuiet(const State& state) {
    return state.largest < kHalfOverflow;
  }

  BITFOLD_HOST_DEVICE static float Leave(const State& state) { return state.acc; }

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

// What the chains of integers share: the scaled product, and sums kept by how far they are above
// the least of the range.
template <bool kShifts>
class IntegerChain {
 public:
  static constexpr bool kMayBeBytes = !kShifts;
  struct State {
    int32_t acc;
    uint32_t largest;
  };

 protected:
  BITFOLD_HOST_DEVICE explicit IntegerChain(const DeviceDatapath<int32_t>& datapath)
      : mult_shift_(datapath.mult_shift()),
        min_(datapath.limits().min),
        greatest_(static_cast<uint32_t>(WrapSubtract(datapath.limits().max, min_))) {}

  BITFOLD_HOST_DEVICE int32_t Addend(int32_t a, int32_t b) const {
    const int32_t product = WrapMultiply(a, b);
    return kShifts ? ShiftRoundHalfToEven(product, mult_shift_) : product;
  }

  BITFOLD_HOST_DEVICE static uint32_t Larger(uint32_t a, uint32_t b) { return a > b ? a : b; }

  int32_t mult_shift_;
  int32_t min_;
  uint32_t greatest_;  // sum of the range; where nothing wraps, all are
};

// Integer sums none of which wraps.
template <bool kShifts>
class QuietIntegerChain : public IntegerChain<kShifts> {
 public:
  using typename IntegerChain<kShifts>::State;

  BITFOLD_HOST_DEVICE explicit QuietIntegerChain(const DeviceDatapath<int32_t>& datapath)
      : IntegerChain<kShifts>(datapath) {}

  BITFOLD_HOST_DEVICE State Enter(int32_t acc) const { return {WrapSubtract(acc, this->min_), 0}; }

  BITFOLD_HOST_DEVICE void Add(int32_t a, int32_t b, State* state) const {
    state->acc = WrapAdd(state->acc, this->Addend(a, b));
    state->largest = this->Larger(state->largest, static_cast<uint32_t>(state->acc));
  }

  BITFOLD_HOST_DEVICE bool IsQuiet(const State& state) const {
    return state.largest <= this->greatest_;
  }

  BITFOLD_HOST_DEVICE int32_t Leave(const State& state) const {
    return WrapAdd(state.acc, this->min_);
  }
};

// Integer sums that may wrap, once a step: theorem 1 of docs/arithmetic.md, which wants a sum in
// range and addends of at most a period, forms them modulo 2^32 and reduces the last one.
template <bool kShifts>
class WrappingIntegerChain : public IntegerChain<kShifts> {
 public:
  using typename IntegerChain<kShifts>::State;

  BITFOLD_HOST_DEVICE explicit WrappingIntegerChain(const DeviceDatapath<int32_t>& datapath)
      : IntegerChain<kShifts>(datapath) {
    // Of 2^31 or more nothing is beyond it. `greatest_` is the period less 1, all bits of it 1.
    if (this->greatest_ >= uint32_t{INT32_MAX}) return;
    period_ = this->greatest_ + 1;
    most_ = 2 * period_;
  }

  BITFOLD_HOST_DEVICE State Enter(int32_t acc) const {
    const int32_t above = WrapSubtract(acc, this->min_);
    const bool is_in_range = static_cast<uint32_t>(above) <= this->greatest_;
    return {above, is_in_range ? 0 : UINT32_MAX};
  }

  BITFOLD_HOST_DEVICE void Add(int32_t a, int32_t b, State* state) const {
    const int32_t addend = this->Addend(a, b);
    state->acc = WrapAdd(state->acc, addend);
    state->largest = this->Larger(state->largest, static_cast<uint32_t>(addend) + period_);
  }

  BITFOLD_HOST_DEVICE bool IsQuiet(const State& state) const { return state.largest <= most_; }

  BITFOLD_HOST_DEVICE int32_t Leave(const State& state) const {
    const uint32_t above = static_cast<uint32_t>(state.acc) & this->greatest_;
    return WrapAdd(static_cast<int32_t>(above), this->min_);
  }

 private:
  uint32_t period_ = 0;
  uint32_t most_ = UINT32_MAX;
};

}  // namespace bitfold

#endif  // BITFOLD_DEVICE_CHAIN_H_
