// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The feed repeat: a scaled operand is added into the accumulator as often as the feed says (rules
// R1 to R5 of docs/arithmetic.md).

#ifndef BITFOLD_REPEATED_ADDITION_H_
#define BITFOLD_REPEATED_ADDITION_H_

#include <cstdint>

#include "bitfold/datapath.h"
#include "bitfold/float_passes.h"

namespace bitfold {

// The largest feed repeat that the ops accept: 2^31.
inline constexpr float kMaxFeedRepeat = 2147483648.0f;

// The number of passes of the feed: none when feed_repeat <= 0, else the smallest k >= 1 with
// (float)k >= feed_repeat. Up to 2^24 that is the ceiling; above, (float)k rounds, so fewer passes
// than feed_repeat can do.
// Requires feed_repeat <= kMaxFeedRepeat, which NaN and +infinity are not.
inline int64_t FeedRepeatCount(float feed_repeat) {
  if (0.0f >= feed_repeat) return 0;
  // (float)k never falls as k grows, and (float)2^31 >= feed_repeat: bisect.
  int64_t low = 1;
  int64_t high = int64_t{1} << 31;
  while (low < high) {
    const int64_t middle = low + (high - low) / 2;
    if (static_cast<float>(middle) >= feed_repeat) {
      high = middle;
    } else {
      low = middle + 1;
    }
  }
  return low;
}

// The definition: every pass is made.
struct EveryPass {
  template <typename T>
  T operator()(const Datapath<T>& datapath, T acc, T addend, int64_t passes) const {
    for (int64_t k = 0; k < passes; ++k) acc = datapath.Accumulate(acc, addend);
    return acc;
  }

  // Two addends a pass, each with its own wrap: one after the first feeds the second.
  template <typename T>
  T operator()(const Datapath<T>& datapath, T acc, T first, T second, int64_t passes) const {
    for (int64_t k = 0; k < passes; ++k) {
      acc = datapath.Accumulate(datapath.Accumulate(acc, first), second);
    }
    return acc;
  }
};

// For ProvenPasses: nobody ends the passes early.
struct NeverStop {
  bool operator()() const { return false; }
};

// The same bits and lines without the passes that can be proven: what the kernels use. Once stop()
// is true, which is asked at the start and now and then, the passes end early and the result is any
// value.
//
// Integers: let P = max - min + 1 be the accumulator's period. If acc is in range and |addend| <=
// P, one wrap after each addition brings acc back into range, congruent to the plain sum modulo P
// (theorem 1 of docs/arithmetic.md). So from the first pass that starts in range, the rest is the
// one value of [min, max] congruent to acc + passes * addend. Two addends a pass are the same with
// their sum, if each obeys the bound.
//
// Floats: float_passes.h. Passes that print are made one after the other.
template <typename Stop = NeverStop>
struct ProvenPasses {
  Stop stop;

  float operator()(const Datapath<float>& datapath, float acc, float addend, int64_t passes) const {
    if (stop()) return acc;
    if (passes < kManyFloatPasses) return EveryPass{}(datapath, acc, addend, passes);
    return FloatPasses(datapath, {1, {addend}}).Make(acc, passes, stop);
  }

  float operator()(const Datapath<float>& datapath, float acc, float first, float second,
                   int64_t passes) const {
    if (stop()) return acc;
    if (passes < kManyFloatPasses) return EveryPass{}(datapath, acc, first, second, passes);
    return FloatPasses(datapath, {2, {first, second}}).Make(acc, passes, stop);
  }

  int32_t operator()(const Datapath<int32_t>& datapath, int32_t acc, int32_t addend,
                     int64_t passes) const {
    return Integers(datapath, acc, passes, addend);
  }

  int32_t operator()(const Datapath<int32_t>& datapath, int32_t acc, int32_t first, int32_t second,
                     int64_t passes) const {
    return Integers(datapath, acc, passes, first, second);
  }

 private:
  static constexpr int64_t kManyFloatPasses = 256;  // fewer are made faster than they are proven
  static constexpr int64_t kPassesPerPoll = 1 << 16;

  template <typename... Addends>
  int32_t Integers(const Datapath<int32_t>& datapath, int32_t acc, int64_t passes,
                   Addends... addends) const {
    for (int64_t made = 0; passes > 0; ++made, --passes) {
      if (made % kPassesPerPoll == 0 && stop()) return acc;
      if (passes > 1 && (... && IsProven(datapath, acc, addends))) {
        return Congruent(datapath, acc, (... + int64_t{addends}), passes);
      }
      acc = EveryPass{}(datapath, acc, addends..., 1);
    }
    return acc;
  }

  static int64_t Period(const Datapath<int32_t>& datapath) {
    return int64_t{datapath.limits().max} - datapath.limits().min + 1;
  }

  static bool IsProven(const Datapath<int32_t>& datapath, int32_t acc, int64_t addend) {
    const int64_t period = Period(datapath);
    return datapath.limits().min <= acc && acc <= datapath.limits().max && -period <= addend &&
           addend <= period;
  }

  // Requires 0 < passes <= 2^31: with the remainder below 2^32 the product fits 63 bits.
  static int32_t Congruent(const Datapath<int32_t>& datapath, int64_t acc, int64_t addends,
                           int64_t passes) {
    const int64_t period = Period(datapath);
    const int64_t min = datapath.limits().min;
    const int64_t offset = (passes * (addends % period) % period + acc - min) % period;
    return static_cast<int32_t>(min + (offset < 0 ? offset + period : offset));
  }
};

// One output element of an addition op: `product` scaled by the shift and added `passes` times to
// `value`, which half-precision mode quantises first.
template <typename T, typename Passes>
T AddRepeatedly(const Datapath<T>& datapath, T value, T product, int64_t passes,
                Passes add_passes) {
  return add_passes(datapath, datapath.InitialValue(value), datapath.ScaleProduct(product), passes);
}

}  // namespace bitfold

#endif  // BITFOLD_REPEATED_ADDITION_H_
