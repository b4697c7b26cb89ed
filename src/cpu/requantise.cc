// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "cpu/requantise.h"

#include <algorithm>
#include <cstdint>
#include <type_traits>
#include <vector>

#include "vector/rescale_steps.h"
#include "vector/target.h"

namespace bitfold {
namespace {

constexpr int kSumBlock = 256;  // sums at a time: their rescaled forms stay in the nearest cache

// Multipliers as the loops take them: for the sums of a block, side by side. A rescaling has those
// that it needs.
struct BlockMultipliers {
  const int32_t* mantissas;
  const int32_t* exponents;
  // Of a short multiplier: what is added to a product, by how much that is shifted, and what the
  // result then is too large by.
  const uint64_t* addends;
  const int32_t* shifts;
  const uint32_t* excesses;
  const double* reals;
};

template <typename T>
using RescaleLoop = void (*)(const T*, int, const BlockMultipliers&, int32_t*);
template <typename Out>
using StoreLoop = void (*)(const int32_t*, int, const RequantiseMode&, Out*);

struct RequantiseLoops {
  RescaleLoop<int32_t> two_roundings;
  RescaleLoop<int32_t> short_int32;
  RescaleLoop<int64_t> short_int64;
  RescaleLoop<int32_t> one_int32;
  RescaleLoop<int64_t> one_int64;
  StoreLoop<int8_t> store_int8;
  StoreLoop<int16_t> store_int16;
  StoreLoop<int32_t> store_int32;
};

#define BITFOLD_LOOPS "cpu/requantise_loops.inc"
#define BITFOLD_LOOP_TABLE                                                                  \
  RequantiseLoops {                                                                         \
    TwoRoundings, ShortMultiplier<int32_t>, ShortMultiplier<int64_t>, OneRounding<int32_t>, \
        OneRounding<int64_t>, ShiftClampStore<int8_t>, ShiftClampStore<int16_t>,            \
        ShiftClampStore<int32_t>                                                            \
  }
#include "vector/vector_loops.inc"

template <typename T>
RescaleLoop<T> LoopOf(Rescaling rescaling) {
  const RequantiseLoops& loops = CurrentLoops();
  if constexpr (std::is_same_v<T, int32_t>) {
    if (rescaling == Rescaling::kTwoRoundings) return loops.two_roundings;
    return rescaling == Rescaling::kShortMultiplier ? loops.short_int32 : loops.one_int32;
  } else {
    return rescaling == Rescaling::kShortMultiplier ? loops.short_int64 : loops.one_int64;
  }
}

template <typename Out>
StoreLoop<Out> StoreOf() {
  const RequantiseLoops& loops = CurrentLoops();
  if constexpr (std::is_same_v<Out, int8_t>) return loops.store_int8;
  if constexpr (std::is_same_v<Out, int16_t>) return loops.store_int16;
  if constexpr (std::is_same_v<Out, int32_t>) return loops.store_int32;
}

// The multipliers of consecutive sums: sum i and those after it, a block of them, have what stands
// from place i % period() on.
class ConsecutiveMultipliers {
 public:
  template <typename T, typename Out>
  explicit ConsecutiveMultipliers(const RequantiseCall<T, Out>& call)
      : period_(call.per_channel ? call.channels : 1) {
    Reserve(call.mode.rescaling);
    for (int64_t i = 0; i < period_; ++i) {
      Push(ShiftedMultiplier(call.multipliers[i], call.mode.shift), call.mode.rescaling);
    }
    AppendBlock(&mantissas_);
    AppendBlock(&exponents_);
    AppendBlock(&addends_);
    AppendBlock(&shifts_);
    AppendBlock(&excesses_);
    AppendBlock(&reals_);
  }

  int64_t period() const { return period_; }

  BlockMultipliers At(int64_t place) const {
    return {From(mantissas_, place), From(exponents_, place), From(addends_, place),
            From(shifts_, place),    From(excesses_, place),  From(reals_, place)};
  }

 private:
  void Reserve(Rescaling rescaling) {
    const auto size = static_cast<size_t>(period_ + kSumBlock - 1);
    if (rescaling == Rescaling::kOneRounding) return reals_.reserve(size);
    mantissas_.reserve(size);
    if (rescaling == Rescaling::kTwoRoundings) return exponents_.reserve(size);
    addends_.reserve(size);
    shifts_.reserve(size);
    excesses_.reserve(size);
  }

  void Push(const ChannelMultiplier& multiplier, Rescaling rescaling) {
    const auto [mantissa, exponent] = multiplier.fixed;
    if (rescaling == Rescaling::kTwoRoundings) {
      mantissas_.push_back(mantissa);
      exponents_.push_back(exponent);
    } else if (rescaling == Rescaling::kShortMultiplier) {
      const ShortMultiplierTerms terms(exponent);
      mantissas_.push_back(ShortMantissa(mantissa));
      addends_.push_back(terms.addend);
      shifts_.push_back(terms.shift);
      excesses_.push_back(terms.excess);
    } else {
      reals_.push_back(multiplier.real);
    }
  }

  // Goes on from the front, so that a block may begin at any value.
  template <typename Value>
  static void AppendBlock(std::vector<Value>* values) {
    const size_t period = values->size();
    if (period == 0) return;
    values->resize(period + kSumBlock - 1);
    for (size_t i = period; i < values->size(); ++i) (*values)[i] = (*values)[i - period];
  }

  template <typename Value>
  static const Value* From(const std::vector<Value>& values, int64_t place) {
    return values.empty() ? nullptr : values.data() + place;
  }

  int64_t period_;
  std::vector<int32_t> mantissas_;
  std::vector<int32_t> exponents_;
  std::vector<uint64_t> addends_;
  std::vector<int32_t> shifts_;
  std::vector<uint32_t> excesses_;
  std::vector<double> reals_;
};

}  // namespace

template <typename T, typename Out>
void ComputeRequantise(const RequantiseCall<T, Out>& call, Workers* workers) {
  constexpr int64_t kCost = 2;  // cycles of a sum
  const ConsecutiveMultipliers multipliers(call);
  const RescaleLoop<T> rescale = LoopOf<T>(call.mode.rescaling);
  const StoreLoop<Out> store = StoreOf<Out>();
  workers->Share(call.positions * call.channels, kCost, [&](int64_t first, int64_t end) {
    int32_t rescaled[kSumBlock];
    for (int64_t i = first; i < end; i += kSumBlock) {
      const auto count = static_cast<int>(std::min<int64_t>(kSumBlock, end - i));
      rescale(call.sums + i, count, multipliers.At(i % multipliers.period()), rescaled);
      store(rescaled, count, call.mode, call.output + i);
    }
  });
}

template void ComputeRequantise(const RequantiseCall<int32_t, int8_t>&, Workers*);
template void ComputeRequantise(const RequantiseCall<int32_t, int16_t>&, Workers*);
template void ComputeRequantise(const RequantiseCall<int32_t, int32_t>&, Workers*);
template void ComputeRequantise(const RequantiseCall<int64_t, int8_t>&, Workers*);
template void ComputeRequantise(const RequantiseCall<int64_t, int16_t>&, Workers*);
template void ComputeRequantise(const RequantiseCall<int64_t, int32_t>&, Workers*);

}  // namespace bitfold
