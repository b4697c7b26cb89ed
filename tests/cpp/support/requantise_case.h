// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The requantisation as its tests see it: one case, computed by the oracle, by the definition and
// by the vector loops.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_REQUANTISE_CASE_H_
#define BITFOLD_TESTS_CPP_SUPPORT_REQUANTISE_CASE_H_

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "bitfold/HRequantise.h"
#include "cpu/requantise.h"
#include "frame/workers.h"
#include "reference/requantise.h"
#include "support/bits.h"
#include "support/buffer.h"

namespace bitfold::testing {

inline reference::Rounding OracleRounding(Rescaling rescaling) {
  return rescaling == Rescaling::kTwoRoundings      ? reference::Rounding::kTwo
         : rescaling == Rescaling::kShortMultiplier ? reference::Rounding::kShortMultiplier
                                                    : reference::Rounding::kOne;
}

inline const char* NameOf(Rescaling rescaling) {
  return rescaling == Rescaling::kTwoRoundings      ? "two roundings"
         : rescaling == Rescaling::kShortMultiplier ? "short multiplier"
                                                    : "one rounding";
}

// One multiplier for each channel, or one for all.
template <typename T, typename Out>
struct RequantiseCase {
  std::vector<T> sums;
  int64_t channels = 1;
  std::vector<double> multipliers;
  RequantiseMode mode = {};

  int64_t count() const { return static_cast<int64_t>(sums.size()); }
  bool per_channel() const { return multipliers.size() > 1; }

  double MultiplierOf(int64_t i) const {
    return multipliers[per_channel() ? static_cast<size_t>(i % channels) : 0];
  }

  std::string Inputs(int64_t i) const {
    char multiplier[40];
    std::snprintf(multiplier, sizeof(multiplier), "%a", MultiplierOf(i));
    const ChannelMultiplier shifted = ShiftedMultiplier(MultiplierOf(i), mode.shift);
    return std::string{NameOf(mode.rescaling)} + Describe(", sum", sums[static_cast<size_t>(i)]) +
           "multiplier=" + multiplier +
           Describe(" mantissa", shifted.fixed.mantissa, "exponent", shifted.fixed.exponent,
                    "shift", mode.shift, "zero point", mode.zero_point, "minimum", mode.minimum,
                    "maximum", mode.maximum);
  }

  // Whether every multiplier is one that the op takes.
  bool IsTaken() const {
    for (const double multiplier : multipliers) {
      if (!(multiplier >= 0) || std::isinf(multiplier)) return false;
      if (!IsDefined(mode.rescaling, ShiftedMultiplier(multiplier, mode.shift))) return false;
    }
    return true;
  }

  template <typename Run>
  ExactBuffer<Out> By(Run run, int offset = 0) const {
    const ExactBuffer<T> in(sums, offset);
    const ExactBuffer<double> factors(multipliers);
    ExactBuffer<Out> out(count(), (offset + 1) % 4);
    run({in.data(), out.data(), count() / channels, channels, factors.data(), per_channel(), mode});
    return out;
  }

  ExactBuffer<Out> Definition(int offset = 0) const {
    return By([](const RequantiseCall<T, Out>& call) { DefineRequantise(call); }, offset);
  }

  ExactBuffer<Out> Loops(Workers* workers, int offset = 0) const {
    return By([=](const RequantiseCall<T, Out>& call) { ComputeRequantise(call, workers); },
              offset);
  }

  ExactBuffer<Out> Oracle() const {
    ExactBuffer<Out> out(count());
    const reference::RequantiseSettings settings = {OracleRounding(mode.rescaling), mode.shift,
                                                    mode.zero_point, mode.minimum, mode.maximum};
    for (int64_t i = 0; i < count(); ++i) {
      int32_t result = 0;
      const auto status =
          reference::Requantise(sums[static_cast<size_t>(i)], MultiplierOf(i), settings, &result);
      EXPECT_EQ(status, reference::RequantiseStatus::kOk) << Inputs(i);
      out[i] = static_cast<Out>(result);
    }
    return out;
  }
};

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_REQUANTISE_CASE_H_
