// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Buffers that make mistakes visible.

#ifndef BITFOLD_TESTS_CPP_SUPPORT_BUFFER_H_
#define BITFOLD_TESTS_CPP_SUPPORT_BUFFER_H_

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

namespace bitfold::testing {

// Element 0 lies `offset` elements behind an allocation's 16-byte boundary, so every offset but a
// multiple of four is misaligned for any vector width; the last element ends the allocation, so the
// address sanitizer sees a read of one too many.
template <typename T>
class ExactBuffer {
 public:
  explicit ExactBuffer(int64_t count, int offset = 0)
      : count_(count), data_(static_cast<T*>(std::malloc(Bytes(count + offset))), &std::free) {
    begin_ = data_.get() + offset;
    std::fill(begin_, begin_ + count, T{});
  }

  explicit ExactBuffer(const std::vector<T>& values, int offset = 0)
      : ExactBuffer(static_cast<int64_t>(values.size()), offset) {
    std::copy(values.begin(), values.end(), begin_);
  }

  T* data() { return begin_; }
  const T* data() const { return begin_; }
  int64_t count() const { return count_; }
  T& operator[](int64_t i) { return begin_[i]; }
  const T& operator[](int64_t i) const { return begin_[i]; }

 private:
  static size_t Bytes(int64_t elements) { return static_cast<size_t>(elements) * sizeof(T); }

  int64_t count_;
  std::unique_ptr<T, decltype(&std::free)> data_;
  T* begin_;
};

}  // namespace bitfold::testing

#endif  // BITFOLD_TESTS_CPP_SUPPORT_BUFFER_H_
