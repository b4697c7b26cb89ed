// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Pools and means of stored tensors as their tests see them: one case, computed by the oracle, by
// the definition and by the vector loops.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_STORED_POOL_CASE_H_
#define BITFOLD_TESTS_CPP_SUPPORT_STORED_POOL_CASE_H_

#include <cstdint>
#include <string>
#include <vector>

#include "bitfold/HStoredPool.h"
#include "cpu/stored_pool.h"
#include "frame/workers.h"
#include "reference/stored.h"
#include "support/bits.h"
#include "support/buffer.h"

namespace bitfold::testing {

template <typename T>
std::vector<int32_t> Widened(const std::vector<T>& values) {
  return {values.begin(), values.end()};
}

// [images, rows, columns, channels].
template <typename T>
struct StoredPoolCase {
  std::vector<T> data;
  int64_t images = 1;
  PoolAxis rows = {};
  PoolAxis columns = {};
  int64_t channels = 1;
  StoredPoolMode mode = {};

  int64_t data_count() const { return images * rows.size * columns.size * channels; }
  int64_t count() const { return images * rows.Outputs() * columns.Outputs() * channels; }

  std::string Inputs(int64_t i) const {
    std::string text = Describe("element", i, "of images", images, "channels", channels, "average",
                                mode.pooling == StoredPooling::kAverage);
    for (const PoolAxis& axis : {rows, columns}) {
      text += Describe("size", axis.size, "window", axis.window, "stride", axis.stride, "same",
                       axis.is_same);
    }
    return text + Describe("minimum", mode.minimum, "maximum", mode.maximum);
  }

  template <typename Run>
  ExactBuffer<T> By(Run run, int offset) const {
    const ExactBuffer<T> in(data, offset);
    ExactBuffer<T> out(count(), (offset + 1) % 4);
    run({in.data(), out.data(), images, rows, columns, channels, mode});
    return out;
  }

  ExactBuffer<T> Definition(int offset = 0) const {
    return By([](const StoredPoolCall<T>& call) { DefineStoredPool(call); }, offset);
  }

  ExactBuffer<T> Loops(Workers* workers, int offset = 0) const {
    return By([=](const StoredPoolCall<T>& call) { ComputeStoredPool(call, workers); }, offset);
  }

  ExactBuffer<T> Oracle() const {
    const auto axis = [](const PoolAxis& a) {
      return reference::WindowSettings{static_cast<int32_t>(a.size), static_cast<int32_t>(a.window),
                                       static_cast<int32_t>(a.stride), a.is_same};
    };
    const reference::PoolSettings settings = {
        mode.pooling == StoredPooling::kAverage, axis(rows),   axis(columns),
        static_cast<int32_t>(channels),          mode.minimum, mode.maximum};
    const std::vector<int32_t> wide = Widened(data);
    ExactBuffer<T> out(count());
    int64_t i = 0;
    for (int64_t image = 0; image < images; ++image) {
      const int32_t* pixels = wide.data() + image * rows.size * columns.size * channels;
      for (int32_t y = 0; y < reference::WindowCount(settings.rows); ++y) {
        for (int32_t x = 0; x < reference::WindowCount(settings.columns); ++x) {
          for (int32_t c = 0; c < settings.channels; ++c) {
            out[i++] = static_cast<T>(reference::StoredPool(pixels, y, x, c, settings));
          }
        }
      }
    }
    return out;
  }
};

// [outer, reduced, inner].
template <typename T>
struct StoredMeanCase {
  std::vector<T> data;
  int64_t outer = 1;
  int64_t reduced = 1;
  int64_t inner = 1;
  StoredScale input = {};
  StoredScale result = {};

  int64_t count() const { return outer * inner; }
  bool IsTaken() const { return HasNarrowSums<T>(input, result, reduced); }

  std::string Inputs(int64_t i) const {
    std::string text = Describe("element", i, "reduced", reduced, "inner", inner);
    for (const StoredScale& s : {input, result}) {
      text += Describe("scale", s.scale, "zero point", s.zero_point);
    }
    return text;
  }

  template <typename Run>
  ExactBuffer<T> By(Run run, int offset) const {
    const ExactBuffer<T> in(data, offset);
    ExactBuffer<T> out(count(), (offset + 1) % 4);
    run({in.data(), out.data(), outer, reduced, inner, input, result});
    return out;
  }

  ExactBuffer<T> Definition(int offset = 0) const {
    return By([](const StoredMeanCall<T>& call) { DefineStoredMean(call); }, offset);
  }

  ExactBuffer<T> Loops(Workers* workers, int offset = 0) const {
    return By([=](const StoredMeanCall<T>& call) { ComputeStoredMean(call, workers); }, offset);
  }

  ExactBuffer<T> Oracle() const {
    const std::vector<int32_t> wide = Widened(data);
    ExactBuffer<T> out(count());
    for (int64_t i = 0; i < count(); ++i) {
      const int32_t* first = wide.data() + i / inner * reduced * inner + i % inner;
      out[i] = static_cast<T>(
          reference::StoredMean(first, reduced, inner, {input.scale, input.zero_point},
                                {result.scale, result.zero_point}, 8 * int32_t{sizeof(T)}));
    }
    return out;
  }
};

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_STORED_POOL_CASE_H_
