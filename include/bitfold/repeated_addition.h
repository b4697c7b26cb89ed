// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The feed repeat: a scaled operand is added into the accumulator as often as the feed says (rules
// R1 to R5 of docs/arithmetic.md).

#ifndef BITFOLD_REPEATED_ADDITION_H_
#define BITFOLD_REPEATED_ADDITION_H_

#include <cstdint>

#include "bitfold/datapath.h"
#include "bitfold/feed_repeat.h"
#include "bitfold/float_passes.h"
#include "bitfold/int32_passes.h"

namespace bitfold {

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
// Integers: int32_passes.h. Floats: float_passes.h. Passes that print are made one after the other.
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
      if (passes > 1 && (... && IsProvenPass(datapath.limits(), acc, addends))) {
        return MakeProvenPasses(datapath.limits(), acc, (... + int64_t{addends}), passes);
      }
      acc = EveryPass{}(datapath, acc, addends..., 1);
    }
    return acc;
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
