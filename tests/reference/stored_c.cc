// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The oracle of the ops on stored tensors behind a C interface. Elements are int32.

#include <cstdint>

#include "stored.h"

extern "C" {

// `scales` of the operands and the output. `settings`: operation, bits, the three zero points,
// minimum, maximum.
void reference_stored_elementwise(const int32_t* first, const int32_t* second, int64_t count,
                                  const float* scales, const int32_t* settings, int32_t* out) {
  const reference::ElementwiseSettings s = {
      static_cast<reference::ElementwiseOperation>(settings[0]),
      settings[1],
      {scales[0], settings[2]},
      {scales[1], settings[3]},
      {scales[2], settings[4]},
      settings[5],
      settings[6]};
  for (int64_t i = 0; i < count; ++i) {
    out[i] = reference::StoredElementwise(first[i], second[i], s);
  }
}

// `shape` is [images, rows, columns, channels]. `settings`: whether averages, height and width of
// the windows, then of the strides, whether SAME, minimum, maximum.
void reference_stored_pool(const int32_t* data, const int32_t* shape, const int32_t* settings,
                           int32_t* out) {
  const bool is_same = settings[5] != 0;
  const reference::PoolSettings s = {settings[0] != 0,
                                     {shape[1], settings[1], settings[3], is_same},
                                     {shape[2], settings[2], settings[4], is_same},
                                     shape[3],
                                     settings[6],
                                     settings[7]};
  for (int32_t image = 0; image < shape[0]; ++image) {
    const int32_t* pixels = data + int64_t{image} * shape[1] * shape[2] * shape[3];
    for (int32_t y = 0; y < reference::WindowCount(s.rows); ++y) {
      for (int32_t x = 0; x < reference::WindowCount(s.columns); ++x) {
        for (int32_t c = 0; c < shape[3]; ++c) *out++ = reference::StoredPool(pixels, y, x, c, s);
      }
    }
  }
}

// `scales` of the data and the output. `settings`: bits, the two zero points.
void reference_stored_mean(const int32_t* data, const int64_t* shape, const float* scales,
                           const int32_t* settings, int32_t* out) {
  const reference::Scale input = {scales[0], settings[1]};
  const reference::Scale output = {scales[1], settings[2]};
  for (int64_t i = 0; i < shape[0]; ++i) {
    for (int64_t k = 0; k < shape[2]; ++k) {
      const int32_t* first = data + i * shape[1] * shape[2] + k;
      *out++ = reference::StoredMean(first, shape[1], shape[2], input, output, settings[0]);
    }
  }
}

// `settings`: zero point, least and greatest stored integer.
void reference_stored_quantise(const float* values, int64_t count, float scale,
                               const int32_t* settings, int32_t* out) {
  for (int64_t i = 0; i < count; ++i) {
    out[i] = reference::StoredQuantise(values[i], {scale, settings[0]}, settings[1], settings[2]);
  }
}

// `lowest` is the integer that the table's first entry belongs to.
void reference_stored_lookup(const int32_t* data, int64_t count, const int32_t* table,
                             int32_t lowest, int32_t* out) {
  for (int64_t i = 0; i < count; ++i) {
    out[i] = reference::StoredLookup(data[i], table, lowest);
  }
}

}  // extern "C"
