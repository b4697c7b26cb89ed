// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "chain/layer_finish.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "bitfold/int32_arithmetic.h"
#include "bitfold/int64_arithmetic.h"
#include "bitfold/product_scaling.h"
#include "chain/sum_output.h"
#include "chain/sum_watch.h"
#include "vector/intrinsics.h"
#include "vector/rescale_steps.h"
#include "vector/target.h"

namespace bitfold {
namespace {

template <typename T>
using FinishLoop = void (*)(const T*, int32_t, int32_t, const FinishTerms&, const StoredOutput&);

// By [rescaling][whether there is a bias][type]; two roundings of what IsModest says, by [whether
// there is a bias][whether the bounds are narrower than the type][type]; and with a bias of 64
// bits, of narrow and of wide sums, by [whether rounded once][type].
struct FinishLoops {
  FinishLoop<int32_t> by[3][2][2];
  FinishLoop<int32_t> modest[2][2][2];
  FinishLoop<int32_t> widened[2][2];
  FinishLoop<int64_t> wide[2][2];
  void (*add)(const int32_t*, int32_t, int32_t, const int32_t*, int32_t*);
};

#define BITFOLD_LOOPS "chain/layer_finish_loops.inc"
#define BITFOLD_LOOP_TABLE FinishLoops(kFinishLoops)
#include "vector/vector_loops.inc"

int32_t WholePanels(int32_t channels) { return (channels + kPanel - 1) / kPanel * kPanel; }

}  // namespace

LayerFinish::LayerFinish(const LayerFinishCall& call)
    : terms_{call.datapath,
             32 - call.bits,
             nullptr,
             nullptr,
             nullptr,
             nullptr,
             nullptr,
             nullptr,
             nullptr,
             nullptr,
             call.mode.zero_point,
             call.mode.minimum,
             call.mode.maximum} {
  const int32_t lanes = WholePanels(call.channels);
  if (call.bias != nullptr) {
    bias_.resize(static_cast<size_t>(lanes));
    std::transform(call.bias, call.bias + call.channels, bias_.begin(),
                   [&](int32_t bias) { return call.datapath.ScaleProduct(bias); });
  }
  if (call.wide_bias != nullptr) {
    wide_bias_.resize(static_cast<size_t>(lanes));
    std::transform(
        call.wide_bias, call.wide_bias + call.channels, wide_bias_.begin(),
        [&](int64_t bias) { return ShiftRoundHalfToEven64(bias, call.datapath.mult_shift()); });
  }
  FillMultipliers(call, lanes);
  terms_.bias = bias_.data();
  terms_.wide_bias = wide_bias_.data();
  terms_.mantissas = mantissas_.data();
  terms_.exponents = exponents_.data();
  terms_.addends = addends_.data();
  terms_.shifts = shifts_.data();
  terms_.excesses = excesses_.data();
  terms_.reals = reals_.data();
  loop_ = LoopOf(call);
  if (call.wide_bias != nullptr) {
    const bool is_once = call.mode.rescaling == Rescaling::kOneRounding;
    wide_loop_ = CurrentLoops().wide[is_once][static_cast<int>(call.type)];
  }
}

void LayerFinish::FillMultipliers(const LayerFinishCall& call, int32_t lanes) {
  for (int32_t lane = 0; lane < lanes; ++lane) {
    const int32_t channel = call.per_channel ? std::min(lane, call.channels - 1) : 0;
    const ChannelMultiplier multiplier =
        ShiftedMultiplier(call.multipliers[channel], call.mode.shift);
    const auto [mantissa, exponent] = multiplier.fixed;
    if (call.mode.rescaling == Rescaling::kOneRounding) {
      reals_.push_back(multiplier.real);
    } else if (call.mode.rescaling == Rescaling::kTwoRoundings) {
      mantissas_.push_back(mantissa);
      exponents_.push_back(exponent);
    } else {
      const ShortMultiplierTerms terms(exponent);
      mantissas_.push_back(ShortMantissa(mantissa));
      addends_.push_back(terms.addend);
      shifts_.push_back(terms.shift);
      excesses_.push_back(terms.excess);
    }
  }
}

// Whether two roundings can be made with one sum less: nothing is shifted left, something right,
// and the rounding terms and the zero point fit 32 bits beside a sum.
bool LayerFinish::IsModest(const LayerFinishCall& call) const {
  constexpr int64_t kMostSum = (int64_t{1} << 30) - 1;
  constexpr int64_t kMostTerm = int64_t{1} << 29;
  constexpr int32_t kMostShift = 29;
  if (call.mode.rescaling != Rescaling::kTwoRoundings || call.largest_sum > kMostSum) return false;
  const int64_t zero_point = std::abs(int64_t{call.mode.zero_point});
  return std::all_of(exponents_.begin(), exponents_.end(), [zero_point](int32_t exponent) {
    return -kMostShift <= exponent && exponent < 0 && zero_point << -exponent <= kMostTerm;
  });
}

LayerFinish::Loop<int32_t> LayerFinish::LoopOf(const LayerFinishCall& call) const {
  const auto type = static_cast<int>(call.type);
  if (call.wide_bias != nullptr) {
    return CurrentLoops().widened[call.mode.rescaling == Rescaling::kOneRounding][type];
  }
  if (IsModest(call)) {
    const bool is_byte = call.type == StoredType::kInt8;
    const bool clamps = call.mode.minimum > (is_byte ? INT8_MIN : INT16_MIN) ||
                        call.mode.maximum < (is_byte ? INT8_MAX : INT16_MAX);
    return CurrentLoops().modest[call.bias != nullptr][clamps][type];
  }
  return CurrentLoops().by[static_cast<int>(call.mode.rescaling)][call.bias != nullptr][type];
}

void LayerFinish::Run(const int32_t* sums, int32_t pixels, int32_t lanes,
                      const StoredOutput& output) const {
  loop_(sums, pixels, lanes, terms_, output);
}

void LayerFinish::Run(const int64_t* sums, int32_t pixels, int32_t lanes,
                      const StoredOutput& output) const {
  wide_loop_(sums, pixels, lanes, terms_, output);
}

void FinishTile(const int32_t* sums, int32_t pixels, int32_t lanes, const StoredOutput& output) {
  int32_t moved[kMostTileSums];
  if (output.addends != nullptr) {
    CurrentLoops().add(sums, pixels, lanes, output.addends + output.position, moved);
    sums = moved;
  }
  if (output.watch != nullptr && output.repeated < pixels) {
    output.watch->See(sums + int64_t{output.repeated} * lanes, pixels - output.repeated, lanes,
                      output);
  }
  output.finish->Run(sums, pixels, lanes, output);
}

}  // namespace bitfold
