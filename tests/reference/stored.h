// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The test oracle of the ops on stored tensors. Elements are given as int32, whatever their type.

#ifndef BITFOLD_TESTS_REFERENCE_STORED_H_
#define BITFOLD_TESTS_REFERENCE_STORED_H_

#include <cstdint>

namespace reference {

// A stored integer stands for scale * (stored - zero_point).
struct Scale {
  float scale;
  int32_t zero_point;
};

enum class ElementwiseOperation : int32_t { kAdd = 0, kSubtract = 1, kMultiply = 2 };

struct ElementwiseSettings {
  ElementwiseOperation operation;
  int32_t bits;  // of the elements: 8 or 16
  Scale first;
  Scale second;
  Scale output;
  int32_t minimum;
  int32_t maximum;
};

// One element of the result.
int32_t StoredElementwise(int32_t first, int32_t second, const ElementwiseSettings& settings);

// The windows of an image along one axis.
struct WindowSettings {
  int32_t size;
  int32_t window;
  int32_t stride;
  bool is_same;
};

int32_t WindowCount(const WindowSettings& axis);
// Whether a pixel lies in a window.
bool IsInWindow(const WindowSettings& axis, int32_t window, int32_t pixel);

struct PoolSettings {
  bool is_average;
  WindowSettings rows;
  WindowSettings columns;
  int32_t channels;
  int32_t minimum;
  int32_t maximum;
};

// One element of the result, of one image [rows, columns, channels].
int32_t StoredPool(const int32_t* image, int32_t row, int32_t column, int32_t channel,
                   const PoolSettings& settings);

// The mean of `count` elements, each `step` behind the one before.
int32_t StoredMean(const int32_t* data, int64_t count, int64_t step, const Scale& input,
                   const Scale& output, int32_t bits);

// The entry of one element. The table's first one belongs to `lowest`.
int32_t StoredLookup(int32_t stored, const int32_t* table, int32_t lowest);

// One number.
int32_t StoredQuantise(float value, const Scale& scale, int32_t lowest, int32_t highest);

}  // namespace reference

#endif  // BITFOLD_TESTS_REFERENCE_STORED_H_
