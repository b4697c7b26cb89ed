// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0
//
// The translated text: its kernels by their symbols, and how one is launched.

#ifndef BITFOLD_TESTS_PTX_DEVICE_H_
#define BITFOLD_TESTS_PTX_DEVICE_H_

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "memory.h"

namespace bitfold::ptx {

struct Kernel {
  const char* symbol;
  // One thread; `arguments` point to the parameters, in their order.
  void (*run)(const void* const* arguments, const Window& shared);
};

// One of the texts that the library embeds.
struct Module {
  uint64_t bytes;
  uint64_t digest;
  uint64_t shared_bytes;
  const Kernel* kernels;
  int kernel_count;
};

// What the translator wrote.
extern const Module kModules[];
extern const int kModuleCount;

// By which a text is recognised (FNV-1a).
uint64_t Digest(std::string_view text);

// The translated form of this very text; null where there is none.
const Module* FindModule(std::string_view text);
const Kernel* FindKernel(const Module& module, std::string_view symbol);

struct Size3 {
  unsigned x;
  unsigned y;
  unsigned z;
};

// Runs all threads; or none, and returns the error's code, where a device refuses the sizes. Shared
// memory is poisoned before each block. One launch at a time, of whatever thread.
int Launch(const Module& module, const Kernel& kernel, Size3 grid, Size3 block,
           const void* const* arguments, void* stream);

// Launches so far.
int64_t LaunchCount();

// Of the barriers at which blocks asked whether something holds for all threads: how many said that
// it does, and that it does not.
struct Votes {
  int64_t held = 0;
  int64_t failed = 0;
};
Votes VoteCounts();

// From now on blocks and threads run from the last to the first, and grids of one dimension have
// one block, whose threads step to what the others had. No result may depend on it.
void ReverseOrder();

}  // namespace bitfold::ptx

#endif  // BITFOLD_TESTS_PTX_DEVICE_H_
