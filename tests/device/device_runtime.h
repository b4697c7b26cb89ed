// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The device as the program sees it: memory, copies, one stream, times. Two implementations: the
// CUDA runtime, and the host, where the kernels run in the emulation of blocks and threads. Each
// ends the program where a call fails.

#ifndef BITFOLD_TESTS_DEVICE_DEVICE_RUNTIME_H_
#define BITFOLD_TESTS_DEVICE_DEVICE_RUNTIME_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace bitfold::device_test {

// Before all others: finds the device and readies its stream and its buffer of printed lines. False
// where there is none; *description then says what is missing, else what was found.
bool OpenDevice(std::string* description);

// Never the default stream, on which a launch that forgot its stream would land.
void* Stream();

// Until all work is done and all lines are on descriptor 1 (behind C's buffer).
void WaitForDevice();

void* Allocate(size_t bytes);
void Free(void* memory);
void CopyToDevice(void* device, const void* host, size_t bytes);
void CopyToHost(void* host, const void* device, size_t bytes);
// Only these two do not wait.
void CopyOnDevice(void* to, const void* from, size_t bytes);
void Fill(void* device, int byte, size_t bytes);

// What the runtime calls the error of a code.
std::string ErrorText(int code);

// What `work` puts on the stream, from its begin to its end there.
double Milliseconds(const std::function<void()>& work);

// Elements in device memory.
template <typename T>
class Buffer {
 public:
  explicit Buffer(const std::vector<T>& values) : Buffer(values.size()) {
    if (!values.empty()) CopyToDevice(data_, values.data(), values.size() * sizeof(T));
  }
  explicit Buffer(size_t count) : count_(count) {
    if (count > 0) data_ = static_cast<T*>(Allocate(count * sizeof(T)));
  }
  ~Buffer() {
    if (data_ != nullptr) Free(data_);
  }
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;

  // Null where it holds nothing.
  T* data() const { return data_; }
  size_t bytes() const { return count_ * sizeof(T); }

  void FillBytes(int byte) {
    if (count_ > 0) Fill(data_, byte, bytes());
  }
  void Set(const T& value) { CopyToDevice(data_, &value, sizeof(T)); }
  std::vector<T> Get() const {
    std::vector<T> values(count_);
    if (count_ > 0) CopyToHost(values.data(), data_, bytes());
    return values;
  }

 private:
  T* data_ = nullptr;
  size_t count_;
};

// The output of a launch, with some room behind it that must stay as it is.
template <typename T>
class GuardedOutput {
 public:
  explicit GuardedOutput(size_t count) : count_(count), buffer_(count + kGuard) {}

  // Poisoned, so that an element left unwritten is seen.
  T* Prepare() {
    buffer_.FillBytes(kPoison);
    return buffer_.data();
  }

  // The elements; *guard_is_intact is whether nothing was written behind them.
  std::vector<T> Take(bool* guard_is_intact) const {
    std::vector<T> values = buffer_.Get();
    const auto* bytes = reinterpret_cast<const unsigned char*>(values.data() + count_);
    *guard_is_intact = true;
    for (size_t i = 0; i < kGuard * sizeof(T); ++i) *guard_is_intact &= bytes[i] == kPoison;
    values.resize(count_);
    return values;
  }

 private:
  static constexpr size_t kGuard = 64;
  static constexpr unsigned char kPoison = 0xa5;

  size_t count_;
  Buffer<T> buffer_;
};

}  // namespace bitfold::device_test

#endif  // BITFOLD_TESTS_DEVICE_DEVICE_RUNTIME_H_
