// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// Memory for the length of a call, from whoever owns the call.

#ifndef BITFOLD_SRC_FRAME_SCRATCH_H_
#define BITFOLD_SRC_FRAME_SCRATCH_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <new>
#include <utility>
#include <vector>

namespace bitfold {

class Scratch {
 public:
  virtual ~Scratch() = default;

  // Memory for `bytes` bytes, aligned for any number, until the object ends; null where there is
  // none.
  virtual void* Allocate(size_t bytes) = 0;
};

// Memory of their own for those who work at the same time.
using MakeScratch = std::function<std::unique_ptr<Scratch>()>;

// Memory for `count` numbers; null also where the bytes cannot be counted. Requires count >= 0.
template <typename T>
T* AllocateFor(Scratch* scratch, int64_t count) {
  if (count > INT64_MAX / static_cast<int64_t>(sizeof(T))) return nullptr;
  return static_cast<T*>(scratch->Allocate(static_cast<size_t>(count) * sizeof(T)));
}

// From the heap, as it comes: nothing is written.
class HeapScratch : public Scratch {
 public:
  void* Allocate(size_t bytes) override {
    try {
      // Owned before the list grows, which may fail, too.
      std::unique_ptr<Unit[]> block(new Unit[bytes / sizeof(Unit) + 1]);
      blocks_.push_back(std::move(block));
    } catch (const std::bad_alloc&) {
      return nullptr;
    }
    return blocks_.back().get();
  }

 private:
  struct alignas(64) Unit {
    char bytes[64];
  };
  std::vector<std::unique_ptr<Unit[]>> blocks_;
};

}  // namespace bitfold

#endif  // BITFOLD_SRC_FRAME_SCRATCH_H_
