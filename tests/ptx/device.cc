// Copyright 2026 The Bitfold Authors.
// SPDX-License-Identifier: Apache-2.0

#include "device.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include "instructions.h"
#include "support/device_emulation.h"

namespace bitfold::ptx {
namespace {

bool is_reversed = false;
int64_t launches = 0;
Votes votes;

dim3 Dim3(Size3 size) { return {size.x, size.y, size.z}; }

// One conversion of a format, and its argument, which lies at *arguments.
void PrintOne(const std::string& conversion, uint64_t* arguments) {
  const auto take = [arguments](uint64_t size) {
    *arguments = (*arguments + size - 1) / size * size;
    const uint64_t at = *arguments;
    *arguments += size;
    return at;
  };
  switch (conversion.back()) {
    case 'f':
      std::printf(conversion.c_str(), LdGlobal<F64>(take(8)));
      return;
    case 'd':
      std::printf(conversion.c_str(), LdGlobal<S32>(take(4)));
      return;
    default:
      EndWith("a conversion of printf that is not known", *arguments);
  }
}

}  // namespace

void EndWith(const char* what, uint64_t address) {
  std::fprintf(stderr, "translated device code: %s, at %#" PRIx64 "\n", what, address);
  std::abort();
}

uint32_t Vprintf(uint64_t format, uint64_t arguments) {
  const std::string text(static_cast<const char*>(Global(format, 1)));
  uint32_t conversions = 0;
  for (size_t i = 0; i < text.size();) {
    const size_t sign = text.find('%', i);
    std::fwrite(text.data() + i, 1, std::min(sign, text.size()) - i, stdout);
    if (sign == std::string::npos) break;
    const size_t end = text.find_first_not_of("%0123456789.-+ #", sign);
    if (end == std::string::npos) EndWith("a format of printf that is cut off", format);
    PrintOne(text.substr(sign, end + 1 - sign), &arguments);
    ++conversions;
    i = end + 1;
  }
  return conversions;
}

uint64_t Digest(std::string_view text) {
  uint64_t digest = 0xcbf29ce484222325;
  for (const char c : text) digest = (digest ^ static_cast<unsigned char>(c)) * 0x100000001b3;
  return digest;
}

const Module* FindModule(std::string_view text) {
  const uint64_t digest = Digest(text);
  for (int i = 0; i < kModuleCount; ++i) {
    if (kModules[i].bytes == text.size() && kModules[i].digest == digest) return &kModules[i];
  }
  return nullptr;
}

const Kernel* FindKernel(const Module& module, std::string_view symbol) {
  for (int i = 0; i < module.kernel_count; ++i) {
    if (module.kernels[i].symbol == symbol) return &module.kernels[i];
  }
  return nullptr;
}

int Launch(const Module& module, const Kernel& kernel, Size3 grid, Size3 block,
           const void* const* arguments, void* stream) {
  static std::mutex mutex;
  const std::lock_guard<std::mutex> lock(mutex);
  ++launches;
  std::vector<unsigned char> bytes(module.shared_bytes);
  Window shared(bytes.data(), bytes.size());
  testing::EmulationOptions options;
  options.is_reversed = is_reversed;
  if (is_reversed) options.most_blocks = 1;
  options.before_block = [&shared](const testing::EmulatedLaunch&) { shared.Poison(); };
  testing::DeviceEmulation emulation(options);
  emulation.Launch({kernel.symbol, Dim3(grid), Dim3(block), stream},
                   [&] { kernel.run(arguments, shared); });
  votes.held += emulation.votes.held;
  votes.failed += emulation.votes.failed;
  return emulation.last_error();
}

int64_t LaunchCount() { return launches; }

Votes VoteCounts() { return votes; }

void ReverseOrder() { is_reversed = true; }

}  // namespace bitfold::ptx
