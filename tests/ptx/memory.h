// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Memory as the translated instructions meet it. Global memory is the host's own. Shared and local
// memory are windows with addresses of their own, which begin at 0: an address of one space means
// nothing in another, and an access beyond a window ends the process, as does one that does not lie
// at a multiple of its size.

#ifndef BITFOLD_TESTS_PTX_MEMORY_H_
#define BITFOLD_TESTS_PTX_MEMORY_H_

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "types.h"

namespace bitfold::ptx {

[[noreturn]] void EndWith(const char* what, uint64_t address);

class Window {
 public:
  Window(unsigned char* data, uint64_t bytes) : data_(data), bytes_(bytes) {}

  // Filled with what is a NaN as a float and a large integer.
  void Poison() {
    const uint32_t word = ptx::Poison<U32>();
    for (uint64_t i = 0; i < bytes_; ++i)
      data_[i] = static_cast<unsigned char>(word >> 8 * (i % 4));
  }

  unsigned char* At(uint64_t address, uint64_t size) const {
    if (address % size != 0) EndWith("an access that is not aligned", address);
    if (address > bytes_ || size > bytes_ - address) EndWith("an access beyond a window", address);
    return data_ + address;
  }
  // The address by which any instruction may name the place.
  uint64_t Generic(uint64_t address) const { return reinterpret_cast<uint64_t>(data_) + address; }

 private:
  unsigned char* data_;
  uint64_t bytes_;
};

// A thread's own memory.
template <uint64_t kBytes>
class LocalMemory : public Window {
 public:
  LocalMemory() : Window(bytes_, kBytes) { Poison(); }

 private:
  alignas(16) unsigned char bytes_[kBytes];
};

template <typename T>
Value<T> Load(const void* from) {
  Value<T> value;
  std::memcpy(&value, from, sizeof(value));
  return value;
}

inline void* Global(uint64_t address, uint64_t size) {
  if (address % size != 0) EndWith("an access that is not aligned", address);
  // NOLINTNEXTLINE(performance-no-int-to-ptr): registers hold numbers.
  return reinterpret_cast<void*>(address);
}

template <typename T>
Value<T> LdGlobal(uint64_t address) {
  return Load<T>(Global(address, sizeof(Value<T>)));
}
template <typename T>
void StGlobal(uint64_t address, Bits<T> bits) {
  std::memcpy(Global(address, sizeof(bits)), &bits, sizeof(bits));
}

template <typename T>
Value<T> LdWindow(const Window& window, uint64_t address) {
  return Load<T>(window.At(address, sizeof(Value<T>)));
}
template <typename T>
void StWindow(const Window& window, uint64_t address, Bits<T> bits) {
  std::memcpy(window.At(address, sizeof(bits)), &bits, sizeof(bits));
}

// Vectors lie at multiples of their whole size.
template <typename T, typename... Registers>
void LdWindowVector(const Window& window, uint64_t address, Registers*... to) {
  const unsigned char* from = window.At(address, sizeof...(to) * sizeof(Bits<T>));
  (..., (std::memcpy(to, from, sizeof(Bits<T>)), from += sizeof(Bits<T>)));
}
template <typename T, typename... Registers>
void StWindowVector(const Window& window, uint64_t address, Registers... bits) {
  unsigned char* to = window.At(address, sizeof...(bits) * sizeof(Bits<T>));
  (..., (std::memcpy(to, &bits, sizeof(Bits<T>)), to += sizeof(Bits<T>)));
}

// A kernel's argument, where the launch left it.
template <typename T>
Value<T> LdParam(const void* argument) {
  return Load<T>(argument);
}

// The device's printf: addresses of the format and of the arguments, each at a multiple of its
// size.
uint32_t Vprintf(uint64_t format, uint64_t arguments);

}  // namespace bitfold::ptx

#endif  // BITFOLD_TESTS_PTX_MEMORY_H_
