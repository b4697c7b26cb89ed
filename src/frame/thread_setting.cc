// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "frame/thread_setting.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "bitfold/image_threads.h"

namespace bitfold {
namespace {

bool IsOnInEnvironment() {
  const char* value = std::getenv("BITFOLD_IMAGE_THREADS");
  return value != nullptr && std::strcmp(value, "1") == 0;
}

std::atomic<bool> image_threads{IsOnInEnvironment()};

}  // namespace

bool ImageThreadsAreOn() { return image_threads.load(std::memory_order_relaxed); }

}  // namespace bitfold

int bitfold_set_image_threads(int on) { return bitfold::image_threads.exchange(on != 0) ? 1 : 0; }
