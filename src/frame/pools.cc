// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "frame/pools.h"

#include <pthread.h>

#include <array>
#include <atomic>

namespace bitfold {
namespace {

// How many forks lie between the process that loaded the library and this one.
std::atomic<int> generation{0};

void EnterChild() { ++generation; }

// A pool and the generation that saw it first. No lock: a fork could come while it is held.
struct Sight {
  std::atomic<const void*> pool{nullptr};
  std::atomic<int> generation{0};
};

// A process has one or two pools; of more than this many the last are not followed.
std::array<Sight, 64> sights;

}  // namespace

bool HasThreads(const void* pool) {
  [[maybe_unused]] static const int handler = pthread_atfork(nullptr, nullptr, EnterChild);
  const int now = generation;
  for (Sight& sight : sights) {
    const void* seen = sight.pool;
    if (seen == nullptr) {
      sight.generation = now;
      if (sight.pool.compare_exchange_strong(seen, pool)) return true;
    }
    if (seen == pool) return sight.generation == now;
  }
  return true;
}

}  // namespace bitfold
