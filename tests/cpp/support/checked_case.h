// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// A prepared layer that counts its wrong sums, as its tests see it.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_CHECKED_CASE_H_
#define BITFOLD_TESTS_CPP_SUPPORT_CHECKED_CASE_H_

#include <algorithm>
#include <cstdint>
#include <memory>
#include <utility>

#include "bitfold/HCheckedConvolution.h"
#include "cpu/checked_convolution.h"
#include "support/buffer.h"
#include "support/prepared_case.h"
#include "support/warnings.h"

namespace bitfold::testing {

template <typename Out>
struct CheckedOutput {
  PreparedOutput<Out> stored;
  int64_t wrong = 0;
};

template <typename In, typename Out>
struct CheckedCase {
  PreparedCase<In, Out> layer;

  // Runs on memory that ends where the numbers do.
  template <typename Run>
  CheckedOutput<Out> By(Run run, int offset = 0) const {
    const ExactBuffer<In> in(layer.input, offset);
    CheckedOutput<Out> out{{ExactBuffer<Out>(layer.count(), (offset + 1) % 4), ""}, 0};
    out.stored.lines =
        PrintedAndCountedBy([&] { out.wrong = run(in.data(), out.stored.values.data()); });
    return out;
  }

  CheckedOutput<Out> Definition(int offset = 0) const {
    return By(
        [this](const In* in, Out* out) {
          return DefineCheckedConvolution(layer.Layer(), in, layer.batch, out);
        },
        offset);
  }

  // The layer has copied what it was made of.
  std::unique_ptr<const CheckedConvolution<In, Out>> Prepare(Workers* workers) const {
    const PreparedCase<In, Out> copy = layer;
    return std::make_unique<const CheckedConvolution<In, Out>>(copy.Layer(), workers);
  }

  CheckedOutput<Out> By(const CheckedConvolution<In, Out>& checked, Workers* workers,
                        int offset = 0) const {
    return By([&](const In* in, Out* out) { return checked.Run(in, layer.batch, out, workers); },
              offset);
  }
};

// A case that a checked layer takes, of any that a prepared one takes.
template <typename In, typename Out>
CheckedCase<In, Out> Checked(PreparedCase<In, Out> layer) {
  layer.mult_shift = std::min(layer.mult_shift, kMostSummedShift);
  for (int64_t& bias : layer.wide_bias) {
    bias = std::clamp(bias, -kLargestSummedBias, kLargestSummedBias);
  }
  return {std::move(layer)};
}

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_CHECKED_CASE_H_
