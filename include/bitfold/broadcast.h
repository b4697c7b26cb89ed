// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Two operands of which each is repeated along the dimensions where it has one element and the
// other more. Dimensions are aligned at the last one.

#ifndef BITFOLD_BROADCAST_H_
#define BITFOLD_BROADCAST_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace bitfold {

// A dimension of the common shape, and how far an operand's elements lie apart along it: 0 where it
// is repeated.
struct BroadcastAxis {
  int64_t size;
  int64_t strides[2];
};

// The common shape, outermost dimension first.
using Broadcast = std::vector<BroadcastAxis>;

namespace broadcast_internal {

// The size of dimension i of `rank` ones; 1 where the shape has fewer.
inline int64_t Size(const std::vector<int64_t>& shape, size_t rank, size_t i) {
  const size_t missing = rank - shape.size();
  return i < missing ? 1 : shape[i - missing];
}

}  // namespace broadcast_internal

// Whether two shapes have a common one.
inline bool HaveCommonShape(const std::vector<int64_t>& first, const std::vector<int64_t>& second) {
  const size_t rank = std::max(first.size(), second.size());
  for (size_t i = 0; i < rank; ++i) {
    const int64_t a = broadcast_internal::Size(first, rank, i);
    const int64_t b = broadcast_internal::Size(second, rank, i);
    if (a != b && a != 1 && b != 1) return false;
  }
  return true;
}

// The common shape of two that have one and hold elements. Dimensions of one element are left out,
// and neighbours along which both operands go on in the same way are one.
inline Broadcast MakeBroadcast(const std::vector<int64_t>& first,
                               const std::vector<int64_t>& second) {
  const size_t rank = std::max(first.size(), second.size());
  Broadcast reversed;
  int64_t steps[2] = {1, 1};
  for (size_t i = rank; i-- > 0;) {
    const int64_t sizes[2] = {broadcast_internal::Size(first, rank, i),
                              broadcast_internal::Size(second, rank, i)};
    BroadcastAxis axis = {std::max(sizes[0], sizes[1]), {0, 0}};
    if (axis.size == 1) continue;
    for (int k = 0; k < 2; ++k) {
      if (sizes[k] > 1) axis.strides[k] = steps[k];
      steps[k] *= sizes[k];
    }
    const bool goes_on = !reversed.empty() &&
                         axis.strides[0] == reversed.back().strides[0] * reversed.back().size &&
                         axis.strides[1] == reversed.back().strides[1] * reversed.back().size;
    if (goes_on) {
      reversed.back().size *= axis.size;
    } else {
      reversed.push_back(axis);
    }
  }
  return {reversed.rbegin(), reversed.rend()};
}

// The number of elements of the common shape.
inline int64_t CountOf(const Broadcast& broadcast) {
  int64_t count = 1;
  for (const BroadcastAxis& axis : broadcast) count *= axis.size;
  return count;
}

// Which element of operand 0 or 1 meets element `i` of the common shape.
inline int64_t PlaceInOperand(const Broadcast& broadcast, int operand, int64_t i) {
  int64_t place = 0;
  for (auto axis = broadcast.rbegin(); axis != broadcast.rend(); ++axis) {
    place += i % axis->size * axis->strides[operand];
    i /= axis->size;
  }
  return place;
}

}  // namespace bitfold

#endif  // BITFOLD_BROADCAST_H_
