// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The quantisation of real numbers as its tests see it: one case, computed by the oracle, by the
// definition and by the vector loops.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_STORED_QUANTISE_CASE_H_
#define BITFOLD_TESTS_CPP_SUPPORT_STORED_QUANTISE_CASE_H_

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "bitfold/HStoredQuantise.h"
#include "cpu/stored_quantise.h"
#include "frame/workers.h"
#include "reference/stored.h"
#include "support/bits.h"
#include "support/buffer.h"

namespace bitfold::testing {

template <typename T>
struct StoredQuantiseCase {
  std::vector<float> values;
  StoredScale scale = {};

  int64_t count() const { return static_cast<int64_t>(values.size()); }

  std::string Inputs(int64_t i) const {
    return Describe("value", values[static_cast<size_t>(i)], "scale", scale.scale, "zero point",
                    scale.zero_point);
  }

  template <typename Run>
  ExactBuffer<T> By(Run run, int offset) const {
    const ExactBuffer<float> in(values, offset);
    ExactBuffer<T> out(count(), (offset + 1) % 4);
    run({in.data(), out.data(), count(), scale});
    return out;
  }

  ExactBuffer<T> Definition(int offset = 0) const {
    return By([](const StoredQuantiseCall<T>& call) { DefineStoredQuantise(call); }, offset);
  }

  ExactBuffer<T> Loops(Workers* workers, int offset = 0) const {
    return By([=](const StoredQuantiseCall<T>& call) { ComputeStoredQuantise(call, workers); },
              offset);
  }

  ExactBuffer<T> Oracle() const {
    ExactBuffer<T> out(count());
    for (int64_t i = 0; i < count(); ++i) {
      out[i] = static_cast<T>(
          reference::StoredQuantise(values[static_cast<size_t>(i)], {scale.scale, scale.zero_point},
                                    std::numeric_limits<T>::min(), std::numeric_limits<T>::max()));
    }
    return out;
  }
};

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_STORED_QUANTISE_CASE_H_
