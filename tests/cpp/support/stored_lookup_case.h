// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Tables of stored elements as their tests see them: one case, computed by the oracle, by the
// definition and by the vector loops.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_STORED_LOOKUP_CASE_H_
#define BITFOLD_TESTS_CPP_SUPPORT_STORED_LOOKUP_CASE_H_

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "bitfold/HStoredLookup.h"
#include "cpu/stored_lookup.h"
#include "frame/workers.h"
#include "reference/stored.h"
#include "support/bits.h"
#include "support/buffer.h"

namespace bitfold::testing {

template <typename T, typename Out>
struct StoredLookupCase {
  std::vector<T> data;
  std::vector<Out> table;

  int64_t count() const { return static_cast<int64_t>(data.size()); }

  std::string Inputs(int64_t i) const {
    return Describe("stored", int32_t{data[static_cast<size_t>(i)]});
  }

  template <typename Run>
  ExactBuffer<Out> By(Run run, int offset) const {
    const ExactBuffer<T> in(data, offset);
    const ExactBuffer<Out> entries(table);
    ExactBuffer<Out> out(count(), (offset + 1) % 4);
    run({in.data(), out.data(), count(), entries.data()});
    return out;
  }

  ExactBuffer<Out> Definition(int offset = 0) const {
    return By([](const StoredLookupCall<T, Out>& call) { DefineStoredLookup(call); }, offset);
  }

  ExactBuffer<Out> Loops(Workers* workers, int offset = 0) const {
    return By([=](const StoredLookupCall<T, Out>& call) { ComputeStoredLookup(call, workers); },
              offset);
  }

  ExactBuffer<Out> Oracle() const {
    const std::vector<int32_t> wide(table.begin(), table.end());
    ExactBuffer<Out> out(count());
    for (int64_t i = 0; i < count(); ++i) {
      out[i] = static_cast<Out>(reference::StoredLookup(data[static_cast<size_t>(i)], wide.data(),
                                                        std::numeric_limits<T>::min()));
    }
    return out;
  }
};

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_STORED_LOOKUP_CASE_H_
